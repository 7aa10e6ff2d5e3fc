#!/usr/bin/env python3
"""ZMODEM speed of zvxfer against the lrzsz programs sz and rz, in one run.

Every pairing moves the same random file over one socket pair wired to both
programs' stdin and stdout: our sender to our receiver (windowed, the
default, and window-less), ours to the peer's receiver, the peer's sender
to ours, and the peer pair.  The table gives time, MB/s and the ratio
against the peer pair, with the commit that was measured.

Then the wire efficiency of our ZMODEM on a simulated line (zvxfer loopback
--baud 115200 --latency 20), windowed and window-less: file bytes divided by
the bytes the line carried forward, and the share of the line's capacity
that carried file data (file bytes / (elapsed s x 11520 bytes/s)).

usage: zmodem_speed.py ZVXFER [--size-mib 64] [--loop-kib 256] [--repeat 2]
                       [--cpus free|same|split]
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import xymodem_speed  # noqa: E402
from xymodem_speed import CPU_CHOICES, LINE_BYTES_PER_S, run_pair, which  # noqa: E402


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
            ("peer -> peer", peer_s, peer_r)]


def same(src, out):
    copy = os.path.join(out, os.path.basename(src))
    if not os.path.exists(copy) or os.path.getsize(copy) != os.path.getsize(src):
        return False
    with open(src, "rb") as a, open(copy, "rb") as b:
        return a.read() == b.read()


def measure(z, big, tiny, work, repeat):
    out = os.path.join(work, "out")
    rows = []
    for (label, send, receive), (_, send_tiny, receive_tiny) in zip(
            pairings(z, big, out), pairings(z, tiny, out)):
        best, state = None, ""
        for _ in range(repeat):
            shutil.rmtree(out, ignore_errors=True)
            os.mkdir(out)
            t, state = run_pair(send, receive, out)
            if t is None or not same(big, out):
                state += ", file wrong" if t is not None else ""
                best = None
                break
            best = t if best is None else min(best, t)
        shutil.rmtree(out, ignore_errors=True)
        os.mkdir(out)
        fixed, _ = run_pair(send_tiny, receive_tiny, out)
        rows.append((label, best, fixed, state))
    return rows


def commit():
    try:
        here = os.path.dirname(os.path.abspath(__file__))
        r = subprocess.run(["git", "-C", here, "describe", "--always", "--dirty"],
                           capture_output=True, text=True, timeout=10)
        return r.stdout.strip() or "unknown"
    except OSError:
        return "unknown"


def print_table(rows, size):
    mb = size / 1e6
    _, ref, ref_fixed, _ = rows[-1]
    cpus = [k for k, v in CPU_CHOICES.items() if v == xymodem_speed.CPUS][0]
    print("ZMODEM, %.1f MB random file over a socket pair (CPUs: %s); engine of commit %s"
          % (mb, cpus, commit()))
    print("(fixed s: the same pairing with a 1000-byte file: start-up, handshakes, end of batch;")
    print(" net = the big file's time less the fixed time)")
    print("%-30s %8s %8s %8s %8s %8s %8s  %s" % ("pairing", "time s", "MB/s", "vs peer",
                                                 "fixed s", "net MB/s", "vs peer", "status"))
    ref_net = mb / max(ref - ref_fixed, 1e-6) if ref and ref_fixed is not None else float("nan")
    for label, t, fixed, state in rows:
        if t is None:
            print("%-30s %8s %8s %8s %8s %8s %8s  %s" % (label, "-", "-", "-", "-", "-", "-",
                                                         state))
            continue
        ratio = (ref / t) if ref else float("nan")
        net = mb / max(t - fixed, 1e-6) if fixed is not None else float("nan")
        print("%-30s %8.2f %8.1f %8.2f %8.2f %8.1f %8.2f  %s" % (
            label, t, mb / t, ratio, fixed if fixed is not None else float("nan"), net,
            net / ref_net, state))


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
        print("%-22s %9.2f %9.1f %11.3f %11.3f" % (label, seconds, kib / seconds,
                                                   size / int(line.group(1)),
                                                   size / (seconds * LINE_BYTES_PER_S)))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("zvxfer")
    ap.add_argument("--size-mib", type=int, default=64)
    ap.add_argument("--loop-kib", type=int, default=256)
    ap.add_argument("--repeat", type=int, default=2, help="runs per pairing; the best counts")
    ap.add_argument("--cpus", choices=sorted(CPU_CHOICES), default="free",
                    help="free: the scheduler places sender and receiver; same: both on CPU 0; "
                         "split: sender on CPU 0, receiver on CPU 1")
    args = ap.parse_args()
    xymodem_speed.CPUS = CPU_CHOICES[args.cpus]
    z = os.path.abspath(args.zvxfer)
    work = tempfile.mkdtemp(prefix="zvxfer-zbench-")
    try:
        big = os.path.join(work, "bench.bin")
        with open(big, "wb") as f:
            f.write(random.Random(1).randbytes(args.size_mib << 20))
        tiny = os.path.join(work, "tiny.bin")
        with open(tiny, "wb") as f:
            f.write(random.Random(3).randbytes(1000))
        print_table(measure(z, big, tiny, work, args.repeat), os.path.getsize(big))
        if args.loop_kib:
            efficiency(z, work, args.loop_kib)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
