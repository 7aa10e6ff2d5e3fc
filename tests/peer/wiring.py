# Runs two transfer programs joined as one line: crossed pipes, a pty pair or
# a socket pair.  Every run has a deadline; a program still running at the
# deadline is killed and the run reported as hung, so a stuck peer fails a
# test instead of hanging it.
import os
import pty
import socket
import subprocess
import time
import tty


class Run:
    """What one side did: exit status (None if it had to be killed) and stderr."""

    def __init__(self, name, proc, err_path):
        self.name = name
        self.proc = proc
        self.err_path = err_path
        self.rc = None
        self.killed = False

    def stderr(self):
        with open(self.err_path, "rb") as f:
            return f.read().decode(errors="replace")


def _spawn(name, argv, fd_in, fd_out, cwd, workdir, setsid=False):
    err_path = os.path.join(workdir, name + ".stderr")
    err = open(err_path, "wb")
    # The peers expect the signals a terminal program leaves them with.
    proc = subprocess.Popen(argv, stdin=fd_in, stdout=fd_out, stderr=err, cwd=cwd,
                            start_new_session=setsid)
    err.close()
    return Run(name, proc, err_path)


def _finish(runs, deadline_s, linger_s):
    """Waits for all runs; after the first one ends the others get linger_s more
    seconds, and nobody gets past the overall deadline."""
    end = time.monotonic() + deadline_s
    first_done = None
    while True:
        for r in runs:
            if r.rc is None and not r.killed:
                code = r.proc.poll()
                if code is not None:
                    r.rc = code
        pending = [r for r in runs if r.rc is None and not r.killed]
        if not pending:
            return runs
        now = time.monotonic()
        if first_done is None and len(pending) < len(runs):
            first_done = now
        limit = end if first_done is None else min(end, first_done + linger_s)
        if now >= limit:
            for r in pending:
                r.proc.kill()
                r.proc.wait()
                r.killed = True
            return runs
        time.sleep(0.01)


def pipes(a_argv, b_argv, workdir, cwd_a=None, cwd_b=None, deadline_s=60, linger_s=15):
    """A's stdout feeds B's stdin and B's stdout feeds A's stdin."""
    a2b_r, a2b_w = os.pipe()
    b2a_r, b2a_w = os.pipe()
    a = _spawn("A", a_argv, b2a_r, a2b_w, cwd_a, workdir)
    b = _spawn("B", b_argv, a2b_r, b2a_w, cwd_b, workdir)
    for fd in (a2b_r, a2b_w, b2a_r, b2a_w):
        os.close(fd)
    return _finish([a, b], deadline_s, linger_s)


def pty_pair(tty_argv, master_argv, workdir, cwd_tty=None, cwd_master=None, deadline_s=60,
             linger_s=15):
    """tty_argv runs on the slave side of a fresh pty (raw, 8 bit, as a terminal
    program leaves it), master_argv on the master side.  We hold both ends open
    until both programs are done, as a terminal program keeps its line up after
    a transfer command ends: one side's exit is no hang-up for the other."""
    master, slave = os.openpty()
    tty.setraw(slave)
    try:
        a = _spawn("tty", tty_argv, slave, slave, cwd_tty, workdir, setsid=True)
        b = _spawn("master", master_argv, master, master, cwd_master, workdir)
        return _finish([a, b], deadline_s, linger_s)
    finally:
        os.close(slave)
        os.close(master)


def socket_pair(a_argv, b_argv, workdir, cwd_a=None, cwd_b=None, deadline_s=600, linger_s=30):
    """Both programs read and write their end of one socket pair."""
    sa, sb = socket.socketpair()
    a = _spawn("A", a_argv, sa.fileno(), sa.fileno(), cwd_a, workdir)
    b = _spawn("B", b_argv, sb.fileno(), sb.fileno(), cwd_b, workdir)
    sa.close()
    sb.close()
    return _finish([a, b], deadline_s, linger_s)


def describe(runs):
    lines = []
    for r in runs:
        state = "killed at the deadline" if r.killed else "exit %s" % r.rc
        lines.append("%s %s (%s); stderr:\n%s" % (r.name, " ".join(map(str, r.proc.args)),
                                                  state, r.stderr().strip()))
    return "\n".join(lines)
