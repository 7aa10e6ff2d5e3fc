#!/usr/bin/env python3
"""Kermit speed of zvxfer against C-Kermit (kermit), in one run.

Every pairing moves the same random file over one socket pair wired to both
programs' stdin and stdout (C-Kermit takes it as an open connection, -F 0):
our sender to our receiver, ours to kermit's receiver, kermit's sender to
ours, and the kermit pair with what it negotiates by default.  The table
gives time, MB/s and each row's ratio against the kermit pair; the commit
that was measured heads it.

Then the same four pairings on a simulated line (zvxfer-line-relay, 115200
bit/s, 20 ms one-way latency, random binary file): file bytes over the bytes
the line carried forward, and the share of the line's capacity that carried
file data (file bytes / (elapsed s x 11520 bytes/s)), start-up included.
There kermit runs as on a serial line (window 1, no streaming; what it
does over a socket stalls at this rate).

usage: kermit_speed.py ZVXFER [--size-mib 8] [--line-kib 256] [--repeat 2]
                       [--cpus free|same|split]
"""
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pairs  # noqa: E402

PEERS = "kermit -> kermit"


def kermit():
    path = shutil.which("kermit")
    if not path:
        sys.exit("the peer program kermit (Debian package ckermit) is not installed")
    return path


def pairings(z, src, out, serial=False):
    # Our receiver writes into `out`; kermit's receiver runs there.  Over a
    # socket kermit believes it has a reliable connection and streams; with
    # `serial` it runs as on a serial line: one packet at a time.
    ours_s = [z, "send", "-p", "kermit", "-q", src]
    ours_r = [z, "receive", "-p", "kermit", "-q", "--existing", "overwrite", "-d", out]
    peer = [kermit(), "-Y", "-B", "-q", "-F", "0", "-i"]
    if serial:
        peer += ["-v", "1", "-C", "set streaming off"]
    peer_s = peer + ["-s", src]
    peer_r = peer + ["-w", "-r"]
    return [("zvxfer -> zvxfer", ours_s, ours_r),
            ("zvxfer -> kermit", ours_s, peer_r),
            ("kermit -> zvxfer", peer_s, ours_r),
            (PEERS, peer_s, peer_r)]


def same(src, out):
    copy = os.path.join(out, os.path.basename(src))
    if not os.path.exists(copy) or os.path.getsize(copy) != os.path.getsize(src):
        return False
    with open(src, "rb") as a, open(copy, "rb") as b:
        return a.read() == b.read()


def speed(z, work, size_mib, repeat):
    big, tiny = pairs.sample_files(work, size_mib)
    out = os.path.join(work, "out")
    rows = pairs.measure(pairings(z, big, out), pairings(z, tiny, out), out, repeat,
                         lambda folder: same(big, folder))
    pairs.print_table("Kermit, %.1f MB random file over a socket pair (CPUs: %s); engine of "
                      "commit %s" % (os.path.getsize(big) / 1e6, pairs.cpus_name(),
                                     pairs.commit()), rows, os.path.getsize(big))
    print("(our sender waits 1 s before its first packet, which is in its fixed time: compare\n"
          " rows 1 and 2 with the others by their net rate)")


def on_line(z, work, kib):
    relay = os.path.join(os.path.dirname(z), "zvxfer-line-relay")
    if not os.path.exists(relay):
        print("\n(no %s: build the zvxfer-line-relay target for the line table)" % relay)
        return
    src = os.path.join(work, "line.bin")
    with open(src, "wb") as f:
        f.write(random.Random(2).randbytes(kib * 1024))
    size = kib * 1024
    out = os.path.join(work, "out")
    print("\nOn a simulated 115200 bit/s line, 20 ms one-way latency, %d KiB random file"
          % kib)
    print("%-18s %9s %9s %11s %11s" % ("pairing", "time s", "KiB/s", "file/line", "line use"))
    for label, send, receive in pairings(z, src, out, serial=True):
        pairs.fresh(out)
        start = time.monotonic()
        r = subprocess.run([relay, "--baud", "115200", "--latency", "20", "--seed", "1",
                            "--timeout", "900", "--"] + send + ["--"] + receive, cwd=out,
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        seconds = time.monotonic() - start
        err = r.stderr.decode(errors="replace")
        m = re.search(r"relay: a=(\S+) b=(\S+) a->b offered=(\d+)", err)
        if not m or m.group(1) != "0" or m.group(2) != "0" or not same(src, out):
            print("%-18s failed: %s" % (label, err.strip()[-200:]))
            continue
        pairs.print_line_row(label, 18, seconds, size, int(m.group(3)))


def main():
    ap = pairs.arguments(__doc__, 8)
    ap.add_argument("--line-kib", type=int, default=256)
    args = ap.parse_args()
    pairs.set_cpus(args.cpus)
    z = os.path.abspath(args.zvxfer)
    work = tempfile.mkdtemp(prefix="zvxfer-kbench-")
    try:
        speed(z, work, args.size_mib, args.repeat)
        if args.line_kib:
            on_line(z, work, args.line_kib)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
