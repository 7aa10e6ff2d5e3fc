#!/usr/bin/env python3
# Check the zvxfer program's catalogues against their template:
#   - every text of zvxfer.pot is in every LANG.po, translated (every plural
#     form), and not marked fuzzy;
#   - every translation keeps the fmt placeholders of its original ("{}",
#     "{:.1f}", ...: the same fields in the same order, "{{" and "}}" being
#     literal braces), so that fmt::format cannot throw on a translated text;
#   - msgfmt --check accepts the catalogue (syntax, header, C formats);
#   - with --sources, the template holds exactly the texts cli/ marks today
#     (a text added or changed without running scripts/po.sh is reported).
# Prints every fault found; the exit status is 1 when there is any.
#
# usage: po_check.py [--sources SOURCE_ROOT] PO_FOLDER
import os
import re
import subprocess
import sys
import tempfile


def unquote(text):
    # The C escapes a PO string may hold.
    out, i = [], 0
    escapes = {"n": "\n", "t": "\t", "r": "\r", '"': '"', "\\": "\\", "a": "\a", "b": "\b",
               "f": "\f", "v": "\v"}
    while i < len(text):
        c = text[i]
        if c == "\\" and i + 1 < len(text):
            out.append(escapes.get(text[i + 1], text[i + 1]))
            i += 2
        else:
            out.append(c)
            i += 1
    return "".join(out)


def parse_po(path):
    # {(msgctxt, msgid): entry}; an entry is a dict with "msgid", "plural",
    # "msgstr" (list, by plural index) and "fuzzy".  Obsolete (#~) entries
    # are left out.  The header (empty msgid) is included.
    entries, entry, field = {}, None, None

    def finish():
        if entry is not None and "msgid" in entry:
            entries[(entry.get("msgctxt"), entry["msgid"])] = entry

    with open(path, encoding="utf-8") as f:
        for raw in f:
            line = raw.strip()
            if not line or line.startswith("#~"):
                continue
            if line.startswith("#"):
                if entry is not None and "msgid" in entry and field is not None:
                    finish()
                    entry, field = None, None
                if entry is None:
                    entry = {"msgstr": {}, "fuzzy": False}
                if line.startswith("#,") and "fuzzy" in line[2:].replace(",", " ").split():
                    entry["fuzzy"] = True
                continue
            m = re.match(r'^(msgctxt|msgid_plural|msgid|msgstr(?:\[(\d+)\])?)\s+"(.*)"$', line)
            if m:
                keyword = m.group(1)
                if keyword in ("msgctxt", "msgid") and entry is not None and field is not None \
                        and field[0] == "msgstr":
                    finish()
                    entry = None
                if entry is None:
                    entry = {"msgstr": {}, "fuzzy": False}
                value = unquote(m.group(3))
                if keyword.startswith("msgstr"):
                    index = int(m.group(2)) if m.group(2) is not None else 0
                    entry["msgstr"][index] = value
                    field = ("msgstr", index)
                else:
                    key = {"msgid_plural": "plural"}.get(keyword, keyword)
                    entry[key] = value
                    field = (key, None)
                continue
            m = re.match(r'^"(.*)"$', line)
            if m and field is not None:
                value = unquote(m.group(1))
                if field[0] == "msgstr":
                    entry["msgstr"][field[1]] += value
                else:
                    entry[field[0]] += value
                continue
            raise ValueError("%s: cannot read the line %r" % (path, line))
    finish()
    return entries


def fields(text):
    # The replacement fields of a fmt format string, in order, or None when
    # the braces do not pair up (fmt would refuse the text).
    found, i = [], 0
    while i < len(text):
        c = text[i]
        if c == "{":
            if text.startswith("{{", i):
                i += 2
                continue
            end = text.find("}", i)
            if end < 0 or "{" in text[i + 1:end]:
                return None
            found.append(text[i:end + 1])
            i = end + 1
        elif c == "}":
            if not text.startswith("}}", i):
                return None
            i += 2
        else:
            i += 1
    return found


def kind(field):
    # What a field formats: its argument number, precision and presentation
    # type.  Fill, alignment and width may change with the language.
    m = re.match(r"^\{(\d*)(?::(?:.?[<>^])?[+ -]?#?0?\d*(\.\d+)?([a-zA-Z?]?))?\}$", field)
    return (m.group(1), m.group(2), m.group(3)) if m else field


def same_fields(original, translated):
    a, b = fields(original), fields(translated)
    if a is None or b is None:
        return False
    a, b = [kind(f) for f in a], [kind(f) for f in b]
    # Numbered fields may move; automatic ones are matched by position.
    if all(k[0] if isinstance(k, tuple) else False for k in a):
        return sorted(map(str, a)) == sorted(map(str, b))
    return a == b


def shown(text):
    return text if len(text) <= 60 else text[:57] + "..."


def check_catalogue(po_path, template):
    faults = []
    lang = os.path.basename(po_path)
    try:
        catalogue = parse_po(po_path)
    except ValueError as e:
        return [str(e)]
    for key, original in template.items():
        if key[1] == "":
            continue  # the header
        entry = catalogue.get(key)
        if entry is None:
            faults.append("%s lacks %r" % (lang, shown(key[1])))
            continue
        forms = [entry["msgstr"].get(i, "") for i in range(max(len(entry["msgstr"]), 1))]
        if entry["fuzzy"] or not all(forms):
            faults.append("%s does not translate %r%s" % (lang, shown(key[1]),
                                                          " (fuzzy)" if entry["fuzzy"] else ""))
            continue
        if "plural" in original and "plural" not in entry:
            faults.append("%s translates %r without its plural" % (lang, shown(key[1])))
            continue
        for index, form in enumerate(forms):
            source = original["msgid"] if index == 0 else original.get("plural", original["msgid"])
            if not same_fields(source, form) and not (
                    index == 0 and "plural" in original and same_fields(original["plural"], form)):
                faults.append("%s: the placeholders of %r differ from the original's in %r"
                              % (lang, shown(source), shown(form)))
    run = subprocess.run(["msgfmt", "--check", "--output-file=" + os.devnull, po_path],
                         capture_output=True, text=True)
    if run.returncode != 0:
        faults.append("%s: msgfmt --check refuses it:\n%s" % (lang, run.stderr.strip()))
    return faults


def check_sources(root, template_path, template):
    with tempfile.TemporaryDirectory() as tmp:
        fresh = os.path.join(tmp, "fresh.pot")
        subprocess.run(["sh", os.path.join(root, "scripts", "po_extract.sh"), fresh], cwd=root,
                       check=True)
        now = set(k for k in parse_po(fresh) if k[1])
    had = set(k for k in template if k[1])
    faults = ["cli/ marks %r, which %s lacks" % (shown(k[1]), template_path) for k in now - had]
    faults += ["%s holds %r, which cli/ no longer marks" % (template_path, shown(k[1]))
               for k in had - now]
    if faults:
        faults.append("run scripts/po.sh and translate what it reports")
    return faults


def main(argv):
    sources = None
    if len(argv) == 4 and argv[1] == "--sources":
        sources, folder = argv[2], argv[3]
    elif len(argv) == 2:
        folder = argv[1]
    else:
        print(__doc__ or "usage: po_check.py [--sources SOURCE_ROOT] PO_FOLDER", file=sys.stderr)
        return 2
    template_path = os.path.join(folder, "zvxfer.pot")
    template = parse_po(template_path)
    if len(template) < 2:
        print("%s holds no texts" % template_path)
        return 1
    catalogues = sorted(os.path.join(folder, name) for name in os.listdir(folder)
                        if name.endswith(".po"))
    if not catalogues:
        print("no catalogue in %s" % folder)
        return 1
    faults = []
    if sources is not None:
        faults += check_sources(sources, template_path, template)
    for po in catalogues:
        faults += check_catalogue(po, template)
    for fault in faults:
        print(fault)
    print("%d text(s), %d catalogue(s): %s" % (len(template) - 1, len(catalogues),
                                              "%d fault(s)" % len(faults) if faults else "all good"))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
