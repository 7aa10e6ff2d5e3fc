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
import argparse
import os
import random
import shutil
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kermit_speed import pairings  # noqa: E402
from pairs import commit  # noqa: E402
from zmodem_noise import one_run  # noqa: E402

LINES = [("ber 1e-5", ["--ber", "1e-5"]), ("ber 1e-4", ["--ber", "1e-4"]),
         ("drop 2e-5", ["--drop", "2e-5"])]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("zvxfer")
    ap.add_argument("--size-kib", type=int, default=200)
    ap.add_argument("--seeds", type=int, default=6)
    ap.add_argument("--baud", type=int, default=0, help="line speed (0: unlimited)")
    ap.add_argument("--timeout", type=int, default=300)
    args = ap.parse_args()
    z = os.path.abspath(args.zvxfer)
    relay = os.path.join(os.path.dirname(z), "zvxfer-line-relay")
    if not os.path.exists(relay):
        sys.exit("no %s: build the zvxfer-line-relay target" % relay)
    work = tempfile.mkdtemp(prefix="zvxfer-knoise-")
    try:
        src = os.path.join(work, "noise.bin")
        with open(src, "wb") as f:
            f.write(random.Random(5).randbytes(args.size_kib * 1024))
        out = os.path.join(work, "out")
        size = os.path.getsize(src)
        print("Kermit under noise, %d KiB random file, %d seeds per line, line %s; "
              "engine of commit %s" % (args.size_kib, args.seeds,
                                       "%d bit/s" % args.baud if args.baud else "unlimited",
                                       commit()))
        print("%-10s %-18s %9s %6s %6s %6s %8s %10s" % ("line", "pairing", "completed", "wrong",
                                                        "failed", "killed", "mean s",
                                                        "file/line"))
        base = ["--baud", str(args.baud)] if args.baud else []
        for line_label, line_args in LINES:
            for label, send, receive in pairings(z, src, out, serial=True):
                counts = {"completed": 0, "WRONG FILE": 0, "failed": 0, "killed": 0,
                          "relay failed": 0}
                times, efficiency = [], []
                for seed in range(1, args.seeds + 1):
                    state, t, offered = one_run(relay, base + line_args, seed, send, receive,
                                                src, out, args.timeout)
                    counts[state] += 1
                    if state == "completed":
                        times.append(t)
                        efficiency.append(size / offered)
                mean = sum(times) / len(times) if times else float("nan")
                eff = sum(efficiency) / len(efficiency) if efficiency else float("nan")
                print("%-10s %-18s %6d/%-2d %6d %6d %6d %8.2f %10.3f" % (
                    line_label, label, counts["completed"], args.seeds, counts["WRONG FILE"],
                    counts["failed"] + counts["relay failed"], counts["killed"], mean, eff),
                    flush=True)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
