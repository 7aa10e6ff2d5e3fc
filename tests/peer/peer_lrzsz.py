#!/usr/bin/env python3
# Interoperability of the zvxfer program with the X/YMODEM programs of lrzsz
# (sx, rx, sb, rb), run as black boxes, both directions over crossed pipes,
# and our program against itself over a real pty pair.
#
# usage: peer_lrzsz.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from wiring import Case, make_file, main, peer, pipes, pty_pair  # noqa: E402

# protocol, our options, the peer's options (to / from the peer), block size
XMODEMS = [("xmodem", ["--checksum"], [], [], 128), ("xmodem", [], ["-c"], [], 128),
           ("xmodem-1k", [], ["-c"], ["-k"], 1024)]


def case_xmodem_to_peer(c: Case):
    f = make_file(c.src, "x.bin", 70001, 4)
    for protocol, ours, theirs, _, block in XMODEMS:
        runs = pipes([c.z, "send", "-p", protocol, "-q"] + ours + [f],
                     [peer("rx"), "-q"] + theirs + [c.copy(f)], c.work)
        c.delivered(runs, [f], block)


def case_xmodem_from_peer(c: Case):
    f = make_file(c.src, "x.bin", 70001, 5)
    for protocol, ours, _, theirs, block in XMODEMS:
        runs = pipes([peer("sx"), "-q"] + theirs + [f],
                     [c.z, "receive", "-p", protocol, "-q"] + ours + [c.copy(f)], c.work)
        c.delivered(runs, [f], block)


def batch(c: Case, empty=True):
    # Over 1 MiB random, a small file, a name with blanks (and an empty file:
    # our sender refuses those).
    return ([make_file(c.src, "big.bin", (1 << 20) + 3001, 1), make_file(c.src, "small.txt", 517, 2),
             make_file(c.src, "name with blanks.dat", 4100, 3)] +
            [make_file(c.src, "empty.txt", 0)] * empty)


def case_ymodem_batch_to_peer(c: Case):
    files = batch(c, empty=False)
    runs = pipes([c.z, "send", "-p", "ymodem", "-q"] + files, [peer("rb"), "-q"], c.work,
                 cwd_b=c.out, deadline_s=90)
    c.delivered(runs, files)


def case_ymodem_and_ymodem_g_from_peer(c: Case):
    # sb sends no data block for an empty file; a streaming sender need not
    # wait for the answer to the batch-ending block 0.
    files = batch(c)
    for protocol in ("ymodem", "ymodem-g"):
        runs = pipes([peer("sb"), "-q"] + files,
                     [c.z, "receive", "-p", protocol, "-q", "-d", c.out], c.work, deadline_s=90)
        c.delivered(runs, files, remove=True)


def case_pty_ymodem_ourselves(c: Case):
    files = batch(c, empty=False)
    runs = pty_pair([c.z, "send", "-p", "ymodem", "-q"] + files,
                    [c.z, "receive", "-p", "ymodem", "-q", "-d", c.out], c.work)
    c.delivered(runs, files)


if __name__ == "__main__":
    sys.exit(main(("sx", "rx", "sb", "rb"), "zvxfer-peer-"))
