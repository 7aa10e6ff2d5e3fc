#!/usr/bin/env python3
# `zvxfer term` driven as a user drives it: in a tmux pane, keys typed with
# send-keys and the screen read with capture-pane.  The far side is a bash
# on the session's pty; transfers from the escape menu go to rz and come
# from sz running in that shell.
#
# usage: term_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import filecmp
import os
import pty
import re
import select
import shutil
import socket
import subprocess
import sys
import time
import tty
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, make_file, run_cases  # noqa: E402

COLUMNS, ROWS = 100, 30


class Pane:
    # A tmux server of its own running `script` (sh) in one window.
    def __init__(self, work, script_text):
        self.name = "zvxfer-term-%d" % os.getpid()
        self.work = work
        script = os.path.join(work, "run.sh")
        with open(script, "w") as f:
            f.write("cd %s\nexport HOME=%s PS1='tst$ '\n%s\necho SCRIPT-DONE\nsleep 60\n"
                    % (work, work, script_text))
        self.tmux("-f", "/dev/null", "set", "-g", "window-size", "manual")
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", str(COLUMNS), "-y", str(ROWS),
                  "sh " + script)

    def tmux(self, *args):
        return subprocess.run(["tmux", "-L", self.name] + list(args), capture_output=True,
                              text=True, timeout=20).stdout

    def screen(self):
        return self.tmux("capture-pane", "-p")

    def keys(self, *keys):
        self.tmux("send-keys", *keys)

    def type(self, text):
        self.tmux("send-keys", "-l", text)
        self.tmux("send-keys", "Enter")

    def wait(self, pattern, seconds=20, what=None):
        # Until the screen matches `pattern` (a regex); the match.
        end = time.monotonic() + seconds
        while True:
            shown = self.screen()
            found = re.search(pattern, shown)
            if found:
                return found
            if time.monotonic() > end:
                raise Failure("%s: %r not on the screen:\n%s" % (what or "wait", pattern, shown))
            time.sleep(0.2)

    def bottom(self):
        # The last row ("" when it is blank).
        lines = self.screen().split("\n") + [""] * ROWS
        return lines[ROWS - 1]

    def close(self):
        self.tmux("kill-server")


def session(z, work, cases_text, args=""):
    # zvxfer term around an inner bash; the terminal's settings before and
    # after and the exit status land in files of `work`.
    text = ("stty -a > before.txt\n%s term %s -- bash --norc --noprofile\n"
            "echo $? > status.txt\nstty -a > after.txt\n" % (z, args))
    return Pane(work, text)


def read(work, name):
    with open(os.path.join(work, name)) as f:
        return f.read()


def ended(pane, work):
    # The session is over: its status, and the terminal exactly as before.
    # (The window's size is the window's, not a setting to restore.)
    pane.wait("SCRIPT-DONE", what="session end")
    before, after = (re.sub(r"rows \d+; columns \d+; ", "", read(work, name))
                     for name in ("before.txt", "after.txt"))
    check(before == after, "terminal not restored:\n%s\n---\n%s" % (before, after))
    return int(read(work, "status.txt"))


def needs(*programs):
    for p in programs:
        if not shutil.which(p):
            raise Failure("%s is needed (scripts/deps.sh installs it)" % p)


def case_usage_and_unusable_lines(z, work):
    # (arguments, status, words on standard error)
    for args, status, said in (([], 2, "term needs --line"),
                               (["--escape", "a", "--", "true"], 2, "control key"),
                               (["--escape", "^1", "--", "true"], 2, "control key"),
                               (["--line", "/dev/null", "--", "true"], 2, "excludes"),
                               (["--tcp", "h:1", "--line", "/dev/null"], 2, "excludes"),
                               (["--line", os.path.join(work, "none")], 1, "cannot open the line"),
                               (["--baud", "9600", "--", "true"], 2, "requires --line")):
        p = subprocess.run([z, "term"] + args, stdin=subprocess.DEVNULL, capture_output=True,
                           timeout=30, cwd=work)
        err = p.stderr.decode(errors="replace")
        check(p.returncode == status and said in err,
              "%s: status %s, %r" % (args, p.returncode, err))


def case_command_status_passed_on(z, work):
    # Without a terminal (input from /dev/null) the session still shows the
    # command's output and ends with its status; a death by signal N is
    # 128+N, a command that cannot be started 127.
    for command, status, output in ((["sh", "-c", "echo out-$((3*3)); exit 3"], 3, "out-9"),
                                    (["sh", "-c", "kill -TERM $$"], 128 + 15, ""),
                                    (["sh", "-c", "kill -KILL $$"], 128 + 9, ""),
                                    (["./no-such-command"], 127, "no-such-command")):
        p = subprocess.run([z, "term", "--"] + command, stdin=subprocess.DEVNULL,
                           capture_output=True, timeout=30, cwd=work)
        shown = (p.stdout + p.stderr).decode(errors="replace")
        check(p.returncode == status, "%s: status %s, not %s" % (command, p.returncode, status))
        check(output in shown, "%s: %r not shown: %r" % (command, output, shown))


def both_ways(z, args, far_read, far_write, far_close, work, break_said):
    # zvxfer term on a line whose far end the test plays: bytes typed (on a
    # pipe) reach the far end, the far end's bytes reach the screen
    # unchanged, and the session ends cleanly when the far end closes.
    p = subprocess.Popen([z, "term"] + args, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, cwd=work)
    try:
        far = b"from-far\x00\xff\x1b[0m\r\n"
        far_write(far)
        shown, end = b"", time.monotonic() + 20
        while far not in shown and time.monotonic() < end:
            ready, _, _ = select.select([p.stdout], [], [], 0.5)
            if ready:
                shown += os.read(p.stdout.fileno(), 4096)
        check(far in shown, "far bytes not shown unchanged: %r" % shown)
        p.stdin.write(b"typed\x1d\x1d-end\n")
        p.stdin.flush()
        heard, end = b"", time.monotonic() + 20
        while b"-end" not in heard and time.monotonic() < end:
            heard += far_read()
        check(heard == b"typed\x1d-end\n", "typed bytes arrived as %r" % heard)
        # The menu's break: sent on a serial line, refused elsewhere.
        p.stdin.write(b"\x1db")
        p.stdin.flush()
        end = time.monotonic() + 20
        while break_said.encode() not in shown and time.monotonic() < end:
            ready, _, _ = select.select([p.stdout], [], [], 0.5)
            if ready:
                shown += os.read(p.stdout.fileno(), 4096)
        check(break_said.encode() in shown, "no %r: %r" % (break_said, shown[-300:]))
        far_close()
        p.wait(timeout=20)
        err = p.stderr.read().decode(errors="replace")
        check(p.returncode == 0, "status %s: %s" % (p.returncode, err))
        check("the line closed" in err, "end not said: %r" % err)
    finally:
        if p.poll() is None:
            p.kill()
            p.wait()


def case_serial_pty_line_both_ways(z, work):
    master, slave = pty.openpty()
    tty.setraw(slave)
    name = os.ttyname(slave)
    os.close(slave)

    def far_read():
        ready, _, _ = select.select([master], [], [], 0.5)
        return os.read(master, 4096) if ready else b""
    try:
        both_ways(z, ["--line", name, "--baud", "38400"], far_read,
                  lambda data: os.write(master, data), lambda: os.close(master), work,
                  "break sent")
    finally:
        try:
            os.close(master)
        except OSError:
            pass


def case_tcp_line_both_ways(z, work):
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(1)
    port = server.getsockname()[1]
    conn = []

    def accepted():
        if not conn:
            server.settimeout(20)
            conn.append(server.accept()[0])
        return conn[0]

    def far_read():
        ready, _, _ = select.select([accepted()], [], [], 0.5)
        return accepted().recv(4096) if ready else b""
    try:
        both_ways(z, ["--tcp", "127.0.0.1:%d" % port], far_read,
                  lambda data: accepted().sendall(data), lambda: accepted().close(), work,
                  "a break is sent on serial lines only")
    finally:
        server.close()


def case_shell_output_and_exit_status(z, work):
    needs("tmux", "bash")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$", what="prompt")
        pane.type("echo sum=$((6*7))")
        pane.wait(r"sum=42", what="output")
        # Bytes beyond ASCII and control sequences pass unchanged both ways.
        pane.type("printf '\\303\\244-\\033[1mbold\\033[0m-end\\n'")
        pane.wait("ä-bold-end", what="unchanged output")
        pane.type("exit 7")
        check(ended(pane, work) == 7, "exit status not passed on: %s" % read(work, "status.txt"))
    finally:
        pane.close()


def case_window_size_and_resize(z, work):
    needs("tmux", "bash")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.type("stty size")
        pane.wait(r"\n%d %d\n" % (ROWS, COLUMNS), what="window size")
        pane.tmux("resize-window", "-x", "72", "-y", "20")
        time.sleep(0.5)
        pane.type("clear; stty size")
        pane.wait(r"\n?20 72\n", what="size after resize")
        pane.type("exit")
        check(ended(pane, work) == 0, "status %s" % read(work, "status.txt"))
    finally:
        pane.close()


def case_menu_quit_and_escape_twice(z, work):
    needs("tmux", "bash")
    pane = session(z, work, "", "--escape ^A")
    try:
        pane.wait(r"tst\$")
        pane.type("echo first")
        pane.wait(r"\nfirst\n")
        # Pressed twice, the escape key reaches the shell as one byte.
        pane.tmux("send-keys", "-l", "read -r x; printf 'got:%q\\n' \"$x\"")
        pane.keys("Enter")
        time.sleep(0.3)
        pane.keys("C-a", "C-a", "Enter")
        pane.wait(r"got:\$'\\001'", what="escape key sent")
        # What the far side writes while the menu is open waits for it to
        # close, then shows whole.
        pane.type("sleep 2; echo held-$((1+1))")
        pane.keys("C-a")
        pane.wait(r"q quit", what="menu")
        time.sleep(3)
        check("held-2" not in pane.screen(), "output drawn over the menu")
        pane.keys("x")
        pane.wait(r"\nheld-2\n", what="held output")
        check("q quit" not in pane.screen(), "menu left on the screen")
        # The menu is on the bottom line; the shell's lines stay above it.
        pane.keys("C-a")
        pane.wait(r"q quit", what="menu")
        check("q quit" in pane.bottom(), "menu not on the bottom line: %r" % pane.bottom())
        check("first" in pane.screen(), "the remote's screen changed")
        pane.keys("q")
        check(ended(pane, work) == 0, "quit status %s" % read(work, "status.txt"))
    finally:
        pane.close()


def case_terminal_restored_after_signals(z, work):
    # Killed by a signal (a crash too), the program gives the terminal back
    # before it dies of it.
    needs("tmux", "bash")
    for signal in (15, 1, 2, 11):
        for name in ("before.txt", "after.txt", "status.txt"):
            if os.path.exists(os.path.join(work, name)):
                os.remove(os.path.join(work, name))
        pane = session(z, work, "")
        try:
            pane.wait(r"tst\$")
            pane.type("echo pid=$PPID")
            pid = int(pane.wait(r"pid=(\d+)").group(1))
            os.kill(pid, signal)
            status = ended(pane, work)
            check(status == 128 + signal, "status after signal %d: %s" % (signal, status))
        finally:
            pane.close()


def case_capture_to_file(z, work):
    needs("tmux", "bash")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.type("echo before-capture")
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("c")
        pane.wait("capture the session to file:", what="capture question")
        pane.type("~/cap.txt")
        pane.wait("capture on: ", what="capture on")
        pane.type("echo in-$((20+3))-capture")
        pane.wait(r"\nin-23-capture")
        pane.keys("C-]")
        pane.wait("capture off")
        pane.keys("c")
        pane.wait(r"capture off: .*cap\.txt, \d+ bytes", what="capture off")
        pane.type("echo after-capture")
        pane.wait(r"\nafter-capture")
        pane.type("exit")
        ended(pane, work)
        captured = read(work, "cap.txt")
        check("in-23-capture" in captured, "output not captured: %r" % captured)
        check("before-capture" not in captured and "after-capture\r\n" not in captured,
              "captured outside the capture: %r" % captured)
    finally:
        pane.close()


def case_send_from_menu_to_rz(z, work):
    needs("tmux", "bash", "rz")
    os.mkdir(os.path.join(work, "in"))
    src = make_file(work, "payload.bin", 150000, seed=19)
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.type("cd in && rz")
        time.sleep(0.5)
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("s")
        pane.wait("send with protocol: zmodem", what="protocol question")
        pane.keys("Enter")
        pane.wait("files to send:", what="files question")
        pane.type("~/pay*.bin")
        pane.wait(r"1 file sent, ", seconds=60, what="summary")
        pane.type("echo back=$((2+2))")
        pane.wait(r"back=4", what="shell after the transfer")
        check(filecmp.cmp(src, os.path.join(work, "in", "payload.bin"), shallow=False),
              "the file arrived different")
        pane.type("exit")
        check(ended(pane, work) == 0, "status %s" % read(work, "status.txt"))
    finally:
        pane.close()


def case_kermit_both_ways_with_gkermit(z, work):
    # Kermit from the menu: a file to `gkermit -r`, and one from `gkermit -s`.
    needs("tmux", "bash", "gkermit")
    os.mkdir(os.path.join(work, "in"))
    os.mkdir(os.path.join(work, "down"))
    up = make_file(work, "up.bin", 30000, seed=3)
    remote = make_file(os.path.join(work, "in"), "remote.bin", 20000, seed=4)
    os.rename(remote, os.path.join(work, "remote.bin"))
    pane = session(z, work, "", "-d down")
    try:
        pane.wait(r"tst\$")
        pane.type("cd in && gkermit -r")
        time.sleep(0.5)
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("s")
        pane.wait("send with protocol:")
        pane.keys("C-u")
        pane.type("kermit")
        pane.wait("files to send:")
        pane.type("up.bin")  # our own folder, not the far shell's
        pane.wait(r"1 file sent, ", seconds=60, what="send summary")
        pane.type("cd .. && gkermit -s remote.bin")
        time.sleep(0.5)
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("r")
        pane.wait("receive with protocol:")
        pane.keys("C-u")
        pane.type("kermit")
        pane.wait(r"1 file received, ", seconds=60, what="receive summary")
        check(filecmp.cmp(up, os.path.join(work, "in", "up.bin"), shallow=False),
              "the file sent arrived different")
        check(filecmp.cmp(os.path.join(work, "remote.bin"),
                          os.path.join(work, "down", "remote.bin"), shallow=False),
              "the file received arrived different")
        pane.type("exit")
        ended(pane, work)
    finally:
        pane.close()


def case_receive_from_menu_from_sz(z, work):
    needs("tmux", "bash", "sz")
    os.mkdir(os.path.join(work, "down"))
    src = make_file(work, "remote.bin", 80000, seed=7)
    pane = session(z, work, "", "-d down")
    try:
        pane.wait(r"tst\$")
        pane.type("sz remote.bin")
        time.sleep(0.5)
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("r")
        pane.wait("receive with protocol: zmodem")
        pane.keys("Enter")
        pane.wait(r"1 file received, ", seconds=60, what="summary")
        check(filecmp.cmp(src, os.path.join(work, "down", "remote.bin"), shallow=False),
              "the file arrived different")
        pane.type("exit")
        ended(pane, work)
    finally:
        pane.close()


def case_transfer_cancelled_by_keys(z, work):
    # A receive from the menu with no sender on the far side waits; Ctrl-C
    # (and then the escape key) ends it, the session goes on.
    needs("tmux", "bash")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.type("stty -echo; cat > /dev/null")
        time.sleep(0.5)
        for key in ("C-c", "C-]"):
            pane.keys("C-]")
            pane.wait("q quit")
            pane.keys("r")
            pane.wait("receive with protocol: zmodem")
            pane.keys("Enter")
            time.sleep(1.5)
            check("cancelled" not in pane.bottom(), "an old summary: %r" % pane.bottom())
            pane.keys(key)
            pane.wait("transfer cancelled", what="cancel by %s" % key)
        pane.keys("C-c")
        pane.type("stty echo; echo alive=$((5*5))")
        pane.wait("alive=25", what="shell after the cancels")
        pane.type("exit")
        check(ended(pane, work) == 0, "status %s" % read(work, "status.txt"))
    finally:
        pane.close()


def case_ascii_upload_from_menu(z, work):
    # The lines of a text file typed into `cat` on the far side.
    needs("tmux", "bash")
    with open(os.path.join(work, "notes.txt"), "w") as f:
        f.write("first line\nsecond line\nthird: 3\n")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.type("stty -echo; cat > got.txt")
        time.sleep(0.5)
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("a")
        pane.wait("ASCII upload of the file:")
        pane.type("'notes.txt'")
        pane.wait(r"1 file sent, ", seconds=30, what="upload summary")
        pane.keys("C-d")
        pane.type("stty echo; echo up=$((4*4))")
        pane.wait("up=16")
        got = read(work, "got.txt").replace("\r", "").split("\n")
        check(got[:3] == ["first line", "second line", "third: 3"], "arrived: %r" % got)
        pane.type("exit")
        ended(pane, work)
    finally:
        pane.close()


def case_send_refuses_missing_file(z, work):
    # A name that matches nothing is reported; nothing goes on the line and
    # the shell still answers.
    needs("tmux", "bash")
    pane = session(z, work, "")
    try:
        pane.wait(r"tst\$")
        pane.keys("C-]")
        pane.wait("q quit")
        pane.keys("s")
        pane.wait("send with protocol:")
        pane.keys("Enter")
        pane.wait("files to send:")
        pane.type("nothing-*.here")
        pane.wait(r"nothing-\*\.here", what="problem named")
        pane.type("echo still=$((1+1))")
        pane.wait("still=2")
        pane.type("exit")
        ended(pane, work)
    finally:
        pane.close()


CASES = {n[5:]: f for n, f in sorted(globals().items()) if n.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-term-", lambda case, z, work: case(z, work)))
