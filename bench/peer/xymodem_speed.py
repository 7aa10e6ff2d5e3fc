#!/usr/bin/env python3
"""XMODEM-1K and YMODEM speed of zvxfer against the lrzsz programs, in one run.

Every pairing moves the same random file over one socket pair wired to both
programs' stdin and stdout: our sender to our receiver, ours to the peer's
receiver, the peer's sender to ours, and the peer pair.  The table gives MB/s
and the ratio against the peer pair.  Each pairing is also timed with a
one-block file; that time (start-up, handshakes, end of batch, and the
peers' own start-up pauses) is subtracted for the "net" rate, so the net
column compares the block loops alone.

Then the wire efficiency of each of our protocols on a simulated line
(zvxfer loopback --baud 115200 --latency 20): file bytes / line capacity
used, where line capacity = elapsed seconds x 11520 bytes/s (8N1), because
the loopback does not report the bytes it put on the line.

usage: xymodem_speed.py ZVXFER [--size-mib 8] [--loop-kib 128] [--repeat 2]
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


def pairings(z, protocol, src, out):
    """(label, sender argv, receiver argv) for the four pairings of one protocol."""
    name = os.path.basename(src)
    if protocol == "ymodem":
        ours_s = [z, "send", "-p", "ymodem", "-q", src]
        ours_r = [z, "receive", "-p", "ymodem", "-q", "-d", out]
        peer_s = [which("sb"), "-q", src]
        peer_r = [which("rb"), "-q", "-y"]
    else:
        ours_s = [z, "send", "-p", "xmodem-1k", "-q", src]
        ours_r = [z, "receive", "-p", "xmodem-1k", "-q", os.path.join(out, name)]
        peer_s = [which("sx"), "-q", "-k", src]
        peer_r = [which("rx"), "-q", "-c", "-y", name]
    return [("zvxfer -> zvxfer", ours_s, ours_r), ("zvxfer -> peer", ours_s, peer_r),
            ("peer -> zvxfer", peer_s, ours_r), ("peer -> peer", peer_s, peer_r)]


def received_ok(src, out):
    copy = os.path.join(out, os.path.basename(src))
    if not os.path.exists(copy):
        return False
    a = open(src, "rb").read()
    b = open(copy, "rb").read()
    return b[:len(a)] == a and all(c in (0, 0x1A) for c in b[len(a):])


def measure(z, protocol, big, tiny, work, repeat):
    out = os.path.join(work, "out")
    return pairs.measure(pairings(z, protocol, big, out), pairings(z, protocol, tiny, out), out,
                         repeat, lambda folder: received_ok(big, folder))


def print_table(title, rows, size):
    where = {"free": "", "same": ", both ends on CPU 0", "split": ", ends on CPUs 0 and 1"}
    pairs.print_table("\n%s, %.1f MB file over a socket pair%s"
                      % (title, size / 1e6, where[pairs.cpus_name()]), rows, size)


def efficiency(z, work, kib):
    src = os.path.join(work, "loop.bin")
    with open(src, "wb") as f:
        f.write(random.Random(2).randbytes(kib * 1024))
    print("\nWire efficiency on a simulated 115200 bit/s line, 20 ms one-way latency, "
          "%d KiB file" % kib)
    print("(efficiency = file bytes / (elapsed s x 11520 bytes/s); the loopback reports no "
          "line byte counts)")
    print("%-12s %9s %9s %11s" % ("protocol", "time s", "KiB/s", "efficiency"))
    for protocol in ("xmodem", "xmodem-1k", "xmodem-1k-g", "ymodem", "ymodem-g"):
        r = subprocess.run([z, "loopback", "-p", protocol, "--baud", "115200", "--latency", "20",
                            src], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=600)
        err = r.stderr.decode(errors="replace")
        m = re.search(r"verified in .*? in ([0-9.]+) s", err)
        if r.returncode != 0 or not m:
            print("%-12s failed (exit %d): %s" % (protocol, r.returncode, err.strip()[-200:]))
            continue
        t = float(m.group(1))
        pairs.print_line_row(protocol, 12, t, kib * 1024)


def main():
    ap = pairs.arguments(__doc__, 8)
    ap.add_argument("--loop-kib", type=int, default=128,
                    help="file size for the simulated-line table (0: skip it)")
    args = ap.parse_args()
    pairs.set_cpus(args.cpus)
    z = os.path.abspath(args.zvxfer)
    work = tempfile.mkdtemp(prefix="zvxfer-bench-")
    try:
        big, tiny = pairs.sample_files(work, args.size_mib)
        size = os.path.getsize(big)
        print_table("YMODEM", measure(z, "ymodem", big, tiny, work, args.repeat), size)
        print_table("XMODEM-1K", measure(z, "xmodem-1k", big, tiny, work, args.repeat), size)
        if args.loop_kib > 0:
            efficiency(z, work, args.loop_kib)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
