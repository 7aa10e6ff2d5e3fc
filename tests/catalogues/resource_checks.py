#!/usr/bin/env python3
"""The Windows catalogue libraries, checked on the build machine.

    resource_checks.py SOURCE_DIR TRIPLE WORK_DIR

Each catalogue goes through the build's own steps (scripts/nls_rc.py, the
cross windres, the cross ld with cmake/resource_only.ld); the library made is
read back with windres into a .res file whose string tables are decoded here
and compared with the UTF-8 catalogue.  Also: the library holds nothing but
resources, awkward texts survive the trip, and a text with a character that
Windows-1252 lacks is refused.
"""

import os
import struct
import subprocess
import sys
import unittest

SOURCE, TRIPLE, WORK = sys.argv[1:4] if len(sys.argv) >= 4 else (None, None, None)
RT_STRING = 6


def tool(name):
    return f"{TRIPLE}-{name}"


def build(catalogue, stem):
    """Build `catalogue` as the build does; the library's path, or the failed run."""
    out = os.path.join(WORK, "out")
    os.makedirs(out, exist_ok=True)
    rc, obj, lib = (os.path.join(out, stem + ext) for ext in (".rc", ".o", ".nls"))
    for path in (rc, obj, lib):
        if os.path.exists(path):
            os.remove(path)
    gen = subprocess.run([sys.executable, os.path.join(SOURCE, "scripts", "nls_rc.py"), catalogue, rc],
                         capture_output=True, text=True)
    if gen.returncode != 0:
        return None, gen
    subprocess.run([tool("windres"), "--codepage=1252", "-O", "coff", "-i", rc, "-o", obj], check=True)
    subprocess.run([tool("ld"), "--dll", "-e", "0", "--no-insert-timestamp", "--enable-reloc-section",
                    "-T", os.path.join(SOURCE, "cmake", "resource_only.ld"), "-o", lib, obj], check=True)
    return lib, gen


def string_table(lib):
    """{number: text} of every string resource in the library (decoded from a .res dump)."""
    res = lib + ".res"
    subprocess.run([tool("windres"), "-J", "coff", "-i", lib, "-O", "res", "-o", res], check=True)
    data = open(res, "rb").read()
    texts, at = {}, 0

    def ident(pos):
        if struct.unpack_from("<H", data, pos)[0] == 0xFFFF:
            return struct.unpack_from("<H", data, pos + 2)[0], pos + 4
        end = pos
        while struct.unpack_from("<H", data, end)[0] != 0:
            end += 2
        return data[pos:end].decode("utf-16-le"), end + 2

    while at + 8 <= len(data):
        size, header = struct.unpack_from("<II", data, at)
        kind, pos = ident(at + 8)
        name, pos = ident(pos)
        body = data[at + header:at + header + size]
        if kind == RT_STRING:
            pos = 0
            for i in range(16):
                (length,) = struct.unpack_from("<H", body, pos)
                pos += 2
                if length:
                    texts[(name - 1) * 16 + i] = body[pos:pos + 2 * length].decode("utf-16-le")
                pos += 2 * length
        at += header + size
        at += -at % 4
    return texts


def catalogue_texts(path):
    """{number: text} of a UTF-8 catalogue, read line by line; the first of a number wins."""
    texts = {}
    with open(path, "rb") as f:
        for raw in f.read().decode("utf-8").split("\n"):
            line = raw[:-1] if raw.endswith("\r") else raw
            if not line or line.startswith("#") or "\t" not in line:
                continue
            number, text = line.split("\t", 1)
            if number.isdigit():
                texts.setdefault(int(number), text)
    return texts


class ResourceCatalogues(unittest.TestCase):
    def write(self, name, content):
        path = os.path.join(WORK, name)
        with open(path, "wb") as f:
            f.write(content.encode("utf-8"))
        return path

    def test_shipped_catalogues_hold_their_texts_and_nothing_else(self):
        folder = os.path.join(SOURCE, "catalogues")
        names = sorted(n for n in os.listdir(folder) if n.endswith(".nls"))
        self.assertGreaterEqual(len(names), 4)
        for name in names:
            with self.subTest(name):
                lib, gen = build(os.path.join(folder, name), name.replace(".", "_"))
                self.assertIsNotNone(lib, gen.stderr)
                want = catalogue_texts(os.path.join(folder, name))
                self.assertGreater(len(want), 40)
                self.assertEqual(string_table(lib), want)
                # Resources only: no code, no imports, no entry point; the
                # relocation table (empty, so not written) is not stripped,
                # so the loader may place several catalogues at once.
                def objdump(flag):
                    return subprocess.run([tool("objdump"), flag, lib], capture_output=True,
                                          text=True, check=True).stdout
                headers, private = objdump("-h"), objdump("-p")
                sections = [line.split()[1] for line in headers.splitlines()
                            if line.split()[:1] and line.split()[0].isdigit()]
                self.assertEqual(sections, [".rsrc"], headers)
                self.assertRegex(private, r"AddressOfEntryPoint\s+0+\n")
                self.assertRegex(private, r"Entry 1 0+ 0+ Import Directory")
                self.assertNotIn("relocations stripped", private)

    def test_awkward_texts_survive_the_trip(self):
        catalogue = self.write("awkward.nls", (
            "# a comment\tthat looks like a line\n"
            "\n"
            "no tab on this line\n"
            "x1\tnot a number\n"
            "100\tsay \"hi\" to C:\\dir\\ and \\n stays two characters\n"
            "101\ttrailing blank \n"
            "102\ttab\tinside, CR LF ending\r\n"
            "103\t\u20ac 5, na\u00efve caf\u00e9, \u00dcbel, \u0153uvre, \u2018quoted\u2019\n"
            "100\ta later line of the same number\n"
            "65535\tthe largest number\n"))
        lib, gen = build(catalogue, "awkward")
        self.assertIsNotNone(lib, gen.stderr)
        self.assertEqual(string_table(lib), {
            100: "say \"hi\" to C:\\dir\\ and \\n stays two characters",
            101: "trailing blank ",
            102: "tab\tinside, CR LF ending",
            103: "\u20ac 5, na\u00efve caf\u00e9, \u00dcbel, \u0153uvre, \u2018quoted\u2019",
            65535: "the largest number",
        })

    def test_a_character_outside_windows_1252_is_refused(self):
        for text, shown in (("arrow \u2192 here", "U+2192"), ("\u0141\u00f3d\u017a", "U+0141")):
            with self.subTest(shown):
                catalogue = self.write("refused.nls", f"200\tfine\n201\t{text}\n")
                lib, gen = build(catalogue, "refused")
                self.assertIsNone(lib)
                self.assertEqual(gen.returncode, 1)
                self.assertIn("message 201", gen.stderr)
                self.assertIn(shown, gen.stderr)
                self.assertFalse(os.path.exists(os.path.join(WORK, "out", "refused.rc")))

    def test_a_number_beyond_the_string_identifiers_is_refused(self):
        catalogue = self.write("big.nls", "65536\ttoo big\n")
        lib, gen = build(catalogue, "big")
        self.assertIsNone(lib)
        self.assertEqual(gen.returncode, 1)
        self.assertIn("65536", gen.stderr)


if __name__ == "__main__":
    if SOURCE is None:
        print(__doc__, file=sys.stderr)
        sys.exit(2)
    os.makedirs(WORK, exist_ok=True)
    result = unittest.main(argv=[sys.argv[0], "-v"], exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 else 1)
