#!/usr/bin/env python3
# Interoperability of the zvxfer program's ZMODEM with the ZMODEM programs of
# lrzsz (sz, rz), run as black boxes: both directions over crossed pipes,
# the peer's sender with its escaping, CRC and window choices, our sender
# windowed and window-less, our receiver's skip policy, and our program
# against itself over a real pty pair.  Every run has a deadline.
#
# usage: peer_zmodem.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import wiring  # noqa: E402
from peer_lrzsz import MTIME, check, check_exits, make_file, same_ymodem  # noqa: E402
from peer_lrzsz import peer as lrzsz_peer  # noqa: E402
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import run_cases  # noqa: E402

PEERS = ("sz", "rz")


def peer(name):
    return lrzsz_peer(name)


def control_bytes(folder, name, size):
    """Every byte one the line must escape or may mistake for a frame."""
    path = os.path.join(folder, name)
    pattern = bytes([0x18, 0x11, 0x13, 0x0D, 0x7F, 0xFF, 0x91, 0x93, 0x8D, 0x90, 0x10, 0x2A])
    with open(path, "wb") as f:
        f.write((pattern * (size // len(pattern) + 1))[:size])
    os.utime(path, (MTIME, MTIME))
    return path


class Case:
    def __init__(self, zvxfer, work):
        self.z = zvxfer
        self.work = work
        self.src = os.path.join(work, "src")
        self.out = os.path.join(work, "out")
        os.mkdir(self.src)
        os.mkdir(self.out)

    def batch(self):
        empty = os.path.join(self.src, "empty.txt")
        open(empty, "wb").close()
        os.utime(empty, (MTIME, MTIME))
        return [make_file(self.src, "big.bin", (4 << 20) + 1234, 11),
                empty,
                make_file(self.src, "name with blanks.dat", 5000, 12),
                control_bytes(self.src, "control.bin", 70000)]

    def copy(self, original):
        return os.path.join(self.out, os.path.basename(original))


def from_peer(c, files, peer_args=(), ours=(), deadline_s=120):
    runs = wiring.pipes([peer("sz"), "-q"] + list(peer_args) + files,
                        [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out] + list(ours),
                        c.work, deadline_s=deadline_s)
    check_exits(runs)
    for f in files:
        same_ymodem(f, c.copy(f), runs)
    return runs


def to_peer(c, files, ours=(), peer_args=(), deadline_s=120):
    runs = wiring.pipes([c.z, "send", "-p", "zmodem", "-q"] + list(ours) + files,
                        [peer("rz"), "-q"] + list(peer_args), c.work, cwd_b=c.out,
                        deadline_s=deadline_s)
    check_exits(runs)
    for f in files:
        same_ymodem(f, c.copy(f), runs)
    return runs


# --- the peer's sender to our receiver -----------------------------------------

def case_zmodem_batch_from_peer(c):
    from_peer(c, c.batch())


def case_zmodem_escape_all_from_peer(c):
    from_peer(c, [control_bytes(c.src, "control.bin", 40000),
                  make_file(c.src, "random.bin", 300000, 13)], peer_args=["-e"])


def case_zmodem_crc16_from_peer(c):
    from_peer(c, [make_file(c.src, "random.bin", 300000, 14),
                  control_bytes(c.src, "control.bin", 9000)], peer_args=["-o"])


def case_zmodem_window_from_peer(c):
    from_peer(c, [make_file(c.src, "random.bin", 600000, 15)], peer_args=["-w", "8192"])


def case_zmodem_frame_length_from_peer(c):
    # Frames of at most 1024 bytes in subpackets of 256: every frame ends
    # with a subpacket the sender wants acknowledged.  (Asked for longer
    # frames, sz also sends subpackets longer than the 1024 bytes a
    # receiver takes, and backs off only after the errors that causes.)
    from_peer(c, [make_file(c.src, "random.bin", 200001, 16)],
              peer_args=["-L", "256", "-l", "1024"])


def case_zmodem_skip_existing(c):
    keep = make_file(c.src, "keep.txt", 700, 17)
    new = make_file(c.src, "new.bin", 9000, 18)
    existing = os.path.join(c.out, "keep.txt")
    with open(existing, "wb") as f:
        f.write(b"already here")
    runs = wiring.pipes([peer("sz"), "-q", keep, new],
                        [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out, "--existing", "skip"],
                        c.work, deadline_s=60)
    check_exits(runs)
    with open(existing, "rb") as f:
        check(f.read() == b"already here", "the existing file was changed", runs)
    same_ymodem(new, c.copy(new), runs)


# --- our sender to the peer's receiver ------------------------------------------

def case_zmodem_batch_to_peer(c):
    to_peer(c, c.batch())


def case_zmodem_no_window_to_peer(c):
    to_peer(c, [make_file(c.src, "random.bin", (2 << 20) + 77, 19),
                control_bytes(c.src, "control.bin", 30000)], ours=["--no-window"])


def case_zmodem_small_window_to_peer(c):
    to_peer(c, [make_file(c.src, "random.bin", 300000, 20)], ours=["--window", "5000"])


# --- under noise, through the line relay ---------------------------------------------

def noisy(c, send, receive, seeds=(1, 2, 3)):
    """Each run through a line with bit errors either delivers the exact file or
    ends with a defined failure; a receiver never reports a wrong file good."""
    relay = os.path.join(os.path.dirname(c.z), "zvxfer-line-relay")
    check(os.path.exists(relay), "no %s next to the program" % relay)
    f = make_file(c.src, "noisy.bin", 150000, 21)
    completed = 0
    for seed in seeds:
        copy = c.copy(f)
        if os.path.exists(copy):
            os.remove(copy)
        r = subprocess.run([relay, "--ber", "1e-5", "--seed", str(seed), "--timeout", "120",
                            "--"] + send(f) + ["--"] + receive, cwd=c.out,
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=180)
        err = r.stderr.decode(errors="replace")
        m = re.search(r"relay: a=(\S+) b=(\S+)", err)
        check(m, "the relay did not report: " + err)
        ours_failed = re.search(r"transfer failed: -\d+ ", err)
        if m.group(2) == "0":
            same_ymodem(f, copy, None)
            completed += m.group(1) == "0"
        else:
            check(m.group(1) != "0" or ours_failed, "seed %d: a failure without a result "
                  "code: %s" % (seed, err))
        check("signal" not in err, "seed %d: a program was killed: %s" % (seed, err))
    check(completed >= len(seeds) - 1, "only %d of %d noisy runs completed" % (completed,
                                                                             len(seeds)))


def case_zmodem_noisy_from_peer(c):
    noisy(c, lambda f: [peer("sz"), "-q", f],
          [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out])


def case_zmodem_noisy_to_peer(c):
    noisy(c, lambda f: [c.z, "send", "-p", "zmodem", "-q", f], [peer("rz"), "-q"])


# --- over a real pty pair ---------------------------------------------------------

def case_pty_zmodem_ourselves(c):
    files = c.batch()
    runs = wiring.pty_pair([c.z, "send", "-p", "zmodem", "-q"] + files,
                           [c.z, "receive", "-p", "zmodem", "-q", "-d", c.out], c.work,
                           deadline_s=120)
    check_exits(runs)
    for f in files:
        same_ymodem(f, c.copy(f), runs)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}


def run(case, zvxfer, work):
    for p in PEERS:
        peer(p)  # a missing peer program fails every case with a clear message
    case(Case(zvxfer, work))


def main():
    return run_cases(CASES, "zvxfer-zmodem-peer-", run)


if __name__ == "__main__":
    sys.exit(main())
