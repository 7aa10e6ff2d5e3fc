#!/usr/bin/env python3
"""ZMODEM speed of zvxfer against the lrzsz programs sz and rz, in one run.

Every pairing moves the same random file over one socket pair wired to both
programs' stdin and stdout: our sender to our receiver (windowed, the
default, and window-less), ours to the peer's receiver, the peer's sender
to ours, and the peer pair, with sz's default (no window) and with the
window our sender uses by default (sz -w 4096).  The table gives time, MB/s
and the ratio of every row against the peer pair that runs like it: rows
with our window against the peer pair with the same window, the others
against the peer pair as sz runs by default.  The commit that was measured
heads the table.

Then the wire efficiency of our ZMODEM on a simulated line (zvxfer loopback
--baud 115200 --latency 20), windowed and window-less: file bytes divided by
the bytes the line carried forward, and the share of the line's capacity
that carried file data (file bytes / (elapsed s x 11520 bytes/s)).

usage: zmodem_speed.py ZVXFER [--size-mib 64] [--loop-kib 256] [--repeat 2]
                       [--cpus free|same|split]
"""
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pairs  # noqa: E402
from pairs import which  # noqa: E402

WINDOWED_PEERS = "peer -> peer (window 4096)"
PEERS = "peer -> peer"


def pairings(z, src, out):
    ours_s = [z, "send", "-p", "zmodem", "-q", src]
    ours_r = [z, "receive", "-p", "zmodem", "-q", "--existing", "overwrite", "-d", out]
    peer_s = [which("sz"), "-q", src]
    peer_r = [which("rz"), "-q", "-y"]
    return [("zvxfer -> zvxfer", ours_s, ours_r),
            ("zvxfer -> zvxfer (no window)", ours_s[:-1] + ["--no-window", src], ours_r),
            ("zvxfer -> peer", ours_s, peer_r),
            ("zvxfer -> peer (no window)", ours_s[:-1] + ["--no-window", src], peer_r),
            ("peer -> zvxfer", peer_s, ours_r),
            (WINDOWED_PEERS, peer_s[:-1] + ["-w", "4096", src], peer_r),
            (PEERS, peer_s, peer_r)]


# Rows that run with our default window compare with the peer pair that
# runs with the same window.
COMPARED_WITH = {"zvxfer -> zvxfer": WINDOWED_PEERS, "zvxfer -> peer": WINDOWED_PEERS,
                 WINDOWED_PEERS: WINDOWED_PEERS}


def same(src, out):
    copy = os.path.join(out, os.path.basename(src))
    if not os.path.exists(copy) or os.path.getsize(copy) != os.path.getsize(src):
        return False
    with open(src, "rb") as a, open(copy, "rb") as b:
        return a.read() == b.read()


def measure(z, big, tiny, work, repeat):
    out = os.path.join(work, "out")
    return pairs.measure(pairings(z, big, out), pairings(z, tiny, out), out, repeat,
                         lambda folder: same(big, folder))


def print_table(rows, size):
    pairs.print_table("ZMODEM, %.1f MB random file over a socket pair (CPUs: %s); engine of "
                      "commit %s" % (size / 1e6, pairs.cpus_name(), pairs.commit()),
                      rows, size, COMPARED_WITH)


def efficiency(z, work, kib):
    src = os.path.join(work, "loop.bin")
    with open(src, "wb") as f:
        f.write(random.Random(2).randbytes(kib * 1024))
    print("\nWire efficiency on a simulated 115200 bit/s line, 20 ms one-way latency, "
          "%d KiB random file" % kib)
    print("%-22s %9s %9s %11s %11s" % ("variant", "time s", "KiB/s", "file/line", "line use"))
    for label, extra in (("zmodem (window 4096)", []), ("zmodem --no-window", ["--no-window"])):
        r = subprocess.run([z, "loopback", "-p", "zmodem", "--baud", "115200", "--latency", "20"]
                           + extra + [src], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                           timeout=900)
        err = r.stderr.decode(errors="replace")
        t = re.search(r"verified in .*? in ([0-9.]+) s", err)
        line = re.search(r"line carried ([0-9]+) bytes forward", err)
        if r.returncode != 0 or not t or not line:
            print("%-22s failed (exit %d): %s" % (label, r.returncode, err.strip()[-200:]))
            continue
        seconds = float(t.group(1))
        size = kib * 1024
        pairs.print_line_row(label, 22, seconds, size, int(line.group(1)))


def main():
    ap = pairs.arguments(__doc__, 64)
    ap.add_argument("--loop-kib", type=int, default=256)
    args = ap.parse_args()
    pairs.set_cpus(args.cpus)
    z = os.path.abspath(args.zvxfer)
    work = tempfile.mkdtemp(prefix="zvxfer-zbench-")
    try:
        big, tiny = pairs.sample_files(work, args.size_mib)
        print_table(measure(z, big, tiny, work, args.repeat), os.path.getsize(big))
        if args.loop_kib:
            efficiency(z, work, args.loop_kib)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
