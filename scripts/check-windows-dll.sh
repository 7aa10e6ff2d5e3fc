#!/bin/sh
# Check a cross-built zvxfer.dll:
#   - its PE format matches the architecture: PE32 for i686, PE32+ for x86_64;
#   - its export table holds exactly the names of src/exports.list;
#   - it imports from system DLLs only (no libstdc++, libgcc or winpthread
#     DLL beside it is needed).
# Usage: scripts/check-windows-dll.sh i686|x86_64 path/to/zvxfer.dll
set -eu

arch=$1
dll=$2
top=$(cd "$(dirname "$0")/.." && pwd)
list=$top/src/exports.list
# The x86_64 objdump reads both PE formats, so that a DLL of the other
# architecture is reported as such instead of not being read.
objdump=x86_64-w64-mingw32-objdump

case $arch in
i686) want_magic=010b want_name=PE32 ;;
x86_64) want_magic=020b want_name=PE32+ ;;
*) echo "unknown architecture: $arch" >&2; exit 2 ;;
esac

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
if ! "$objdump" -p "$dll" >"$tmp/p"; then
    echo "$dll: not readable as a PE file" >&2
    exit 1
fi
fail=0

magic=$(awk '$1 == "Magic" { print $2; exit }' "$tmp/p")
if [ "$magic" = "$want_magic" ]; then
    echo "format: $want_name ($magic)"
else
    echo "format: Magic $magic, wanted $want_magic ($want_name)" >&2
    fail=1
fi

# The name table follows the line "[Ordinal/Name Pointer] Table" and ends
# at the first line that is no "[ n] name" entry.
awk '/\[Ordinal\/Name Pointer\] Table/ { on = 1; next }
     on && /^[ \t]*\[ *[0-9]+\] [A-Za-z_]/ { print $NF; next }
     on { on = 0 }' "$tmp/p" | sort >"$tmp/exported"
grep -v '^[[:space:]]*\(#\|$\)' "$list" | tr -d ' \t\r' | sort >"$tmp/listed"
if cmp -s "$tmp/exported" "$tmp/listed"; then
    echo "exports: the $(wc -l <"$tmp/listed") names of src/exports.list, nothing else"
else
    echo "exports differ from src/exports.list (< exported, > listed):" >&2
    diff "$tmp/exported" "$tmp/listed" >&2 || true
    fail=1
fi

# System DLLs: the Win32 ones and the C runtime (msvcrt, or the universal
# C runtime's ucrtbase and api-ms-win-* forwarders).
awk '/DLL Name:/ { print $3 }' "$tmp/p" | sort -u >"$tmp/imports"
if [ ! -s "$tmp/imports" ]; then
    echo "imports: none found" >&2
    fail=1
fi
while read -r name; do
    lower=$(printf '%s' "$name" | tr 'A-Z' 'a-z')
    case $lower in
    kernel32.dll | user32.dll | advapi32.dll | msvcrt.dll | ucrtbase.dll | api-ms-win-*.dll)
        echo "imports: $name" ;;
    *)
        echo "imports: $name is not a system DLL" >&2
        fail=1 ;;
    esac
done <"$tmp/imports"

if [ $fail -ne 0 ]; then
    echo "$dll: FAILED" >&2
    exit 1
fi
echo "$dll: ok"
