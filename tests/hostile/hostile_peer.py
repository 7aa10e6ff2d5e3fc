#!/usr/bin/env python3
# The zvxfer program against a far end that does not play fair: names that
# climb out of the receive folder or carry terminal escapes, symlinks in the
# receive folder, sizes past 31 bits, transfers cut off in the middle, bytes
# that keep coming after the end, and endless noise.  This script is the far
# end: a small scripted YMODEM and ZMODEM sender (and the lrzsz programs as
# honest peers), every wait with a deadline.
#
# usage: hostile_peer.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import pty
import random
import resource
import re
import select
import shutil
import signal
import subprocess
import sys
import threading
import time
import tty

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import MTIME, Failure, check, run_cases  # noqa: E402

SOH, STX, EOT, ACK, NAK, CAN = 0x01, 0x02, 0x04, 0x06, 0x15, 0x18


def _crc16_table():
    table = []
    for i in range(256):
        crc = i << 8
        for _ in range(8):
            crc = ((crc << 1) ^ 0x1021) if crc & 0x8000 else crc << 1
        table.append(crc & 0xFFFF)
    return table


CRC16 = _crc16_table()


def crc16(data, crc=0):
    for b in data:
        crc = ((crc << 8) & 0xFFFF) ^ CRC16[(crc >> 8) ^ b]
    return crc


# --- the line --------------------------------------------------------------


class Line:
    # One end of zvxfer's line.  Everything zvxfer writes is gathered in
    # `buf` (and kept in `seen`); waits consume it up to what they looked for.

    def __init__(self, rfd, wfd):
        self.rfd, self.wfd, self.eof = rfd, wfd, False
        self.buf, self.seen = bytearray(), bytearray()
        os.set_blocking(rfd, False)
        os.set_blocking(wfd, False)

    def pump(self, timeout):
        if self.eof:
            time.sleep(min(timeout, 0.05))
            return
        ready, _, _ = select.select([self.rfd], [], [], max(timeout, 0))
        if not ready:
            return
        try:
            chunk = os.read(self.rfd, 65536)
        except BlockingIOError:
            return
        except OSError:  # a pty master whose slave side has gone
            chunk = b""
        if not chunk:
            self.eof = True
        self.buf += chunk
        self.seen += chunk

    def send(self, data, timeout=30):
        # Writes all of `data`, reading meanwhile so that neither side blocks.
        view, end = memoryview(bytes(data)), time.monotonic() + timeout
        while view:
            try:
                view = view[os.write(self.wfd, view[:4096]):]
            except BlockingIOError:
                check(time.monotonic() < end, "the line took no bytes for %d s" % timeout)
                self.pump(0.01)
            except OSError as e:
                raise Failure("writing to zvxfer's line failed: %s" % e)

    def wait(self, find, what, timeout=20):
        # find(buf) gives (value, bytes consumed) or None.
        end = time.monotonic() + timeout
        while True:
            got = find(self.buf)
            if got is not None:
                del self.buf[:got[1]]
                return got[0]
            check(not self.eof and time.monotonic() < end, "no %s from zvxfer (%s); it sent %r" % (
                what, "it closed the line" if self.eof else "%d s" % timeout,
                bytes(self.buf[-60:])))
            self.pump(min(0.2, end - time.monotonic()))

    def expect(self, data, timeout=20):
        def find(buf):
            at = buf.find(data)
            return None if at < 0 else (None, at + len(data))
        self.wait(find, repr(data), timeout)

    def quiet(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.pump(end - time.monotonic())


class Far(Line):
    # zvxfer with its stdin and stdout as the line; stderr into a file (or
    # the given descriptor).

    def __init__(self, argv, work, cwd=None, stderr=None, label="zvxfer"):
        self.argv, self.err_path = argv, os.path.join(work, label + ".stderr")
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=err if stderr is None else stderr, cwd=cwd)
        super().__init__(self.proc.stdout.fileno(), self.proc.stdin.fileno())

    def stderr(self):
        with open(self.err_path, "rb") as f:
            return f.read()

    def finish(self, timeout=30):
        # zvxfer's exit status, reading its output meanwhile; the line stays up.
        end = time.monotonic() + timeout
        while self.proc.poll() is None:
            if time.monotonic() > end:
                self.close()
                raise Failure("%s did not end within %d s; stderr:\n%s"
                              % (" ".join(map(str, self.argv)), timeout, self.text()))
            self.pump(0.05)
        return self.proc.returncode

    def text(self):
        return self.stderr().decode(errors="replace")

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()
        for f in (self.proc.stdin, self.proc.stdout):
            try:
                f.close()
            except OSError:
                pass


def run_far(argv, work, script, cwd=None, timeout=30):
    # Runs zvxfer against `script(line)`; gives (exit status, stderr text,
    # what the script reported: None or the Failure it ran into).
    far = Far(argv, work, cwd)
    try:
        problem = None
        try:
            script(far)
        except Failure as e:
            problem = e
            try:
                cancel(far)  # so that zvxfer need not wait out its time-outs
            except Failure:
                pass  # it has gone already
        return far.finish(timeout), far.stderr(), problem
    finally:
        far.close()


# --- a scripted YMODEM sender ----------------------------------------------


def y_block(number, payload, size):
    data = bytes(payload).ljust(size, b"\0")
    check(len(data) == size, "a block of %d bytes does not fit %d" % (len(payload), size))
    c = crc16(data)
    return bytes([SOH if size == 128 else STX, number & 255, 255 - (number & 255)]) + data + \
        bytes([c >> 8, c & 255])


def info(name, size, mtime=MTIME):
    # The text of a block 0 (or a ZFILE subpacket): name, NUL, size, octal time.
    size = size if isinstance(size, bytes) else str(size).encode()
    return bytes(name) + b"\0" + size + b" %o 0" % mtime


def y_offer(line, text):
    line.expect(b"C")
    line.send(y_block(0, text, 128))
    line.expect(bytes([ACK]))


def y_data(line, data, blocks=None):
    # The file's blocks (1024 while more than 896 bytes remain), or only the
    # first `blocks` of them.
    line.expect(b"C")
    pos, number = 0, 1
    while pos < len(data) and (blocks is None or number <= blocks):
        size = 1024 if len(data) - pos > 896 else 128
        line.send(y_block(number, data[pos:pos + size], size))
        line.expect(bytes([ACK]))
        pos, number = pos + size, number + 1


def y_eot(line):
    line.send(bytes([EOT]))
    line.expect(bytes([ACK]))


def y_end_batch(line):
    line.expect(b"C")
    line.send(y_block(0, b"", 128))
    line.expect(bytes([ACK]))


def y_send(line, files):
    # files: (block-0 text, data) pairs, then the end of the batch.
    for text, data in files:
        y_offer(line, text)
        y_data(line, data)
        y_eot(line)
    y_end_batch(line)


def cancel(line):
    line.send(bytes([CAN]) * 8 + b"\b" * 8)


# --- a scripted ZMODEM sender ----------------------------------------------

ZDLE = 0x18
ZRQINIT, ZRINIT, ZACK, ZFILE, ZSKIP, ZFIN, ZRPOS, ZDATA, ZEOF = 0, 1, 3, 4, 5, 8, 9, 10, 11
ZCRCE, ZCRCG, ZCRCW = 0x68, 0x69, 0x6B
ESCAPED = {0x0D, 0x10, 0x11, 0x13, 0x18, 0x8D, 0x90, 0x91, 0x93}
HEX_HEADER = re.compile(rb"\*\*?\x18B([0-9a-f]{14})")


def zesc(data):
    out = bytearray()
    for b in data:
        out += bytes([ZDLE, b ^ 0x40]) if b in ESCAPED else bytes([b])
    return bytes(out)


def pos4(n):
    return (n & 0xFFFFFFFF).to_bytes(4, "little")


def z_hex(kind, data=b"\0\0\0\0"):
    c = crc16(bytes([kind]) + data)
    text = b"%02x" % kind + data.hex().encode() + b"%04x\r\n" % c
    return b"**\x18B" + text + (b"" if kind in (ZFIN, ZACK) else b"\x11")


def z_bin(kind, data=b"\0\0\0\0"):
    c = crc16(bytes([kind]) + data)
    return b"*\x18A" + zesc(bytes([kind]) + data + bytes([c >> 8, c & 255]))


def z_sub(data, end):
    c = crc16(bytes(data) + bytes([end]))
    return zesc(data) + bytes([ZDLE, end]) + zesc(bytes([c >> 8, c & 255])) + \
        (b"\x11" if end == ZCRCW else b"")


def z_header(line, timeout=20):
    # The next hex header zvxfer sends (its receiver sends nothing else):
    # (type, the four data bytes); one whose CRC is wrong is a failure.
    def find(buf):
        m = HEX_HEADER.search(buf)
        return None if not m else (bytes.fromhex(m.group(1).decode()), m.end())
    raw = line.wait(find, "ZMODEM header", timeout)
    check(crc16(raw) == 0, "a hex header with a wrong CRC: %s" % raw.hex())
    return raw[0], raw[1:5]


def z_expect(line, kind, timeout=20):
    got, data = z_header(line, timeout)
    check(got == kind, "zvxfer answered frame type %d (data %s) where %d belongs"
          % (got, data.hex(), kind))
    return data


def z_start(line):
    line.send(b"rz\r" + z_hex(ZRQINIT))
    z_expect(line, ZRINIT)


def z_offer(line, text):
    # ZFILE; the receiver's answer (ZRPOS or ZSKIP).  A receiver that has just
    # skipped a file announces itself again with ZRINIT before it reads this
    # ZFILE; that ZRINIT is no answer to it.
    line.send(z_bin(ZFILE) + z_sub(text, ZCRCW))
    while True:
        kind = z_header(line)[0]
        if kind != ZRINIT:
            return kind


def z_data(line, data, subpackets=None):
    # One ZDATA frame of 1024-byte subpackets, then ZEOF; with `subpackets`
    # only that many go out and the frame is left open.
    line.send(z_bin(ZDATA, pos4(0)))
    chunks = [data[i:i + 1024] for i in range(0, len(data), 1024)]
    if subpackets is not None:
        line.send(b"".join(z_sub(c, ZCRCG) for c in chunks[:subpackets]))
        return
    line.send(b"".join(z_sub(c, ZCRCE if i == len(chunks) - 1 else ZCRCG)
                       for i, c in enumerate(chunks)))
    line.send(z_bin(ZEOF, pos4(len(data))))
    z_expect(line, ZRINIT)


def z_finish(line):
    line.send(z_hex(ZFIN))
    z_expect(line, ZFIN)
    line.send(b"OO")


def z_send(line, files):
    z_start(line)
    for text, data in files:
        answer = z_offer(line, text)
        check(answer == ZRPOS, "zvxfer answered ZFILE %r with frame type %d" % (text, answer))
        z_data(line, data)
    z_finish(line)


def send_batch(protocol, files):
    return (lambda line: y_send(line, files)) if protocol == "ymodem" else \
        (lambda line: z_send(line, files))


# --- files -----------------------------------------------------------------


def data_of(seed, size):
    return random.Random(seed).randbytes(size)


def write(path, data, mtime=MTIME):
    with open(path, "wb") as f:
        f.write(data)
    os.utime(path, (mtime, mtime))
    return path


def read(path):
    with open(path, "rb") as f:
        return f.read()


def tree(top):
    # Every entry below `top` (symlinks not followed): relative path -> what
    # it is (link target, "dir", or the file's bytes).
    found = {}
    for folder, dirs, files in os.walk(top):
        for name in dirs + files:
            path = os.path.join(folder, name)
            rel = os.path.relpath(path, top)
            if os.path.islink(path):
                found[rel] = ("link", os.readlink(path))
            elif os.path.isdir(path):
                found[rel] = ("dir",)
            else:
                found[rel] = ("file", read(path))
    return found


def changes(before, after):
    return sorted(set(k for k in set(before) | set(after) if before.get(k) != after.get(k)))


def folder(*parts):
    path = os.path.join(*parts)
    os.makedirs(path)
    return path


def zvxfer_receive(z, protocol, out, *options):
    return [z, "receive", "-p", protocol, "-d", out] + list(options)


def report(problems):
    if problems:
        raise Failure("\n".join(problems))


# --- names -----------------------------------------------------------------

def unique():
    return "hz%d%04d" % (os.getpid(), random.randrange(10000))


def case_names_stay_inside_receive_folder(z, work):
    # Names from the line never lead out of -d: without --full-path only the
    # last component counts; with it, a drive, the root and every "." and ".."
    # fall away and the rest becomes subfolders of -d.
    u = unique()
    rows = [  # name sent, where it lands without --full-path, with it
        (b"/tmp/%sa" % u.encode(), u + "a", "tmp/%sa" % u),
        (b"../../%sb" % u.encode(), u + "b", u + "b"),
        (b"C:\\d\\%sc" % u.encode(), u + "c", "d/%sc" % u),
        (b"sub/../%sd" % u.encode(), u + "d", "sub/%sd" % u),
        (b"..", "__", "unnamed"),
    ]
    problems = []
    for protocol in ("ymodem", "zmodem"):
        for full in (False, True):
            run = folder(work, "%s-%s" % (protocol, "full" if full else "bare"))
            out, cwd = folder(run, "out"), folder(run, "deep", "er")
            files = [(info(name, 300), data_of(i, 300)) for i, (name, _, _) in enumerate(rows)]
            argv = zvxfer_receive(z, protocol, out) + ["--full-path"] * full
            rc, err, problem = run_far(argv, work, send_batch(protocol, files), cwd=cwd)
            what = "%s%s" % (protocol, " --full-path" if full else "")
            if problem:
                problems.append("%s: the transfer broke off: %s" % (what, problem))
            expected = {(full_ if full else bare): data_of(i, 300)
                        for i, (_, bare, full_) in enumerate(rows)}
            got = {k: v[1] for k, v in tree(out).items() if v[0] == "file"}
            for rel, data in expected.items():
                if got.get(rel) != data:
                    problems.append("%s: %s is missing or wrong in -d; it holds %s"
                                    % (what, rel, sorted(got)))
            outside = [k for k in tree(run)
                       if not k.startswith("out") and k not in ("deep", "deep/er")]
            if outside:
                problems.append("%s: written outside -d: %s" % (what, outside))
            stray = "/tmp/%sa" % u
            if os.path.lexists(stray):
                problems.append("%s: written outside -d: %s" % (what, stray))
                os.remove(stray)
            if not problem and rc != 0:
                problems.append("%s: exit %d: %s" % (what, rc, err.decode(errors="replace")))
    report(problems)


# Bytes of the names below that must never reach the user's terminal raw.
RAW = [0x1B, 0x07, 0x9B, 0x9C, 0x9D, 0x9E, 0x9F, 0x7F, 0x01]
EVIL = b"e\x1b]0;x\x07y\x9bz\x7f\x01.txt"  # a title change, a bell, a C1 CSI, DEL, SOH
EVIL_LOCAL = b"e_]0;x_y\x9bz__.txt"
# EVIL as shown: escaped as it came, or as the local name with its 0x9b escaped
EVIL_SHOWN = re.compile(rb"e(\\x1b|_)\]0;x(\\x07|_)y\\x9bz")


def case_control_bytes_in_names(z, work):
    # Control bytes in a received name become '_' in the file name; the
    # program's messages show the name with the bytes escaped.
    problems = []
    for protocol in ("ymodem", "zmodem"):
        out = folder(work, protocol)
        data = data_of(1, 500)
        rc, err, problem = run_far(zvxfer_receive(z, protocol, out), work,
                                   send_batch(protocol, [(info(EVIL, 500), data)]))
        names = os.listdir(out.encode())
        if problem or rc != 0:
            problems.append("%s: exit %d, %s: %r" % (protocol, rc, problem, err))
        if names != [EVIL_LOCAL] or read(os.path.join(out.encode(), names[0])) != data:
            problems.append("%s: received as %r, not %r" % (protocol, names, EVIL_LOCAL))
        raw = sorted("0x%02x" % b for b in RAW if b in err)
        if raw:
            problems.append("%s: stderr carries raw %s: %r" % (protocol, ", ".join(raw), err))
        if not EVIL_SHOWN.search(err):
            problems.append("%s: stderr never shows the escaped name: %r" % (protocol, err))
    report(problems)


def terminal_problems(shown):
    # What is wrong with the bytes a terminal got: raw control bytes (the
    # bar's own "clear line" aside), bytes that are not UTF-8, a backslash that
    # starts no escape (a name cut inside one).
    own = shown.replace(b"\r\x1b[K", b"\r")
    raw = sorted("0x%02x" % b for b in RAW if b in own)
    if raw:
        return "raw %s" % ", ".join(raw)
    try:
        text = own.decode("utf-8")
    except UnicodeDecodeError as e:
        return "bytes that are not UTF-8 (%s)" % e
    broken = re.findall(r"\\(?!x[0-9a-f]{2}).{0,4}", re.sub(r"\\\\", "", text))
    if broken:
        return "a backslash that starts no escape: %s" % broken
    if not EVIL_SHOWN.search(own):
        return "no escaped name"
    return None


def case_names_escaped_in_progress_bar(z, work):
    # With stderr on a terminal the progress bar narrows names; what it shows
    # is still escaped, valid UTF-8, and never cut inside an escape.
    out = folder(work, "out")
    names = [EVIL, b"abcdefghijklmnopqrstu\x9b\x9c\x9d\x9e\x9f.bin",
             ("x" + "\u00e9" * 22 + "\u20ac\u20ac\u20ac.bin").encode()]
    files = [(info(n, 3000), data_of(i, 3000)) for i, n in enumerate(names)]
    master, slave = os.openpty()
    tty.setraw(slave)
    screen, stop = Line(master, master), threading.Event()

    def watch():  # the terminal is read all along, so the bar never blocks
        while not stop.is_set():
            screen.pump(0.05)
    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        far = Far(zvxfer_receive(z, "ymodem", out), work, stderr=slave)
        try:
            problem = None
            try:
                y_send(far, files)
            except Failure as e:
                problem = e
            rc = far.finish()
        finally:
            far.close()
        time.sleep(0.3)
    finally:
        stop.set()
        watcher.join()
        os.close(slave)
        os.close(master)
    shown = bytes(screen.seen)
    check(problem is None and rc == 0, "exit %d, %s; the terminal showed %r" % (rc, problem, shown))
    wrong = terminal_problems(shown)
    check(not wrong, "the terminal got %s: %r" % (wrong, shown))


# --- symlinks --------------------------------------------------------------

LINKED = "f.txt"


def lrzsz_send(protocol, work, name, data, extra=()):
    # sb or sz sending one file named `name` with `data`, as a command line.
    src = folder(work, "src-%d" % random.randrange(1 << 30))
    write(os.path.join(src, name), data)
    return [shutil.which("sb" if protocol == "ymodem" else "sz"), "-q"] + list(extra) + \
        [os.path.join(src, name)]


def pipe_pair(a_argv, b_argv, work, a_cwd=None, deadline=40, a_limit=None):
    # Two programs joined as one line, `a` working in `a_cwd` and writing
    # files of at most `a_limit` bytes; (exit statuses, b's stderr).
    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (a_limit, a_limit))
    a2b_r, a2b_w = os.pipe()
    b2a_r, b2a_w = os.pipe()
    err_path = os.path.join(work, "b.stderr")
    with open(err_path, "wb") as err, open(os.devnull, "wb") as null:
        a = subprocess.Popen(a_argv, stdin=b2a_r, stdout=a2b_w, stderr=null, cwd=a_cwd,
                             preexec_fn=limit if a_limit else None)
        b = subprocess.Popen(b_argv, stdin=a2b_r, stdout=b2a_w, stderr=err)
    for fd in (a2b_r, a2b_w, b2a_r, b2a_w):
        os.close(fd)
    end, codes = time.monotonic() + deadline, [None, None]
    while None in codes and time.monotonic() < end:
        codes = [a.poll(), b.poll()]
        time.sleep(0.02)
    for p in (a, b):
        if p.poll() is None:
            p.kill()
        p.wait()
    return codes, read(err_path).decode(errors="replace")


def case_symlinks_in_receive_folder(z, work):
    # A symlink named like the incoming file, dangling or to a file outside
    # -d: rename receives beside it, overwrite refuses, skip skips; the link
    # and everything outside -d stay as they were.
    problems = []
    for protocol in ("ymodem", "zmodem"):
        for policy in ("rename", "overwrite", "skip"):
            for kind in ("dangling", "to-file"):
                run = folder(work, "%s-%s-%s" % (protocol, policy, kind))
                out, outside = folder(run, "out"), folder(run, "outside")
                if kind == "to-file":
                    write(os.path.join(outside, "victim"), b"precious\n")
                target = os.path.join(outside, "victim")
                os.symlink(target, os.path.join(out, LINKED))
                before = tree(run)
                data = data_of(7, 2000)
                options = [] if policy == "rename" else ["--existing", policy]
                codes, err = pipe_pair(lrzsz_send(protocol, work, LINKED, data),
                                       zvxfer_receive(z, protocol, out, "-q", *options), work)
                what = "%s %s, link %s" % (protocol, policy, kind)
                after = tree(run)
                moved = [k for k in changes(before, after) if not k.startswith("out/")]
                if moved or after.get("out/" + LINKED) != before["out/" + LINKED]:
                    problems.append("%s: changed outside -d or the link: %s" % (
                        what, moved or "out/" + LINKED))
                new = {k: v for k, v in after.items() if k.startswith("out/") and k not in before}
                if policy == "rename":
                    if list(new.values()) != [("file", data)] or codes[1] != 0:
                        problems.append("%s: exit %s, new in -d: %s (%s)"
                                        % (what, codes[1], sorted(new), err.strip()))
                elif new:
                    problems.append("%s: new in -d: %s" % (what, sorted(new)))
                if policy == "overwrite" and codes[1] == 0:
                    problems.append("%s: the refused file still ended with exit 0" % what)
    report(problems)


def case_symlinked_subfolder_with_full_path(z, work):
    # A subfolder of -d that is a symlink to a folder outside is never
    # entered, however deep the name goes on.
    problems = []
    for protocol in ("ymodem", "zmodem"):
        run = folder(work, protocol)
        out, outside = folder(run, "out"), folder(run, "outside")
        write(os.path.join(outside, "kept"), b"kept\n")
        os.symlink(outside, os.path.join(out, "sub"))
        before = tree(run)
        files = [(info(b"sub/f.txt", 100), data_of(1, 100)),
                 (info(b"sub/deeper/g.txt", 100), data_of(2, 100))]
        run_far(zvxfer_receive(z, protocol, out, "--full-path"), work,
                send_batch(protocol, files), cwd=out)
        after = tree(run)
        bad = [k for k in changes(before, after) if not k.startswith("out/") or k == "out/sub"]
        if bad:
            problems.append("%s: changed through the link: %s" % (protocol, bad))
    report(problems)


# --- sizes -----------------------------------------------------------------


def case_ymodem_size_beyond_31_bits_is_unknown(z, work):
    # A block-0 size that does not fit 31 bits is no size at all: the file
    # keeps the whole 128-byte block instead of a wrapped length.
    rows = [(b"100", 100), (b"4294967396", 128), (b"2147483648", 128),
            (b"99999999999999999999", 128), (b"4294967297", 128)]
    out = folder(work, "out")
    data = data_of(3, 100)
    files = [(info(b"s%d.bin" % i, size), data) for i, (size, _) in enumerate(rows)]
    rc, err, problem = run_far(zvxfer_receive(z, "ymodem", out), work, send_batch("ymodem", files))
    problems = [] if not problem and rc == 0 else ["exit %d, %s: %r" % (rc, problem, err)]
    for i, (size, keeps) in enumerate(rows):
        path = os.path.join(out, "s%d.bin" % i)
        got = read(path) if os.path.exists(path) else None
        if got != data + bytes(keeps - 100):
            problems.append("size %s: kept %s bytes, not %d" % (
                size.decode(), "no" if got is None else len(got), keeps))
    report(problems)


def case_zmodem_receive_refuses_size_beyond_31_bits(z, work):
    # The file is skipped with a notice; the batch goes on.
    out = folder(work, "out")
    small = data_of(5, 3000)

    def script(line):
        z_start(line)
        answer = z_offer(line, info(b"big.bin", b"4294967396"))
        check(answer == ZSKIP, "a ZFILE of 4294967396 bytes was answered with frame type %d, "
              "not ZSKIP" % answer)
        check(z_offer(line, info(b"small.bin", 3000)) == ZRPOS, "small.bin was not asked for")
        z_data(line, small)
        z_finish(line)
    rc, err, problem = run_far(zvxfer_receive(z, "zmodem", out), work, script)
    check(problem is None, "%s; stderr: %r" % (problem, err))
    check(os.listdir(out) == ["small.bin"] and read(os.path.join(out, "small.bin")) == small,
          "-d holds %s" % os.listdir(out))
    check(rc == 0 and re.search(rb"too large.*big\.bin", err, re.I), "exit %d: %r" % (rc, err))


def sparse(path, size):
    with open(path, "wb") as f:
        f.truncate(size)
    os.utime(path, (MTIME, MTIME))
    return path


def too_large_to_send(z, work, protocol, size):
    # A file of `size` bytes is passed over with a notice (the next file still
    # goes); alone it ends the run unsuccessfully; the peer never gets it.
    src = folder(work, "src")
    big = sparse(os.path.join(src, "big.bin"), size)
    small = write(os.path.join(src, "small.bin"), data_of(6, 5000))
    peer = shutil.which("rb" if protocol == "ymodem" else "rz")
    check(peer, "the lrzsz programs are not installed")
    for files in ([big, small], [big]):
        out = folder(work, "out%d" % len(files))
        # The peer may store 64 MiB: enough to see a short file begin.
        codes, err = pipe_pair([peer, "-q"], [z, "send", "-p", protocol] + files, work,
                               a_cwd=out, deadline=30, a_limit=64 << 20)
        what = "send %s: exit %s, stderr %r, peer kept %s" % (
            " ".join(os.path.basename(f) for f in files), codes[1], err,
            {n: os.path.getsize(os.path.join(out, n)) for n in os.listdir(out)
             if n.endswith(".bin")})
        check(not os.path.exists(os.path.join(out, "big.bin")), what)
        check(re.search(r"too large.*big\.bin", err, re.I), what)
        if len(files) == 2:
            check(read(os.path.join(out, "small.bin")) == read(small) if
                  os.path.exists(os.path.join(out, "small.bin")) else False, what)
        else:
            check(codes[1] not in (0, None), what)


def case_ymodem_send_refuses_2_gib(z, work):
    too_large_to_send(z, work, "ymodem", 1 << 31)


def case_zmodem_send_refuses_5_gib(z, work):
    too_large_to_send(z, work, "zmodem", 5 << 30)


# --- partial files and overwrite -------------------------------------------


def cut_off(protocol, name, size, blocks, how="cancel"):
    # A sender that offers `name` (`size` bytes, the fixed time), sends
    # `blocks` 1024-byte pieces of its data, then cancels or goes on with
    # `how(line)`.
    data = data_of(8, size)

    def script(line):
        if protocol == "ymodem":
            y_offer(line, info(name, size))
            if blocks:
                y_data(line, data, blocks)
            else:
                line.expect(b"C")
        else:
            z_start(line)
            check(z_offer(line, info(name, size)) == ZRPOS, "the file was not asked for")
            z_data(line, data, blocks)
        line.quiet(0.3)
        cancel(line) if how == "cancel" else how(line)
    return script, data


def case_partial_file_kept_and_named(z, work):
    # A receive cut off by a cancel or by Ctrl-C keeps what arrived, without
    # the sender's time, and the summary names it.
    def ctrl_c(far):
        far.proc.send_signal(signal.SIGINT)
    problems = []
    for protocol, how in (("ymodem", "cancel"), ("zmodem", "cancel"), ("ymodem", ctrl_c)):
        what = "%s %s" % (protocol, "cancel" if how == "cancel" else "Ctrl-C")
        out = folder(work, "%s-%s" % (protocol, "cancel" if how == "cancel" else "int"))
        script, data = cut_off(protocol, b"part.bin", 10000, 2, how)
        rc, err, problem = run_far(zvxfer_receive(z, protocol, out), work, script)
        path = os.path.join(out, "part.bin")
        if problem or rc != 1:
            problems.append("%s: exit %d, %s" % (what, rc, problem))
        if not os.path.exists(path) or read(path) != data[:2048]:
            problems.append("%s: partial file not kept as the 2048 bytes that came: %s"
                            % (what, os.listdir(out)))
            continue
        if int(os.stat(path).st_mtime) == MTIME:
            problems.append("%s: the partial file carries the sender's time" % what)
        m = re.search(rb"partial file kept: (.*) \((\d+) bytes\)", err)
        if not m or not m.group(1).endswith(b"part.bin") or int(m.group(2)) != 2048:
            problems.append("%s: stderr does not name the partial file: %r" % (what, err))
    report(problems)


def case_partial_file_removed_on_request(z, work):
    problems = []
    for protocol in ("ymodem", "zmodem"):
        out = folder(work, protocol)
        script, _ = cut_off(protocol, b"part.bin", 10000, 2)
        rc, err, problem = run_far(zvxfer_receive(z, protocol, out, "--remove-partial"), work,
                                   script)
        if problem or rc != 1 or os.listdir(out):
            problems.append("%s: exit %d, %s, -d holds %s: %r" % (
                protocol, rc, problem, os.listdir(out), err))
        elif not re.search(rb"partial file removed: \S*part\.bin", err):
            problems.append("%s: stderr does not say the file was removed: %r" % (protocol, err))
    report(problems)


def case_failed_overwrite_keeps_old_file(z, work):
    # --existing overwrite replaces the old file only once the new one has
    # fully arrived: a transfer cancelled before or after its first data
    # leaves it as it was (--remove-partial included) and no temporary file.
    problems = []
    for protocol in ("ymodem", "zmodem"):
        for blocks in (0, 2):
            for remove in (False, True):
                what = "%s, cancelled after %d blocks%s" % (
                    protocol, blocks, " --remove-partial" if remove else "")
                out = folder(work, "%s-%d-%d" % (protocol, blocks, remove))
                old = write(os.path.join(out, "old.bin"), b"the old content\n" * 100, MTIME - 5)
                script, _ = cut_off(protocol, b"old.bin", 10000, blocks)
                argv = zvxfer_receive(z, protocol, out, "--existing", "overwrite") + \
                    ["--remove-partial"] * remove
                rc, err, problem = run_far(argv, work, script)
                if problem or rc != 1:
                    problems.append("%s: exit %d, %s: %r" % (what, rc, problem, err))
                if sorted(os.listdir(out)) != ["old.bin"]:
                    problems.append("%s: -d holds %s" % (what, sorted(os.listdir(out))))
                if not os.path.exists(old) or read(old) != b"the old content\n" * 100:
                    problems.append("%s: the old file is now %s bytes" % (
                        what, os.path.getsize(old) if os.path.exists(old) else "no"))
    report(problems)


def case_overwrite_from_honest_peer_replaces(z, work):
    problems = []
    for protocol in ("ymodem", "zmodem"):
        out = folder(work, protocol)
        write(os.path.join(out, "f.bin"), b"old\n" * 3000, MTIME - 100)
        data = data_of(9, 70000)
        codes, err = pipe_pair(lrzsz_send(protocol, work, "f.bin", data),
                               zvxfer_receive(z, protocol, out, "-q", "--existing", "overwrite"),
                               work)
        path = os.path.join(out, "f.bin")
        if codes != [0, 0] or sorted(os.listdir(out)) != ["f.bin"] or read(path) != data or \
                int(os.stat(path).st_mtime) != MTIME:
            problems.append("%s: exits %s, -d holds %s: %s" % (
                protocol, codes, sorted(os.listdir(out)), err))
    report(problems)


# --- endings: zvxfer started from an interactive shell ---------------------


class Shell(Line):
    # An interactive bash on a pty; the test types at it and plays the far
    # end of the terminal session on the master side.

    def __init__(self, work):
        env = dict(os.environ, PS1="$ ", TERM="dumb", HISTFILE="/dev/null")
        self.pid, master = pty.fork()
        if self.pid == 0:
            try:
                os.chdir(work)
                os.execvpe("bash", ["bash", "--norc", "--noprofile", "-i"], env)
            finally:
                os._exit(127)
        super().__init__(master, master)
        self.expect(b"$ ", timeout=20)

    def close(self):
        try:
            os.kill(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.waitpid(self.pid, 0)
        os.close(self.rfd)


def shell_session(z, work, protocol, script, late_gap=2.0):
    # Types the zvxfer command, plays `script` as the far end, then sends a
    # shell command right after the end and again `late_gap` seconds later;
    # gives zvxfer's exit status once the shell has shown that it reads again.
    out = folder(work, "out")
    pwned = os.path.join(work, "PWNED")
    shell = Shell(work)
    try:
        shell.send(b"%s receive -p %s -d out 2>zvxfer.stderr; echo ZV-EXIT-$?\r"
                   % (z.encode(), protocol.encode()))
        script(shell)
        shell.send(b"touch %s\r" % pwned.encode())
        shell.quiet(late_gap)
        shell.send(b"touch %s\r" % pwned.encode())
        rc = int(shell.wait(lambda buf: (lambda m: m and (m.group(1), m.end()))(
            re.search(rb"ZV-EXIT-(\d+)", buf)), "end of zvxfer", 45))
        # The shell reads its terminal again: anything it got has run by the
        # time it answers this.
        shell.send(b"echo M$((40+2))M\r")
        shell.expect(b"M42M", timeout=15)
    finally:
        shell.close()
    check(not os.path.exists(pwned), "bytes that came after the end reached the shell, which ran "
          "them (zvxfer exit %d); terminal:\n%r" % (rc, bytes(shell.seen[-400:])))
    return rc, out


def case_shell_after_zmodem_success(z, work):
    data = data_of(10, 5000)
    rc, out = shell_session(z, work, "zmodem",
                            lambda line: z_send(line, [(info(b"f.bin", 5000), data)]))
    check(rc == 0 and read(os.path.join(out, "f.bin")) == data, "exit %d" % rc)


def case_shell_after_ymodem_success(z, work):
    data = data_of(11, 5000)
    rc, out = shell_session(z, work, "ymodem",
                            lambda line: y_send(line, [(info(b"f.bin", 5000), data)]))
    check(rc == 0 and read(os.path.join(out, "f.bin")) == data, "exit %d" % rc)


def case_shell_after_failure(z, work):
    script, _ = cut_off("zmodem", b"f.bin", 10000, 2)
    rc, _ = shell_session(z, work, "zmodem", script)
    check(rc == 1, "a cancelled receive ended with exit %d" % rc)


# --- noise -----------------------------------------------------------------

NOISE_DEADLINE = 90


def noise_run(argv, work, label, interval, chunk, opening=None, results=None):
    # zvxfer under endless random bytes (never CAN: the end must come from
    # zvxfer's own limits, not a cancel drawn by chance); `chunk` bytes every
    # `interval` seconds, after `opening(line)` if given.  Records the exit
    # status, or None when zvxfer was still running at the deadline.
    rng = random.Random(label)
    far = Far(argv, work, label=label)
    try:
        start = time.monotonic()
        if opening:
            opening(far)
        while far.proc.poll() is None and time.monotonic() - start < NOISE_DEADLINE:
            noise = bytes(b if b != CAN else 0x55 for b in rng.randbytes(chunk))
            try:
                os.write(far.wfd, noise)
            except (BlockingIOError, BrokenPipeError):
                pass
            far.pump(interval)
        rc = far.proc.poll()
        results[label] = (rc, time.monotonic() - start, far.text())
    except Failure as e:
        results[label] = ("opening failed: %s" % e, 0, far.text())
    finally:
        far.close()


def zmodem_data_phase(line):
    # Plays a receiver up to the first data: ZRINIT, then ZRPOS 0 to the ZFILE.
    line.expect(b"\x18B00")
    line.send(z_hex(ZRINIT, b"\0\0\0\x23"))
    line.expect(b"\x18k")  # the end of ZFILE's subpacket
    line.quiet(0.1)
    line.send(z_hex(ZRPOS, pos4(0)))
    line.expect(b"\x18C")  # ZDATA begins


def case_noise_ends_every_wait(z, work):
    # Receivers fed random bytes, a ZMODEM sender answered with them (from
    # the start, or once its data flow): each gives up with exit 1 on its own,
    # for a flood and for a byte a second alike.
    runs = []
    # The drip comes a little faster than a byte a second, so that no read
    # that waits a whole second ever finds the line quiet.
    for rate, interval, chunk in (("flood", 0.02, 1024), ("drip", 0.9, 1)):
        for protocol in ("xmodem", "ymodem"):
            runs.append(("%s-receive-%s" % (protocol, rate), interval, chunk, None,
                         [z, "receive", "-p", protocol, "-d", work, "-q"] +
                         ["x.bin"] * (protocol == "xmodem")))
        for opening in (None, zmodem_data_phase):
            label = "zmodem-send-%s-%s" % ("data" if opening else "start", rate)
            f = write(os.path.join(work, label + ".bin"), data_of(12, 200000))  # one file each:
            runs.append((label, interval, chunk, opening,  # a file being sent is locked
                         [z, "send", "-p", "zmodem", "-q", f]))
    results = {}
    threads = [threading.Thread(target=noise_run, args=(argv, work, label, interval, chunk,
                                                        opening, results))
               for label, interval, chunk, opening, argv in runs]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    problems = ["%s: %s after %.0f s; stderr: %s" % (
        label, "still running" if rc is None else "exit %s" % rc, took, err.strip()[-300:])
        for label, (rc, took, err) in sorted(results.items()) if rc != 1]
    report(problems)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-hostile-", lambda case, zvxfer, work: case(zvxfer, work)))
