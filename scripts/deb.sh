#!/usr/bin/env bash
# Build the Debian packages libzvxfer0, libzvxfer-dev and zvxfer.
#   scripts/deb.sh [OUTDIR]     (default out/deb)
# Installs the tools it needs, builds in a copy of the tree (so nothing of
# the package build lands in the source), and leaves the .deb files with
# their .changes and .buildinfo in OUTDIR; with ZVXFER_LINTIAN=1 it also
# runs lintian on them.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=${1:-out/deb}
case $out in /*) ;; *) out=$root/$out ;; esac

scripts/deps.sh dpkg-dev debhelper ${ZVXFER_LINTIAN:+lintian}

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
work=$(mktemp -d "${TMPDIR:-/tmp}/zvxfer-deb-XXXXXX")
trap 'rm -rf "$work"' EXIT
tree=$work/zvxfer-$version
mkdir -p "$tree"
# The tree as it is checked out, with files not yet committed, but nothing
# that git ignores (build folders, out/).
git ls-files -z --cached --others --exclude-standard |
    (while IFS= read -r -d '' f; do [ -e "$f" ] && printf '%s\0' "$f"; done) |
    tar -c --null -T - -f - | tar -x -C "$tree" -f -

echo "deb.sh: building zvxfer $version in $tree" >&2
(cd "$tree" && DEB_BUILD_OPTIONS="parallel=2 nocheck noautodbgsym ${DEB_BUILD_OPTIONS:-}" \
    dpkg-buildpackage -us -uc -b) >"$work/build.log" 2>&1 || {
    tail -n 60 "$work/build.log"
    echo "deb.sh: dpkg-buildpackage failed" >&2
    exit 1
}
mkdir -p "$out"
rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
cp "$work/build.log" "$out/build.log"
if [ -n "${ZVXFER_LINTIAN:-}" ]; then
    lintian --info "$out"/*.changes | tee "$out/lintian.log" || true
fi
ls -1 "$out"/*.deb
