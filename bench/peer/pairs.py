"""What the peer speed benchmarks share: running a sender and a receiver
over one socket pair (optionally pinned to CPUs), timing every pairing on a
big and a tiny file, and printing the table with each row's ratio against
the peer pairing it is compared with.
"""
import argparse
import os
import random
import shutil
import socket
import subprocess
import sys
import threading
import time

LINE_BYTES_PER_S = 115200 // 10

# CPUs for the sender and the receiver (None: the scheduler places them).
# Two processes that answer each other block by block run differently on
# one CPU and on two (a wake-up on the other CPU has to bring it out of
# idle), and where the scheduler puts them changes from run to run.
CPU_CHOICES = {"free": (None, None), "same": (0, 0), "split": (0, 1)}
CPUS = CPU_CHOICES["free"]
CPU_HELP = ("free: the scheduler places sender and receiver; same: both on CPU 0; "
            "split: sender on CPU 0, receiver on CPU 1")


def set_cpus(choice):
    global CPUS
    CPUS = CPU_CHOICES[choice]


def arguments(doc, size_mib):
    # The options every speed script takes: the program, the file size, the
    # runs per pairing and where sender and receiver run.
    ap = argparse.ArgumentParser(description=doc.splitlines()[0])
    ap.add_argument("zvxfer")
    ap.add_argument("--size-mib", type=int, default=size_mib)
    ap.add_argument("--repeat", type=int, default=2, help="runs per pairing; the best counts")
    ap.add_argument("--cpus", choices=sorted(CPU_CHOICES), default="free", help=CPU_HELP)
    return ap


def print_line_row(label, width, seconds, size, forward=None):
    # One row of a simulated-line table: time, KiB/s, file bytes over the
    # bytes carried forward (when counted) and over the line's capacity.
    carried = " %11.3f" % (size / forward) if forward else ""
    print("%-*s %9.2f %9.1f%s %11.3f" % (width, label, seconds, size / 1024 / seconds, carried,
                                         size / (seconds * LINE_BYTES_PER_S)))


def cpus_name():
    return [k for k, v in CPU_CHOICES.items() if v == CPUS][0]


def which(name):
    path = shutil.which(name) or shutil.which("l" + name)
    if not path:
        sys.exit("the peer program %s (Debian package lrzsz) is not installed" % name)
    return path


def pinned(cpu):
    if cpu is None:
        return None
    return lambda: os.sched_setaffinity(0, {cpu})


def run_pair(send_argv, recv_argv, recv_cwd, timeout=600):
    """Seconds from start to both exits, and the exit statuses as text.
    The waits block (a wait with a time-out polls, which would round the
    times up by tens of milliseconds); a timer kills a pair that hangs."""
    a, b = socket.socketpair()
    with open(os.devnull, "wb") as null:
        start = time.monotonic()
        ps = subprocess.Popen(send_argv, stdin=a.fileno(), stdout=a.fileno(), stderr=null,
                              preexec_fn=pinned(CPUS[0]))
        pr = subprocess.Popen(recv_argv, stdin=b.fileno(), stdout=b.fileno(), stderr=null,
                              cwd=recv_cwd, preexec_fn=pinned(CPUS[1]))
        a.close()
        b.close()
        hung = threading.Event()

        def kill():
            hung.set()
            ps.kill()
            pr.kill()

        watchdog = threading.Timer(timeout, kill)
        watchdog.start()
        rs = ps.wait()
        rr = pr.wait()
        elapsed = time.monotonic() - start
        watchdog.cancel()
    if hung.is_set():
        return None, "hung"
    return elapsed, "exit %d/%d" % (rs, rr)


def sample_files(work, size_mib):
    """The benchmark's big random file and the tiny one whose time is the
    pairing's fixed cost, as paths; fixed seeds give the same bytes on
    every run."""
    paths = []
    for name, seed, size in (("bench.bin", 1, size_mib << 20), ("tiny.bin", 3, 1000)):
        paths.append(os.path.join(work, name))
        with open(paths[-1], "wb") as f:
            f.write(random.Random(seed).randbytes(size))
    return paths


def fresh(folder):
    shutil.rmtree(folder, ignore_errors=True)
    os.mkdir(folder)


def measure(big_pairings, tiny_pairings, out, repeat, received_ok):
    """Best time of `repeat` runs of each big pairing (None when a run fails
    or delivers a wrong file) and one run of the same pairing on the tiny
    file: rows of (label, best, fixed, status)."""
    rows = []
    for (label, send, receive), (_, send_tiny, receive_tiny) in zip(big_pairings, tiny_pairings):
        best, state = None, ""
        for _ in range(repeat):
            fresh(out)
            t, state = run_pair(send, receive, out)
            if t is None or not received_ok(out):
                state += ", file wrong" if t is not None else ""
                best = None
                break
            best = t if best is None else min(best, t)
        fresh(out)
        fixed, _ = run_pair(send_tiny, receive_tiny, out)
        rows.append((label, best, fixed, state))
    return rows


def print_table(heading, rows, size, compared_with=None):
    """`compared_with` maps a row's label to the label of the row it is
    measured against; rows it does not name compare with the last row."""
    mb = size / 1e6
    number = {label: i + 1 for i, (label, _, _, _) in enumerate(rows)}
    by_label = {label: (t, fixed) for label, t, fixed, _ in rows}
    print(heading)
    print("(fixed s: the same pairing with a 1000-byte file: start-up, handshakes, end of batch;")
    print(" net = the big file's time less the fixed time; both ratios are against row \"vs\")")
    width = max(len(r[0]) for r in rows)
    print("%2s %-*s %7s %7s %7s %7s %8s %7s %3s  %s" % (
        "#", width, "pairing", "time s", "MB/s", "ratio", "fixed s", "net MB/s", "ratio", "vs",
        "status"))
    for label, t, fixed, state in rows:
        ref_label = (compared_with or {}).get(label, rows[-1][0])
        ref, ref_fixed = by_label[ref_label]
        if t is None:
            print("%2d %-*s %7s %7s %7s %7s %8s %7s %3d  %s" % (
                number[label], width, label, "-", "-", "-", "-", "-", "-", number[ref_label],
                state))
            continue
        ratio = ref / t if ref else float("nan")
        net = mb / max(t - fixed, 1e-6) if fixed is not None else float("nan")
        ref_net = (mb / max(ref - ref_fixed, 1e-6)
                   if ref and ref_fixed is not None else float("nan"))
        print("%2d %-*s %7.2f %7.1f %7.2f %7.2f %8.1f %7.2f %3d  %s" % (
            number[label], width, label, t, mb / t, ratio,
            fixed if fixed is not None else float("nan"), net, net / ref_net, number[ref_label],
            state))


def commit():
    try:
        here = os.path.dirname(os.path.abspath(__file__))
        r = subprocess.run(["git", "-C", here, "describe", "--always", "--dirty"],
                           capture_output=True, text=True, timeout=10)
        return r.stdout.strip() or "unknown"
    except OSError:
        return "unknown"
