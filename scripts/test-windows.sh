#!/usr/bin/env bash
# Cross-build the Windows DLLs and run the x86_64 test suite under wine.
#   scripts/test-windows.sh            build-win32/ (the DLL) and build-win64/
#                                      (the DLL and the suite)
#   scripts/test-windows.sh -R REGEX   only the tests matching REGEX
# Installs what it needs (mingw-w64, wine, GoogleTest's source package),
# cross-builds GoogleTest once into build-win64/googletest, runs every test in
# a throw-away wine prefix with the build's registry keys written into it,
# and fails when a test fails or when no test ran at all.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
ctest_args=("$@")

# --- what the build and the run need ---------------------------------------
need=()
command -v x86_64-w64-mingw32-g++-posix >/dev/null || need+=(g++-mingw-w64-x86-64-posix)
command -v i686-w64-mingw32-g++-posix >/dev/null || need+=(g++-mingw-w64-i686-posix)
command -v x86_64-w64-mingw32-windres >/dev/null || need+=(binutils-mingw-w64-x86-64)
command -v i686-w64-mingw32-windres >/dev/null || need+=(binutils-mingw-w64-i686)
[ -x /usr/lib/wine/wine64 ] || need+=(wine64)
command -v wine >/dev/null || need+=(wine)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v python3 >/dev/null || need+=(python3)
if [ ${#need[@]} -gt 0 ]; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${need[@]}"
fi

build=$root/build-win64
toolchain=$root/cmake/toolchains/mingw-x86_64.cmake
[ -f "$toolchain" ] || { echo "missing $toolchain" >&2; exit 1; }

# --- a wine prefix of its own, removed at the end ---------------------------
# wine64 is the 64-bit loader; Debian ships it outside PATH.
wine64=$(command -v wine64 || echo /usr/lib/wine/wine64)
export WINEPREFIX
WINEPREFIX=$(mktemp -d "${TMPDIR:-/tmp}/zvxfer-wine.XXXXXX")
export WINEDEBUG=-all WINEARCH=win64
# No Mono or Gecko installer dialogs while the prefix is made.
export WINEDLLOVERRIDES="mscoree,mshtml="
cleanup() {
  wineserver -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT
# One wineserver for the whole run instead of one per test program (it
# refuses with status 2 when one already serves the prefix: that one does).
wineserver -p || [ $? -eq 2 ]
"$wine64" wineboot --init >/dev/null 2>&1
# Windows without a display: the null graphics driver lets the tests make
# real top-level windows (message-only windows need no driver at all).
"$wine64" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null

# --- GoogleTest for the cross compiler, once ---------------------------------
gtest_root=$build/googletest/install
if [ ! -f "$gtest_root/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$build/googletest/build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$gtest_root" -DBUILD_GMOCK=ON -DINSTALL_GTEST=ON >/dev/null
  cmake --build "$build/googletest/build" -j2
  cmake --install "$build/googletest/build" >/dev/null
fi

# --- both DLLs (checked by scripts/check-windows-dll.sh), then the x86_64
# tree again with the test programs; their test lists are read through wine
# as they are built, hence the prefix first.
scripts/build-windows.sh i686
ZVXFER_WIN_TARGETS=all scripts/build-windows.sh x86_64 -- \
  -DZVXFER_BUILD_TESTS=ON -DGTest_DIR="$gtest_root/lib/cmake/GTest" \
  -DCMAKE_CROSSCOMPILING_EMULATOR="$wine64"
# The component key names build-win64\bin\zvxfer.dll with backslashes.
cmake --build "$build" --target zvxfer_register

# --- the suite ------------------------------------------------------------
log=$build/test-windows.log
set +e
ctest --test-dir "$build" -j2 --output-on-failure --no-tests=error "${ctest_args[@]}" | tee "$log"
status=${PIPESTATUS[0]}
set -e
summary=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" || true)
total=$(sed -nE 's/.* out of ([0-9]+).*/\1/p' <<<"$summary")
if [ -z "$total" ] || [ "$total" -eq 0 ]; then
  echo "test-windows: no test ran" >&2
  exit 1
fi
echo "test-windows: $summary"
exit "$status"
