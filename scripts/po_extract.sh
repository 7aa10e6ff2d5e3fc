#!/bin/sh
# Extract the zvxfer program's marked texts (_, F_, P_, N_ of cli/i18n.h)
# from cli/*.cpp and cli/*.h into the template named by $1.
# usage: scripts/po_extract.sh OUT.pot     (run from the source tree's root)
set -eu
out=$1
ls cli/*.cpp cli/*.h | LC_ALL=C sort > "$out.files"
xgettext --files-from="$out.files" --output="$out" --from-code=UTF-8 --language=C++ \
    -k_ -kN_ -kF_ -kP_:1,2 --add-comments=TRANSLATORS: --add-location=file \
    --package-name=zvxfer --foreign-user --no-wrap
rm -f "$out.files"
