#!/usr/bin/env python3
# Interoperability of the zvxfer program's ZMODEM with sz and rz of lrzsz, run
# as black boxes: both directions over crossed pipes, the peer's sender with
# its escaping, CRC and window choices, our sender windowed and window-less,
# our receiver's skip policy, noisy lines through the line relay, and our
# program against itself over a real pty pair.
#
# usage: peer_zmodem.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from wiring import (Case, check, check_exits, make_file, main, peer, pipes, pty_pair,  # noqa: E402
                    same)

# Every byte the line must escape or may mistake for a frame.
CONTROL = bytes([0x18, 0x11, 0x13, 0x0D, 0x7F, 0xFF, 0x91, 0x93, 0x8D, 0x90, 0x10, 0x2A])


def batch(c: Case):
    return [make_file(c.src, "big.bin", (4 << 20) + 1234, 11), make_file(c.src, "empty.txt", 0),
            make_file(c.src, "name with blanks.dat", 5000, 12),
            make_file(c.src, "control.bin", 70000, pattern=CONTROL)]


def transfer(c: Case, files, to_peer, ours=(), theirs=()):
    if to_peer:
        runs = pipes([c.z, "send", "-p", "zmodem", "-q"] + list(ours) + files,
                     [peer("rz"), "-q"] + list(theirs), c.work, cwd_b=c.out, deadline_s=120)
    else:
        runs = pipes([peer("sz"), "-q"] + list(theirs) + files,
                     [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out] + list(ours), c.work,
                     deadline_s=120)
    c.delivered(runs, files, remove=True)


def case_zmodem_batch_from_peer(c: Case):
    transfer(c, batch(c), to_peer=False)


def case_zmodem_batch_to_peer(c: Case):
    transfer(c, batch(c), to_peer=True)


def case_zmodem_peer_sender_options(c: Case):
    # Escape everything, CRC-16 only, a window; and frames of at most 1024
    # bytes in subpackets of 256, each frame ending with one to acknowledge.
    files = [make_file(c.src, "control.bin", 40000, pattern=CONTROL),
             make_file(c.src, "random.bin", 300000, 13)]
    for theirs in (["-e"], ["-o"], ["-w", "8192"], ["-L", "256", "-l", "1024"]):
        transfer(c, files, to_peer=False, theirs=theirs)


def case_zmodem_our_sender_windows(c: Case):
    files = [make_file(c.src, "random.bin", (2 << 20) + 77, 19),
             make_file(c.src, "control.bin", 30000, pattern=CONTROL)]
    for ours in (["--no-window"], ["--window", "5000"]):
        transfer(c, files, to_peer=True, ours=ours)


def case_zmodem_skip_existing(c: Case):
    keep, new = make_file(c.src, "keep.txt", 700, 17), make_file(c.src, "new.bin", 9000, 18)
    with open(c.copy(keep), "wb") as f:
        f.write(b"already here")
    runs = pipes([peer("sz"), "-q", keep, new],
                 [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out, "--existing", "skip"], c.work)
    check_exits(runs)
    with open(c.copy(keep), "rb") as f:
        check(f.read() == b"already here", "the existing file was changed", runs)
    same(new, c.copy(new), runs)


def case_zmodem_noisy_both_ways(c: Case):
    # Each run through a line with bit errors either delivers the exact file
    # or ends with a defined failure; nobody reports a wrong file good.
    relay = os.path.join(os.path.dirname(c.z), "zvxfer-line-relay")
    check(os.path.exists(relay), "no %s next to the program" % relay)
    f = make_file(c.src, "noisy.bin", 150000, 21)
    ours_in = [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out]
    for send, receive, ours in (([peer("sz"), "-q", f], ours_in, 2),
                                ([c.z, "send", "-p", "zmodem", "-q", f], [peer("rz"), "-q"], 1)):
        completed = 0
        for seed in (1, 2, 3):
            if os.path.exists(c.copy(f)):
                os.remove(c.copy(f))
            r = subprocess.run([relay, "--ber", "1e-5", "--seed", str(seed), "--timeout", "120",
                                "--"] + send + ["--"] + receive, cwd=c.out,
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=180)
            err = r.stderr.decode(errors="replace")
            m = re.search(r"relay: a=(\S+) b=(\S+)", err)
            check(m, "seed %d: no report: %s" % (seed, err))
            # Our program must end by itself.  The peer may wait on after
            # ours has finished well: when the line damages our last answer
            # of the session (the closing ZFIN), ours has already gone and
            # the peer waits for it until the relay ends it.
            theirs = 3 - ours
            check("signal" not in m.group(ours) and
                  ("signal" not in m.group(theirs) or m.group(ours) == "0"),
                  "seed %d: a program killed: %s" % (seed, err))
            if "signal" in m.group(theirs):
                same(f, c.copy(f), None)  # ours said the file went whole
                continue
            if m.group(2) == "0":
                same(f, c.copy(f), None)
                completed += m.group(1) == "0"
            else:
                check(m.group(1) != "0" or re.search(r"transfer failed: -\d+ ", err),
                      "seed %d: a failure without a result code: %s" % (seed, err))
        # Where the errors land depends on timing as well as on the seed, so
        # a run may fail honestly; one in three must still come through.
        check(completed >= 1, "none of 3 noisy runs from %s completed" % send[0])


def case_zmodem_large_window_through_relay(c: Case):
    # A window far larger than the line and its buffers hold: the receiver's
    # ZACKs pile up on the way back while our sender is still sending, and
    # the relay must go on carrying the data (a stalled back channel once
    # stopped both directions after the first 88 KB).
    relay = os.path.join(os.path.dirname(c.z), "zvxfer-line-relay")
    check(os.path.exists(relay), "no %s next to the program" % relay)
    # A window wider than the file: every ZACK of 6 MB waits for our sender,
    # more than the line and its buffers hold, so our host must take them
    # off the line while its own writes wait.
    f = make_file(c.src, "wide.bin", (3 << 20) + 333, 23)
    huge = make_file(c.src, "huge.bin", (6 << 20) + 5, 24)
    ours_in = [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out]
    rz = [peer("rz"), "-q"]
    for receive, latency, window, f in ((ours_in, 0, 262144, f), (ours_in, 20, 262144, f),
                                        (rz, 0, 262144, f), (rz, 20, 262144, f),
                                        (rz, 20, 65536, f), (ours_in, 0, 16 << 20, huge),
                                        (rz, 0, 16 << 20, huge)):
        if os.path.exists(c.copy(f)):
            os.remove(c.copy(f))
        send = [c.z, "send", "-p", "zmodem", "-q", "--window", str(window), f]
        r = subprocess.run([relay, "--latency", str(latency), "--timeout", "60", "--"] + send +
                           ["--"] + receive, cwd=c.out, stdout=subprocess.DEVNULL,
                           stderr=subprocess.PIPE, timeout=120)
        err = r.stderr.decode(errors="replace")
        what = "%s, %d ms, window %d" % (os.path.basename(receive[0]), latency, window)
        check(r.returncode == 0 and re.search(r"relay: a=0 b=0 ", err),
              "%s: did not end well: %s" % (what, err))
        same(f, c.copy(f), None)


def case_relay_passes_a_hang_up_on(c: Case):
    # A program that ends at once must reach the other one as a hang-up:
    # `cat` ends by itself instead of being killed at the grace time.
    relay = os.path.join(os.path.dirname(c.z), "zvxfer-line-relay")
    r = subprocess.run([relay, "--grace", "20", "--", "true", "--", "sh", "-c", "cat >/dev/null"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=60)
    err = r.stderr.decode(errors="replace")
    check(r.returncode == 0 and "relay: a=0 b=0 " in err, "the hang-up was not passed on: " + err)


def case_pty_zmodem_ourselves(c: Case):
    files = batch(c)
    runs = pty_pair([c.z, "send", "-p", "zmodem", "-q"] + files,
                    [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out], c.work)
    c.delivered(runs, files)


if __name__ == "__main__":
    sys.exit(main(("sz", "rz"), "zvxfer-zmodem-peer-"))
