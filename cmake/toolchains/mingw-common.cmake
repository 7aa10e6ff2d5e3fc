# Cross build for Windows with Debian's mingw-w64 (posix thread
# model, so that std::thread and std::mutex exist).  The GCC runtime, the
# C++ runtime and winpthread are linked statically: the DLL and the test
# programs then need only the system's own DLLs.
set(CMAKE_SYSTEM_NAME Windows)
# The including toolchain file sets _zvxfer_arch (x86_64 or i686).
set(CMAKE_SYSTEM_PROCESSOR ${_zvxfer_arch})

set(_zvxfer_triple ${_zvxfer_arch}-w64-mingw32)
set(CMAKE_C_COMPILER ${_zvxfer_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_zvxfer_triple}-g++-posix)
set(CMAKE_RC_COMPILER ${_zvxfer_triple}-windres)
set(CMAKE_AR ${_zvxfer_triple}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${_zvxfer_triple}-ranlib CACHE FILEPATH "")

set(CMAKE_FIND_ROOT_PATH /usr/${_zvxfer_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -static takes every library from its archive: libgcc, libstdc++ and
# winpthread are linked in, while the system's import libraries (kernel32,
# user32, advapi32, msvcrt) still name the system DLLs.
set(_zvxfer_static_runtime "-static -static-libgcc -static-libstdc++")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_zvxfer_static_runtime}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_zvxfer_static_runtime}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_zvxfer_static_runtime}")

# Tests of the 64-bit build run the cross-built programs through wine when
# it is there (Debian keeps the 64-bit loader out of PATH).
find_program(ZVXFER_WINE NAMES wine64 wine PATHS /usr/lib/wine)
if(ZVXFER_WINE AND _zvxfer_arch STREQUAL "x86_64")
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZVXFER_WINE})
endif()
