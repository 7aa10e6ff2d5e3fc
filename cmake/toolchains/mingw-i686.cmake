# Cross build for Windows (i686) with Debian's mingw-w64.
set(_zvxfer_arch i686)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
