#!/usr/bin/env python3
"""ZMODEM over a line with latency: zvxfer against sz -> rz through the relay.

Every pairing runs inside zvxfer-line-relay, which joins the two programs by
a simulated line with the given one-way latency (no rate limit; the line
holds at most 64 KiB in flight, as a socket's buffer does, so at 20 ms and
more the line itself bounds the rate at about 64 KiB per latency).  Rows:
sz -> rz as they run by default, our sender as the program runs by default
to our receiver and to rz, and our sender with --window 4096 (the library's
own window) to our receiver.  Each time is the best of --repeat runs of the
whole relay (start-up included); every received copy is compared with the
original.  Ratios are sz -> rz's time over the row's time (above 1: faster).
The library-window row runs once: a round trip per 4 KiB makes it minutes
long at 100 ms, and its spread does not matter next to the others.

usage: zmodem_latency.py ZVXFER [--relay build/bin/zvxfer-line-relay]
                         [--size-mib 8] [--latency 0,20,100] [--repeat 2]
"""
import argparse
import filecmp
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pairs import commit, which  # noqa: E402


def pairings(z, src):
    ours_s = [z, "send", "-p", "zmodem", "-q", src]
    ours_r = [z, "receive", "-p", "zmodem", "-q", "--existing", "overwrite", "-d", "."]
    peer_s = [which("sz"), "-q", src]
    peer_r = [which("rz"), "-q", "-y"]
    return [("sz -> rz", peer_s, peer_r),
            ("zvxfer -> zvxfer", ours_s, ours_r),
            ("zvxfer -> rz", ours_s, peer_r),
            ("zvxfer -> zvxfer --window 4096", ours_s[:-1] + ["--window", "4096", src],
             ours_r)]


def run(relay, latency, send, recv, out, src, timeout):
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(out)
    # The receiver runs in the output folder: rz has no folder option.
    recv_cmd = ["sh", "-c", 'cd "$0" && exec "$@"', out] + recv
    start = time.monotonic()
    r = subprocess.run([relay, "--latency", str(latency), "--timeout", str(timeout), "--"]
                       + send + ["--"] + recv_cmd, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, timeout=timeout + 60)
    seconds = time.monotonic() - start
    copy = os.path.join(out, os.path.basename(src))
    ok = r.returncode == 0 and os.path.exists(copy) and filecmp.cmp(src, copy, shallow=False)
    return seconds, ok, r.stderr.decode(errors="replace").strip().splitlines()[-1:]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("zvxfer")
    ap.add_argument("--relay", default=None, help="default: zvxfer-line-relay beside ZVXFER")
    ap.add_argument("--size-mib", type=int, default=8)
    ap.add_argument("--latency", default="0,20,100", help="one-way latencies in ms")
    ap.add_argument("--repeat", type=int, default=2, help="runs per pairing; the best counts")
    ap.add_argument("--timeout", type=int, default=300, help="seconds per run at most")
    args = ap.parse_args()
    z = os.path.abspath(args.zvxfer)
    relay = os.path.abspath(args.relay or os.path.join(os.path.dirname(z), "zvxfer-line-relay"))
    latencies = [int(x) for x in args.latency.split(",")]
    work = tempfile.mkdtemp(prefix="zvxfer-latency-")
    try:
        src = os.path.join(work, "big.bin")
        with open(src, "wb") as f:
            f.write(random.Random(1).randbytes(args.size_mib << 20))
        out = os.path.join(work, "out")
        print("ZMODEM, %d MiB random file through zvxfer-line-relay --latency L; zvxfer of "
              "commit %s; best of %d (window-4096 row: one run)" % (args.size_mib, commit(), args.repeat))
        print("%-32s %8s %9s %8s %7s" % ("pairing", "lat ms", "time s", "MB/s", "ratio"))
        for latency in latencies:
            base = None
            for label, send, recv in pairings(z, src):
                best, failure = None, None
                runs = 1 if "--window" in send else args.repeat
                for _ in range(runs):
                    seconds, ok, why = run(relay, latency, send, recv, out, src, args.timeout)
                    if not ok:
                        failure = why
                        continue
                    best = seconds if best is None else min(best, seconds)
                if best is None:
                    print("%-32s %8d  failed: %s" % (label, latency, failure))
                    continue
                if base is None and label == "sz -> rz":
                    base = best
                ratio = "%7.2f" % (base / best) if base else "%7s" % "-"
                print("%-32s %8d %9.2f %8.2f %s" % (label, latency, best,
                                                    os.path.getsize(src) / best / 1e6, ratio))
                sys.stdout.flush()
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
