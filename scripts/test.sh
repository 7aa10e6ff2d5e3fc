#!/usr/bin/env bash
# Build and run every test.
#   scripts/test.sh             Release build in build/, warnings as errors
#   scripts/test.sh --sanitize  Debug build with AddressSanitizer and UBSan in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
flags=(-DCMAKE_BUILD_TYPE=Release)
case "${1:-}" in
  "") ;;
  --sanitize)
    build=build-asan
    flags=(-DCMAKE_BUILD_TYPE=Debug -DZVXFER_SANITIZE=ON)
    ;;
  *) echo "usage: $0 [--sanitize]" >&2; exit 2 ;;
esac

scripts/deps.sh

generator=()
if command -v ninja >/dev/null 2>&1 && [ ! -f "$build/CMakeCache.txt" ]; then
  generator=(-G Ninja)
fi
cmake -S . -B "$build" "${generator[@]}" -DZVXFER_WERROR=ON "${flags[@]}" >/dev/null
cmake --build "$build" -j2
ctest --test-dir "$build" --output-on-failure -j2
