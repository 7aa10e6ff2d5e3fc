#!/usr/bin/env bash
# The main job on a fresh machine: install what is missing, build, generate
# sample files and send them through `zvxfer loopback`, which runs both ends
# over the simulated line and checks every received file byte for byte.
#
#   scripts/loopback.sh [PROTOCOL] [extra loopback options...]
#   e.g. scripts/loopback.sh ymodem --baud 115200 --latency 20  (default: zmodem)
set -euo pipefail
cd "$(dirname "$0")/.."

protocol=${1:-zmodem}
shift || true

if [ -x scripts/deps.sh ]; then scripts/deps.sh; fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j2 --target zvxfer_cli >/dev/null

samples=$(mktemp -d "${TMPDIR:-/tmp}/zvxfer-samples-XXXXXX")
trap 'rm -rf "$samples"' EXIT
head -c 1048576 /dev/urandom >"$samples/random.bin"
seq 1 20000 | sed 's/^/line /' >"$samples/notes.txt"
printf 'a name with blanks\n' >"$samples/with blanks.txt"

case "$protocol" in
ymodem | ymodem-g | zmodem | ascii) files=("$samples/random.bin" "$samples/notes.txt" "$samples/with blanks.txt") ;;
*) files=("$samples/random.bin") ;;
esac
exec build/bin/zvxfer loopback -p "$protocol" "$@" "${files[@]}"
