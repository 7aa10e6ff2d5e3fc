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
import argparse
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

LINE_BYTES_PER_S = 115200 // 10


def which(name):
    path = shutil.which(name) or shutil.which("l" + name)
    if not path:
        sys.exit("the peer program %s (Debian package lrzsz) is not installed" % name)
    return path


# CPUs for the sender and the receiver (None: the scheduler places them).
# Two processes that answer each other block by block run much faster on one
# CPU than on two (every wake-up on the other CPU has to bring it out of
# idle), and where the scheduler puts them changes from run to run.
CPU_CHOICES = {"free": (None, None), "same": (0, 0), "split": (0, 1)}
CPUS = CPU_CHOICES["free"]


def pinned(cpu):
    if cpu is None:
        return None
    return lambda: os.sched_setaffinity(0, {cpu})


def run_pair(send_argv, recv_argv, recv_cwd, timeout=600):
    a, b = socket.socketpair()
    with open(os.devnull, "wb") as null:
        start = time.monotonic()
        ps = subprocess.Popen(send_argv, stdin=a.fileno(), stdout=a.fileno(), stderr=null,
                              preexec_fn=pinned(CPUS[0]))
        pr = subprocess.Popen(recv_argv, stdin=b.fileno(), stdout=b.fileno(), stderr=null,
                              cwd=recv_cwd, preexec_fn=pinned(CPUS[1]))
        a.close()
        b.close()
        try:
            rs = ps.wait(timeout=timeout)
            rr = pr.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            ps.kill()
            pr.kill()
            ps.wait()
            pr.wait()
            return None, "hung"
        elapsed = time.monotonic() - start
    return elapsed, "exit %d/%d" % (rs, rr)


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
    rows = []
    for (label, s_big, r_big), (_, s_tiny, r_tiny) in zip(
            pairings(z, protocol, big, os.path.join(work, "out")),
            pairings(z, protocol, tiny, os.path.join(work, "out"))):
        out = os.path.join(work, "out")
        best, state = None, ""
        for _ in range(repeat):
            shutil.rmtree(out, ignore_errors=True)
            os.mkdir(out)
            t, state = run_pair(s_big, r_big, out)
            if t is None or not received_ok(big, out):
                state += ", file wrong" if t is not None else ""
                best = None
                break
            best = t if best is None else min(best, t)
        shutil.rmtree(out, ignore_errors=True)
        os.mkdir(out)
        fixed, _ = run_pair(s_tiny, r_tiny, out)
        rows.append((label, best, fixed, state))
    return rows


def print_table(title, rows, size):
    mb = size / 1e6
    ref = rows[-1]
    where = {"free": "", "same": ", both ends on CPU 0", "split": ", ends on CPUs 0 and 1"}
    cpus = [k for k, v in CPU_CHOICES.items() if v == CPUS][0]
    print("\n%s, %.1f MB file over a socket pair%s" % (title, mb, where[cpus]))
    print("%-18s %9s %9s %9s %9s %9s %9s  %s" % ("pairing", "time s", "MB/s", "vs peer",
                                                 "fixed s", "net MB/s", "vs peer", "status"))
    for label, t, fixed, state in rows:
        if t is None:
            print("%-18s %9s %9s %9s %9s %9s %9s  %s" % (label, "-", "-", "-", "-", "-", "-",
                                                         state))
            continue
        rate = mb / t
        net = mb / max(t - fixed, 1e-6) if fixed is not None else float("nan")
        ref_rate = mb / ref[1] if ref[1] else float("nan")
        ref_net = mb / max(ref[1] - ref[2], 1e-6) if ref[1] and ref[2] is not None else float("nan")
        print("%-18s %9.2f %9.1f %9.2f %9.2f %9.1f %9.2f  %s" % (
            label, t, rate, rate / ref_rate, fixed if fixed is not None else float("nan"), net,
            net / ref_net, state))


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
        print("%-12s %9.2f %9.1f %11.3f" % (protocol, t, kib / t,
                                             kib * 1024 / (t * LINE_BYTES_PER_S)))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("zvxfer")
    ap.add_argument("--size-mib", type=int, default=8)
    ap.add_argument("--loop-kib", type=int, default=128,
                    help="file size for the simulated-line table (0: skip it)")
    ap.add_argument("--repeat", type=int, default=2, help="runs per pairing; the best counts")
    ap.add_argument("--cpus", choices=sorted(CPU_CHOICES), default="free",
                    help="free: the scheduler places sender and receiver; same: both on CPU 0; "
                         "split: sender on CPU 0, receiver on CPU 1")
    args = ap.parse_args()
    global CPUS
    CPUS = CPU_CHOICES[args.cpus]
    z = os.path.abspath(args.zvxfer)
    work = tempfile.mkdtemp(prefix="zvxfer-bench-")
    try:
        big = os.path.join(work, "bench.bin")
        with open(big, "wb") as f:
            f.write(random.Random(1).randbytes(args.size_mib << 20))
        tiny = os.path.join(work, "tiny.bin")
        with open(tiny, "wb") as f:
            f.write(random.Random(3).randbytes(1000))
        size = os.path.getsize(big)
        print_table("YMODEM", measure(z, "ymodem", big, tiny, work, args.repeat), size)
        print_table("XMODEM-1K", measure(z, "xmodem-1k", big, tiny, work, args.repeat), size)
        if args.loop_kib > 0:
            efficiency(z, work, args.loop_kib)
    finally:
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
