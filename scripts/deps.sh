#!/usr/bin/env bash
# Install the build and test dependencies that are missing (Debian/Ubuntu),
# and the packages named as arguments (scripts/deb.sh names its tools).
# Idempotent and quiet when everything is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build
  googletest libgtest-dev libgmock-dev libbenchmark-dev clang-format
  lrzsz ckermit gkermit python3 tmux
  libfmt-dev libcli11-dev gettext
  groff-base man-db
  gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "deps.sh: installing ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "deps.sh: missing ${missing[*]} and not root (no sudo); install them first" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq </dev/null
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null >/dev/null
