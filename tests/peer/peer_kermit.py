#!/usr/bin/env python3
# Interoperability of the zvxfer program's Kermit with C-Kermit (kermit) and
# G-Kermit (gkermit), run as black boxes, both directions.  Over "pipes" our
# program talks through a relay that records the line both ways (gkermit
# reads and writes pipes; kermit a socket, since it only takes a terminal
# or a connection); over a pty the peer runs on the terminal side with it
# as its controlling terminal, the way it runs on a remote host.
#
# What happens to names: a name with blanks that we send is written by the
# peers with '_' for each blank (our sender converts it); kermit sends a
# name as it is, gkermit with '_' for each blank, and we write it as sent.  Text mode: our sender puts CR before each LF and
# the peer writes its own line ends, so a text file arrives unchanged; a
# text file from the peer arrives with CR LF line ends (this end keeps CR).
#
# usage: peer_kermit.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import resource
import shutil
import signal
import socket
import subprocess
import sys
import threading
import tty

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from wiring import Case, Run, _finish, check, check_exits, make_file, run_cases  # noqa: E402

PEERS = ("kermit", "gkermit")


def peer_argv(name, *args):
    path = shutil.which(name)
    check(path, "the peer program %s (Debian package %s) is not installed" % (
        name, "ckermit" if name == "kermit" else "gkermit"))
    if name == "kermit":
        # No init file, no prompt afterwards; binary unless told otherwise.
        return [path, "-Y", "-B", "-q"] + list(args)
    return [path, "-q"] + list(args)


def peer_line(name):
    # How the peer reaches the line on its standard input and output.
    return ["-F", "0"] if name == "kermit" else []


class Relay:
    # Copies the line between the two programs and keeps what went each way;
    # `when` (bytes from us, action) runs the action once that many have
    # passed.
    def __init__(self, when=None):
        self.ways = {"ours": bytearray(), "theirs": bytearray()}
        self.threads = []
        self.when = when

    def carry(self, src, dst, way):
        def run():
            while True:
                try:
                    data = os.read(src, 65536)
                except OSError:
                    data = b""
                if not data:
                    break
                self.ways[way] += data
                if self.when and way == "ours" and len(self.ways[way]) >= self.when[0]:
                    self.when[1]()
                    self.when = None
                try:
                    os.write(dst, data)
                except OSError:
                    pass
            os.close(src)
            os.close(dst)  # the other program sees the line end
        t = threading.Thread(target=run, daemon=True)
        t.start()
        self.threads.append(t)


def limit_file_size(limit):
    # A receiving program whose writes fail past `limit` bytes.
    def apply():
        resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    return apply


def relayed(ours_argv, peer, theirs_argv, c, theirs_cwd, ours_limit=0, theirs_limit=0,
            deadline_s=60, interrupt_after=0):
    # Our program on pipes and the peer on pipes or a socket, joined by a
    # recording relay; returns the two runs (ours first) and the relay.
    # With interrupt_after our program gets SIGINT (Ctrl-C) once it has
    # sent that many bytes.
    relay = Relay((interrupt_after, lambda: ours.proc.send_signal(signal.SIGINT))
                  if interrupt_after else None)
    o_in_r, o_in_w = os.pipe()
    o_out_r, o_out_w = os.pipe()
    if peer == "kermit":
        p_end, r_end = socket.socketpair()
        p_in = p_out = p_end.fileno()
        r_in, r_out = os.dup(r_end.fileno()), os.dup(r_end.fileno())
        r_end.close()
    else:
        p_in, r_out = os.pipe()
        r_in, p_out = os.pipe()
    ours = Run("ours", ours_argv, o_in_r, o_out_w, c.out, c.work,
               preexec=ours_limit and limit_file_size(ours_limit))
    theirs = Run("theirs", theirs_argv, p_in, p_out, theirs_cwd, c.work,
                 preexec=theirs_limit and limit_file_size(theirs_limit))
    if peer == "kermit":
        p_end.close()
    else:
        os.close(p_in)
        os.close(p_out)
    os.close(o_in_r)
    os.close(o_out_w)
    relay.carry(o_out_r, r_out, "ours")
    relay.carry(r_in, o_in_w, "theirs")
    runs = _finish([ours, theirs], deadline_s, 15)
    for t in relay.threads:
        t.join(5)
    return runs, relay


def on_pty(tty_argv, tty_cwd, master_argv, master_cwd, c, tty_is_peer, deadline_s=60):
    # tty_argv on the terminal side of a raw pty: a peer gets it as its
    # controlling terminal (it opens its own terminal), our program takes it
    # as standard input and output; master_argv on the other side.
    master, slave = os.openpty()
    name = os.ttyname(slave)
    tty.setraw(slave)

    def controlling():
        os.setsid()
        fd = os.open(name, os.O_RDWR)
        os.dup2(fd, 0)
        os.dup2(fd, 1)
        os.close(fd)
    line = subprocess.DEVNULL if tty_is_peer else slave
    try:
        t = Run("tty", tty_argv, line, line, tty_cwd, c.work,
                preexec=controlling if tty_is_peer else os.setsid)
        m = Run("master", master_argv, master, master, master_cwd, c.work)
        return _finish([t, m], deadline_s, 15)
    finally:
        os.close(slave)
        os.close(master)


# The packets on a recorded line: (type, seq, data field with its check).
def packets(line):
    i = 0
    while True:
        i = line.find(b"\x01", i)
        if i < 0 or i + 2 > len(line):
            return
        n = (line[i + 1] & 0x7F) - 32
        if n == 0 and i + 6 < len(line):
            n = ((line[i + 4] & 0x7F) - 32) * 95 + (line[i + 5] & 0x7F) - 32 + 5
            start = i + 7
        elif n >= 3:
            start = i + 4
        else:
            i += 1
            continue
        end = i + 2 + n
        if end > len(line):
            return
        yield chr(line[i + 3]), line[i + 2] - 32, bytes(line[start:end]), line[i + 1] == 0x20
        i = end


def check_type(relay):
    # The block check both ends use after the S and its answer.
    asked = answered = None
    for way in ("ours", "theirs"):
        for t, seq, data, _ in packets(relay.ways[way]):
            if t == "S" and asked is None:
                asked = data[7:8]
            elif t == "Y" and seq == 0 and answered is None:
                answered = data[7:8]
    return int(asked) if asked == answered and asked in (b"1", b"2", b"3") else 1


def error_text(relay, way):
    chk = check_type(relay)
    for t, _, data, _ in packets(relay.ways[way]):
        if t == "E":
            return data[:-chk].decode(errors="replace")
    return None


def same_bytes(original, copy, runs, expected=None):
    check(os.path.exists(copy), "no file %s was written" % copy, runs)
    with open(original, "rb") as a, open(copy, "rb") as b:
        want, got = a.read() if expected is None else expected, b.read()
    check(got == want, "%s (%d bytes) is not what was sent (%d bytes expected)" % (
        copy, len(got), len(want)), runs)


def control_bytes(c, name="controls.bin"):
    # Every control byte, DEL, C1 controls and 0xFF, the prefix characters,
    # and runs of them.
    data = bytes(range(32)) + b"\x7f" + bytes(range(0x80, 0xA0)) + b"\xff#&~#~&\xff\x8d\x0d\x0a"
    path = os.path.join(c.src, name)
    with open(path, "wb") as f:
        f.write(data * 40 + b"\x00" * 300 + b"\xff" * 3 + b"~" * 200)
    return path


def batch(c):
    return [make_file(c.src, "empty.txt", 0), make_file(c.src, "big.bin", (4 << 20) + 1001, 1),
            control_bytes(c), make_file(c.src, "name with blanks.dat", 7000, 3)]


def their_copy(c, f):
    return os.path.join(c.out, os.path.basename(f).replace(" ", "_"))


def copy_from(c, peer, f):
    name = os.path.basename(f)
    return os.path.join(c.out, name.replace(" ", "_") if peer == "gkermit" else name)


def ours_send(c, files, extra=()):
    return [c.z, "send", "-p", "kermit", "-q"] + list(extra) + files


def ours_receive(c, extra=()):
    return [c.z, "receive", "-p", "kermit", "-q", "-d", c.out] + list(extra)


# --- both directions, each peer, over pipes -------------------------------

def batch_to(c, peer):
    files = batch(c)
    runs, _ = relayed(ours_send(c, files), peer,
                      peer_argv(peer, *peer_line(peer), "-i", "-r"), c, c.out)
    check_exits(runs)
    for f in files:
        same_bytes(f, their_copy(c, f), runs)


def batch_from(c, peer):
    files = batch(c)
    runs, _ = relayed(ours_receive(c), peer,
                      peer_argv(peer, *peer_line(peer), "-i", "-s", *[os.path.basename(f) for f in files]),
                      c, c.src)
    check_exits(runs)
    for f in files:
        same_bytes(f, copy_from(c, peer, f), runs)


# --- over a pty pair -------------------------------------------------------

def pty_files(c):
    return [make_file(c.src, "pty.bin", 300001, 7), control_bytes(c, "pty controls.bin")]


def pty(c, peer, to_peer):
    # kermit runs on the terminal side of the pty; with gkermit our program does.
    files = pty_files(c)
    if to_peer:
        ours, theirs = (ours_send(c, files), c.src), (peer_argv(peer, "-i", "-r"), c.out)
    else:
        names = [os.path.basename(f) for f in files]
        ours, theirs = (ours_receive(c), c.out), (peer_argv(peer, "-i", "-s", *names), c.src)
    if peer == "kermit":
        runs = on_pty(*theirs, *ours, c, True)[::-1]
    else:
        runs = on_pty(*ours, *theirs, c, False)
    check_exits(runs)
    for f in files:
        same_bytes(f, their_copy(c, f) if to_peer else copy_from(c, peer, f), runs)


# --- what the peers negotiate ---------------------------------------------

def long_packets(c, peer):
    # The peer takes packets of up to 9000 characters; we announce 4000.
    f = make_file(c.src, "long.bin", 200000, 11)
    runs, relay = relayed(ours_send(c, [f]), peer,
                          peer_argv(peer, *peer_line(peer), "-i", "-e", "9000", "-r"), c, c.out)
    check_exits(runs)
    same_bytes(f, their_copy(c, f), runs)
    ours = [len(d) for t, _, d, long in packets(relay.ways["ours"]) if t == "D" and long]
    check(ours and max(ours) > 1000, "our D packets were not long: %s" % ours[:5], runs)
    os.remove(their_copy(c, f))
    runs, relay = relayed(ours_receive(c), peer,
                          peer_argv(peer, *peer_line(peer), "-i", "-e", "9000", "-s", "long.bin"),
                          c, c.src)
    check_exits(runs)
    same_bytes(f, c.copy(f), runs)
    theirs = [len(d) for t, _, d, long in packets(relay.ways["theirs"]) if t == "D" and long]
    # (the length field counts the data and the check; kermit adds one)
    check(theirs and max(theirs) > 1000 and max(theirs) <= 4001,
          "the peer's D packets do not fit what we announced: %s" % sorted(set(theirs))[-3:], runs)


def text_mode(c, peer):
    text = b"first line\nsecond line\n\nlast line without end"
    f = os.path.join(c.src, "notes.txt")
    with open(f, "wb") as out:
        out.write(text)
    runs, relay = relayed(ours_send(c, [f], ["--text"]), peer,
                          peer_argv(peer, *peer_line(peer), "-T", "-r"), c, c.out)
    check_exits(runs)
    same_bytes(f, their_copy(c, f), runs)
    # Lines travel ending in CR LF (control-prefixed: #M#J).
    data = b"".join(d for t, _, d, _ in packets(relay.ways["ours"]) if t == "D")
    check(data.count(b"#M#J") == text.count(b"\n"), "our lines did not go as CR LF", runs)
    os.remove(their_copy(c, f))
    runs, _ = relayed(ours_receive(c, ["--text"]), peer,
                      peer_argv(peer, *peer_line(peer), "-T", "-s", "notes.txt"), c, c.src)
    check_exits(runs)
    same_bytes(f, c.copy(f), runs, text.replace(b"\n", b"\r\n"))


def eighth_bit(c, peer):
    # A peer on a line with parity (space: the bytes still arrive whole)
    # asks for eighth-bit prefixing: every byte on the line then has its
    # top bit clear, both ways, and the files still arrive whole.
    parity = ["-p", "space" if peer == "kermit" else "s"]
    f = control_bytes(c, "high.bin")
    g = make_file(c.src, "random.bin", 30000, 13)
    runs, relay = relayed(ours_send(c, [f, g]), peer,
                          peer_argv(peer, *peer_line(peer), *parity, "-i", "-r"), c, c.out)
    check_exits(runs)
    for x in (f, g):
        same_bytes(x, their_copy(c, x), runs)
        os.remove(their_copy(c, x))
    check(max(relay.ways["ours"]) < 0x80, "we sent 8-bit bytes to a 7-bit peer", runs)
    runs, relay = relayed(ours_receive(c), peer,
                          peer_argv(peer, *peer_line(peer), *parity, "-i", "-s", "high.bin",
                                    "random.bin"), c, c.src)
    check_exits(runs)
    for x in (f, g):
        same_bytes(x, c.copy(x), runs)
    check(max(relay.ways["theirs"]) < 0x80, "the peer did not prefix the eighth bit", runs)


def repeats(c, peer):
    # A file of long runs travels in far fewer bytes than it holds.
    path = os.path.join(c.src, "runs.bin")
    with open(path, "wb") as f:
        for i in range(2000):
            f.write(bytes([i % 256]) * (500 + i % 7) + b"ab")
    size = os.path.getsize(path)
    runs, relay = relayed(ours_receive(c), peer,
                          peer_argv(peer, *peer_line(peer), "-i", "-s", "runs.bin"), c, c.src)
    check_exits(runs)
    same_bytes(path, c.copy(path), runs)
    check(len(relay.ways["theirs"]) < size // 20,
          "the peer sent %d bytes for %d bytes of runs" % (len(relay.ways["theirs"]), size), runs)
    os.remove(c.copy(path))
    runs, relay = relayed(ours_send(c, [path]), peer,
                          peer_argv(peer, *peer_line(peer), "-i", "-r"), c, c.out)
    check_exits(runs)
    same_bytes(path, c.copy(path), runs)
    check(len(relay.ways["ours"]) < size // 20,
          "we sent %d bytes for %d bytes of runs" % (len(relay.ways["ours"]), size), runs)


# --- error packets -----------------------------------------------------------

def peer_stops(c, peer):
    # The peer cannot write past 300000 bytes: it ends the transfer with an
    # E packet midway, and our program fails with its text.
    f = make_file(c.src, "stopped.bin", 1 << 20, 17)
    runs, relay = relayed(ours_send(c, [f]), peer,
                          peer_argv(peer, *peer_line(peer), "-i", "-r"), c, c.out,
                          theirs_limit=300000)
    text = error_text(relay, "theirs")
    check(text, "the peer sent no E packet", runs)
    check(runs[0].rc == 1 and not runs[0].killed, "our program did not fail", runs)
    err = runs[0].stderr()
    check("the other end stopped with the error: " + text in err,
          "our message does not carry the peer's text %r" % text, runs)


def case_our_error_reaches_the_peer(c):
    # Our program cannot write past 300000 bytes: it sends an E packet with
    # its reason, fails with that text, and removes the incomplete file.
    f = make_file(c.src, "stopped.bin", 1 << 20, 19)
    for peer in PEERS:
        runs, relay = relayed(ours_receive(c), peer,
                              peer_argv(peer, *peer_line(peer), "-i", "-s", "stopped.bin"),
                              c, c.src, ours_limit=300000)
        text = error_text(relay, "ours")
        check(text, "we sent no E packet to %s" % peer, runs)
        check(runs[0].rc == 1, "our program did not fail", runs)
        check("stopped with the error: " + text in runs[0].stderr(), "our text is not shown",
              runs)
        check(runs[1].rc != 0, "%s did not see the transfer fail" % peer, runs)
        check(not os.path.exists(c.copy(f)), "the incomplete file was left", runs)


def case_ctrl_c_midway_discards_the_file(c):
    # Ctrl-C in the middle of a file: our sender ends it with a discard and
    # closes the batch; the peer keeps no whole file and ends by itself; our
    # program fails saying so.
    f = make_file(c.src, "cut.bin", 8 << 20, 23)
    for peer in PEERS:
        runs, relay = relayed(ours_send(c, [f]), peer,
                              peer_argv(peer, *peer_line(peer), "-i", "-r"), c, c.out,
                              interrupt_after=500000)
        check(runs[0].rc == 1 and "interrupted (1 file discarded)" in runs[0].stderr(),
              "our program did not report the interruption", runs)
        check(any(t == "Z" and d[:1] == b"D" for t, _, d, _ in packets(relay.ways["ours"])),
              "no discarding Z went to %s" % peer, runs)
        # (kermit ends with status 4 then: a file did not arrive)
        check(not runs[1].killed and runs[1].rc in (0, 4), "%s did not end by itself" % peer,
              runs)
        check(not os.path.exists(their_copy(c, f)) or
              os.path.getsize(their_copy(c, f)) < os.path.getsize(f),
              "%s kept a whole file" % peer, runs)


if __name__ == "__main__":
    cases = {n[5:]: f for n, f in list(globals().items()) if n.startswith("case_")}
    for name, fn in (("batch_to", batch_to), ("batch_from", batch_from),
                     ("pty_to", lambda c, p: pty(c, p, True)),
                     ("pty_from", lambda c, p: pty(c, p, False)),
                     ("long_packets", long_packets), ("text_mode", text_mode),
                     ("eighth_bit_prefix", eighth_bit), ("repeat_compression", repeats),
                     ("peer_error_midway", peer_stops)):
        for p in PEERS:
            cases["%s_%s" % (name, p)] = lambda c, fn=fn, p=p: fn(c, p)

    def run(case, zvxfer, work):
        case(Case(zvxfer, work))
    sys.exit(run_cases(cases, "zvxfer-peer-kermit-", run))
