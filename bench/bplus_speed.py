#!/usr/bin/env python3
# B+ speed and noise tables from `zvxfer loopback -p bplus` (our terminal
# against our service on the simulated line).  Not a test: it prints tables.
#
#   bench/bplus_speed.py ZVXFER [--size BYTES] [--jobs N] [--noise-runs N] [--noise-size BYTES]
#
# Speed: a random file (4 MiB by default) downloaded and uploaded on a
# 115200 bit/s line with 20 ms latency, for each check method: file bytes
# over the line's capacity during the transfer; and the same on the
# unlimited line (the socket-pair rate).
# Noise: many short runs at bit-error rates 1e-5 and 1e-4 (with dropped
# bytes at a quarter of that) for each check method: copies exact, failed
# with a code, and reported good although they differ.
import argparse
import concurrent.futures
import os
import re
import shutil
import subprocess
import tempfile

LINE = re.compile(r"zvxfer: (download|upload) (\S+): (\d+) bytes in ([\d.]+) s(?:, file/line ([\d.]+)|, (.+)/s)")
VERDICT = re.compile(r"^(ok|failed|DAMAGED)\s+(download|upload)", re.M)


def commit():
    here = os.path.dirname(os.path.abspath(__file__))
    try:
        return subprocess.run(["git", "-C", here, "rev-parse", "--short", "HEAD"],
                              capture_output=True, text=True).stdout.strip()
    except OSError:
        return "?"


def loopback(zvxfer, path, method, extra):
    # Each run works on its own copy in its own folder: two sessions serving
    # one folder at once would meet each other's files there.
    zvxfer = os.path.abspath(zvxfer)
    with tempfile.TemporaryDirectory(prefix="run-", dir=os.path.dirname(path)) as own:
        copy = os.path.join(own, os.path.basename(path))
        shutil.copyfile(path, copy)
        out = subprocess.run([zvxfer, "loopback", "-q", "-p", "bplus", "--check-method", str(method)]
                             + extra + [os.path.basename(copy)], capture_output=True, text=True,
                             timeout=3600, cwd=own)
    return out.returncode, out.stderr


def speed(zvxfer, work, size, jobs):
    path = os.path.join(work, "speed.bin")
    with open(path, "wb") as f:
        f.write(os.urandom(size))
    lines = (("115200 bit/s, 20 ms", ["--baud", "115200", "--latency", "20"]), ("socket pair", []))
    print("B+ speed, %d-byte random file, commit %s" % (size, commit()))
    print("| check | line | download | upload |")
    print("|---|---|---|---|", flush=True)

    def cells(method, extra):
        rc, err = loopback(zvxfer, path, method, extra)
        if rc != 0:
            return {k: "FAILED" for k in ("download", "upload")}
        found = {}
        for m in LINE.finditer(err):
            found[m.group(1)] = ("file/line %s (%s s)" % (m.group(5), m.group(4)) if m.group(5)
                                 else "%s/s" % m.group(6))
        return found

    # The limited line's runs wait on the simulated line, not the processor,
    # so up to `jobs` of them run at once; the socket-pair runs measure the
    # processor and run alone afterwards.
    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, jobs)) as pool:
        limited = {m: pool.submit(cells, m, lines[0][1]) for m in range(4)}
        results = {(m, 0): limited[m].result() for m in range(4)}
    for method in range(4):
        results[(method, 1)] = cells(method, lines[1][1])
    for method in range(4):
        for i, (name, _) in enumerate(lines):
            c = results[(method, i)]
            print("| %d | %s | %s | %s |" % (method, name, c.get("download", "?"), c.get("upload", "?")))


def noise(zvxfer, work, runs, size):
    path = os.path.join(work, "noise.bin")
    with open(path, "wb") as f:
        f.write(os.urandom(size))
    print()
    print("B+ on a noisy line, %d runs of a %d-byte file each way, commit %s" % (runs, size, commit()))
    print("| check | bit-error rate | exact | failed with a code | reported good but differs |")
    print("|---|---|---|---|---|")
    for ber in ("1e-5", "1e-4"):
        for method in range(4):
            counts = {"ok": 0, "failed": 0, "DAMAGED": 0}
            for seed in range(1, runs + 1):
                _, err = loopback(zvxfer, path, method, ["--ber", ber, "--seed", str(seed)])
                for m in VERDICT.finditer(err):
                    counts[m.group(1)] += 1
            print("| %d | %s | %d | %d | %d |" % (method, ber, counts["ok"], counts["failed"],
                                                counts["DAMAGED"]), flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("zvxfer")
    parser.add_argument("--size", type=int, default=4 << 20)
    parser.add_argument("--noise-runs", type=int, default=20)
    parser.add_argument("--noise-size", type=int, default=20000)
    parser.add_argument("--jobs", type=int, default=1,
                        help="limited-line speed runs at once (they wait on the line)")
    parser.add_argument("--skip-speed", action="store_true")
    parser.add_argument("--skip-noise", action="store_true")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="zvxfer-bplus-bench-") as work:
        if not args.skip_speed:
            speed(args.zvxfer, work, args.size, args.jobs)
        if not args.skip_noise:
            noise(args.zvxfer, work, args.noise_runs, args.noise_size)


if __name__ == "__main__":
    main()
