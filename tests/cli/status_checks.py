#!/usr/bin/env python3
# What the zvxfer program tells its user around the transfers: exit
# statuses that follow one rule for every protocol (and match rz's), usage
# errors and --version, help texts, and the loopback's folder.
#
# usage: status_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import select
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "peer"))
from wiring import Failure, check, make_file, peer, pipes, run_cases  # noqa: E402
from case_runner import crc16  # noqa: E402

ENV = dict(os.environ, LC_ALL="C", LANGUAGE="")


def run(argv, cwd=None):
    r = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                       cwd=cwd, env=ENV)
    return r.returncode, r.stdout.decode(errors="replace"), r.stderr.decode(errors="replace")


ZRQINIT, ZRINIT, ZFIN = 0, 1, 8


def hex_header(kind):
    body = bytes([kind, 0, 0, 0, 0])
    c = crc16(body)
    tail = b"" if kind == ZFIN else b"\x11"
    return b"**\x18B" + (body + bytes([c >> 8, c & 255])).hex().encode() + b"\r\n" + tail


class Scripted:
    # A receiver under test on pipes; the script plays the sender.

    def __init__(self, argv, cwd):
        self.err_path = os.path.join(cwd, "receiver.stderr")
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=err, cwd=cwd, bufsize=0, env=ENV)
        self.seen = b""

    def write(self, data):
        self.proc.stdin.write(data)

    def wait_for(self, pattern, timeout=20):
        end = time.monotonic() + timeout
        while pattern not in self.seen:
            ready, _, _ = select.select([self.proc.stdout], [], [], max(end - time.monotonic(), 0))
            chunk = os.read(self.proc.stdout.fileno(), 4096) if ready else b""
            check(chunk, "%r never came; the receiver wrote %r" % (pattern, self.seen[-80:]))
            self.seen += chunk

    def finish(self):
        try:
            rc = self.proc.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            rc = None
        return rc, open(self.err_path, errors="replace").read()


def zmodem_without_files(s):
    s.write(hex_header(ZRQINIT))
    s.wait_for(b"**\x18B01")
    s.write(hex_header(ZFIN))
    s.wait_for(b"**\x18B08")
    s.write(b"OO")


def ymodem_without_files(s):
    s.wait_for(b"C")
    s.write(bytes([0x01, 0, 255]) + bytes(128) + bytes([0, 0]))  # block 0: end of batch
    s.wait_for(b"\x06")


def case_session_without_files_ends_cleanly_like_rz(z, work):
    # A sender that offers no file and closes the session properly: the
    # receiver exits 0, as rz and rb do, and says that nothing came.
    for protocol, script, theirs in (("zmodem", zmodem_without_files, "rz"),
                                     ("ymodem", ymodem_without_files, "rb")):
        statuses = []
        for argv in ([z, "receive", "-p", protocol], [peer(theirs)]):
            folder = os.path.join(work, "%s-%s" % (protocol, os.path.basename(argv[0])))
            os.mkdir(folder)
            s = Scripted(argv, folder)
            script(s)
            statuses.append(s.finish())
        (ours, err), (peers, peer_err) = statuses
        what = "%s: ours %s (%s), %s %s (%s)" % (protocol, ours, err, theirs, peers, peer_err)
        check(ours == 0 and peers == 0, what)
        check("zvxfer: the session ended cleanly; no file was received" in err, what)


def case_skipped_files_end_cleanly_like_rz(z, work):
    # The receiver skips every file (it has them): both ends exit 0, for
    # every protocol, as sz and rz -p do between themselves.
    src = os.path.join(work, "src")
    os.mkdir(src)
    f = make_file(src, "text.txt", 3000, 1)
    rz = peer("rz")
    rows = [  # sender, receiver (its folder holds text.txt), what our end says
        ([peer("sz"), "-q", f], [rz, "-p"], None),
        ([peer("sz"), "-q", f], [z, "receive", "-p", "zmodem", "--existing", "skip"],
         "no file was received"),
        ([z, "send", "-p", "zmodem", f], [rz, "-p"], "the receiver skipped every file"),
        ([z, "send", "-p", "zmodem", f], [z, "receive", "-p", "zmodem", "--existing", "skip"],
         "the receiver skipped every file"),
        ([peer("sb"), "-q", f], [z, "receive", "-p", "ymodem", "--existing", "skip"],
         "already exists"),
        ([z, "send", "-p", "ymodem", f], [z, "receive", "-p", "ymodem", "--existing", "skip"],
         "1 file sent"),
        ([peer("sx"), "-q", f], [z, "receive", "-p", "xmodem", "--existing", "skip", "text.txt"],
         "already exists"),
    ]
    for i, (sender, receiver, said) in enumerate(rows):
        out = os.path.join(work, "out%d" % i)
        os.mkdir(out)
        kept = make_file(out, "text.txt", 10, 2)
        before = open(kept, "rb").read()
        if receiver[0] == z:
            receiver = receiver + ["-d", out]
        runs = pipes(sender, receiver, work, cwd_b=out)
        # Our ends' statuses (both ends' in the reference row).  sz may die
        # of SIGPIPE writing its closing "OO" after our receiver has gone.
        judged = [r for r in runs if r.proc.args[0] == z] or runs
        check(all(r.rc == 0 for r in judged), "row %d: exit statuses" % i, runs)
        check(open(kept, "rb").read() == before, "row %d: the kept file changed" % i, runs)
        check(said is None or any(said in r.stderr() for r in runs), "row %d: %r" % (i, said),
              runs)


def case_usage_errors_begin_with_the_program_name(z, work):
    f = make_file(work, "f.bin", 10, 1)
    for args, text in [([], "subcommand"), (["frobnicate"], "unknown subcommand 'frobnicate'"),
                       (["send", f], "--protocol"), (["send", "-p", "zmodem"], "FILE"),
                       (["send", "-p", "zmodem", "--window", "x", f], "--window"),
                       (["receive", "-p", "ymodem", "--existing", "maybe"], "maybe"),
                       (["send", "-p", "zmodem", "--manage", "sometimes", f], "sometimes"),
                       (["loopback", "-p", "zmodem", "--bogus", f], "--bogus"),
                       (["send", "-p", "xmodem", f, f], "one file at a time")]:
        rc, out, err = run([z] + args)
        what = "zvxfer %s: exit %d: %s" % (" ".join(args), rc, err)
        check(rc == 2 and out == "" and err.startswith("zvxfer: ") and text in err, what)


def case_version_names_the_program_and_the_library_it_runs_with(z, work):
    rc, out, err = run([z, "--version"])
    m = re.fullmatch(r"zvxfer (\d+\.\d+\.\d+), library (\d+\.\d+\.\d+)\n", out)
    check(rc == 0 and m, "exit %d: %r %r" % (rc, out, err))
    libs = subprocess.run(["ldd", z], capture_output=True, text=True).stdout
    path = re.search(r"libzvxfer\.so\S* => (\S+)", libs)
    check(path, "no libzvxfer in: " + libs)
    check(os.path.realpath(path.group(1)).endswith(".so." + m.group(2)),
          "%s is not version %s" % (os.path.realpath(path.group(1)), m.group(2)))


def option_help(text, option):
    # The help line of one option, with its continuation lines.
    m = re.search(r"^\s+%s\b.*(?:\n\s{20,}\S.*)*" % re.escape(option), text, re.M)
    return m.group(0) if m else ""


def case_help_shows_words_and_each_sides_meaning(z, work):
    texts = {cmd: run([z, cmd, "--help"])[1] for cmd in ("send", "receive", "loopback")}
    texts["top"] = run([z, "--help"])[1]
    for cmd, text in texts.items():
        check(text and not re.search(r"->\s*\d|\d+\s*->", text), "%s help shows numbers:\n%s"
              % (cmd, text))
    for cmd, option, words in [("send", "--manage", ["newer-longer", "protect"]),
                               ("receive", "--existing", ["overwrite", "rename", "skip"]),
                               ("send", "--timeout", ["reply of the receiver"]),
                               ("receive", "--timeout", ["not taken by any receiver"]),
                               ("send", "--skip-missing", ["missing"]),
                               ("loopback", "--keep", ["keep"]),
                               ("top", "--version", ["version"])]:
        line = option_help(texts[cmd], option)
        check(line and all(w in line for w in words), "%s %s: %r" % (cmd, option, line))
    for cmd in ("top", "send", "receive"):
        text = " ".join(texts[cmd].split())
        check("Ctrl-C is then a byte on the line" in text and "Ctrl-X five times" in text,
              "%s help: %s" % (cmd, text))


def case_loopback_removes_its_copies_unless_kept(z, work):
    f = make_file(work, "f.bin", 20000, 3)
    given = os.path.join(work, "given")
    os.mkdir(given)
    for options, stays in [([], False), (["--keep"], True), (["-d", given], True)]:
        rc, _, err = run([z, "loopback", "-p", "zmodem"] + options + [f])
        m = re.search(r"verified in ([^\s;]+)", err)
        what = "%s: exit %d: %s" % (options, rc, err)
        check(rc == 0 and m, what)
        copy = os.path.join(m.group(1), "f.bin")
        check(os.path.exists(copy) == stays and os.path.isdir(m.group(1)) == stays, what)
        if stays and m.group(1) != given:
            os.remove(copy)
            os.rmdir(m.group(1))


def case_five_ctrl_x_cancel_every_protocol(z, work):
    # On a line that is the user's own terminal Ctrl-C is a byte; five
    # Ctrl-X from there end a waiting sender or receiver of every protocol
    # at once, long before its own retries would (Kermit's take minutes).
    f = make_file(work, "f.txt", 3000, 4)
    for side, protocol in [(s, p) for s in ("send", "receive")
                           for p in ("xmodem", "ymodem", "zmodem", "kermit")]:
        argv = [z, side, "-p", protocol] + ([f] if side == "send" else ["-d", work]) + \
            (["x.out"] if side == "receive" and protocol == "xmodem" else [])
        errors = tempfile.TemporaryFile()
        proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                stderr=errors, env=ENV)
        try:
            # The line stays open: only the Ctrl-X may end the transfer.
            time.sleep(1)  # the engine is waiting for its first packet
            proc.stdin.write(b"\x18" * 5)
            proc.stdin.flush()
            proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            raise Failure("%s %s did not end after five Ctrl-X" % (side, protocol))
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            proc.stdin.close()
        errors.seek(0)
        err = errors.read().decode(errors="replace")
        check(proc.returncode == 1 and "transfer failed" in err,
              "%s %s: exit %d: %s" % (side, protocol, proc.returncode, err))


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-status-", lambda case, zvxfer, work: case(zvxfer, work)))
