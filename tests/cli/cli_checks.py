#!/usr/bin/env python3
# The zvxfer program through its command line: exit statuses, messages, a
# standard output that carries nothing but protocol bytes, loopback reports,
# and Ctrl-C cancelling a transfer.  This script plays the far end of the
# line byte by byte, so what zvxfer writes is checked exactly; every wait
# has a deadline.
#
# usage: cli_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import fcntl
import os
import random
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time
import tty
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, crc16, make_file, run_cases  # noqa: E402

SOH, STX, EOT, ACK, NAK, CAN = 0x01, 0x02, 0x04, 0x06, 0x15, 0x18


def block(number, payload, size):
    data = payload.ljust(size, b"\x1a")
    c = crc16(data)
    return bytes([STX if size == 1024 else SOH, number, 255 - number]) + data + bytes([c >> 8, c & 255])


class Far:
    # The far end of zvxfer's line: its stdin and stdout as pipes.

    def __init__(self, argv, stderr=None):
        self.err = tempfile.TemporaryFile()
        self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.err if stderr is None else stderr, bufsize=0)

    def send(self, data):
        self.proc.stdin.write(data)

    def read(self, n=None, timeout=15):
        # Exactly n bytes (None: all until zvxfer closes its output, then its exit
        # status), or a failure at the deadline.
        out, end = bytearray(), time.monotonic() + timeout
        while n is None or len(out) < n:
            ready, _, _ = select.select([self.proc.stdout], [], [], max(end - time.monotonic(), 0))
            chunk = os.read(self.proc.stdout.fileno(), 65536 if n is None else n - len(out)) \
                if ready else None
            if not chunk:
                check(n is None and chunk is not None, "zvxfer wrote %r, not %s bytes\n%s"
                      % (bytes(out[:40]), n, self.stderr()))
                return bytes(out), self.proc.wait(timeout=max(end - time.monotonic(), 1))
            out += chunk
        return bytes(out)

    def stderr(self):
        self.err.seek(0)
        return self.err.read().decode(errors="replace")

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


def run(argv, timeout=60):
    try:
        r = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failure("%s did not end within %d s" % (" ".join(argv), timeout))
    return r.returncode, r.stdout, r.stderr.decode(errors="replace")


def case_usage_errors_exit_2(z, work):
    # An option a protocol refuses ends the run before anything goes on the line.
    f = make_file(work, "f.bin", 100, 1)
    for args, text in [([], ""), (["send", "-p", "nonsense", f], "nonsense"),
                       (["send", "-p", "ymodem"], "FILE"),
                       (["receive", "-p", "xmodem"], "needs the FILE"),
                       (["receive", "-p", "ymodem", "-d", os.path.join(work, "none")], ""),
                       (["receive", "-p", "ymodem", "--existing", "maybe"], "maybe"),
                       (["send", "-p", "xmodem", "--timeout", "0", f], "timeout"),
                       (["loopback", "-p", "xmodem", f, f], "one file at a time"),
                       (["send", "-p", "zmodem", "--manage", "sometimes", f], "sometimes"),
                       (["receive", "-p", "zmodem", "--no-window"], "--no-window"),
                       (["send", "-p", "ymodem", "--checksum", f], "not available for ymodem send"),
                       (["send", "-p", "xmodem", "--no-window", f], ""),
                       # plain text's own options, and its idle time
                       (["send", "-p", "xmodem", "--drop-lf", f], "not available for xmodem"),
                       (["send", "-p", "zmodem", "--line-delay", "10", f], "not available"),
                       (["send", "-p", "ymodem", "--echo", f], "not available for ymodem"),
                       (["receive", "-p", "zmodem", "--idle", "500"], "not available for zmodem"),
                       (["loopback", "-p", "xmodem", "--idle", "500", f], "not available"),
                       (["receive", "-p", "ascii", "--idle", "0", "x"], "idle time"),
                       (["receive", "-p", "ascii", "--idle", "-2", "x"], "idle time"),
                       (["receive", "-p", "ascii", "--idle", "soon", "x"], "idle time"),
                       (["send", "-p", "ascii", "--line-delay", "-1", f], "line-delay"),
                       (["send", "-p", "ascii", "--echo", "--no-echo", f], "excludes"),
                       (["receive", "-p", "ascii", "--line-delay", "5", "x"], ""),
                       (["receive", "-p", "ascii"], "needs the FILE"),
                       (["send", "-p", "ascii", "--checksum", f], "not available for ascii send"),
                       (["receive", "-p", "ascii", "--timeout", "100", "x"],
                        "not available for ascii receive"),
                       # Kermit's text files, and what its entries refuse
                       (["send", "-p", "zmodem", "--text", f], "not available for zmodem"),
                       (["receive", "-p", "ascii", "--text", "x"], "not available for ascii"),
                       (["loopback", "-p", "ymodem", "--text", f], "not available for ymodem"),
                       (["send", "-p", "kermit", "--checksum", f], "not available for kermit send"),
                       (["receive", "-p", "kermit", "--timeout", "100"],
                        "not available for kermit receive")]:
        rc, out, err = run([z] + args)
        what = "zvxfer %s: exit %d, stdout %r, stderr: %s" % (" ".join(args), rc, out[:60], err)
        check(rc == 2 and text in err and out == b"", what)


def case_silent_peer_fails_with_code(z, work):
    far = Far([z, "send", "-p", "ymodem", "--timeout", "100", make_file(work, "f.bin", 1000, 3)])
    try:
        out, rc = far.read(timeout=60)
        err = far.stderr()
        check(rc == 1 and re.search(r"transfer failed: -\d+ \S", err), "exit %d: %s" % (rc, err))
        check(all(b in (SOH, CAN, 0x08) for b in out), "unexpected bytes: %r" % out[:60])
    finally:
        far.close()


def case_stdout_carries_only_protocol_bytes(z, work):
    # XMODEM-1K with progress and trace lines on: every byte on stdout belongs
    # to a block or the final EOT.
    f = make_file(work, "f.bin", 5000, 4)
    far = Far([z, "send", "-p", "xmodem-1k", "-v", f])
    try:
        far.send(b"C")
        got = b""
        for number in range(1, 100):
            head = far.read(1)[0]
            if head == EOT:
                far.send(bytes([ACK]))
                break
            check(head in (SOH, STX), "byte 0x%02x where a block or EOT belongs" % head)
            n = 1024 if head == STX else 128
            rest = far.read(n + 4)
            check(block(number, rest[2:2 + n], n) == bytes([head]) + rest, "block %d" % number)
            got += rest[2:2 + n]
            far.send(bytes([ACK]))
        out, rc = far.read()
        check(out == b"" and rc == 0, "exit %d, bytes after EOT %r: %s" % (rc, out, far.stderr()))
        check(got.rstrip(b"\x1a\0") == open(f, "rb").read().rstrip(b"\x1a\0"), "blocks differ")
        check(far.stderr().strip() != "", "nothing was reported on stderr")
    finally:
        far.close()


def case_loopback_reports_each_file(z, work):
    files = [make_file(work, "one.bin", 3000, 5), make_file(work, "two with blanks.txt", 70000, 6)]
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    rc, out, err = run([z, "loopback", "-p", "ymodem", "-d", out_dir] + files)
    check(rc == 0 and out == b"", "loopback exited %d, stdout %r: %s" % (rc, out[:60], err))
    for f in files:
        name = os.path.basename(f)
        check(re.search(r"^ok +%s +%d bytes" % (re.escape(name), os.path.getsize(f)), err, re.M),
              "no line for %s: %s" % (name, err))
        check(open(os.path.join(out_dir, name), "rb").read() == open(f, "rb").read(), name)
    check(re.search(r"2 of 2 file\(s\) verified", err), "no summary line: " + err)
    # ZMODEM keeps times and says what the line carried.
    rc, out, err = run([z, "loopback", "-p", "zmodem", "--window", "2048"] + files)
    check(rc == 0 and len(re.findall(r"^ok .*time kept", err, re.M)) == 2, "zmodem: " + err)
    m = re.search(r"line carried (\d+) bytes forward and (\d+) back; file/line ([0-9.]+)", err)
    check(m and int(m.group(1)) > 73000 and float(m.group(3)) < 1.0, "no line summary: " + err)


def case_kermit_loopback_finds_converted_names_and_text(z, work):
    # The receiver writes a name with blanks under '_'; the loopback finds
    # the copy under the name written.  A text file gains CR before each LF.
    files = [make_file(work, "two with blanks.bin", 9000, 7),
             make_file(work, "lines.txt", 0, pattern=b"")]
    with open(files[1], "wb") as f:
        f.write(b"one\ntwo\n")
    for extra, copies in (([], [("two_with_blanks.bin", open(files[0], "rb").read()),
                                ("lines.txt", b"one\ntwo\n")]),
                          (["--text"], [("lines.txt", b"one\r\ntwo\r\n")])):
        out_dir = os.path.join(work, "out" + "".join(extra))
        os.mkdir(out_dir)
        sent = files if not extra else files[1:]
        rc, out, err = run([z, "loopback", "-p", "kermit", "-d", out_dir] + extra + sent)
        check(rc == 0 and out == b"", "loopback %s exited %d: %s" % (extra, rc, err))
        check(re.search(r"%d of %d file\(s\) verified" % (len(sent), len(sent)), err),
              "no summary line: " + err)
        for name, data in copies:
            path = os.path.join(out_dir, name)
            check(os.path.exists(path) and open(path, "rb").read() == data,
                  "%s %s is not as expected" % (extra, name))


def case_ctrl_c_cancels_sender_and_receiver(z, work):
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    sender = ([z, "send", "-p", "ymodem", "-q", make_file(work, "f.bin", 50000, 7)],
              [(b"C", 133, bytes([SOH, 0])), (bytes([ACK]) + b"C", 1029, bytes([STX, 1]))])
    receiver = ([z, "receive", "-p", "ymodem", "-q", "-d", out_dir],
                [(b"", 1, b"C"), (block(0, b"f.bin\x0050000 0 0", 128), 2, bytes([ACK]) + b"C"),
                 (block(1, bytes(1024), 1024), 1, bytes([ACK]))])
    for argv, steps in (sender, receiver):
        far = Far(argv)
        try:
            for data, n, start in steps:  # the line goes quiet after the last step
                far.send(data)
                check(far.read(n).startswith(start), "%s: no %r" % (argv[1], start))
            far.proc.send_signal(signal.SIGINT)
            out, rc = far.read(timeout=20)
            check(bytes([CAN]) * 10 in out and rc == 1,
                  "%s: exit %d after Ctrl-C, got %r" % (argv[1], rc, out[:80]))
        finally:
            far.close()


def case_kermit_ctrl_c_with_a_silent_far_end(z, work):
    # The far end never answers: after Ctrl-C the program gives the engine
    # its grace period and then ends the transfer within the bound its
    # README promises (5 s; checked with room to spare), failing with the
    # reason.  Without the cut the retries would time out one by one.
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    f = make_file(work, "k.bin", 20000, 11)
    for argv in ([z, "send", "-p", "kermit", f], [z, "receive", "-p", "kermit", "-d", out_dir]):
        far = Far(argv)
        try:
            if argv[1] == "send":  # the sender's S packet shows it is waiting for an answer
                check(far.read(1, timeout=10) == bytes([SOH]), "%s: no packet" % argv[1])
            else:
                time.sleep(1)
            far.proc.send_signal(signal.SIGINT)
            _, rc = far.read(timeout=15)  # fails if the program is still running then
            err = far.stderr()
            check(rc == 1 and "interrupted (the exchange ended before the end of the batch)"
                  in err, "%s: exit %d after Ctrl-C: %s" % (argv[1], rc, err))
        finally:
            far.close()


def ymodem_sender(far, name, size, blocks, between=None, whole=False):
    # Plays a YMODEM sender: block 0 naming the file (no size when size is
    # 0), the given 1 KiB blocks, then (the sender giving up) a cancel, in
    # the file or (whole) after its end.
    check(far.read(1) == b"C", "no C from the receiver: " + far.stderr())
    far.send(block(0, name + (b"\x00%d 0 0" % size if size else b"\x00"), 128))
    check(far.read(2) == bytes([ACK]) + b"C", "block 0 not taken: " + far.stderr())
    for number, data in enumerate(blocks, 1):
        far.send(block(number, data, 1024))
        check(far.read(1) == bytes([ACK]), "block %d not taken: %s" % (number, far.stderr()))
    if whole:
        far.send(bytes([EOT]))
        if far.read(1) == bytes([NAK]):
            far.send(bytes([EOT]))
            check(far.read(1) == bytes([ACK]), "EOT not taken: " + far.stderr())
        check(far.read(1) == b"C", "no C for the next file: " + far.stderr())
    if between:
        between()
    far.send(bytes([CAN]) * 8)
    return far.read(timeout=30)


def replace_file(source, path):
    # Another file takes the name, the way a rename puts one there.
    shutil.copy(source, path + ".new")
    os.replace(path + ".new", path)


def case_failed_receive_names_its_partial_file(z, work):
    # A sender that gives up in the middle leaves a partial file: kept and
    # named, or removed on request.  A complete file, or a name that holds
    # another file by the end, is neither.
    data = random.Random(11).randbytes(2048)
    other = make_file(work, "other.bin", 300, 12)
    cases = [  # what, options, announced size, blocks, replace the name, ended, expected
        ("old file a failed overwrite left", ["--remove-partial", "--existing", "overwrite"],
         5000, [data[:1024]], False, False, "old"),
        ("kept", [], 5000, [data[:1024]], False, False, "kept"),
        ("removed", ["--remove-partial"], 5000, [data[:1024]], False, False, "removed"),
        ("unknown size kept", [], 0, [data[:1024], data[1024:]], False, False, "kept"),
        ("all bytes of the size", ["--remove-partial"], 1000, [data[:1000]], False, False, None),
        ("ended, unknown size", ["--remove-partial"], 0, [data[:1024]], False, True, None),
        ("name holds another file", ["--remove-partial"], 5000, [data[:1024]], True, False, None),
    ]
    for what, options, size, blocks, replace, whole, ending in cases:
        out_dir = tempfile.mkdtemp(dir=work)
        path = os.path.join(out_dir, "f.bin")
        if ending == "old":
            shutil.copy(other, path)
        far = Far([z, "receive", "-p", "ymodem", "-d", out_dir] + options)
        try:
            out, rc = ymodem_sender(far, b"f.bin", size, blocks,
                                    (lambda: replace_file(other, path)) if replace else None,
                                    whole)
            err = far.stderr()
        finally:
            far.close()
        what = "%s: exit %d, stderr:\n%s" % (what, rc, err)
        check(rc == 1 and "transfer failed: -606" in err, what)
        received = b"".join(blocks)[:size] if size else b"".join(blocks)
        if ending == "kept":
            check("zvxfer: partial file kept: %s (%d bytes)\n" % (path, len(received)) in err, what)
            check(open(path, "rb").read() == received, what + "\nthe partial file lost bytes")
        elif ending == "removed":
            check("zvxfer: partial file removed: %s\n" % path in err, what)
            check(not os.path.exists(path), what + "\nthe partial file is still there")
        else:
            check("partial file" not in err, what)
            expected = open(other, "rb").read() if replace or ending == "old" else received
            check(open(path, "rb").read() == expected, what + "\nthe file was changed")


def case_peer_cut_off_leaves_named_partial_file(z, work):
    # A real sender (sz) whose line is cut after 40000 bytes: the receive
    # fails, and the file holds a prefix of the original, named with its size.
    original = make_file(work, "big.bin", 400000, 13)
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    sz = subprocess.Popen([shutil.which("sz") or "lsz", "-q", original], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, bufsize=0)
    far = Far([z, "receive", "-p", "zmodem", "-d", out_dir])
    try:
        passed, end = 0, time.monotonic() + 30
        pipes = {far.proc.stdout: sz.stdin, sz.stdout: far.proc.stdin}
        while passed < 40000 and time.monotonic() < end:
            ready, _, _ = select.select(list(pipes), [], [], 1)
            for r in ready:
                chunk = os.read(r.fileno(), 4096 if r is far.proc.stdout else 40000 - passed)
                check(chunk, "a side ended early: " + far.stderr())
                pipes[r].write(chunk)
                passed += len(chunk) if r is sz.stdout else 0
        sz.kill()
        far.proc.stdin.close()
        out, rc = far.read(timeout=60)
        err = far.stderr()
    finally:
        far.close()
        sz.kill()
        sz.wait()
    path = os.path.join(out_dir, "big.bin")
    got = open(path, "rb").read() if os.path.exists(path) else None
    check(rc == 1 and got is not None and 0 < len(got) < 400000, "exit %d: %s" % (rc, err))
    check(open(original, "rb").read().startswith(got), "the partial file is not a prefix")
    check("zvxfer: partial file kept: %s (%d bytes)\n" % (path, len(got)) in err, err)


def harmless(text):
    # No byte a terminal acts on, but the program's own line start and
    # clear-to-end-of-line.
    text = text.replace(b"\r\x1b[K", b"").replace(b"\n", b"")
    try:
        decoded = text.decode("utf-8")
    except UnicodeDecodeError:
        return False
    return not any(ord(c) < 0x20 or 0x7F <= ord(c) <= 0x9F for c in decoded)


def case_names_from_the_line_shown_escaped(z, work):
    # A name full of escape sequences: status lines, the progress bar (stderr
    # on a terminal) and the partial-file summary show it escaped, and the
    # bar cuts it whole.
    name = b"\x1b]0;owned\x07\x9b2J\xc2\x9b\x1b[2J" + "caf\u00e9-\u6f22\u5b57".encode() + b"x" * 40
    for live in (False, True):
        out_dir = tempfile.mkdtemp(dir=work)
        argv = [z, "receive", "-p", "ymodem", "-v", "-d", out_dir]
        if live:
            master, slave = os.openpty()
            tty.setraw(slave)
            far = Far(argv, stderr=slave)
            os.close(slave)
        else:
            far = Far(argv)
        try:
            out, rc = ymodem_sender(far, name, 5000, [bytes(1024)])
            if live:
                shown = b""
                while select.select([master], [], [], 0.5)[0]:
                    try:
                        chunk = os.read(master, 65536)
                    except OSError:
                        break
                    if not chunk:
                        break
                    shown += chunk
            else:
                shown = far.stderr().encode()
                far.err.seek(0)
                shown = far.err.read()
        finally:
            far.close()
            if live:
                os.close(master)
        what = "%s: %r" % ("live" if live else "lines", shown[:600])
        check(rc == 1 and b"partial file kept" in shown, what)
        check(harmless(shown), what)
        check(b"\\x9b2J" in shown and "caf\u00e9".encode() in shown, what)
        # Every escape whole: a backslash starts "\\" or "\xNN".
        check(not re.search(rb"\\(?!\\|x[0-9a-f]{2})", shown.replace(b"\\\\", b"")), what)
        if live:
            check(b"\r\x1b[K" in shown, "no progress bar was drawn: " + what)


class Shell:
    # An interactive bash on a pty, the pty its controlling terminal, as at
    # the far end of a terminal session; the test is the terminal program on
    # the master side.  Whatever reaches the shell after a command ends, it
    # runs.

    def __init__(self, work):
        self.work = work
        self.master, slave = os.openpty()
        env = dict(os.environ, PS1="ready> ", TERM="dumb", HOME=work, HISTFILE="/dev/null")
        self.proc = subprocess.Popen(
            ["bash", "--norc", "--noprofile", "-i"], stdin=slave, stdout=slave, stderr=slave,
            cwd=work, env=env, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)
        self.seen = b""
        self.read_until(b"ready> ")

    def read_until(self, text, timeout=20):
        end = time.monotonic() + timeout
        while text not in self.seen:
            check(time.monotonic() < end, "the shell never showed %r; it showed %r"
                  % (text, self.seen[-300:]))
            if select.select([self.master], [], [], 0.2)[0]:
                self.seen += os.read(self.master, 4096)
        at = self.seen.index(text) + len(text)
        rest, self.seen = self.seen[at:], b""
        return rest

    def type(self, line):
        os.write(self.master, line.encode() + b"\r")

    def wait_for(self, path, timeout):
        end = time.monotonic() + timeout
        while not os.path.exists(path) and time.monotonic() < end:
            if select.select([self.master], [], [], 0.1)[0]:
                os.read(self.master, 4096)  # the shell's echo and prompts
        return os.path.exists(path)

    def child(self):
        # The command the shell is running.
        end = time.monotonic() + 10
        while time.monotonic() < end:
            with open("/proc/%d/task/%d/children" % (self.proc.pid, self.proc.pid)) as f:
                pids = f.read().split()
            if pids:
                return int(pids[0])
            time.sleep(0.05)
        raise Failure("the shell started no command")

    def close(self):
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.proc.wait()
        os.close(self.master)


def run_from_shell(z, work, protocol, far_end, status):
    # zvxfer receive started from the shell on its own terminal; `far_end`
    # plays the other side on the master.  Then the far end sends a command
    # line at once and another 2 s later: neither may reach the shell.
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    rc_path = os.path.join(work, "rc")
    shell = Shell(work)
    try:
        shell.type("%s receive -p %s -q -d out 2>err; echo $? >rc" % (z, protocol))
        after_echo = shell.read_until(b"rc\r\n")
        far_end(shell, after_echo)
        shell.type("touch PWNED1")
        time.sleep(2)
        shell.type("touch PWNED2")
        ended = shell.wait_for(rc_path, 45)
        err = open(os.path.join(work, "err"), errors="replace").read() if ended else ""
        check(ended, "zvxfer did not end")
        check(open(rc_path).read().strip() == str(status), "exit %s: %s"
              % (open(rc_path).read().strip(), err))
        # The shell runs what comes now, and lines in order: once this one
        # ran, every line before it that reached the shell has run too.
        shell.type("touch ALIVE")
        check(shell.wait_for(os.path.join(work, "ALIVE"), 10), "the shell no longer reads")
        for leftover in ("PWNED1", "PWNED2"):
            check(not os.path.exists(os.path.join(work, leftover)),
                  "the shell ran a line sent after the transfer (%s): %s" % (leftover, err))
        return out_dir, err
    finally:
        shell.close()


def peer_on_master(program, original):
    def far_end(shell, _):
        peer = subprocess.Popen([shutil.which(program) or "l" + program, "-q", original],
                                stdin=shell.master, stdout=shell.master,
                                stderr=subprocess.DEVNULL)
        try:
            peer.wait(timeout=60)
        except subprocess.TimeoutExpired:
            peer.kill()
            peer.wait()
            raise Failure("%s did not end" % program)
    return far_end


def drained_after_peer(program, protocol):
    def case(z, work):
        original = make_file(work, "sent.bin", 30000, 14)
        out_dir, err = run_from_shell(z, work, protocol, peer_on_master(program, original), 0)
        copy = os.path.join(out_dir, "sent.bin")
        check(os.path.exists(copy) and open(copy, "rb").read() == open(original, "rb").read(),
              "the file did not arrive whole: " + err)
    return case


def scripted_ymodem_on_master(interrupt):
    # Block 0 and one block, then the sender cancels, or zvxfer is
    # interrupted (Ctrl-C) and sends its own cancel.
    def far_end(shell, seen):
        def read(n, timeout=20):
            nonlocal seen
            end = time.monotonic() + timeout
            while len(seen) < n:
                check(time.monotonic() < end, "zvxfer sent only %r" % seen)
                if select.select([shell.master], [], [], 0.2)[0]:
                    seen += os.read(shell.master, 4096)
            got, seen = seen[:n], seen[n:]
            return got
        while read(1) != b"C":
            pass
        os.write(shell.master, block(0, b"f.bin\x005000 0 0", 128))
        check(read(2) == bytes([ACK]) + b"C", "block 0 not taken")
        os.write(shell.master, block(1, bytes(range(256)) * 4, 1024))
        check(read(1) == bytes([ACK]), "block 1 not taken")
        if interrupt:
            os.kill(shell.child(), signal.SIGINT)
            check(read(8) == bytes([CAN]) * 8, "no cancel after Ctrl-C")
        else:
            os.write(shell.master, bytes([CAN]) * 8)
    return far_end


def failed_and_drained(interrupt):
    def case(z, work):
        out_dir, err = run_from_shell(z, work, "ymodem", scripted_ymodem_on_master(interrupt), 1)
        check("partial file kept: out/f.bin (1024 bytes)" in err, "no partial file: " + err)
    return case


# Plain text against a real terminal: a program on the slave side of a pty
# in cooked mode (echo on, CR read as LF, LF written as CR LF; control
# bytes echoed as they are, so that the echo's escaping shows), zvxfer the
# terminal program's transfer command on the master side, its standard input
# and output joined to the master the way a terminal program joins them.

def cooked_pty():
    master, slave = os.openpty()
    attrs = termios.tcgetattr(slave)
    attrs[0] |= termios.ICRNL
    attrs[1] |= termios.OPOST | termios.ONLCR
    attrs[3] |= termios.ICANON | termios.ECHO
    attrs[3] &= ~termios.ECHOCTL  # control bytes come back as they are
    termios.tcsetattr(slave, termios.TCSANOW, attrs)
    return master, slave


def relay(z_proc, master, others=(), deadline=30):
    # Pass zvxfer's output to the master and the master's output (the far
    # program's, and the terminal's echo) to zvxfer until zvxfer ends.
    # Returns what zvxfer wrote on the line, what each of `others` (extra
    # fds, such as a pty its standard error is on) showed, and its status.
    wrote, shown = b"", {fd: b"" for fd in others}
    out, end = z_proc.stdout.fileno(), time.monotonic() + deadline
    watched = [out, master] + list(others)
    while out in watched:
        check(time.monotonic() < end, "zvxfer did not end; it wrote %r" % wrote[-200:])
        for fd in select.select(watched, [], [], 0.2)[0]:
            try:
                chunk = os.read(fd, 65536)
            except OSError:  # a pty whose other side is gone
                chunk = b""
            if not chunk:
                watched.remove(fd)
                if fd == master:  # the far side hung up: the line is gone
                    z_proc.stdin.close()
            elif fd == out:
                wrote += chunk
                os.write(master, chunk)
            elif fd == master:
                try:
                    z_proc.stdin.write(chunk)
                except BrokenPipeError:
                    pass
            else:
                shown[fd] += chunk
    return wrote, shown, z_proc.wait(timeout=max(end - time.monotonic(), 1))


def far_program(argv, slave, work):
    # The slave is the far program's alone: when it ends, the master hangs up.
    try:
        return subprocess.Popen(argv, stdin=slave, stdout=slave, stderr=slave, cwd=work,
                                start_new_session=True)
    finally:
        os.close(slave)


def typed_lines(text, drop_lf):
    # What the sender puts on the line, and what the terminal echoes: every
    # CR or LF read as LF comes back as CR LF.
    sent = text.replace(b"\n", b"") if drop_lf else text
    return sent, sent.replace(b"\r", b"\n").replace(b"\n", b"\r\n")


def case_ascii_send_types_into_cat_on_a_terminal(z, work):
    # `cat > far.txt` on the far end.  The file ends up as the text with
    # line ends as the terminal makes them (CR read as LF); the echo comes
    # back and is shown on standard error where asked, escaped, never on
    # the line.
    crlf = b"first line\r\n\tindented\r\nan escape \x1b[2J here\r\n" + b"x" * 200 + b"\r\nend\r\n"
    lf = "caf\u00e9 line\n\n".encode() + b"y" * 100 + b"\nlast\n"
    cases = [  # what, text, options, where stderr goes, far file, echo shown
        ("CR LF with drop-LF", crlf, ["--drop-lf", "--echo"], "file",
         crlf.replace(b"\r\n", b"\n"), True),
        ("CR LF without the flag: the LF opens a line", crlf, ["--echo"], "file",
         crlf.replace(b"\r", b"\n"), True),
        ("LF only, no echo by default off a terminal", lf, [], "file", lf, False),
        ("echo by default on a terminal", lf, [], "pty", lf, True),
        ("--no-echo on a terminal", lf, ["--no-echo"], "pty", lf, False),
        ("--echo, stderr is the line", lf, ["--echo"], "line", lf, False),
    ]
    for what, text, options, stderr_to, far_text, echoed in cases:
        path = os.path.join(work, "typed.txt")
        with open(path, "wb") as f:
            f.write(text)
        far_path = os.path.join(work, "far.txt")
        master, slave = cooked_pty()
        cat = far_program(["sh", "-c", "exec cat > far.txt"], slave, work)
        slave = None
        err_master = err_file = None
        if stderr_to == "pty":
            err_master, err_slave = os.openpty()
            tty.setraw(err_slave)
            stderr = err_slave
        elif stderr_to == "line":
            stderr = subprocess.STDOUT
        else:
            err_file = tempfile.TemporaryFile()
            stderr = err_file
        zv = subprocess.Popen([z, "send", "-p", "ascii", "-q", "--line-delay", "60"] + options
                              + [path], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=stderr, bufsize=0)
        if stderr_to == "pty":
            os.close(err_slave)
        try:
            wrote, shown, rc = relay(zv, master, [err_master] if err_master else [])
            os.write(master, b"\x04")  # end of file for cat
            cat.wait(timeout=10)
            if err_file:
                err_file.seek(0)
                err = err_file.read()
            else:
                err = shown.get(err_master, b"")
        finally:
            for p in (zv, cat):
                if p.poll() is None:
                    p.kill()
                    p.wait()
            for fd in (master, slave, err_master):
                if fd is not None:
                    os.close(fd)
        sent, echo = typed_lines(text, "--drop-lf" in options)
        what = "%s: exit %d, stderr %r" % (what, rc, err[:300])
        check(rc == 0, what)
        check(wrote == sent, what + "\nthe line carried %r" % wrote[:300])
        check(open(far_path, "rb").read() == far_text,
              what + "\nthe far file holds %r" % open(far_path, "rb").read()[:300])
        if echoed:
            # The echo of the last lines may still be under way when the
            # upload ends; what is shown is the echo from its start, with
            # the escape sequence escaped.
            shown_echo = echo.replace(b"\x1b", b"\\x1b")
            check(err and shown_echo.startswith(err.rstrip(b"\n")) and b"\x1b" not in err,
                  what + "\nnot the echo from its start")
        else:
            check(err == b"", what + "\nsomething was shown")


def capture(z, work, far_argv, options, interrupt_at=None, name="cap.txt"):
    # zvxfer receive -p ascii on the master while `far_argv` runs on the
    # slave.  `interrupt_at`: send Ctrl-C once the file holds that many bytes.
    master, slave = cooked_pty()
    far = far_program(far_argv, slave, work)
    slave = None
    zv = subprocess.Popen([z, "receive", "-p", "ascii", "-d", work] + options + [name],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          bufsize=0)
    path = os.path.join(work, name)
    try:
        if interrupt_at is not None:
            end = time.monotonic() + 20
            while not (os.path.exists(path) and os.path.getsize(path) >= interrupt_at):
                check(time.monotonic() < end, "the capture never reached %d bytes" % interrupt_at)
                for fd in select.select([master], [], [], 0.1)[0]:
                    zv.stdin.write(os.read(fd, 65536))
            zv.send_signal(signal.SIGINT)
        wrote, _, rc = relay(zv, master)
        err = zv.stderr.read().decode(errors="replace")
    finally:
        for p in (zv, far):
            if p.poll() is None:
                os.killpg(p.pid, signal.SIGKILL) if p is far else p.kill()
                p.wait()
        os.close(master)
    check(wrote == b"", "zvxfer wrote on the line: %r" % wrote[:100])
    return rc, err, open(path, "rb").read() if os.path.exists(path) else None


def case_ascii_capture_ends_when_the_far_program_falls_silent(z, work):
    # A far program prints a text and then stays quiet without ending: the
    # capture holds the text as the terminal sent it (LF written as CR LF)
    # and ends by the silence, a normal end.
    lines = [b"line %d " % i + b"=" * (i * 7 % 300) + b"\ttab" for i in range(120)]
    text = b"\n".join(lines) + b"\n"
    with open(os.path.join(work, "text.txt"), "wb") as f:
        f.write(text)
    printed = text.replace(b"\n", b"\r\n")
    far = ["sh", "-c", "cat text.txt; exec sleep 60"]
    # A far program that says one more thing after a pause far longer than
    # the idle time: the capture has ended by then.
    late = ["sh", "-c", "cat text.txt; sleep 3; echo late; exec sleep 60"]
    for options, program, expected in [
            (["--idle", "700"], far, printed),
            (["--idle", "700", "--drop-lf"], far, printed.replace(b"\n", b"")),
            (["--idle", "700"], late, printed)]:
        rc, err, got = capture(z, work, program, options)
        what = "%s: exit %d: %s" % (" ".join(options), rc, err)
        check(rc == 0 and got == expected, what + "\ncaptured %r" % (got or b"")[:200])
        # The count is of the bytes that arrived, LF included.
        check("capture ended after 700 ms of silence: %d bytes captured" % len(printed) in err,
              what)
        os.remove(os.path.join(work, "cap.txt"))


def case_ascii_capture_ended_by_ctrl_c(z, work):
    # With no limit on the silence only Ctrl-C ends the capture, and that is
    # its normal end; with a limit, Ctrl-C interrupts it (what arrived is
    # kept).  A far end that goes away is a failure either way.
    text = b"0123456789abcdef\n" * 40
    printed = text.replace(b"\n", b"\r\n")
    with open(os.path.join(work, "text.txt"), "wb") as f:
        f.write(text)
    stays = ["sh", "-c", "cat text.txt; exec sleep 60"]
    leaves = ["sh", "-c", "cat text.txt"]
    # Silent for longer than the default idle time before its last line.
    pauses = ["sh", "-c", "cat text.txt; sleep 11; cat text.txt; exec sleep 60"]
    cases = [  # options, far program, Ctrl-C, exit, text on stderr
        (["--idle", "-1"], pauses, True, 0, "capture ended by Ctrl-C: %d bytes" % (2 * len(printed))),
        (["--idle", "60000"], stays, True, 1, "transfer failed: -605"),
        ([], stays, True, 1, "partial file kept"),
        (["--idle", "-1"], leaves, False, 1, "transfer failed: -618"),
    ]
    for options, far, interrupt, status, text_in_err in cases:
        expected = printed * 2 if far is pauses else printed
        rc, err, got = capture(z, work, far, options, len(expected) if interrupt else None)
        what = "%s%s: exit %d: %s" % (" ".join(options), " Ctrl-C" if interrupt else "", rc, err)
        check(rc == status and text_in_err in err, what)
        check(got == expected, what + "\ncaptured %r" % (got or b"")[:200])
        os.remove(os.path.join(work, "cap.txt"))


def case_ascii_echo_and_notices_keep_to_their_lines(z, work):
    # An echo without a line end is followed by the next file's notice: the
    # notice starts a line of its own, and so does the summary after an echo
    # that never ended its line.  The sender takes in the echo right after
    # each line; the far end answers well after that and well before the
    # next line, so each answer is taken in after the following line.
    names = [make_file(work, n, 7, pattern=n.encode()[:1] * 6 + b"\r") for n in "abc"]
    far = Far([z, "send", "-p", "ascii", "-v", "--echo", "--line-delay", "1500"] + names)
    try:
        for line, answer in [(b"aaaaaa\r", b"ECHO-A"), (b"bbbbbb\r", b"\x1b[1mECHO-B"),
                             (b"cccccc\r", None)]:
            check(far.read(7) == line, "no line %r: %s" % (line, far.stderr()))
            if answer:
                time.sleep(0.5)
                far.send(answer)
        out, rc = far.read(timeout=30)
        err = far.stderr().replace(work + "/", "")
    finally:
        far.close()
    check(rc == 0 and out == b"", "exit %d, more on the line %r: %s" % (rc, out, err))
    check(re.fullmatch(r"a : Opening file a\na \(7 B\)\nb : Opening file b\nb \(7 B\)\n"
                       r"ECHO-A\nc : Opening file c\nc \(7 B\)\n"
                       r"\\x1b\[1mECHO-B\nzvxfer: 3 files sent, .*\n", err),
          "echo and notices mixed:\n" + err)


def case_ascii_echo_never_goes_back_onto_a_device_line(z, work):
    # The line is a terminal device given with --line, and standard error is
    # that same device: the echo is not shown there, even with --echo, so
    # the far end sees nothing but the text.
    path = make_file(work, "t.txt", 0, pattern=b"")
    with open(path, "wb") as f:
        f.write(b"one\rtwo\r")
    master, slave = os.openpty()
    zv = subprocess.Popen([z, "send", "-p", "ascii", "-q", "--echo", "--line-delay", "300",
                           "--line", os.ttyname(slave), path], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=slave)
    os.close(slave)
    seen, end = b"", time.monotonic() + 30
    try:
        while zv.poll() is None or select.select([master], [], [], 0.3)[0]:
            check(time.monotonic() < end, "zvxfer did not end; the line showed %r" % seen)
            if select.select([master], [], [], 0.1)[0]:
                try:
                    chunk = os.read(master, 4096)
                except OSError:
                    break
                seen += chunk
                if chunk.startswith(b"one"):
                    os.write(master, b"ECHO-ONE\r\n")
    finally:
        if zv.poll() is None:
            zv.kill()
        zv.wait()
        os.close(master)
    check(zv.returncode == 0 and seen == b"one\rtwo\r",
          "exit %d, the line showed %r" % (zv.returncode, seen))


def case_ascii_send_without_a_matching_file_fails(z, work):
    # Nothing goes on the line, and the failure names the pattern.
    name = os.path.join(work, "none*.txt")
    far = Far([z, "send", "-p", "ascii", name])
    try:
        out, rc = far.read(timeout=30)
        err = far.stderr()
    finally:
        far.close()
    check(rc == 1 and out == b"" and name + ": no file matches" in err, "exit %d: %s" % (rc, err))


def case_ascii_loopback_captures_the_files_in_order(z, work):
    a = make_file(work, "a.txt", 0, pattern=b"")
    with open(a, "wb") as f:
        f.write(b"alpha\r\n" + b"A" * 300 + b"\r\nno line end")
    b = make_file(work, "b.txt", 5000, pattern=b"beta line\r\n")
    empty = make_file(work, "empty.txt", 0, pattern=b"")
    both = open(a, "rb").read() + open(b, "rb").read()
    for options, expected in [([], both), (["--drop-lf", "--line-delay", "1"],
                                           both.replace(b"\n", b""))]:
        out_dir = tempfile.mkdtemp(dir=work)
        rc, out, err = run([z, "loopback", "-p", "ascii", "--idle", "1500", "-d", out_dir]
                           + options + [a, empty, b])
        what = "%s: exit %d: %s" % (" ".join(options), rc, err)
        check(rc == 0 and out == b"" and "capture of 3 file(s) verified" in err, what)
        check(open(os.path.join(out_dir, "a.txt"), "rb").read() == expected, what)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}
CASES.update({
    "own_terminal_drained_after_zmodem": drained_after_peer("sz", "zmodem"),
    "own_terminal_drained_after_ymodem": drained_after_peer("sb", "ymodem"),
    "own_terminal_drained_after_cancel": failed_and_drained(interrupt=False),
    "own_terminal_drained_after_ctrl_c": failed_and_drained(interrupt=True),
})

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-cli-", lambda case, zvxfer, work: case(zvxfer, work)))
