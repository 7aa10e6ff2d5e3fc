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
import re
import select
import signal
import subprocess
import sys
import threading
import time
import tty

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "support"), os.path.join(HERE, "..", "peer")]
from case_runner import MTIME, Failure, check, crc16, run_cases  # noqa: E402
from wiring import peer, pipes  # noqa: E402

SOH, STX, EOT, ACK, CAN = 0x01, 0x02, 0x04, 0x06, 0x18


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
            return time.sleep(min(timeout, 0.05))
        if not select.select([self.rfd], [], [], max(timeout, 0))[0]:
            return
        try:
            chunk = os.read(self.rfd, 65536)
        except BlockingIOError:
            return
        except OSError:  # a pty master whose slave side has gone
            chunk = b""
        self.eof = not chunk
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

    def wait(self, pattern, what, timeout=20):
        # The first match of `pattern` (a regex); what it matched is consumed.
        end = time.monotonic() + timeout
        while True:
            m = re.search(pattern, bytes(self.buf), re.S)
            if m:
                del self.buf[:m.end()]
                return m
            check(not self.eof and time.monotonic() < end, "no %s from zvxfer (%s); it sent %r" % (
                what, "it closed the line" if self.eof else "%d s" % timeout,
                bytes(self.buf[-60:])))
            self.pump(min(0.2, end - time.monotonic()))

    def expect(self, data, timeout=20):
        self.wait(re.escape(data), repr(data), timeout)

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
        return read(self.err_path)

    def finish(self, timeout=30):
        # zvxfer's exit status, reading its output meanwhile; the line stays up.
        end = time.monotonic() + timeout
        while self.proc.poll() is None:
            if time.monotonic() > end:
                self.close()
                raise Failure("%s did not end within %d s; stderr:\n%r"
                              % (" ".join(map(str, self.argv)), timeout, self.stderr()))
            self.pump(0.05)
        return self.proc.returncode

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()
        for f in (self.proc.stdin, self.proc.stdout):
            try:
                f.close()
            except OSError:
                pass


def run_far(argv, work, script, cwd=None, stderr=None):
    # Runs zvxfer against `script(line)`; gives (exit status, stderr bytes,
    # what the script reported: None or the Failure it ran into).
    far = Far(argv, work, cwd, stderr)
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
        return far.finish(), far.stderr(), problem
    finally:
        far.close()


def cancel(line):
    line.send(bytes([CAN]) * 8 + b"\b" * 8)


# --- a scripted YMODEM sender ----------------------------------------------


def y_block(number, payload, size=128):
    data = bytes(payload).ljust(size, b"\0")
    c = crc16(data)
    return bytes([SOH if size == 128 else STX, number & 255, 255 - (number & 255)]) + data + \
        bytes([c >> 8, c & 255])


def info(name, size, mtime=MTIME):
    # The text of a block 0 (or a ZFILE subpacket): name, NUL, size, octal time.
    size = size if isinstance(size, bytes) else str(size).encode()
    return bytes(name) + b"\0" + size + b" %o 0" % mtime


def y_put(line, block):
    line.send(block)
    line.expect(bytes([ACK]))


def y_data(line, data, blocks=None):
    # The file's blocks (1024 while more than 896 bytes remain), or only the
    # first `blocks` of them.
    line.expect(b"C")
    pos, number = 0, 1
    while pos < len(data) and (blocks is None or number <= blocks):
        size = 1024 if len(data) - pos > 896 else 128
        y_put(line, y_block(number, data[pos:pos + size], size))
        pos, number = pos + size, number + 1


def y_send(line, files):
    # files: (block-0 text, data) pairs, then the end of the batch.
    for text, data in files + [(b"", None)]:
        line.expect(b"C")
        y_put(line, y_block(0, text))
        if data is not None:
            y_data(line, data)
            y_put(line, bytes([EOT]))


# --- a scripted ZMODEM sender ----------------------------------------------

ZRQINIT, ZRINIT, ZACK, ZFILE, ZSKIP, ZFIN, ZRPOS, ZDATA, ZEOF = 0, 1, 3, 4, 5, 8, 9, 10, 11
ZCRCE, ZCRCG, ZCRCW = 0x68, 0x69, 0x6B
ESCAPED = {0x0D, 0x10, 0x11, 0x13, 0x18, 0x8D, 0x90, 0x91, 0x93}


def zesc(data):
    return b"".join(bytes([CAN, b ^ 0x40]) if b in ESCAPED else bytes([b]) for b in data)


def pos4(n):
    return (n & 0xFFFFFFFF).to_bytes(4, "little")


def z_hex(kind, data=b"\0\0\0\0"):
    text = b"%02x" % kind + data.hex().encode() + b"%04x\r\n" % crc16(bytes([kind]) + data)
    return b"**\x18B" + text + (b"" if kind in (ZFIN, ZACK) else b"\x11")


def z_bin(kind, data=b"\0\0\0\0"):
    c = crc16(bytes([kind]) + data)
    return b"*\x18A" + zesc(bytes([kind]) + data + bytes([c >> 8, c & 255]))


def z_sub(data, end):
    c = crc16(bytes(data) + bytes([end]))
    return zesc(data) + bytes([CAN, end]) + zesc(bytes([c >> 8, c & 255])) + \
        (b"\x11" if end == ZCRCW else b"")


def z_header(line, want=None):
    # The type of the next hex header zvxfer sends (its receiver sends
    # nothing else), which must be `want` if given; one with a wrong CRC is a
    # failure.
    raw = bytes.fromhex(line.wait(rb"\*\*?\x18B([0-9a-f]{14})", "ZMODEM header")[1].decode())
    check(crc16(raw) == 0, "a hex header with a wrong CRC: %s" % raw.hex())
    check(want in (None, raw[0]), "zvxfer answered frame type %d (data %s) where %d belongs"
          % (raw[0], raw[1:5].hex(), want or 0))
    return raw[0]


def z_start(line):
    line.send(b"rz\r" + z_hex(ZRQINIT))
    z_header(line, ZRINIT)


def z_offer(line, text):
    # ZFILE; the receiver's answer (ZRPOS or ZSKIP).  A receiver that has just
    # skipped a file announces itself again with ZRINIT before it reads this
    # ZFILE; that ZRINIT is no answer to it.
    line.send(z_bin(ZFILE) + z_sub(text, ZCRCW))
    kind = ZRINIT
    while kind == ZRINIT:
        kind = z_header(line)
    return kind


def z_data(line, data, subpackets=None):
    # One ZDATA frame of 1024-byte subpackets, then ZEOF; with `subpackets`
    # only that many go out and the frame is left open.
    chunks = [data[i:i + 1024] for i in range(0, len(data), 1024)][:subpackets]
    ends = [ZCRCG] * len(chunks)
    if subpackets is None:
        ends[-1] = ZCRCE
    line.send(z_bin(ZDATA, pos4(0)) + b"".join(map(z_sub, chunks, ends)))
    if subpackets is None:
        line.send(z_bin(ZEOF, pos4(len(data))))
        z_header(line, ZRINIT)


def z_send(line, files, start=True):
    if start:
        z_start(line)
    for text, data in files:
        check(z_offer(line, text) == ZRPOS, "zvxfer did not ask for %r" % text)
        z_data(line, data)
    line.send(z_hex(ZFIN))
    z_header(line, ZFIN)
    line.send(b"OO")


def send_batch(protocol, files):
    return lambda line: (y_send if protocol == "ymodem" else z_send)(line, files)


# --- files and programs ----------------------------------------------------


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
    for where, dirs, files in os.walk(top):
        for name in dirs + files:
            path = os.path.join(where, name)
            found[os.path.relpath(path, top)] = \
                ("link", os.readlink(path)) if os.path.islink(path) else \
                ("dir",) if os.path.isdir(path) else ("file", read(path))
    return found


def changes(before, after):
    return sorted(k for k in set(before) | set(after) if before.get(k) != after.get(k))


def folder(*parts):
    path = os.path.join(*parts)
    os.makedirs(path)
    return path


def zvxfer_receive(z, protocol, out, *options):
    return [z, "receive", "-p", protocol, "-d", out] + list(options)


def report(problems):
    check(not problems, "\n".join(problems))


def lrzsz_send(protocol, work, name, data):
    # sb or sz sending one file named `name` with `data`, as a command line.
    src = folder(work, "src-%d" % random.randrange(1 << 30))
    return [peer("sb" if protocol == "ymodem" else "sz"), "-q",
            write(os.path.join(src, name), data)]


# --- names -----------------------------------------------------------------


def case_names_stay_inside_receive_folder(z, work):
    # Names from the line never lead out of -d: without --full-path only the
    # last component counts; with it, a drive, the root and every "." and ".."
    # fall away and the rest becomes subfolders of -d.
    u = "hz%d%04d" % (os.getpid(), random.randrange(10000))
    rows = [  # name sent, where it lands without --full-path, with it
        (b"/tmp/%sa" % u.encode(), u + "a", "tmp/%sa" % u),
        (b"../../%sb" % u.encode(), u + "b", u + "b"),
        (b"C:\\d\\%sc" % u.encode(), u + "c", "d/%sc" % u),
        (b"sub/../%sd" % u.encode(), u + "d", "sub/%sd" % u),
        (b"..", "__", "unnamed"),
    ]
    files = [(info(name, 300), data_of(i, 300)) for i, (name, _, _) in enumerate(rows)]
    problems = []
    for protocol in ("ymodem", "zmodem"):
        for full in (False, True):
            what = "%s%s" % (protocol, " --full-path" * full)
            run = folder(work, what.replace(" ", ""))
            out, cwd = folder(run, "out"), folder(run, "deep", "er")
            rc, err, problem = run_far(zvxfer_receive(z, protocol, out) + ["--full-path"] * full,
                                       work, send_batch(protocol, files), cwd=cwd)
            got = {k: v[1] for k, v in tree(out).items() if v[0] == "file"}
            expected = {row[1 + full]: data_of(i, 300) for i, row in enumerate(rows)}
            outside = [k for k in tree(run) if not k.startswith("out") and k not in
                       ("deep", "deep/er")] + ["/tmp/%sa" % u] * os.path.lexists("/tmp/%sa" % u)
            if problem or rc != 0 or got != expected or outside:
                problems.append("%s: exit %d, %s; -d holds %s; written outside -d: %s; %r" % (
                    what, rc, problem, sorted(got), outside, err))
            if os.path.lexists("/tmp/%sa" % u):
                os.remove("/tmp/%sa" % u)
    report(problems)


# Bytes of the names below that must never reach the user's terminal raw.
RAW = [0x1B, 0x07, 0x9B, 0x9C, 0x9D, 0x9E, 0x9F, 0x7F, 0x01]
EVIL = b"e\x1b]0;x\x07y\x9bz\x7f\x01.txt"  # a title change, a bell, a C1 CSI, DEL, SOH
EVIL_LOCAL = b"e_]0;x_y\x9bz__.txt"
# EVIL as shown: escaped as it came, or as the local name with its 0x9b escaped
EVIL_SHOWN = re.compile(rb"e(\\x1b|_)\]0;x(\\x07|_)y\\x9bz")


def shown_problems(shown):
    # What is wrong with the bytes a terminal got: raw control bytes (the
    # bar's own "clear line" aside), bytes that are not UTF-8, a backslash that
    # starts no escape (a name cut inside one), or no escaped name at all.
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
    return None if EVIL_SHOWN.search(own) else "no escaped name"


def on_terminal(z, work, argv, script):
    # Runs zvxfer with stderr on a terminal of its own, read all along so
    # that the bar never blocks; (exit status, what the terminal got, problem).
    master, slave = os.openpty()
    tty.setraw(slave)
    screen, stop = Line(master, master), threading.Event()
    watcher = threading.Thread(target=lambda: [screen.pump(0.05) for _ in iter(stop.is_set, True)])
    watcher.start()
    try:
        rc, _, problem = run_far(argv, work, script, stderr=slave)
        time.sleep(0.3)
    finally:
        stop.set()
        watcher.join()
        os.close(slave)
        os.close(master)
    return rc, bytes(screen.seen), problem


def case_control_bytes_in_names(z, work):
    # Control bytes in a received name become '_' in the file name; what the
    # program shows, on a pipe or on a terminal where the progress bar
    # narrows names, has them escaped, is valid UTF-8 and never cut inside an
    # escape.
    problems = []
    for protocol in ("ymodem", "zmodem"):
        out = folder(work, protocol)
        data = data_of(1, 500)
        rc, err, problem = run_far(zvxfer_receive(z, protocol, out), work,
                                   send_batch(protocol, [(info(EVIL, 500), data)]))
        names = os.listdir(out.encode())
        if problem or rc != 0 or names != [EVIL_LOCAL] or \
                read(os.path.join(out.encode(), names[0])) != data or shown_problems(err):
            problems.append("%s: exit %d, %s, received as %r, stderr with %s: %r" % (
                protocol, rc, problem, names, shown_problems(err), err))
    names = [EVIL, b"abcdefghijklmnopqrstu\x9b\x9c\x9d\x9e\x9f.bin",
             ("x" + "\u00e9" * 22 + "\u20ac\u20ac\u20ac.bin").encode()]
    files = [(info(n, 3000), data_of(i, 3000)) for i, n in enumerate(names)]
    rc, shown, problem = on_terminal(z, work, zvxfer_receive(z, "ymodem", folder(work, "tty")),
                                     send_batch("ymodem", files))
    if problem or rc != 0 or shown_problems(shown):
        problems.append("terminal: exit %d, %s, it got %s: %r" % (
            rc, problem, shown_problems(shown), shown))
    report(problems)


# --- symlinks --------------------------------------------------------------


def case_symlinks_in_receive_folder(z, work):
    # A symlink named like the incoming file, dangling or to a file outside
    # -d: rename receives beside it, overwrite refuses, skip skips; the link
    # and everything outside -d stay as they were.
    problems = []
    data = data_of(7, 2000)
    for protocol in ("ymodem", "zmodem"):
        for policy in ("rename", "overwrite", "skip"):
            for kind in ("dangling", "to-file"):
                what = "%s %s, link %s" % (protocol, policy, kind)
                run = folder(work, what.replace(" ", "").replace(",", "-"))
                out, outside = folder(run, "out"), folder(run, "outside")
                if kind == "to-file":
                    write(os.path.join(outside, "victim"), b"precious\n")
                os.symlink(os.path.join(outside, "victim"), os.path.join(out, "f.txt"))
                before = tree(run)
                options = [] if policy == "rename" else ["--existing", policy]
                _, zv = pipes(lrzsz_send(protocol, work, "f.txt", data),
                              zvxfer_receive(z, protocol, out, "-q", *options), work)
                after = tree(run)
                moved = [k for k in changes(before, after)
                         if not k.startswith("out/") or k == "out/f.txt"]
                new = [v for k, v in after.items() if k.startswith("out/") and k not in before]
                if moved or new != [("file", data)] * (policy == "rename") or \
                        zv.rc != 0 and policy == "rename" or zv.rc == 0 and policy == "overwrite":
                    problems.append("%s: exit %s, changed %s, new %d: %s" % (
                        what, zv.rc, moved, len(new), zv.stderr().strip()))
    # A subfolder of -d that is a symlink to a folder outside is never
    # entered, however deep the name goes on.
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
        bad = [k for k in changes(before, tree(run)) if not k.startswith("out/") or k == "out/sub"]
        if bad:
            problems.append("%s --full-path: changed through the link: %s" % (protocol, bad))
    report(problems)


# --- sizes -----------------------------------------------------------------


def case_receive_size_beyond_31_bits(z, work):
    # YMODEM: a block-0 size that does not fit 31 bits is no size at all, so
    # the file keeps the whole 128-byte block instead of a wrapped length.
    # ZMODEM: such a file is skipped with a notice and the batch goes on.
    rows = [(b"100", 100), (b"4294967396", 128), (b"2147483648", 128),
            (b"99999999999999999999", 128), (b"4294967297", 128)]
    out = folder(work, "y")
    data = data_of(3, 100)
    files = [(info(b"s%d.bin" % i, size), data) for i, (size, _) in enumerate(rows)]
    rc, err, problem = run_far(zvxfer_receive(z, "ymodem", out), work, send_batch("ymodem", files))
    problems = [] if not problem and rc == 0 else ["ymodem: exit %d, %s: %r" % (rc, problem, err)]
    for i, (size, keeps) in enumerate(rows):
        path = os.path.join(out, "s%d.bin" % i)
        got = read(path) if os.path.exists(path) else None
        if got != data + bytes(keeps - 100):
            problems.append("ymodem size %s: kept %s bytes, not %d" % (
                size.decode(), "no" if got is None else len(got), keeps))
    out, small = folder(work, "z"), data_of(5, 3000)

    def script(line):
        z_start(line)
        answer = z_offer(line, info(b"big.bin", b"4294967396"))
        check(answer == ZSKIP, "4294967396 bytes answered with frame type %d" % answer)
        z_send(line, [(info(b"small.bin", 3000), small)], start=False)
    rc, err, problem = run_far(zvxfer_receive(z, "zmodem", out), work, script)
    if problem or rc != 0 or os.listdir(out) != ["small.bin"] or \
            read(os.path.join(out, "small.bin")) != small or \
            not re.search(rb"too large.*big\.bin", err, re.I):
        problems.append("zmodem: exit %d, %s, -d holds %s: %r" % (rc, problem, os.listdir(out),
                                                                 err))
    report(problems)


def case_send_refuses_files_too_large(z, work):
    # A file too large for the protocol (2 GiB for YMODEM, 5 GiB for ZMODEM)
    # is passed over with a notice (the next file still goes); alone it ends
    # the run unsuccessfully; the peer never gets it.
    problems = []
    for protocol, size in (("ymodem", 1 << 31), ("zmodem", 5 << 30)):
        src = folder(work, protocol)
        big = os.path.join(src, "big.bin")
        with open(big, "wb") as f:
            f.truncate(size)
        small = write(os.path.join(src, "small.bin"), data_of(6, 5000))
        for files in ([big, small], [big]):
            out = folder(src, "out%d" % len(files))
            # The peer may store 64 MiB: enough to see a short file begin.
            zv, _ = pipes([z, "send", "-p", protocol] + files, ["prlimit", "--fsize=%d" % (
                64 << 20), peer("rb" if protocol == "ymodem" else "rz"), "-q"], work,
                cwd_b=out, deadline_s=30)
            err = zv.stderr()
            kept = {n: read(os.path.join(out, n)) for n in os.listdir(out) if n.endswith(".bin")}
            if not re.search(r"too large.*big\.bin", err, re.I) or "big.bin" in kept or \
                    (kept.get("small.bin") != read(small) if small in files else
                     zv.rc in (0, None)):
                problems.append("%s send %d files: exit %s, stderr %r, peer kept %s" % (
                    protocol, len(files), zv.rc, err, sorted(kept)))
    report(problems)


# --- partial files and overwrite -------------------------------------------


def cut_off(protocol, name, size, blocks, how=cancel):
    # A sender that offers `name` (`size` bytes, the fixed time), sends
    # `blocks` 1024-byte pieces of its data, then ends with `how(line)`.
    data = data_of(8, size)

    def script(line):
        if protocol == "ymodem":
            line.expect(b"C")
            y_put(line, y_block(0, info(name, size)))
            y_data(line, data, blocks) if blocks else line.expect(b"C")
        else:
            z_start(line)
            check(z_offer(line, info(name, size)) == ZRPOS, "the file was not asked for")
            z_data(line, data, blocks)
        line.quiet(0.3)
        how(line)
    return script, data


def case_partial_file_kept_or_removed(z, work):
    # A receive cut off by a cancel or by Ctrl-C keeps what arrived, without
    # the sender's time, and the summary names it; with --remove-partial it
    # is gone and the summary says so.
    def ctrl_c(far):
        far.proc.send_signal(signal.SIGINT)
    problems = []
    for protocol, how, remove in (("ymodem", cancel, False), ("zmodem", cancel, False),
                                  ("ymodem", ctrl_c, False), ("ymodem", cancel, True),
                                  ("zmodem", cancel, True)):
        what = "%s %s%s" % (protocol, how.__name__, " --remove-partial" * remove)
        out = folder(work, what.replace(" ", ""))
        script, data = cut_off(protocol, b"part.bin", 10000, 2, how)
        rc, err, problem = run_far(zvxfer_receive(z, protocol, out, *["--remove-partial"] * remove),
                                   work, script)
        path = os.path.join(out, "part.bin")
        if remove:
            said = re.search(rb"partial file removed: \S*part\.bin", err)
            kept = os.listdir(out) == [] and said
        else:
            said = re.search(rb"partial file kept: \S*part\.bin \(2048 bytes\)", err)
            kept = os.path.exists(path) and read(path) == data[:2048] and said and \
                int(os.stat(path).st_mtime) != MTIME
        if problem or rc != 1 or not kept:
            problems.append("%s: exit %d, %s, -d holds %s (the sender's time: %s): %r" % (
                what, rc, problem, os.listdir(out), os.path.exists(path) and
                int(os.stat(path).st_mtime) == MTIME, err))
    report(problems)


def case_overwrite_only_by_a_complete_file(z, work):
    # --existing overwrite replaces the old file only once the new one has
    # fully arrived: a transfer cancelled before or after its first data
    # leaves it as it was (--remove-partial included) and no temporary file;
    # an honest peer's complete file then replaces it with the sender's time.
    problems = []
    old_data, new_data = b"the old content\n" * 100, data_of(9, 70000)
    for protocol in ("ymodem", "zmodem"):
        out = folder(work, protocol)
        old = write(os.path.join(out, "old.bin"), old_data, MTIME - 5)
        for blocks in (0, 2):
            for remove in (False, True):
                what = "%s, cancelled after %d blocks%s" % (
                    protocol, blocks, " --remove-partial" * remove)
                script, _ = cut_off(protocol, b"old.bin", 10000, blocks)
                rc, err, problem = run_far(zvxfer_receive(
                    z, protocol, out, "--existing", "overwrite", *["--remove-partial"] * remove),
                    work, script)
                if problem or rc != 1 or os.listdir(out) != ["old.bin"] or read(old) != old_data:
                    problems.append("%s: exit %d, %s, -d holds %s, old.bin %d bytes: %r" % (
                        what, rc, problem, os.listdir(out), len(read(old)), err))
        runs = pipes(lrzsz_send(protocol, work, "old.bin", new_data),
                     zvxfer_receive(z, protocol, out, "-q", "--existing", "overwrite"), work)
        if [r.rc for r in runs] != [0, 0] or os.listdir(out) != ["old.bin"] or read(old) != new_data or \
                int(os.stat(old).st_mtime) != MTIME:
            problems.append("%s honest peer: exits %s, -d holds %s: %s" % (
                protocol, [r.rc for r in runs], os.listdir(out), runs[1].stderr()))
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


def case_shell_never_runs_bytes_after_the_end(z, work):
    # zvxfer typed at an interactive shell whose terminal is the line; after
    # a ZMODEM or YMODEM success or a failure, a shell command comes right
    # after the end and again 2 s later: the shell must never run it.
    data, problems = data_of(10, 5000), []
    failing, _ = cut_off("zmodem", b"f.bin", 10000, 2)
    for protocol, script, want in (
            ("zmodem", send_batch("zmodem", [(info(b"f.bin", 5000), data)]), 0),
            ("ymodem", send_batch("ymodem", [(info(b"f.bin", 5000), data)]), 0),
            ("zmodem", failing, 1)):
        run = os.path.dirname(folder(work, "%s-%d" % (protocol, want), "out"))
        pwned = os.path.join(run, "PWNED")
        shell = Shell(run)
        try:
            shell.send(b"%s receive -p %s -d out 2>zvxfer.stderr; echo ZV-EXIT-$?\r"
                       % (z.encode(), protocol.encode()))
            script(shell)
            shell.send(b"touch %s\r" % pwned.encode())
            shell.quiet(2.0)
            shell.send(b"touch %s\r" % pwned.encode())
            rc = int(shell.wait(rb"ZV-EXIT-(\d+)", "end of zvxfer", 45)[1])
            # The shell reads its terminal again: anything it got has run by
            # the time it answers this.
            shell.send(b"echo M$((40+2))M\r")
            shell.expect(b"M42M", timeout=15)
        finally:
            shell.close()
        got = os.path.join(run, "out", "f.bin")
        arrived = want or os.path.exists(got) and read(got) == data
        if os.path.exists(pwned) or rc != want or not arrived:
            problems.append("%s: exit %d (not %d), the shell ran what came after the end: %s, "
                            "the file arrived: %s; terminal:\n%r" % (
                                protocol, rc, want, os.path.exists(pwned), bool(arrived),
                                bytes(shell.seen[-400:])))
    report(problems)


# --- noise -----------------------------------------------------------------

NOISE_DEADLINE = 90


def noise_run(argv, work, label, interval, chunk, opening, results):
    # zvxfer under endless random bytes, never CAN nor EOT: the end must come
    # from zvxfer's own limits, not from a cancel drawn by chance, nor from an
    # EOT where a block may start, which rightly ends an XMODEM file empty and
    # a success.  `chunk` bytes every `interval` seconds, after
    # `opening(line)` if given.  Records the exit status, or None when zvxfer
    # was still running at the deadline.
    rng = random.Random(label)
    far = Far(argv, work, label=label)
    try:
        start = time.monotonic()
        if opening:
            opening(far)
        while far.proc.poll() is None and time.monotonic() - start < NOISE_DEADLINE:
            try:
                os.write(far.wfd, rng.randbytes(chunk).replace(bytes([CAN]), b"U")
                         .replace(bytes([EOT]), b"U"))
            except (BlockingIOError, BrokenPipeError):
                pass
            far.pump(interval)
        results[label] = (far.proc.poll(), time.monotonic() - start, far.stderr())
    except Failure as e:
        results[label] = ("opening failed: %s" % e, 0, far.stderr())
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
            # one file each: a file being sent is locked
            f = write(os.path.join(work, label + ".bin"), data_of(12, 200000))
            runs.append((label, interval, chunk, opening, [z, "send", "-p", "zmodem", "-q", f]))
    results = {}
    threads = [threading.Thread(target=noise_run, args=(argv, work, label, interval, chunk,
                                                        opening, results))
               for label, interval, chunk, opening, argv in runs]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    report(["%s: %s after %.0f s; stderr: %r" % (
        label, "still running" if rc is None else "exit %s" % rc, took, err.strip()[-300:])
        for label, (rc, took, err) in sorted(results.items()) if rc != 1])


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-hostile-", lambda case, zvxfer, work: case(zvxfer, work)))
