#!/usr/bin/env python3
"""Turn a text message catalogue into a resource script with one STRINGTABLE.

    nls_rc.py CATALOGUE.nls OUTPUT.rc

The catalogue holds "number<TAB>text" lines in UTF-8; '#' starts a comment
line, blank and malformed lines are skipped, and the first line of a number
wins over later ones (as the library's text catalogue reader does).

The resource script is written in Windows-1252, the code page the library's
ANSI string calls hand back on Western European systems, and says so with
"#pragma code_page(1252)"; the resource compiler stores the texts as UTF-16
and LoadStringA converts them to the caller's code page.  A text holding a
character that Windows-1252 has no place for is refused: the script exits
with status 1 naming the catalogue, the message number and the character,
and writes nothing, so a translation never reaches users with its letters
silently replaced by '?'.
"""

import sys

CODE_PAGE = "cp1252"
MAX_NUMBER = 0xFFFF  # string resource identifiers are 16-bit


def parse(lines):
    """The (number, text) pairs of a catalogue, first line of a number kept."""
    texts = {}
    for raw in lines:
        line = raw.rstrip("\n")
        if line.endswith("\r"):
            line = line[:-1]
        if not line or line.startswith("#"):
            continue
        number, tab, text = line.partition("\t")
        if not tab or not number.isdigit() or not number.isascii():
            continue
        value = int(number)
        if value > MAX_NUMBER:
            raise ValueError(f"message {value} is above the largest string identifier {MAX_NUMBER}")
        texts.setdefault(value, text)
    return sorted(texts.items())


def quote(text):
    """The text as a resource-script string literal (still a str)."""
    out = ['"']
    for ch in text:
        if ch == '"':
            out.append('""')
        elif ch == "\\":
            out.append("\\\\")
        elif ord(ch) < 0x20 or ord(ch) == 0x7F:
            out.append("\\%03o" % ord(ch))
        else:
            out.append(ch)
    out.append('"')
    return "".join(out)


def unencodable(text):
    """The first character of text that has no place in the code page, or None."""
    for ch in text:
        try:
            ch.encode(CODE_PAGE)
        except UnicodeEncodeError:
            return ch
    return None


def render(texts, source_name):
    lines = [
        f"// Generated from {source_name}; edit the catalogue, not this file.",
        "#pragma code_page(1252)",
        "LANGUAGE 0, 0",
        "STRINGTABLE",
        "BEGIN",
    ]
    lines += [f"  {number}, {quote(text)}" for number, text in texts]
    lines += ["END", ""]
    return "\r\n".join(lines).encode(CODE_PAGE)


def main(argv):
    if len(argv) != 3:
        print("usage: nls_rc.py CATALOGUE.nls OUTPUT.rc", file=sys.stderr)
        return 2
    source, target = argv[1], argv[2]
    with open(source, encoding="utf-8") as f:
        try:
            texts = parse(f)
        except ValueError as e:
            print(f"{source}: {e}", file=sys.stderr)
            return 1
    for number, text in texts:
        ch = unencodable(text)
        if ch is not None:
            print(f"{source}: message {number}: character U+{ord(ch):04X} ({ch}) has no place "
                  f"in Windows-1252; write the text without it", file=sys.stderr)
            return 1
    data = render(texts, source.replace("\\", "/").rsplit("/", 1)[-1])
    with open(target, "wb") as f:
        f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
