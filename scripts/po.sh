#!/usr/bin/env bash
# The zvxfer program's catalogues brought up to date in one step:
#   1. extract every marked text of cli/ into cli/po/zvxfer.pot,
#   2. merge the new template into every cli/po/LANG.po (new texts arrive
#      untranslated, changed ones marked fuzzy with their previous wording),
#   3. check that every catalogue translates every text with the same
#      placeholders (scripts/po_check.py); the exit status says whether it does.
# usage: scripts/po.sh            (from anywhere in the source tree)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
pot=cli/po/zvxfer.pot
fresh=$(mktemp)
trap 'rm -f "$fresh"' EXIT
sh scripts/po_extract.sh "$fresh"
# A template that differs only in its creation date is left as it is.
if ! [ -f "$pot" ] ||
    ! diff -q <(grep -v '^"POT-Creation-Date:' "$pot") <(grep -v '^"POT-Creation-Date:' "$fresh") \
        >/dev/null; then
    cp "$fresh" "$pot"
fi
for po in cli/po/*.po; do
    msgmerge --quiet --update --backup=none --previous --add-location=file "$po" "$pot"
done
python3 scripts/po_check.py cli/po
