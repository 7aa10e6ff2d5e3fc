#!/usr/bin/env bash
# Build the Debian packages, install them, and take the newcomer's path
# through them: the program from /usr/bin, pkg-config, a C program built
# with it (shared and static), find_package(zvxfer) from a scratch CMake
# project, a file sent to rz and one received from sz through the example
# C host (built with pkg-config) and through the installed program, and the
# manual pages.  The packages (and whatever they pulled in)
# are purged again at the end, so the machine is as it was (packages of
# these names that an earlier run left behind go too).
#   scripts/deb-check.sh [OUTDIR]     (default out/deb)
# Needs root (or sudo): it installs packages.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=${1:-out/deb}

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    sudo=(sudo -n)
else
    echo "deb-check.sh: installing packages needs root or sudo; run it as root" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive

# What a newcomer's machine has for building C programs and talking to a
# far end; installed before the packages so that purging takes only what
# the packages themselves brought.
scripts/deps.sh pkg-config man-db lrzsz build-essential cmake
scripts/deb.sh "$out"
case $out in /*) ;; *) out=$root/$out ;; esac

work=$(mktemp -d "${TMPDIR:-/tmp}/zvxfer-deb-check-XXXXXX")
before=$work/packages.before
dpkg-query -W -f='${Package}\n' | sort >"$before"
purge() {
    local added
    # What the install added, and ours even if an earlier run left them.
    added=$( (dpkg-query -W -f='${Package}\n' | sort | comm -13 "$before" -
              dpkg-query -W -f='${Package} ${Status}\n' libzvxfer0 libzvxfer-dev zvxfer 2>/dev/null |
                  awk '$NF == "installed" { print $1 }') | sort -u) || true
    if [ -n "$added" ]; then
        # shellcheck disable=SC2086
        "${sudo[@]}" apt-get purge -y -qq $added </dev/null >"$work/purge.log" 2>&1 ||
            { cat "$work/purge.log"; echo "deb-check.sh: purging $added failed" >&2; }
    fi
    rm -rf "$work"
}
trap purge EXIT

"${sudo[@]}" apt-get install -y -qq "$out"/*.deb </dev/null >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; echo "deb-check.sh: the packages do not install" >&2; exit 1; }

results=()
failed=0
check() { # description, command...
    local what=$1
    shift
    if "$@" >"$work/step.log" 2>&1; then
        results+=("ok    $what")
    else
        results+=("FAIL  $what")
        failed=1
        sed 's/^/      /' "$work/step.log" | tail -n 20 >&2
    fi
}

program() {
    [ "$(command -v zvxfer)" = /usr/bin/zvxfer ] || { echo "zvxfer is $(command -v zvxfer)"; return 1; }
    env -u LD_LIBRARY_PATH zvxfer --version
}
check "zvxfer --version from /usr/bin" program
check "pkg-config --cflags --libs zvxfer" pkg-config --cflags --libs zvxfer

# A C program with pkg-config, shared and static, run in a German session
# from a folder of its own: the library finds its catalogues by itself.
consumer=$root/tests/install/consumer
german=$(awk -F '\t' '$1 == 28259 { print $2; exit }' /usr/share/zvxfer/zvui32.deu.nls)
says_german() {
    local got
    got=$(cd "$work" && env -u LC_ALL -u LC_MESSAGES -u LANGUAGE -u ZVXFER_REGISTRY_DIR \
        XDG_CONFIG_HOME="$work" LANG=de_DE.UTF-8 "$1") || return 1
    [ -n "$german" ] && [ "$got" = "$german" ] || { echo "$1 printed '$got', not '$german'"; return 1; }
}
pc_shared() {
    # shellcheck disable=SC2046
    cc -pthread "$consumer/consumer.c" $(pkg-config --cflags --libs zvxfer) -o "$work/pc-shared" &&
        says_german "$work/pc-shared"
}
pc_static() {
    # shellcheck disable=SC2046
    cc -pthread "$consumer/consumer.c" $(pkg-config --cflags zvxfer) \
        -Wl,-Bstatic $(pkg-config --static --libs zvxfer) -Wl,-Bdynamic -o "$work/pc-static" &&
        ! readelf -d "$work/pc-static" | grep -q libzvxfer &&
        says_german "$work/pc-static"
}
check "a C program built with pkg-config runs" pc_shared
check "a C program built with pkg-config --static runs" pc_static

scratch() {
    cmake -S "$consumer" -B "$work/scratch" >/dev/null &&
        cmake --build "$work/scratch" >/dev/null &&
        says_german "$work/scratch/consumer_shared" &&
        says_german "$work/scratch/consumer_static"
}
check "find_package(zvxfer) from a scratch CMake project (shared and static)" scratch

# The example C host, built with pkg-config as a newcomer would.
example() {
    # shellcheck disable=SC2046
    cc -std=c11 -Wall -Wextra -Werror -pthread "$root/examples/send_receive.c" \
        $(pkg-config --cflags --libs zvxfer) -o "$work/send_receive"
}
check "the example send_receive.c builds with pkg-config" example

# A sender or receiver and lrzsz joined by two named pipes.  Each side
# opens its pipes in the order that lets the other's opens go through.
exchange() { # direction (send|receive), our command...
    local direction=$1 dir
    shift
    dir=$(mktemp -d "$work/exchange-XXXXXX")
    mkdir -p "$dir/here" "$dir/there"
    mkfifo "$dir/to-peer" "$dir/to-us"
    head -c 300000 /dev/urandom >"$dir/payload.bin"
    if [ "$direction" = send ]; then
        cp "$dir/payload.bin" "$dir/here/"
        (cd "$dir/there" && exec timeout 60 rz -q >"$dir/to-us" <"$dir/to-peer") &
        (cd "$dir/here" && timeout 60 "$@" payload.bin <"$dir/to-us" >"$dir/to-peer") ||
            { wait; return 1; }
        wait $! || return 1
        cmp "$dir/payload.bin" "$dir/there/payload.bin"
    else
        cp "$dir/payload.bin" "$dir/there/"
        (cd "$dir/there" && exec timeout 60 sz -q payload.bin >"$dir/to-us" <"$dir/to-peer") &
        (cd "$dir/here" && timeout 60 "$@" <"$dir/to-us" >"$dir/to-peer") || { wait; return 1; }
        wait $! || return 1
        cmp "$dir/payload.bin" "$dir/here/payload.bin"
    fi
}
check "the example sends a file to rz (ZMODEM)" exchange send "$work/send_receive" send zmodem
check "the example receives a file from sz (ZMODEM)" \
    exchange receive "$work/send_receive" receive zmodem ./
check "zvxfer sends a file to rz (ZMODEM)" exchange send zvxfer send -p zmodem -q
check "zvxfer receives a file from sz (ZMODEM)" exchange receive zvxfer receive -p zmodem -q

# The manual pages.
manual() { MANWIDTH=80 man -P cat "$1" zvxfer | grep -q zvxfer; }
check "man zvxfer renders" manual 1
check "man 3 zvxfer renders" manual 3

echo "deb-check.sh: $(cd "$out" && ls -1 ./*.deb | tr '\n' ' ')"
printf '  %s\n' "${results[@]}"
if [ $failed -eq 0 ]; then
    echo "deb-check.sh: every check of the installed packages held (${#results[@]})"
else
    echo "deb-check.sh: $(printf '%s\n' "${results[@]}" | grep -c '^FAIL') of ${#results[@]} checks of the installed packages failed"
fi
exit $failed
