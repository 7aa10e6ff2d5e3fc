#!/usr/bin/env python3
# The zvxfer program as a B+ terminal against `zvxfer serve -p bplus` over a
# pty pair: both directions under the check method asked for, resume, a
# failure from the service shown with its text, the refusal of an upload
# the user did not offer, and the end of the session when the line goes.
# Every wait has a deadline.
#
# usage: bplus_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import subprocess
import sys
import tty
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, make_file, run_cases  # noqa: E402


def session(zvxfer, serve_args, terminal_args, cwd):
    # The service on the pty's slave (its own --line), the terminal on the
    # master as its standard input and output.  The slave stays open here
    # until the service has ended, then its closing hangs the line up.
    master, slave = os.openpty()
    tty.setraw(slave)
    serve = subprocess.Popen([zvxfer, "serve", "-p", "bplus", "--line", os.ttyname(slave),
                              "--linger", "500"] + serve_args, stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, cwd=cwd)
    term = subprocess.Popen([zvxfer] + terminal_args, stdin=master, stdout=master,
                            stderr=subprocess.PIPE, cwd=cwd)
    os.close(master)
    try:
        serve_err = serve.communicate(timeout=90)[1].decode(errors="replace")
        os.close(slave)
        term_err = term.communicate(timeout=90)[1].decode(errors="replace")
    except subprocess.TimeoutExpired:
        serve.kill()
        term.kill()
        raise Failure("the session did not end in time")
    return serve.returncode, serve_err, term.returncode, term_err


def read(path):
    with open(path, "rb") as f:
        return f.read()


def folders(work, name):
    # src: the originals; term: where the terminal runs (its downloads land
    # there); up: the service's uploads.
    paths = [os.path.join(work, name, d) for d in ("src", "term", "up")]
    for p in paths:
        os.makedirs(p)
    return paths


def case_both_directions(zvxfer, work):
    # Two files down (one empty) and one up, all in the check method the
    # terminal asks for; the summary counts them.
    for method in range(4):
        src, term, up = folders(work, str(method))
        big = make_file(src, "big.bin", 70000, seed=method)
        empty = make_file(src, "empty.bin", 0, pattern=b"")
        offered = make_file(src, "offered.txt", 3000, seed=9)
        s_rc, s_err, t_rc, t_err = session(
            zvxfer, ["--check-method", "3", "--download", big, "--download", empty,
                     "--upload", "offered.txt", "-d", up],
            ["send", "-p", "bplus", "--check-method", str(method), "--quiet-time", "1000",
             offered], term)
        check(s_rc == 0 and t_rc == 0, "method %d: %s %s" % (method, s_err, t_err))
        check(s_err.count("check method %d" % method) == 3, "method not used: " + s_err)
        check(read(big) == read(os.path.join(term, "big.bin")), "download differs")
        check(read(os.path.join(term, "empty.bin")) == b"", "empty file not empty")
        check(read(offered) == read(os.path.join(up, "offered.txt")), "upload differs")
        check("2 files received, 1 sent" in t_err, "summary: " + t_err)


def case_receive_into_folder_and_resume(zvxfer, work):
    # receive -d puts downloads in the folder; with --resume a partial file
    # is continued from the resume point, without it the old file is kept
    # and the copy takes a free name.
    src, term, up = folders(work, "r")
    data = make_file(src, "data.bin", 50000, seed=4)
    dl = os.path.join(term, "dl")
    os.makedirs(dl)
    kept = os.path.join(dl, "data.bin")
    for resume, partial in ((True, read(data)[:20000]), (False, b"old")):
        with open(kept, "wb") as g:
            g.write(partial)
        s_rc, s_err, t_rc, t_err = session(
            zvxfer, ["--resume", "--download", data],
            ["receive", "-p", "bplus", "--quiet-time", "1000", "-d", dl]
            + (["--resume"] if resume else []), term)
        check(s_rc == 0 and t_rc == 0, "download failed: %s %s" % (s_err, t_err))
        check(("resumed at 20000" in s_err) == resume, "resume point: " + s_err)
        check(read(kept) == (read(data) if resume else b"old"), "partial file handled wrongly")
    copies = [n for n in os.listdir(dl) if read(os.path.join(dl, n)) == read(data)]
    check(len(copies) == 1, "copies: %r" % copies)


def case_service_failure_shown(zvxfer, work):
    # A failure packet from the service: the terminal fails with the result
    # code and the library's notice, never raw line bytes.
    src, term, up = folders(work, "f")
    data = make_file(src, "data.bin", 20000, seed=5)
    _, _, t_rc, t_err = session(
        zvxfer, ["--download", data, "--block-size", "1", "--fail-at", "3", "--fail-code", "A"],
        ["receive", "-p", "bplus", "--quiet-time", "1000"], term)
    check(t_rc == 1 and "download of" in t_err and "failed: -6" in t_err, "result: " + t_err)
    check("The service reported a failure" in t_err, "service's failure not shown: " + t_err)
    check(all(c >= " " or c == "\n" for c in t_err), "raw control bytes shown: %r" % t_err)


def case_upload_refused(zvxfer, work):
    # The service asks for files the user did not name: each request is
    # refused with a message, nothing of the file reaches the service, and
    # both ends fail.
    src, term, up = folders(work, "u")
    make_file(term, "secret.txt", 100, pattern=b"secret ")
    offered = make_file(src, "offered.txt", 100, seed=6)
    for asked in ("secret.txt", "../term/secret.txt"):
        s_rc, _, t_rc, t_err = session(
            zvxfer, ["--upload", asked, "-d", up, "--timeout", "500", "--max-errors", "3"],
            ["send", "-p", "bplus", "--quiet-time", "1000", offered], term)
        check(t_rc == 1 and s_rc == 1, "%s: status %d %d" % (asked, t_rc, s_rc))
        check("refused the service's upload request" in t_err, asked + ": no message: " + t_err)
        for root, _, names in os.walk(up):
            for n in names:
                check(b"secret" not in read(os.path.join(root, n)), asked + ": secret sent")


def case_hangup_ends_session(zvxfer, work):
    # The service stops answering midway and its line closes: the terminal
    # ends within seconds with a failure (its own quiet time is long).
    src, term, up = folders(work, "h")
    data = make_file(src, "data.bin", 60000, seed=7)
    _, _, t_rc, t_err = session(
        zvxfer, ["--download", data, "--silent-from", "4", "--timeout", "300",
                 "--max-errors", "2"], ["receive", "-p", "bplus", "--quiet-time", "60000"], term)
    check(t_rc == 1 and "failed" in t_err, "terminal status %d: %s" % (t_rc, t_err))


CASES = {
    "bplus_both_directions": case_both_directions,
    "bplus_receive_into_folder_and_resume": case_receive_into_folder_and_resume,
    "bplus_service_failure_shown": case_service_failure_shown,
    "bplus_upload_refused": case_upload_refused,
    "bplus_hangup_ends_session": case_hangup_ends_session,
}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-bplus-", lambda case, zvxfer, work: case(zvxfer, work)))
