#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it as a newcomer would:
#  - the installed program runs from <prefix>/bin with no LD_LIBRARY_PATH and
#    loads the library of its own prefix (run path $ORIGIN/../<libdir>);
#  - the versioned library names are there;
#  - a C project (consumer/) finds the package with find_package(zvxfer) and
#    links zvxfer::zvxfer and zvxfer::zvxfer_static, with C flags only;
#  - the same C file builds with pkg-config, shared and --static;
#  - every program built prints the library's German text in a German
#    session and its English text in an English one, and sends a file to
#    itself with ZMODEM between two threads.  The static ones run
#    from a folder outside the prefix: they find the catalogues through the
#    registry of the configured prefix, so they run where that prefix holds
#    this build's installation (a private mount namespace shows it there).
# Arguments: build folder, C compiler, extra compile and link flags (sanitizers).
set -euo pipefail
build=$(cd "$1" && pwd) cc=$2
shift 2
extra=()
for flag in "$@"; do [ -z "$flag" ] || extra+=("$flag"); done
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
failed=0
fail() { echo "FAIL: $*"; failed=1; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; echo "FAIL: cmake --install"; exit 1; }
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
case $libdir in /*) ;; *) libdir=$prefix/$libdir ;; esac

# --- what landed -----------------------------------------------------------
for f in bin/zvxfer include/zvxfer.h etc/zvxfer/registry share/zvxfer/zvui32.nls; do
    [ -f "$prefix/$f" ] || fail "$f was not installed"
done
for f in libzvxfer.a pkgconfig/zvxfer.pc cmake/zvxfer/zvxferConfig.cmake \
         cmake/zvxfer/zvxferConfigVersion.cmake cmake/zvxfer/zvxferTargets.cmake; do
    [ -f "$libdir/$f" ] || fail "${libdir#"$prefix"/}/$f was not installed"
done
[ "$(readlink "$libdir/libzvxfer.so" || true)" = libzvxfer.so.0 ] &&
    [ "$(readlink "$libdir/libzvxfer.so.0" || true)" = libzvxfer.so.0.1.0 ] &&
    [ -f "$libdir/libzvxfer.so.0.1.0" ] ||
    fail "libzvxfer.so -> .so.0 -> .so.0.1.0 is not what was installed"
soname=$(readelf -d "$libdir/libzvxfer.so.0.1.0" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libzvxfer.so.0 ] || fail "the library's soname is '$soname'"
# Nothing installed may point back into the source or build tree.
src=$(sed -n 's/^CMAKE_HOME_DIRECTORY:[A-Z]*=//p' "$build/CMakeCache.txt")
if leaks=$(grep -rlF -e "$src" -e "$build" "$libdir/pkgconfig" "$libdir/cmake" "$prefix/etc" 2>/dev/null); then
    fail "installed files name the source or build tree: $leaks"
fi
grep -q "$prefix/share/zvxfer/zvui32.nls" "$prefix/etc/zvxfer/registry" ||
    fail "the installed registry does not name $prefix/share/zvxfer/zvui32.nls"

# --- the program ----------------------------------------------------------
runpath=$(readelf -d "$prefix/bin/zvxfer" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p')
case $runpath in
    *'$ORIGIN/../'*) ;;
    *) fail "the installed program's run path is '$runpath', not relative to its folder" ;;
esac
if out=$(env -u LD_LIBRARY_PATH "$prefix/bin/zvxfer" --version 2>&1); then
    grep -q "0.1.0" <<<"$out" || fail "zvxfer --version printed no version: $out"
    loaded=$(env -u LD_LIBRARY_PATH ldd "$prefix/bin/zvxfer" | sed -n 's/.*libzvxfer.so.0 => \([^ ]*\).*/\1/p')
    case $loaded in
        "$prefix"/*) ;;
        *) fail "the installed program loads libzvxfer.so.0 from '$loaded', not from its prefix" ;;
    esac
else
    fail "the installed program does not run from $prefix/bin: $out"
fi

# --- C consumers -----------------------------------------------------------
mkdir -p "$work/bin"
flags="${extra[*]:-}"
if cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_C_COMPILER="$cc" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$flags" \
        -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$work/consumer.log" 2>&1 &&
   cmake --build "$work/consumer" >>"$work/consumer.log" 2>&1; then
    cp "$work/consumer/consumer_shared" "$work/bin/cmake-shared"
    cp "$work/consumer/consumer_static" "$work/bin/cmake-static"
else
    fail "the CMake consumer does not build:"; cat "$work/consumer.log"
fi

export PKG_CONFIG_PATH=$libdir/pkgconfig
if pc_flags=$(pkg-config --cflags --libs zvxfer) && pc_static=$(pkg-config --static --libs zvxfer); then
    # shellcheck disable=SC2086
    "$cc" "${extra[@]}" -pthread "$here/consumer/consumer.c" $pc_flags -o "$work/bin/pc-shared" ||
        fail "pkg-config --cflags --libs does not build the consumer"
    # The static archive, its private dependencies and the C++ runtime
    # linked statically; the C library stays shared.
    # shellcheck disable=SC2086,SC2046
    "$cc" "${extra[@]}" -pthread "$here/consumer/consumer.c" $(pkg-config --cflags zvxfer) \
        -Wl,-Bstatic $pc_static -Wl,-Bdynamic -o "$work/bin/pc-static" ||
        fail "pkg-config --static does not build the consumer"
else
    fail "pkg-config finds no zvxfer in $PKG_CONFIG_PATH"
fi
for static in cmake-static pc-static; do
    [ ! -f "$work/bin/$static" ] || ! readelf -d "$work/bin/$static" | grep -q 'libzvxfer\.so' ||
        fail "$static loads the shared library"
done

# --- their words in German and English -------------------------------------
text_of() { awk -F '\t' '$1 == 28259 { print $2; exit }' "$prefix/share/zvxfer/zvui32.$1.nls"; }
german=$(text_of deu) english=$(text_of eng)
[ -n "$german" ] && [ "$german" != "$english" ] || fail "no distinct German and English texts"
mkdir -p "$work/config"
export german english
# Runs each program named in a German and an English session, from the
# folder given, with no registry but the installed ones; prints failures.
cat >"$work/run.sh" <<'SH'
cd "$1"; shift
for program in "$@"; do
    for case in "de_DE:$german" "en_US:$english"; do
        got=$(env -u ZVXFER_REGISTRY_DIR -u LC_ALL -u LC_MESSAGES -u LANGUAGE \
            LANG="${case%%:*}.UTF-8" "$program" 2>&1) || got="(exit $?) $got"
        [ "$got" = "${case#*:}" ] || echo "FAIL: $program in ${case%%:*}: got '$got', want '${case#*:}'"
    done
done
SH
export XDG_CONFIG_HOME=$work/config
shared=() static=()
for p in cmake-shared pc-shared; do [ -f "$work/bin/$p" ] && shared+=("$work/bin/$p"); done
for p in cmake-static pc-static; do [ -f "$work/bin/$p" ] && static+=("$work/bin/$p"); done
out=$(LD_LIBRARY_PATH=$libdir sh "$work/run.sh" "$work" "${shared[@]}")
[ -z "$out" ] || { echo "$out"; failed=1; }

# The static programs, run from $work (outside every prefix), against this
# build installed where it was configured to go.  The installation is staged
# and laid over the real folders in a private mount namespace only.
stage=$work/stage
DESTDIR=$stage cmake --install "$build" >"$work/stage.log" 2>&1 ||
    { cat "$work/stage.log"; echo "FAIL: cmake --install with DESTDIR"; exit 1; }
mounts=()
for f in $(cd "$stage" && find . -name registry -path '*/zvxfer/*' -o -name zvui32.nls); do
    dir=$(dirname "${f#.}")
    while [ ! -d "$dir" ]; do dir=$(dirname "$dir"); done
    mounts+=("$dir")
done
overlay=""
for dir in $(printf '%s\n' "${mounts[@]}" | sort -u); do
    overlay="$overlay mount -t overlay zvxfer -o lowerdir=$stage$dir:$dir $dir || exit 9;"
done
if [ "$(id -u)" -eq 0 ]; then ns=(unshare --mount --propagation private); else ns=(unshare --user --map-root-user --mount); fi
out=$("${ns[@]}" sh -c "$overlay sh $work/run.sh $work ${static[*]}") ||
    fail "could not lay the staged installation over its prefix in a mount namespace (${ns[*]})"
[ -z "$out" ] || { echo "$out"; failed=1; }

[ ${#shared[@]} -eq 2 ] && [ ${#static[@]} -eq 2 ] || failed=1
[ $failed -eq 0 ] && echo "installed: program runs from its prefix; C consumers build with CMake and pkg-config, shared and static, show the library's German and English texts and send a file to themselves with ZMODEM"
exit $failed
