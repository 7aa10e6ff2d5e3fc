#!/usr/bin/env python3
# Interoperability of the zvxfer program with the X/YMODEM programs of lrzsz
# (sx, rx, sb, rb), run as black boxes: both directions, over crossed pipes
# and our own program against itself over a real pty pair, every run under a
# deadline.
#
# usage: peer_lrzsz.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import random
import shutil
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import wiring  # noqa: E402
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, run_cases  # noqa: E402

MTIME = 1614860000  # a fixed time in the past, so a kept time cannot be "now"
PEERS = ("sx", "rx", "sb", "rb")


def peer(name):
    path = shutil.which(name) or shutil.which("l" + name)
    if not path:
        raise Failure("the peer program %s (Debian package lrzsz) is not installed; "
                      "install lrzsz to run the peer tests" % name)
    return path


def make_file(folder, name, size, seed):
    path = os.path.join(folder, name)
    with open(path, "wb") as f:
        f.write(random.Random(seed).randbytes(size))
    os.utime(path, (MTIME, MTIME))
    return path


def read(path):
    with open(path, "rb") as f:
        return f.read()


def check(cond, what, runs=None):
    if not cond:
        raise Failure(what + ("\n" + wiring.describe(runs) if runs else ""))


def check_exits(runs, codes=(0, 0)):
    for r, want in zip(runs, codes):
        check(not r.killed, "%s hung and was killed at the deadline" % r.name, runs)
        check(r.rc == want, "%s exited %s, expected %s" % (r.name, r.rc, want), runs)


def same_xmodem(original, copy, block, runs):
    """XMODEM carries no size: the copy is the original plus at most one
    block's padding (SUB or NUL bytes)."""
    check(os.path.exists(copy), "no file %s was written" % copy, runs)
    a, b = read(original), read(copy)
    check(b[:len(a)] == a, "content of %s differs from the original" % copy, runs)
    pad = b[len(a):]
    check(len(pad) < block and all(c in (0x1A, 0) for c in pad),
          "%s ends with %d bytes that are not padding" % (copy, len(pad)), runs)


def same_ymodem(original, copy, runs, time_kept=True):
    check(os.path.exists(copy), "no file %s was written" % copy, runs)
    a, b = read(original), read(copy)
    check(len(a) == len(b), "%s has %d bytes, the original %d" % (copy, len(b), len(a)), runs)
    check(a == b, "content of %s differs from the original" % copy, runs)
    if time_kept:
        got = int(os.stat(copy).st_mtime)
        check(got == MTIME, "%s has time %d, the original %d" % (copy, got, MTIME), runs)


class Case:
    def __init__(self, zvxfer, work):
        self.z = zvxfer
        self.work = work
        self.src = os.path.join(work, "src")
        self.out = os.path.join(work, "out")
        os.mkdir(self.src)
        os.mkdir(self.out)

    def batch(self):
        return [make_file(self.src, "big.bin", (1 << 20) + 3001, 1),
                make_file(self.src, "small.txt", 517, 2),
                make_file(self.src, "name with blanks.dat", 4100, 3)]


# --- XMODEM -----------------------------------------------------------------

def xmodem_to_peer(c, protocol, ours, theirs, block):
    f = make_file(c.src, "x.bin", 70001, 4)
    copy = os.path.join(c.out, "x.bin")
    runs = wiring.pipes([c.z, "send", "-p", protocol, "-q"] + ours + [f],
                        [peer("rx"), "-q"] + theirs + [copy], c.work, deadline_s=60)
    check_exits(runs)
    same_xmodem(f, copy, block, runs)


def xmodem_from_peer(c, protocol, ours, theirs, block):
    f = make_file(c.src, "x.bin", 70001, 5)
    copy = os.path.join(c.out, "x.bin")
    runs = wiring.pipes([peer("sx"), "-q"] + theirs + [f],
                        [c.z, "receive", "-p", protocol, "-q"] + ours + [copy], c.work,
                        deadline_s=60)
    check_exits(runs)
    same_xmodem(f, copy, block, runs)


def case_xmodem_checksum_to_peer(c):
    xmodem_to_peer(c, "xmodem", ["--checksum"], [], 128)


def case_xmodem_crc_to_peer(c):
    xmodem_to_peer(c, "xmodem", [], ["-c"], 128)


def case_xmodem_checksum_from_peer(c):
    xmodem_from_peer(c, "xmodem", ["--checksum"], [], 128)


def case_xmodem_crc_from_peer(c):
    xmodem_from_peer(c, "xmodem", [], [], 128)


def case_xmodem_1k_to_peer(c):
    xmodem_to_peer(c, "xmodem-1k", [], ["-c"], 1024)


def case_xmodem_1k_from_peer(c):
    xmodem_from_peer(c, "xmodem-1k", [], ["-k"], 1024)


# --- YMODEM -----------------------------------------------------------------

def case_ymodem_batch_to_peer(c):
    files = c.batch()
    runs = wiring.pipes([c.z, "send", "-p", "ymodem", "-q"] + files, [peer("rb"), "-q"],
                        c.work, cwd_b=c.out, deadline_s=90)
    check_exits(runs)
    for f in files:
        same_ymodem(f, os.path.join(c.out, os.path.basename(f)), runs)


def case_ymodem_batch_from_peer(c):
    files = c.batch()
    runs = wiring.pipes([peer("sb"), "-q"] + files,
                        [c.z, "receive", "-p", "ymodem", "-q", "-d", c.out], c.work,
                        deadline_s=90)
    check_exits(runs)
    for f in files:
        same_ymodem(f, os.path.join(c.out, os.path.basename(f)), runs)


def case_ymodem_g_from_peer(c):
    files = c.batch()
    runs = wiring.pipes([peer("sb"), "-q"] + files,
                        [c.z, "receive", "-p", "ymodem-g", "-q", "-d", c.out], c.work,
                        deadline_s=90)
    for f in files:
        same_ymodem(f, os.path.join(c.out, os.path.basename(f)), runs)
    # A streaming sender need not wait for the answer to the batch-ending
    # block 0; the batch is complete when that block arrives.
    check_exits(runs)


def case_ymodem_empty_file_from_peer(c):
    empty = os.path.join(c.src, "empty.txt")
    open(empty, "wb").close()
    os.utime(empty, (MTIME, MTIME))
    small = make_file(c.src, "after.txt", 300, 6)
    runs = wiring.pipes([peer("sb"), "-q", empty, small],
                        [c.z, "receive", "-p", "ymodem", "-q", "-d", c.out], c.work,
                        deadline_s=60)
    check_exits(runs)
    same_ymodem(small, os.path.join(c.out, "after.txt"), runs)
    # sb announces an empty file with its size 0 and sends no data block
    # for it; we must write it, empty, with its time.
    same_ymodem(empty, os.path.join(c.out, "empty.txt"), runs)


def case_ymodem_send_empty_refused(c):
    empty = os.path.join(c.src, "empty.txt")
    open(empty, "wb").close()
    runs = wiring.pipes([c.z, "send", "-p", "ymodem", "-q", empty], [peer("rb"), "-q"],
                        c.work, cwd_b=c.out, deadline_s=30, linger_s=12)
    ours = runs[0]
    check(not ours.killed, "our sender hung on an empty file", runs)
    check(ours.rc == 1, "our sender exited %s on an empty file, expected 1" % ours.rc, runs)
    check("-607" in ours.stderr(), "our sender's message lacks the result code -607", runs)
    check(not os.path.exists(os.path.join(c.out, "empty.txt")) or
          os.path.getsize(os.path.join(c.out, "empty.txt")) == 0,
          "the peer wrote bytes for an empty file", runs)


# --- over a real pty pair -----------------------------------------------------

def case_pty_ymodem_ourselves(c):
    files = c.batch()
    runs = wiring.pty_pair([c.z, "send", "-p", "ymodem", "-q"] + files,
                           [c.z, "receive", "-p", "ymodem", "-q", "-d", c.out], c.work,
                           deadline_s=90)
    check_exits(runs)
    for f in files:
        same_ymodem(f, os.path.join(c.out, os.path.basename(f)), runs)


def case_pty_xmodem_1k_ourselves(c):
    f = make_file(c.src, "x.bin", 300001, 9)
    copy = os.path.join(c.out, "x.bin")
    runs = wiring.pty_pair([c.z, "receive", "-p", "xmodem-1k", "-q", copy],
                           [c.z, "send", "-p", "xmodem-1k", "-q", f], c.work, deadline_s=60)
    check_exits(runs)
    same_xmodem(f, copy, 1024, runs)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}


def run(case, zvxfer, work):
    for p in PEERS:
        peer(p)  # a missing peer program fails every case with a clear message
    case(Case(zvxfer, work))


def main():
    return run_cases(CASES, "zvxfer-peer-", run)


if __name__ == "__main__":
    sys.exit(main())
