#!/usr/bin/env python3
"""Kermit under noise: zvxfer and C-Kermit on identical simulated lines.

Every pairing (our sender and receiver; ours with kermit's receiver;
kermit's sender with ours; the kermit pair) moves the same random file
through zvxfer-line-relay with the same line settings and the same seeds,
so each pairing meets exactly the same bit errors and lost bytes at the same
places on the line.  kermit runs as on a serial line (one packet at a time,
no streaming), the way our engine always runs.  A run completes when both
programs exit 0 and the copy is exact; a wrong file is a copy that differs
although the receiver reported success (there must be none).  The table
counts completions, wrong files and the other outcomes, with the mean time
of the completed runs and their line efficiency: file bytes over the bytes
the line carried forward.

usage: kermit_noise.py ZVXFER [--size-kib 200] [--seeds 6] [--baud 0]
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kermit_speed import pairings  # noqa: E402
from zmodem_noise import run_noise_table  # noqa: E402

LINES = [("ber 1e-5", ["--ber", "1e-5"]), ("ber 1e-4", ["--ber", "1e-4"]),
         ("drop 2e-5", ["--drop", "2e-5"])]


def main():
    run_noise_table(__doc__, "Kermit", "zvxfer-knoise-",
                    lambda z, src, out: pairings(z, src, out, serial=True), "file/line",
                    lambda size, offered: size / offered, 18, LINES)


if __name__ == "__main__":
    main()
