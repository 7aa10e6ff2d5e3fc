#!/usr/bin/env bash
# Format every C and C++ file the repository tracks with the project's
# .clang-format, or with --check list the files that differ and fail.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=(-i)
case "${1:-}" in
  "") ;;
  --check) mode=(--dry-run --Werror) ;;
  *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --style=file "${mode[@]}"
