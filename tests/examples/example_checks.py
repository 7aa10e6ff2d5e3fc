#!/usr/bin/env python3
# The example programs of examples/ run as their users run them: own_window
# against rz and sz (lrzsz, black boxes), against itself and against the
# zvxfer program over crossed pipes; send_receive in its loopback mode with
# every protocol, and against the peers.  Every run has a deadline.
#
# usage: example_checks.py BINDIR CASE      (CASE "list" prints the case names)
#        BINDIR holds zvxfer and the example programs.
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "peer"))
from wiring import Case, check, check_exits, main, make_file, peer, pipes, same  # noqa: E402


def prog(c: Case, name):
    return os.path.join(c.z, name)


def files_of(c: Case):
    # Larger than a ZMODEM window and a pipe's buffer, a name with blanks,
    # an empty file.
    return [make_file(c.src, "big.bin", 300001, 1),
            make_file(c.src, "name with blanks.txt", 1000, 2),
            make_file(c.src, "empty.dat", 0)]


def case_own_window_to_rz(c: Case):
    files = files_of(c)
    runs = pipes([prog(c, "own_window"), "send"] + files, [peer("rz"), "-q"], c.work,
                 cwd_b=c.out)
    c.delivered(runs, files)
    check("3 file(s) sent" in runs[0].stderr(), "the sender did not count 3 files", runs)


def case_sz_to_own_window(c: Case):
    # The folder is given without its final '/': the example adds it, so
    # the files land inside the folder and not beside it as "outbig.bin".
    files = files_of(c)
    runs = pipes([peer("sz"), "-q"] + files, [prog(c, "own_window"), "receive", c.out], c.work)
    c.delivered(runs, files)
    check(not [n for n in os.listdir(c.work) if n.startswith("out") and n != "out"],
          "a received name was glued to the folder's name", runs)


def case_own_window_to_itself(c: Case):
    files = files_of(c)
    runs = pipes([prog(c, "own_window"), "send"] + files,
                 [prog(c, "own_window"), "receive", c.out + "/"], c.work)
    c.delivered(runs, files)
    err = runs[1].stderr()
    check("receiving" in err and "3 file(s) received" in err,
          "the receiver's file-open hook or its count is missing", runs)


def case_own_window_and_zvxfer(c: Case):
    # Both directions against the zvxfer program.
    files = files_of(c)
    runs = pipes([prog(c, "own_window"), "send"] + files,
                 [prog(c, "zvxfer"), "receive", "-p", "zmodem", "-q", "-d", c.out], c.work)
    c.delivered(runs, files, remove=True)
    runs = pipes([prog(c, "zvxfer"), "send", "-p", "zmodem", "-q"] + files,
                 [prog(c, "own_window"), "receive", c.out], c.work)
    c.delivered(runs, files)


def case_own_window_line_lost(c: Case):
    # The far end reads a little and goes away: the sender sees the end of
    # its line and fails with the lost-carrier code, not a time-out.
    big = make_file(c.src, "big.bin", 2000000, 3)
    gone = [sys.executable, "-c", "import os, time; os.read(0, 64); time.sleep(0.2)"]
    runs = pipes([prog(c, "own_window"), "send", big], gone, c.work, deadline_s=60)
    err = runs[0].stderr()
    check(not runs[0].killed and runs[0].rc == 1, "the sender did not fail", runs)
    check("-618" in err, "the sender did not report the lost line", runs)


def case_own_window_usage(c: Case):
    # A name holding a double quote cannot go into the name list.
    runs = pipes([prog(c, "own_window"), "send", os.path.join(c.src, 'a"b')],
                 [sys.executable, "-c", "pass"], c.work)
    check(runs[0].rc == 2, "a name with a double quote was not refused", runs)
    runs = pipes([prog(c, "own_window"), "fetch"], [sys.executable, "-c", "pass"], c.work)
    check(runs[0].rc == 2 and "usage" in runs[0].stderr(), "no usage error", runs)


if __name__ == "__main__":
    sys.exit(main(["rz", "sz"], "zvxfer-examples-"))
