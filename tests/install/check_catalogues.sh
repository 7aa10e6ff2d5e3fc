#!/bin/sh
# Installs the build into a temporary prefix, builds a small program against
# the installed header and static library into <prefix>/bin, and checks that
# it shows German texts in a German session and English ones in an English
# session, with nothing configured but what the installation registered.
# Arguments: build folder, C++ compiler, extra compiler flags (sanitizers).
set -eu
build=$1
cxx=$2
shift 2
flags=$*

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
grep -q "$prefix/share/zvxfer/zvui32.nls" "$prefix/etc/zvxfer/registry" || {
    echo "installed registry does not name $prefix/share/zvxfer/zvui32.nls"
    cat "$prefix/etc/zvxfer/registry"
    exit 1
}
lib=$(find "$prefix" -name libzvxfer.a | head -n 1)
[ -n "$lib" ] || { echo "libzvxfer.a was not installed"; exit 1; }

cat >"$work/probe.cpp" <<'CPP'
#include <cstdio>
#include <cstdlib>

#include "zvxfer.h"

namespace zvxfer { const char *MessageText(int); }

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) std::printf("%s\n", zvxfer::MessageText(std::atoi(argv[i])));
    return 0;
}
CPP
mkdir -p "$prefix/bin"
# shellcheck disable=SC2086
"$cxx" -std=c++20 $flags -I"$prefix/include" "$work/probe.cpp" "$lib" -pthread -ldl \
    -o "$prefix/bin/probe"

mkdir -p "$work/config"
text_of() { awk -F '\t' -v n="$2" '$1 == n { print $2; exit }' "$prefix/share/zvxfer/$1"; }
run_probe() {
    env -u ZVXFER_REGISTRY_DIR -u LC_ALL -u LC_MESSAGES XDG_CONFIG_HOME="$work/config" \
        LANG="$1" "$prefix/bin/probe" "$2"
}

failed=0
for number in 28258 28285; do
    german=$(text_of zvui32.deu.nls $number)
    english=$(text_of zvui32.eng.nls $number)
    if [ -z "$german" ] || [ "$german" = "$english" ]; then
        echo "catalogues lack distinct German and English texts for $number"
        failed=1
        continue
    fi
    got=$(run_probe de_DE.UTF-8 $number)
    [ "$got" = "$german" ] || { echo "German session, $number: got '$got', want '$german'"; failed=1; }
    got=$(run_probe en_US.UTF-8 $number)
    [ "$got" = "$english" ] || { echo "English session, $number: got '$got', want '$english'"; failed=1; }
done
[ $failed -eq 0 ] && echo "installed library finds its German and English catalogues"
exit $failed
