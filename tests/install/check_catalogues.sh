#!/bin/sh
# Installs the build into a temporary prefix, builds a small program against
# the installed header and static library into <prefix>/bin, and checks that
# it shows German texts in a German session and English ones in an English
# session, with nothing configured but what the installation registered.
# Arguments: build folder, C++ compiler, extra compiler flags (sanitizers).
set -eu
build=$1 cxx=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
grep -q "$prefix/share/zvxfer/zvui32.nls" "$prefix/etc/zvxfer/registry" ||
    { echo "the installed registry does not name $prefix/share/zvxfer/zvui32.nls"; exit 1; }
lib=$(find "$prefix" -name libzvxfer.a | grep -m 1 .) || { echo "libzvxfer.a was not installed"; exit 1; }
mkdir -p "$prefix/bin" "$work/config"
cat >"$work/probe.cpp" <<'CPP'
#include <cstdio>
#include "zvxfer.h"
namespace zvxfer { const char *MessageText(int); }
int main() { std::printf("%s\n", zvxfer::MessageText(28285)); }
CPP
# shellcheck disable=SC2086,SC2048
"$cxx" -std=c++20 $* -I"$prefix/include" "$work/probe.cpp" "$lib" -pthread -ldl -o "$prefix/bin/probe"

text_of() { awk -F '\t' '$1 == 28285 { print $2; exit }' "$prefix/share/zvxfer/zvui32.$1.nls"; }
german=$(text_of deu) english=$(text_of eng)
[ -n "$german" ] && [ "$german" != "$english" ] || { echo "no distinct German and English texts"; exit 1; }
failed=0
for case in "de_DE:$german" "en_US:$english"; do
    got=$(env -u ZVXFER_REGISTRY_DIR -u LC_ALL -u LC_MESSAGES XDG_CONFIG_HOME="$work/config" \
        LANG="${case%%:*}.UTF-8" "$prefix/bin/probe")
    [ "$got" = "${case#*:}" ] || { echo "${case%%:*}: got '$got', want '${case#*:}'"; failed=1; }
done
[ $failed -eq 0 ] && echo "installed library finds its German and English catalogues"
exit $failed
