# The command line shared by the scripted test programs (peer and CLI tests):
#   SCRIPT ZVXFER CASE   run one case in a fresh work folder (kept on failure)
#   SCRIPT - list        print the case names, one a line (CTest registers them)
import os
import random
import shutil
import sys
import tempfile


MTIME = 1614860000  # a fixed time in the past, so a kept time cannot be "now"


class Failure(Exception):
    pass


def check(cond, what):
    if not cond:
        raise Failure(what)


def make_file(folder, name, size, seed=None, pattern=None):
    # Random bytes from `seed`, or `pattern` repeated; the fixed time.
    path = os.path.join(folder, name)
    with open(path, "wb") as f:
        f.write(random.Random(seed).randbytes(size) if pattern is None else
                (pattern * (size // max(len(pattern), 1) + 1))[:size])
    os.utime(path, (MTIME, MTIME))
    return path


def run_cases(cases, prefix, run):
    # `cases` maps names to case functions; `run(case, zvxfer, work)` calls one.
    if len(sys.argv) != 3:
        print("usage: %s ZVXFER CASE" % os.path.basename(sys.argv[0]), file=sys.stderr)
        return 2
    zvxfer, name = sys.argv[1], sys.argv[2]
    # The cases read the program's English words, whatever the tester's
    # locale (the locale checks set their own).
    os.environ["LANGUAGE"] = "en"
    if name == "list":
        print("\n".join(cases))
        return 0
    work = tempfile.mkdtemp(prefix=prefix)
    try:
        run(cases[name], os.path.abspath(zvxfer), work)
    except Failure as e:
        print("FAILED %s: %s\n(files kept in %s)" % (name, e, work), file=sys.stderr)
        return 1
    shutil.rmtree(work)
    print("passed", name)
    return 0


def crc16(data, crc=0):
    # CRC-16/XMODEM, for far ends the tests play by hand.
    for b in data:
        crc ^= b << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) if crc & 0x8000 else crc << 1
    return crc & 0xFFFF
