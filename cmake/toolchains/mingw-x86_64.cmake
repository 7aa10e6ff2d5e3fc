# Cross build for Windows (x86_64) with Debian's mingw-w64.
set(_zvxfer_arch x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
