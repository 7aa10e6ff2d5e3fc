#!/usr/bin/env python3
# The zvxfer program through its command line: exit statuses, messages, a
# standard output that carries nothing but protocol bytes, loopback reports,
# and Ctrl-C cancelling a transfer.  This script plays the far end of the
# line byte by byte, so what zvxfer writes is checked exactly; every wait
# has a deadline.
#
# usage: cli_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, make_file, run_cases  # noqa: E402

SOH, STX, EOT, ACK, CAN = 0x01, 0x02, 0x04, 0x06, 0x18


def crc16(data):
    crc = 0
    for b in data:
        crc ^= b << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) & 0xFFFF if crc & 0x8000 else (crc << 1) & 0xFFFF
    return crc


def block(number, payload, size):
    data = payload.ljust(size, b"\x1a")
    c = crc16(data)
    return bytes([STX if size == 1024 else SOH, number, 255 - number]) + data + bytes([c >> 8, c & 255])


class Far:
    # The far end of zvxfer's line: its stdin and stdout as pipes.

    def __init__(self, argv):
        self.err = tempfile.TemporaryFile()
        self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self.err, bufsize=0)

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
                       (["send", "-p", "xmodem", "--no-window", f], "")]:
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


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-cli-", lambda case, zvxfer, work: case(zvxfer, work)))
