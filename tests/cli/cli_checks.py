#!/usr/bin/env python3
# The zvxfer program through its command line: exit statuses, messages,
# a standard output that carries nothing but protocol bytes, loopback
# reports, and Ctrl-C cancelling a transfer.  The far end of the line is
# played by this script, byte by byte, so what zvxfer writes is checked
# exactly.  Every wait has a deadline.
#
# usage: cli_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import random
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, run_cases  # noqa: E402

SOH, STX, EOT, ACK, NAK, CAN = 0x01, 0x02, 0x04, 0x06, 0x15, 0x18


def check(cond, what):
    if not cond:
        raise Failure(what)


def crc16(data):
    crc = 0
    for b in data:
        crc ^= b << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) if crc & 0x8000 else crc << 1
            crc &= 0xFFFF
    return crc


def block(number, payload, size):
    data = payload.ljust(size, b"\x1a")
    head = bytes([STX if size == 1024 else SOH, number & 0xFF, 0xFF - (number & 0xFF)])
    c = crc16(data)
    return head + data + bytes([c >> 8, c & 0xFF])


class Far:
    """The far end of zvxfer's line: its stdin and stdout as pipes."""

    def __init__(self, argv, cwd=None):
        self.err = tempfile.TemporaryFile()
        self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.err, cwd=cwd, bufsize=0)
        self.seen = bytearray()

    def send(self, data):
        self.proc.stdin.write(data)

    def read(self, n, timeout=10):
        """Exactly n bytes, or a failure at the deadline or at end of output."""
        out = bytearray()
        end = time.monotonic() + timeout
        while len(out) < n:
            left = end - time.monotonic()
            ready, _, _ = select.select([self.proc.stdout], [], [], max(left, 0))
            if not ready:
                raise Failure("zvxfer wrote %d of %d expected bytes before the deadline: %r"
                              % (len(out), n, bytes(out[:40])))
            chunk = os.read(self.proc.stdout.fileno(), n - len(out))
            if not chunk:
                raise Failure("zvxfer ended its output after %d of %d bytes: %r\n%s"
                              % (len(out), n, bytes(out[:40]), self.stderr()))
            out += chunk
        self.seen += out
        return bytes(out)

    def rest(self, timeout=15):
        """Everything until zvxfer closes its output; then its exit status."""
        out = bytearray()
        end = time.monotonic() + timeout
        while True:
            left = end - time.monotonic()
            ready, _, _ = select.select([self.proc.stdout], [], [], max(left, 0))
            if not ready:
                self.proc.kill()
                raise Failure("zvxfer did not end before the deadline\n" + self.stderr())
            chunk = os.read(self.proc.stdout.fileno(), 65536)
            if not chunk:
                break
            out += chunk
        try:
            rc = self.proc.wait(timeout=max(end - time.monotonic(), 1))
        except subprocess.TimeoutExpired:
            self.proc.kill()
            raise Failure("zvxfer closed its output but did not exit\n" + self.stderr())
        return bytes(out), rc

    def stderr(self):
        self.err.seek(0)
        return self.err.read().decode(errors="replace")

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        for f in (self.proc.stdin, self.proc.stdout):
            try:
                f.close()
            except OSError:
                pass


def run(argv, timeout=15, stdin=subprocess.DEVNULL):
    try:
        return subprocess.run(argv, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failure("%s did not end within %d s" % (" ".join(argv), timeout))


def make_file(folder, name, size, seed):
    path = os.path.join(folder, name)
    with open(path, "wb") as f:
        f.write(random.Random(seed).randbytes(size))
    return path


# --- the cases -------------------------------------------------------------------

def case_usage_errors_exit_2(z, work):
    f = make_file(work, "f.bin", 100, 1)
    table = [
        ([], ""),
        (["send", "-p", "nonsense", f], "nonsense"),
        (["send", "-p", "ymodem"], "FILE"),
        (["receive", "-p", "xmodem"], "needs the FILE"),
        (["receive", "-p", "ymodem", "-d", os.path.join(work, "no such folder")], ""),
        (["receive", "-p", "ymodem", "--existing", "maybe"], "maybe"),
        (["send", "-p", "xmodem", "--timeout", "0", f], "timeout"),
        (["loopback", "-p", "xmodem", f, f], "one file at a time"),
        (["send", "-p", "zmodem", "--manage", "sometimes", f], "sometimes"),
        (["receive", "-p", "zmodem", "--no-window"], "--no-window"),
    ]
    for args, text in table:
        r = run([z] + args)
        err = r.stderr.decode(errors="replace")
        check(r.returncode == 2, "zvxfer %s exited %d, expected 2; stderr: %s"
              % (" ".join(args), r.returncode, err))
        check(text in err, "zvxfer %s: message lacks %r: %s" % (" ".join(args), text, err))
        check(r.stdout == b"", "zvxfer %s wrote to stdout: %r" % (" ".join(args), r.stdout[:60]))


def case_option_refused_by_protocol_exit_2(z, work):
    # The line is a pipe that stays silent: a refused option must end the
    # run before any waiting for the far end.
    f = make_file(work, "f.bin", 100, 2)
    far = Far([z, "send", "-p", "ymodem", "--checksum", f])
    try:
        out, rc = far.rest(timeout=10)
        err = far.stderr()
        check(rc == 2, "--checksum with ymodem send exited %d, expected 2; stderr: %s" % (rc, err))
        check("not available for ymodem send" in err, "no message on the refused option: " + err)
        check(out == b"", "bytes on the line for a refused option: %r" % out[:60])
    finally:
        far.close()
    # ZMODEM options belong to ZMODEM: an XMODEM sender refuses them the same way.
    far = Far([z, "send", "-p", "xmodem", "--no-window", f])
    try:
        out, rc = far.rest(timeout=10)
        err = far.stderr()
        check(rc == 2, "--no-window with xmodem send exited %d, expected 2; stderr: %s" % (rc, err))
        check(out == b"", "bytes on the line for a refused option: %r" % out[:60])
    finally:
        far.close()


def case_silent_peer_fails_with_code(z, work):
    f = make_file(work, "f.bin", 1000, 3)
    for protocol in ("xmodem", "ymodem"):
        far = Far([z, "send", "-p", protocol, "--timeout", "100", f])
        try:
            start = time.monotonic()
            out, rc = far.rest(timeout=60)
            err = far.stderr()
            check(rc == 1, "%s send to a silent peer exited %d, expected 1; stderr: %s"
                  % (protocol, rc, err))
            check(re.search(r"transfer failed: -\d+ \S", err),
                  "%s send: message lacks the result code and text: %s" % (protocol, err))
            check(all(b in (SOH, STX, CAN, 0x08) for b in out) or out == b"",
                  "%s send to a silent peer wrote unexpected bytes: %r" % (protocol, out[:60]))
            check(time.monotonic() - start < 60, "took too long")
        finally:
            far.close()


def case_stdout_carries_only_protocol_bytes(z, work):
    """XMODEM-1K with CRC, with progress and trace lines switched on: every byte
    on stdout must belong to a block or the final EOT."""
    size = 5000
    f = make_file(work, "f.bin", size, 4)
    data = open(f, "rb").read()
    far = Far([z, "send", "-p", "xmodem-1k", "-v", f])
    try:
        far.send(b"C")
        got = bytearray()
        number = 1
        while True:
            head = far.read(1)[0]
            if head == EOT:
                far.send(bytes([ACK]))
                break
            check(head in (SOH, STX), "byte 0x%02x where a block or EOT belongs (after %d bytes)"
                  % (head, len(far.seen) - 1))
            n = 1024 if head == STX else 128
            rest = far.read(2 + n + 2)
            check(rest[0] == number & 0xFF and rest[1] == 0xFF - (number & 0xFF),
                  "block %d has number bytes %r" % (number, rest[:2]))
            payload = rest[2:2 + n]
            check(crc16(payload) == (rest[-2] << 8 | rest[-1]), "block %d: bad CRC" % number)
            got += payload
            number += 1
            far.send(bytes([ACK]))
        out, rc = far.rest()
        check(out == b"", "bytes after the final EOT: %r" % out[:60])
        check(rc == 0, "zvxfer exited %d after a clean transfer: %s" % (rc, far.stderr()))
        check(bytes(got[:size]) == data and all(b in (0, 0x1A) for b in got[size:]),
              "the blocks do not hold the file")
        check(far.stderr().strip() != "", "nothing was reported on stderr")
    finally:
        far.close()


def case_loopback_reports_each_file(z, work):
    files = [make_file(work, "one.bin", 3000, 5), make_file(work, "two with blanks.txt", 70000, 6)]
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    r = run([z, "loopback", "-p", "ymodem", "-d", out_dir] + files, timeout=60)
    err = r.stderr.decode(errors="replace")
    check(r.returncode == 0, "loopback exited %d: %s" % (r.returncode, err))
    check(r.stdout == b"", "loopback wrote to stdout: %r" % r.stdout[:60])
    for f in files:
        name = os.path.basename(f)
        size = os.path.getsize(f)
        check(re.search(r"^ok +%s +%d bytes" % (re.escape(name), size), err, re.M),
              "no line for %s: %s" % (name, err))
        check(open(os.path.join(out_dir, name), "rb").read() == open(f, "rb").read(),
              "%s differs after loopback" % name)
    check(re.search(r"2 of 2 file\(s\) verified", err), "no summary line: " + err)
    r = run([z, "loopback", "-p", "xmodem-1k", "-q", files[0]], timeout=60)
    err = r.stderr.decode(errors="replace")
    check(r.returncode == 0, "xmodem-1k loopback exited %d: %s" % (r.returncode, err))
    check(re.search(r"^ok +one\.bin +3000 bytes", err, re.M), "no xmodem-1k line: " + err)
    # ZMODEM keeps times and says what the line carried.
    r = run([z, "loopback", "-p", "zmodem", "--window", "2048"] + files, timeout=60)
    err = r.stderr.decode(errors="replace")
    check(r.returncode == 0, "zmodem loopback exited %d: %s" % (r.returncode, err))
    check(len(re.findall(r"^ok .*time kept", err, re.M)) == 2, "zmodem lines: " + err)
    m = re.search(r"line carried (\d+) bytes forward and (\d+) back; file/line ([0-9.]+)", err)
    check(m and int(m.group(1)) > 73000 and float(m.group(3)) < 1.0, "no line summary: " + err)


def interrupt_and_collect(far, what):
    far.proc.send_signal(signal.SIGINT)
    out, rc = far.rest(timeout=20)
    check(bytes([CAN]) * 10 in out, "%s: no ten CAN bytes after Ctrl-C, got %r" % (what, out[:80]))
    check(rc == 1, "%s: exit %d after Ctrl-C, expected 1; %s" % (what, rc, far.stderr()))


def case_ctrl_c_cancels_sender(z, work):
    f = make_file(work, "f.bin", 50000, 7)
    far = Far([z, "send", "-p", "ymodem", "-q", f])
    try:
        far.send(b"C")
        check(far.read(133)[0] == SOH, "no block 0")
        far.send(bytes([ACK]) + b"C")
        check(far.read(1029)[0] == STX, "no first data block")
        # The line goes quiet here: the sender waits for our answer.
        interrupt_and_collect(far, "sender")
    finally:
        far.close()


def case_ctrl_c_cancels_receiver(z, work):
    out_dir = os.path.join(work, "out")
    os.mkdir(out_dir)
    far = Far([z, "receive", "-p", "ymodem", "-q", "-d", out_dir])
    try:
        check(far.read(1) == b"C", "the receiver did not ask with C")
        far.send(block(0, b"f.bin\x0050000 0 0", 128))
        check(far.read(2) == bytes([ACK]) + b"C", "block 0 not acknowledged")
        far.send(block(1, bytes(1024), 1024))
        check(far.read(1) == bytes([ACK]), "block 1 not acknowledged")
        interrupt_and_collect(far, "receiver")
    finally:
        far.close()


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}


def main():
    return run_cases(CASES, "zvxfer-cli-", lambda case, zvxfer, work: case(zvxfer, work))


if __name__ == "__main__":
    sys.exit(main())
