#!/usr/bin/env bash
# Cross-build zvxfer.dll for Windows with Debian's mingw-w64 and check each
# DLL (scripts/check-windows-dll.sh: PE format, exactly the exported names
# of src/exports.list, system DLLs only):
#   build-win64/bin/zvxfer.dll  x86_64, PE32+
#   build-win32/bin/zvxfer.dll  i686, PE32
# Installs the cross compilers when they are missing (scripts/deps.sh).
#
# Usage: scripts/build-windows.sh [x86_64|i686 ...] [-- extra cmake arguments]
#   ZVXFER_WIN_TARGETS  targets to build (default: zvxfer)
#   ZVXFER_WIN_JOBS     parallel jobs (default: 2)
set -euo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

arches=()
extra=()
while [ $# -gt 0 ]; do
  case $1 in
  --) shift; extra=("$@"); break ;;
  x86_64 | i686) arches+=("$1"); shift ;;
  *) echo "build-windows.sh: unknown argument: $1" >&2; exit 2 ;;
  esac
done
[ ${#arches[@]} -gt 0 ] || arches=(x86_64 i686)

scripts/deps.sh mingw-w64 binutils-mingw-w64 g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix

read -r -a targets <<<"${ZVXFER_WIN_TARGETS:-zvxfer}"
jobs=${ZVXFER_WIN_JOBS:-2}

for arch in "${arches[@]}"; do
  case $arch in
  x86_64) dir=build-win64 ;;
  i686) dir=build-win32 ;;
  esac
  echo "== $arch in $dir"
  cmake -S . -B "$dir" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/mingw-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DZVXFER_WERROR=ON \
    -DZVXFER_BUILD_CLI=OFF -DZVXFER_BUILD_TESTS=OFF "${extra[@]}" >/dev/null
  cmake --build "$dir" -j "$jobs" --target "${targets[@]}"
  scripts/check-windows-dll.sh "$arch" "$dir/bin/zvxfer.dll"
done
