# What the peer tests share: two transfer programs joined as one line
# (crossed pipes or a pty pair) under a deadline, so a stuck peer fails a
# test instead of hanging it; test files; the checks on received files.
import os
import shutil
import subprocess
import sys
import time
import tty

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import MTIME, Failure, make_file, run_cases  # noqa: E402,F401


class Run:
    # One side: exit status (None while running), killed at the deadline, stderr.

    def __init__(self, name, argv, fd_in, fd_out, cwd, workdir, preexec=None):
        self.name, self.rc, self.killed = name, None, False
        self.err_path = os.path.join(workdir, name + ".stderr")
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(argv, stdin=fd_in, stdout=fd_out, stderr=err, cwd=cwd,
                                         preexec_fn=preexec or None)

    def stderr(self):
        with open(self.err_path, "rb") as f:
            return f.read().decode(errors="replace")


def _finish(runs, deadline_s, linger_s):
    # Waits for both runs; once one has ended the other gets linger_s more
    # seconds, and nobody gets past the deadline.
    end, first_done = time.monotonic() + deadline_s, None
    while True:
        for r in runs:
            r.rc = r.proc.poll() if r.rc is None else r.rc
        pending = [r for r in runs if r.rc is None]
        now = time.monotonic()
        if pending and first_done is None and len(pending) < len(runs):
            first_done = now
        if pending and now < (end if first_done is None else min(end, first_done + linger_s)):
            time.sleep(0.01)
            continue
        for r in pending:
            r.proc.kill()
            r.proc.wait()
            r.killed = True
        return runs


def pipes(a_argv, b_argv, workdir, cwd_b=None, deadline_s=60, linger_s=15):
    # A's stdout feeds B's stdin and B's stdout feeds A's stdin.
    a2b_r, a2b_w = os.pipe()
    b2a_r, b2a_w = os.pipe()
    runs = [Run("A", a_argv, b2a_r, a2b_w, None, workdir),
            Run("B", b_argv, a2b_r, b2a_w, cwd_b, workdir)]
    for fd in (a2b_r, a2b_w, b2a_r, b2a_w):
        os.close(fd)
    return _finish(runs, deadline_s, linger_s)


def pty_pair(tty_argv, master_argv, workdir, deadline_s=120, linger_s=15):
    # tty_argv on the slave side of a raw pty, master_argv on the master side;
    # both ends stay open until both are done, as a terminal program keeps its
    # line up after a transfer command ends.
    master, slave = os.openpty()
    tty.setraw(slave)
    try:
        return _finish([Run("tty", tty_argv, slave, slave, None, workdir, os.setsid),
                        Run("master", master_argv, master, master, None, workdir)],
                       deadline_s, linger_s)
    finally:
        os.close(slave)
        os.close(master)


def describe(runs):
    return "\n".join("%s %s (%s); stderr:\n%s" % (
        r.name, " ".join(map(str, r.proc.args)),
        "killed at the deadline" if r.killed else "exit %s" % r.rc, r.stderr().strip())
        for r in runs or [])


def check(cond, what, runs=None):
    if not cond:
        raise Failure(what + "\n" + describe(runs))


def check_exits(runs):
    for r in runs:
        check(not r.killed and r.rc == 0, "%s did not end well" % r.name, runs)


def peer(name):
    path = shutil.which(name) or shutil.which("l" + name)
    check(path, "the peer program %s (Debian package lrzsz) is not installed" % name)
    return path


def same(original, copy, runs, block=0):
    # The copy is the original with its time; with block > 0 (XMODEM, no size,
    # no time) it may end with up to one block of SUB or NUL padding.
    check(os.path.exists(copy), "no file %s was written" % copy, runs)
    with open(original, "rb") as a, open(copy, "rb") as b:
        a, b = a.read(), b.read()
    pad = b[len(a):]
    check(b[:len(a)] == a and len(pad) <= block and not pad.strip(b"\x1a\0"),
          "%s (%d bytes) is not the original (%d bytes)" % (copy, len(b), len(a)), runs)
    check(block or int(os.stat(copy).st_mtime) == MTIME, "%s lost its time" % copy, runs)


class Case:
    def __init__(self, zvxfer, work):
        self.z, self.work = zvxfer, work
        self.src, self.out = os.path.join(work, "src"), os.path.join(work, "out")
        os.mkdir(self.src)
        os.mkdir(self.out)

    def copy(self, original):
        return os.path.join(self.out, os.path.basename(original))

    def delivered(self, runs, files, block=0, remove=False):
        # Both ends ended well and every file arrived as it was (removed
        # afterwards when asked, to make room for the next run).
        check_exits(runs)
        for f in files:
            same(f, self.copy(f), runs, block)
            if remove:
                os.remove(self.copy(f))


def main(peers, prefix):
    cases = {n[5:]: f for n, f in vars(sys.modules["__main__"]).items() if n.startswith("case_")}

    def run(case, zvxfer, work):
        for p in peers:
            peer(p)  # a missing peer program fails every case with a clear message
        case(Case(zvxfer, work))
    return run_cases(cases, prefix, run)
