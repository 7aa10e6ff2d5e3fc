#!/usr/bin/env python3
# The names given to `zvxfer send`: every one checked before anything goes
# on the line, wildcards expanded by the program, names that exist taken
# literally whatever they hold, and files read without a lock.  The far
# ends are the lrzsz programs (black boxes) or a scripted XMODEM receiver.
#
# usage: names_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import fcntl
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "peer"))
from wiring import check, describe, make_file, peer, pipes, run_cases  # noqa: E402

ENV = dict(os.environ, LC_ALL="C", LANGUAGE="")
ACK, EOT = 0x06, 0x04


def run(argv, cwd=None):
    r = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                       cwd=cwd, env=ENV)
    return r.returncode, r.stdout, r.stderr.decode(errors="replace")


def tree(folder):
    # {relative name: bytes} of every file below the folder
    found = {}
    for root, _, files in os.walk(folder):
        for f in files:
            path = os.path.join(root, f)
            found[os.path.relpath(path, folder)] = open(path, "rb").read()
    return found


def case_bad_names_stop_the_run_before_the_line(z, work):
    # Whatever the protocol and wherever the bad name stands, nothing goes
    # on the line and every bad name is given with its reason.
    good = make_file(work, "good.txt", 300, 1)
    folder = os.path.join(work, "folder")
    os.mkdir(folder)
    missing = os.path.join(work, "nosuch.bin")
    nothing = os.path.join(work, "none*.txt")
    secret = make_file(work, "secret.txt", 10, 2)
    os.chmod(secret, 0)
    unreadable = [] if os.access(secret, os.R_OK) else [(secret, "Permission denied")]
    rows = [[(missing, "No such file or directory")],
            [(folder, "is a folder")],
            [(nothing, "no file matches")],
            [(good + "/inside", "Not a directory")],
            [(missing, "No such file or directory"), (folder, "is a folder")]] + [unreadable]
    for protocol in ("xmodem", "ymodem", "zmodem", "kermit", "ascii"):
        for bad in filter(None, rows):
            for names in ([b for b, _ in bad] + [good], [good] + [b for b, _ in bad]):
                if protocol.startswith("xmodem"):
                    names = [b for b, _ in bad]
                rc, out, err = run([z, "send", "-p", protocol] + names)
                what = "%s %s: exit %d, stdout %r: %s" % (protocol, names, rc, out[:40], err)
                check(rc == 1 and out == b"", what)
                for name, reason in bad:
                    check("zvxfer: %s: %s" % (name, reason) in err, what)


def case_skip_missing_sends_the_rest_to_rz(z, work):
    # With the missing name first or last: rz gets the file that is there
    # and both ends exit 0.
    src, out = os.path.join(work, "src"), os.path.join(work, "out")
    os.mkdir(src)
    os.mkdir(out)
    f = make_file(src, "text.txt", 5000, 3)
    missing = os.path.join(src, "nosuch.bin")
    for names in ([missing, f], [f, missing]):
        for name in os.listdir(out):
            os.remove(os.path.join(out, name))
        runs = pipes([z, "send", "-p", "zmodem", "--skip-missing"] + names,
                     [peer("rz"), "-q"], work, cwd_b=out)
        check(all(r.rc == 0 for r in runs), "exit statuses", runs)
        check(tree(out) == {"text.txt": open(f, "rb").read()}, "rz received %s" % tree(out), runs)
        check("left out: %s: No such file" % missing in runs[0].stderr(), "no note", runs)
    rc, line, err = run([z, "send", "-p", "zmodem", "--skip-missing", missing])
    check(rc == 1 and line == b"" and "no file to send" in err, "exit %d: %s" % (rc, err))


def case_literal_names_and_wildcards_reach_the_peers(z, work):
    # A name that exists is that file, even holding '*', '?' or '['; a name
    # that does not exist is expanded with '*' and '?' only.
    src = os.path.join(work, "src")
    os.mkdir(src)
    files = {n: make_file(src, n, 700 + i, i) for i, n in
             enumerate(["b*.txt", "bx.txt", "by.txt", "a[1].txt", "a1.txt", "q?.bin", "qq.bin"])}
    content = {n: open(p, "rb").read() for n, p in files.items()}
    rows = [(["b*.txt", "a[1].txt"], ["b*.txt", "a[1].txt"]),
            (["q?.bin"], ["q?.bin"]),
            (["bx.txt", "b*.txt"], ["bx.txt", "b*.txt"]),
            (["b?.txt"], ["b*.txt", "bx.txt", "by.txt"]),
            (["a?.txt", "a[1].txt"], ["a1.txt", "a[1].txt"])]
    for protocol, receiver in (("zmodem", "rz"), ("ymodem", "rb")):
        for names, expected in rows:
            out = os.path.join(work, "out-%s-%d" % (protocol, rows.index((names, expected))))
            os.mkdir(out)
            runs = pipes([z, "send", "-p", protocol, "-q"] + [os.path.join(src, n) for n in names],
                         [peer(receiver), "-q"], work, cwd_b=out)
            check(all(r.rc == 0 for r in runs), "%s %s" % (protocol, names), runs)
            check(tree(out) == {n: content[n] for n in expected},
                  "%s %s: received %s" % (protocol, names, sorted(tree(out))), runs)


def case_subfolders_expanded_below_the_named_folder(z, work):
    d = os.path.join(work, "d")
    os.makedirs(os.path.join(d, "sub", "deeper"))
    make_file(d, "a.txt", 100, 1)
    make_file(d, ".hidden.txt", 100, 2)
    make_file(os.path.join(d, "sub"), "b.txt", 200, 3)
    make_file(os.path.join(d, "sub"), "c.bin", 200, 4)
    make_file(os.path.join(d, "sub", "deeper"), "e.txt", 300, 5)
    for options, expected in [([], ["a.txt"]), (["--subfolders"], ["a.txt", "b.txt", "e.txt"])]:
        rc, _, err = run([z, "loopback", "-p", "zmodem"] + options + [os.path.join(d, "*.txt")])
        shown = [line.split()[1] for line in err.splitlines() if line.startswith("ok ")]
        check(rc == 0 and shown == expected, "%s: exit %d: %s" % (options, rc, err))


def case_receive_folder_checked_before_the_line(z, work):
    # A receive that could not write its file says why and exits 1 before
    # it sends its first request.
    locked = os.path.join(work, "locked")
    os.mkdir(locked, 0o500)
    rows = [(["-p", "xmodem", os.path.join(work, "nosuch", "x.out")],
             os.path.join(work, "nosuch") + "/: No such file or directory"),
            (["-p", "ascii", os.path.join(work, "plain.txt", "x.out")], "Not a directory")]
    make_file(work, "plain.txt", 10, 1)
    if not os.access(locked, os.W_OK):
        rows += [(["-p", "zmodem", "-d", locked], locked + ": Permission denied"),
                 (["-p", "xmodem", "-d", locked, "x.out"], "Permission denied")]
    for args, reason in rows:
        rc, out, err = run([z, "receive"] + args)
        what = "%s: exit %d, stdout %r: %s" % (args, rc, out[:20], err)
        check(rc == 1 and out == b"" and "zvxfer: cannot receive into" in err and reason in err,
              what)


def xmodem_blocks(proc, count):
    # Reads `count` 128-byte CRC blocks from the sender, acknowledging all
    # but the last one read.
    for i in range(count):
        got = b""
        while len(got) < 133:
            chunk = os.read(proc.stdout.fileno(), 133 - len(got))
            check(chunk, "the sender stopped after %d blocks" % i)
            got += chunk
        if i < count - 1:
            proc.stdin.write(bytes([ACK]))


def case_files_sent_without_a_lock(z, work):
    # While an XMODEM sender is held in the middle of a file, nothing locks
    # it: flock -n takes it at once, and another zvxfer sends it to rz.
    f = make_file(work, "shared.bin", 128 * 40, 6)
    err = open(os.path.join(work, "held.stderr"), "wb")
    held = subprocess.Popen([z, "send", "-p", "xmodem", "-q", f], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=err, bufsize=0, env=ENV)
    try:
        held.stdin.write(b"C")
        xmodem_blocks(held, 2)
        lock = subprocess.run(["flock", "-n", "-x", f, "true"], timeout=10)
        check(lock.returncode == 0, "the file being sent is locked")
        out = os.path.join(work, "out")
        os.mkdir(out)
        runs = pipes([z, "send", "-p", "zmodem", "-q", f], [peer("rz"), "-q"], work, cwd_b=out)
        check(all(r.rc == 0 for r in runs), "a second sender of the same file failed", runs)
        check(tree(out) == {"shared.bin": open(f, "rb").read()}, "rz's copy differs", runs)
        # The held sender then ends its file normally.
        held.stdin.write(bytes([ACK]))
        xmodem_blocks(held, 38)
        held.stdin.write(bytes([ACK]))
        check(os.read(held.stdout.fileno(), 1) == bytes([EOT]), "no EOT after the last block")
        held.stdin.write(bytes([ACK]))
        check(held.wait(timeout=30) == 0, "the held sender failed")
    finally:
        if held.poll() is None:
            held.kill()
            held.wait()
        err.close()



def case_locked_file_still_sent(z, work):
    # Sending never asks for a lock, so a file another program holds locked
    # is sent all the same, by Kermit's engine too.
    f = make_file(work, "locked.bin", 30000, 7)
    with open(f, "rb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        r = subprocess.run([z, "loopback", "-p", "kermit", "-q", f], capture_output=True,
                           timeout=60, env=ENV)
        check(r.returncode == 0, "a locked file was not sent: %r" % r.stderr)

CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-names-", lambda case, zvxfer, work: case(zvxfer, work)))
