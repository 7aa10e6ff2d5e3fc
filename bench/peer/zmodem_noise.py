#!/usr/bin/env python3
"""ZMODEM under noise: zvxfer and the lrzsz programs on identical simulated lines.

Every pairing (our sender and receiver, windowed and window-less; ours with
the peer's receiver; the peer's sender with ours; the peer pair) moves the
same random file through zvxfer-line-relay with the same line settings and
the same seeds, so each pairing meets exactly the same bit errors and lost
bytes at the same places on the line.  A run completes when both programs
exit 0 and the copy is exact; a wrong file is a copy that differs although
the receiver reported success (there must be none).  The table counts
completions, wrong files and the other outcomes, with the mean time of the
completed runs and the line bytes they needed per file byte.

usage: zmodem_noise.py ZVXFER [--size-kib 200] [--seeds 6] [--baud 0]
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pairs import commit  # noqa: E402
from zmodem_speed import pairings  # noqa: E402

LINES = [("ber 1e-5", ["--ber", "1e-5"]), ("ber 1e-4", ["--ber", "1e-4"]),
         ("drop 2e-5", ["--drop", "2e-5"])]


def one_run(relay, line_args, seed, send, receive, src, out, timeout):
    shutil.rmtree(out, ignore_errors=True)
    os.mkdir(out)
    argv = [relay, "--seed", str(seed), "--timeout", str(timeout)] + line_args + \
        ["--"] + send + ["--"] + receive
    start = time.monotonic()
    r = subprocess.run(argv, cwd=out, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    elapsed = time.monotonic() - start
    err = r.stderr.decode(errors="replace")
    m = re.search(r"relay: a=(\S+) b=(\S+) a->b offered=(\d+)", err)
    if not m:
        return "relay failed", elapsed, 0
    a, b, offered = m.group(1), m.group(2), int(m.group(3))
    copy = os.path.join(out, os.path.basename(src))
    exact = os.path.exists(copy) and open(copy, "rb").read() == open(src, "rb").read()
    if b == "0" and not exact:
        return "WRONG FILE", elapsed, offered
    if a == "0" and b == "0":
        return "completed", elapsed, offered
    # A program that ended with an error code failed the run, even when the
    # relay then had to kill the other one (some never notice the hang-up).
    if any(code != "0" and "signal" not in code for code in (a, b)):
        return "failed", elapsed, offered
    return "killed", elapsed, offered


def run_noise_table(doc, title, prefix, pairings_of, column, value_of, label_width, lines=LINES):
    """Parse the common options, then run every pairing `pairings_of(z,
    src, out)` gives on every line of `lines`, seed after seed, and print one
    row each: completions, wrong files, failures, kills, the mean time of a
    completed run and the mean of `value_of(file size, bytes offered)`
    under `column`."""
    ap = argparse.ArgumentParser(description=doc.splitlines()[0])
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
    work = tempfile.mkdtemp(prefix=prefix)
    try:
        src = os.path.join(work, "noise.bin")
        with open(src, "wb") as f:
            f.write(random.Random(5).randbytes(args.size_kib * 1024))
        out = os.path.join(work, "out")
        size = os.path.getsize(src)
        print("%s under noise, %d KiB random file, %d seeds per line, line %s; "
              "engine of commit %s" % (title, args.size_kib, args.seeds,
                                       "%d bit/s" % args.baud if args.baud else "unlimited",
                                       commit()))
        print("%-10s %-*s %9s %6s %6s %6s %8s %10s" % ("line", label_width, "pairing",
                                                       "completed", "wrong", "failed",
                                                       "killed", "mean s", column))
        base = ["--baud", str(args.baud)] if args.baud else []
        for line_label, line_args in lines:
            for label, send, receive in pairings_of(z, src, out):
                counts = {"completed": 0, "WRONG FILE": 0, "failed": 0, "killed": 0,
                          "relay failed": 0}
                times, values = [], []
                for seed in range(1, args.seeds + 1):
                    state, t, offered = one_run(relay, base + line_args, seed, send, receive,
                                                src, out, args.timeout)
                    counts[state] += 1
                    if state == "completed":
                        times.append(t)
                        values.append(value_of(size, offered))
                mean = sum(times) / len(times) if times else float("nan")
                value = sum(values) / len(values) if values else float("nan")
                print("%-10s %-*s %6d/%-2d %6d %6d %6d %8.2f %10.3f" % (
                    line_label, label_width, label, counts["completed"], args.seeds,
                    counts["WRONG FILE"], counts["failed"] + counts["relay failed"],
                    counts["killed"], mean, value), flush=True)
    finally:
        shutil.rmtree(work)


def main():
    run_noise_table(__doc__, "ZMODEM", "zvxfer-znoise-", pairings, "line/file",
                    lambda size, offered: offered / size, 30)


if __name__ == "__main__":
    main()
