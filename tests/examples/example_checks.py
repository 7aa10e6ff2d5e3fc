#!/usr/bin/env python3
# The example programs of examples/ run as their users run them: own_window
# against rz and sz (lrzsz, black boxes), against itself and against the
# zvxfer program over crossed pipes; send_receive in its loopback mode with
# every protocol, and against the peers.  Every run has a deadline.
#
# usage: example_checks.py BINDIR CASE      (CASE "list" prints the case names)
#        BINDIR holds zvxfer and the example programs.
import os
import re
import shutil
import subprocess
import sys
import tty

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "peer"))
from wiring import (Case, Failure, Run, _finish, check, check_exits, main,  # noqa: E402
                    make_file, peer, pipes, same)


def prog(c: Case, name):
    return os.path.join(c.z, name)


def pipes_held(a_argv, b_argv, workdir, cwd_b=None):
    # Crossed pipes as in pipes(), with the line into A held open here until
    # both have ended: a peer that writes a last answer after A has ended
    # (gkermit) finds the line still there, as on a terminal.
    a2b_r, a2b_w = os.pipe()
    b2a_r, b2a_w = os.pipe()
    runs = [Run("A", a_argv, b2a_r, a2b_w, None, workdir),
            Run("B", b_argv, a2b_r, b2a_w, cwd_b, workdir)]
    for fd in (a2b_r, a2b_w, b2a_w):
        os.close(fd)
    try:
        return _finish(runs, 60, 15)
    finally:
        os.close(b2a_r)


def files_of(c: Case):
    # Larger than a ZMODEM window and a pipe's buffer, a name with blanks,
    # an empty file.
    return [make_file(c.src, "big.bin", 300001, 1),
            make_file(c.src, "name with blanks.txt", 1000, 2),
            make_file(c.src, "empty.dat", 0)]


# What the library's debug output says of a host that forgets the watched
# descriptor or the folder's '/'.
UNWATCHED = "no descriptor is watched"
GLUED = "does not end in '/'"


def traced(runs):
    # The examples' standard error, with the library's traces in it.
    return "".join(r.stderr() for r in runs)


def case_own_window_to_rz(c: Case):
    files = files_of(c)
    os.environ["ZVXFER_DEBUG"] = "stderr"
    runs = pipes([prog(c, "own_window"), "send"] + files, [peer("rz"), "-q"], c.work,
                 cwd_b=c.out)
    c.delivered(runs, files)
    check("3 file(s) sent" in runs[0].stderr(), "the sender did not count 3 files", runs)
    check(UNWATCHED not in traced(runs), "the window's descriptor was not watched", runs)


def case_sz_to_own_window(c: Case):
    # The folder is given without its final '/': the example adds it, so
    # the files land inside the folder and not beside it as "outbig.bin".
    files = files_of(c)
    os.environ["ZVXFER_DEBUG"] = "stderr"
    runs = pipes([peer("sz"), "-q"] + files, [prog(c, "own_window"), "receive", c.out], c.work)
    c.delivered(runs, files)
    check(UNWATCHED not in traced(runs) and GLUED not in traced(runs),
          "the library traced a mistake of the host", runs)
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



# ---------------------------------------------------------------------------
# send_receive: every protocol through the generic entries and the line host

# protocol, whether names travel (several files, exact sizes), block padding
LOOPBACK = [("xmodem", False, 128), ("xmodem-1k", False, 1024), ("xmodem-1k-g", False, 1024),
            ("ymodem", True, 0), ("ymodem-g", True, 0), ("zmodem", True, 0),
            ("kermit", True, 0), ("ascii", False, 0)]


def loopback_case(protocol, names, block):
    def case(c: Case):
        if protocol == "ascii":
            # Text as a terminal uploads it; the capture keeps every byte.
            files = [make_file(c.src, "notes.txt", 5000, pattern=b"a line of text\r\n\tand more\n")]
        elif names:
            files = [make_file(c.src, "big.bin", 200001, 11),
                     make_file(c.src, "name with blanks.dat", 3000, 12)]
        else:
            files = [make_file(c.src, "one.bin", 70001, 13)]
        runs = pipes([prog(c, "send_receive"), "loopback", protocol, c.out] + files,
                     [sys.executable, "-c", "pass"], c.work)
        check(not runs[0].killed and runs[0].rc == 0, "the loopback failed", runs)
        for f in files:
            copy = c.copy(f)
            if protocol == "kermit":  # the Kermit sender sends blanks as '_'
                copy = os.path.join(c.out, os.path.basename(f).replace(" ", "_"))
            # Only YMODEM and ZMODEM carry the file's time.
            if protocol in ("ymodem", "ymodem-g", "zmodem") or block:
                same(f, copy, runs, block)
            else:
                check(open(f, "rb").read() == open(copy, "rb").read(),
                      "%s differs from its original" % copy, runs)
        err = runs[0].stderr()
        check(err.count("send: done (%d)" % len(files)) == 1 and
              err.count("receive: done") == 1, "the ends did not both report success", runs)
    return case


for _p, _n, _b in LOOPBACK:
    globals()["case_loopback_" + _p.replace("-", "_")] = loopback_case(_p, _n, _b)


def case_send_receive_usage(c: Case):
    # Two B+ terminals have nothing to say to each other: a usage error.
    f = make_file(c.src, "x.bin", 10, 1)
    runs = pipes([prog(c, "send_receive"), "loopback", "bplus", c.out, f],
                 [sys.executable, "-c", "pass"], c.work)
    check(runs[0].rc == 2 and "service" in runs[0].stderr(), "B+ loopback not refused", runs)
    runs = pipes([prog(c, "send_receive"), "send", "telepathy", f],
                 [sys.executable, "-c", "pass"], c.work)
    check(runs[0].rc == 2 and "usage" in runs[0].stderr(), "unknown protocol accepted", runs)
    # A double quote cannot go into the name list: refused before the line.
    runs = pipes([prog(c, "send_receive"), "send", "zmodem", os.path.join(c.src, 'a"b')],
                 [sys.executable, "-c", "pass"], c.work)
    check(runs[0].rc == 1 and "-7 " in runs[0].stderr(), "a quoted name was not refused", runs)


def case_send_receive_zmodem_with_lrzsz(c: Case):
    files = files_of(c)
    runs = pipes([prog(c, "send_receive"), "send", "zmodem"] + files, [peer("rz"), "-q"],
                 c.work, cwd_b=c.out)
    c.delivered(runs, files, remove=True)
    # The folder without its '/': the copies land inside it all the same.
    runs = pipes([peer("sz"), "-q"] + files, [prog(c, "send_receive"), "receive", "zmodem", c.out],
                 c.work)
    c.delivered(runs, files)


def case_send_receive_ymodem_and_xmodem_with_lrzsz(c: Case):
    files = files_of(c)[:2]
    runs = pipes([prog(c, "send_receive"), "send", "ymodem"] + files, [peer("rb"), "-q"],
                 c.work, cwd_b=c.out)
    c.delivered(runs, files)
    # XMODEM into a file that exists: the rename policy writes x(1).bin
    # beside it and leaves the old one.
    one = make_file(c.src, "x.bin", 5000, 14)
    old = os.path.join(c.out, "x.bin")
    with open(old, "wb") as f:
        f.write(b"old")
    runs = pipes([peer("sx"), "-q", one], [prog(c, "send_receive"), "receive", "xmodem", old],
                 c.work)
    check_exits(runs)
    same(one, os.path.join(c.out, "x(1).bin"), runs, 128)
    check(open(old, "rb").read() == b"old", "the existing file was touched", runs)


def case_send_receive_kermit_with_gkermit(c: Case):
    # gkermit turns blanks into '_': plain names only.
    files = [make_file(c.src, "big.bin", 100001, 15), make_file(c.src, "small.txt", 700, 16)]
    runs = pipes_held([prog(c, "send_receive"), "send", "kermit"] + files,
                      [peer("gkermit"), "-i", "-r"], c.work, cwd_b=c.out)
    check_exits(runs)
    check("send: done (2)" in runs[0].stderr(), "the sender did not count 2 files", runs)
    for f in files:
        check(open(f, "rb").read() == open(c.copy(f), "rb").read(), "%s differs" % f, runs)
    recv = os.path.join(c.work, "back")
    os.mkdir(recv)
    # gkermit runs in the folder of the files.
    runs = pipes_held([prog(c, "send_receive"), "receive", "kermit", recv],
                      [peer("gkermit"), "-i", "-s"] + [os.path.basename(f) for f in files],
                      c.work, cwd_b=c.src)
    check_exits(runs)
    check("receive: done (2)" in runs[0].stderr(), "the receiver did not count 2 files", runs)
    for f in files:
        check(open(f, "rb").read() == open(os.path.join(recv, os.path.basename(f)), "rb").read(),
              "%s came back different" % f, runs)



def case_send_receive_streaming_forms_with_zvxfer(c: Case):
    # The streaming forms are an option of their base protocol's entry; the
    # zvxfer program insists on them (a sender in a G mode gives up on a
    # receiver that does not ask for 'G').
    files = files_of(c)[:2]
    runs = pipes([prog(c, "zvxfer"), "send", "-p", "ymodem-g", "-q"] + files,
                 [prog(c, "send_receive"), "receive", "ymodem-g", c.out], c.work)
    c.delivered(runs, files, remove=True)
    runs = pipes([prog(c, "send_receive"), "send", "xmodem-1k-g", files[0]],
                 [prog(c, "zvxfer"), "receive", "-p", "xmodem-1k-g", "-q", c.copy(files[0])],
                 c.work)
    c.delivered(runs, files[:1], block=1024)


def bplus_session(c: Case, serve_args, terminal_args, term_cwd):
    # The service (zvxfer serve) on a raw pty's slave, the example as the
    # terminal on the master.  The slave stays open here until the service
    # has ended; closing it then hangs the terminal's line up.
    master, slave = os.openpty()
    tty.setraw(slave)
    serve = subprocess.Popen([prog(c, "zvxfer"), "serve", "-p", "bplus", "--line",
                              os.ttyname(slave), "--linger", "500"] + serve_args,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, cwd=c.work)
    term = subprocess.Popen([prog(c, "send_receive")] + terminal_args, stdin=master,
                            stdout=master, stderr=subprocess.PIPE, cwd=term_cwd)
    os.close(master)
    try:
        serve_err = serve.communicate(timeout=90)[1].decode(errors="replace")
        os.close(slave)
        term_err = term.communicate(timeout=90)[1].decode(errors="replace")
    except subprocess.TimeoutExpired:
        serve.kill()
        term.kill()
        raise Failure("the B+ session did not end in time")
    return serve.returncode, serve_err, term.returncode, term_err


def case_send_receive_bplus_with_service(c: Case):
    # A download into the folder, then an upload of an offered file.
    data = make_file(c.src, "data.bin", 60000, 17)
    s_rc, s_err, t_rc, t_err = bplus_session(c, ["--download", data],
                                             ["receive", "bplus", c.out], c.work)
    check(s_rc == 0 and t_rc == 0, "download: %s\n%s" % (s_err, t_err))
    check(open(data, "rb").read() == open(c.copy(data), "rb").read(), "the download differs")
    up = os.path.join(c.work, "up")
    os.mkdir(up)
    s_rc, s_err, t_rc, t_err = bplus_session(c, ["--upload", "data.bin", "-d", up],
                                             ["send", "bplus", data], c.work)
    check(s_rc == 0 and t_rc == 0, "upload: %s\n%s" % (s_err, t_err))
    check(open(data, "rb").read() == open(os.path.join(up, "data.bin"), "rb").read(),
          "the upload differs")


def case_send_receive_bplus_refuses_unoffered(c: Case):
    # The service asks for a file that was not offered (by name, and by a
    # path out of the folder): nothing of it reaches the service.
    make_file(c.work, "secret.txt", 100, pattern=b"secret ")
    offered = make_file(c.src, "offered.txt", 100, 18)
    up = os.path.join(c.work, "up")
    os.mkdir(up)
    for asked in ("secret.txt", "../secret.txt"):
        s_rc, s_err, t_rc, t_err = bplus_session(
            c, ["--upload", asked, "-d", up, "--timeout", "500", "--max-errors", "3"],
            ["send", "bplus", offered], c.work)
        check(t_rc == 1 and "not offered" in t_err, "%s: %d %s" % (asked, t_rc, t_err))
        for root, _, names in os.walk(up):
            for n in names:
                check(b"secret" not in open(os.path.join(root, n), "rb").read(),
                      asked + ": the secret was sent")


# ---------------------------------------------------------------------------
# The library's manual page, man/zvxfer.3

SOURCE = os.path.normpath(os.path.join(HERE, "..", ".."))
PAGE = os.path.join(SOURCE, "man", "zvxfer.3")


def tool(name, package):
    path = shutil.which(name)
    check(path, "%s is not installed (Debian package %s)" % (name, package))
    return path


def case_manual_zvxfer3_renders(c: Case):
    # groff with every warning, and man(1) as a reader runs it.
    r = subprocess.run([tool("groff", "groff-base"), "-man", "-Tutf8", "-ww", "-z", PAGE],
                       capture_output=True, text=True)
    check(r.returncode == 0 and not r.stderr, "groff warns: " + r.stderr)
    r = subprocess.run([tool("man", "man-db"), "--warnings", "-l", PAGE], capture_output=True,
                       text=True, env=dict(os.environ, MANWIDTH="80", MANPAGER="cat",
                                           PAGER="cat"))
    check(r.returncode == 0 and not r.stderr, "man warns: " + r.stderr)
    for heading in ("SYNOPSIS", "DESCRIPTION", "RETURN VALUE", "EXAMPLE", "SEE ALSO"):
        check("\n" + heading + "\n" in r.stdout, "no section " + heading)


def case_manual_zvxfer3_lists_every_export(c: Case):
    # Every function the library exports has its prototype in the synopsis.
    names = []
    for lst in (("src", "exports.list"), ("platform", "posix", "exports.list")):
        with open(os.path.join(SOURCE, *lst)) as f:
            names += [w for w in (line.strip() for line in f) if w and not w.startswith("#")]
    check(len(names) > 40, "the export list was not read: %r" % names)
    with open(PAGE) as f:
        page = f.read()
    synopsis = page.split(".SH SYNOPSIS")[1].split(".SH DESCRIPTION")[0]
    missing = [n for n in names if not re.search(r"\b%s\(" % n, synopsis)]
    check(not missing, "missing from the synopsis: " + ", ".join(missing))


def unroff(text):
    return text.replace("\\-", "-").replace("\\e", "\\")


def case_manual_zvxfer3_example_sends_to_rz(c: Case):
    # The page's example, compiled as a reader would, sends to rz.
    page = open(PAGE).read()
    example = page.split(".SH EXAMPLE")[1].split(".EX\n")[1].split(".EE\n")[0]
    source = os.path.join(c.work, "example.c")
    with open(source, "w") as f:
        f.write(unroff(example))
    binary = os.path.join(c.work, "example")
    lib = os.path.normpath(os.path.join(c.z, "..", "lib"))
    cc = os.environ.get("CC") or tool("cc", "build-essential")
    flags = os.environ.get("ZVXFER_EXAMPLE_CFLAGS", "").split()
    r = subprocess.run([cc, "-std=c11", "-Wall", "-Wextra", "-Werror"] + flags + ["-I",
                        os.path.join(SOURCE, "include"), source, "-o", binary, "-L", lib,
                        "-Wl,-rpath," + lib, "-lzvxfer"], capture_output=True, text=True)
    check(r.returncode == 0, "the example does not build:\n" + r.stderr)
    files = files_of(c)[:2]
    runs = pipes([binary] + files, [peer("rz"), "-q"], c.work, cwd_b=c.out)
    c.delivered(runs, files)
    check("result 2" in runs[0].stderr(), "the example did not count 2 files", runs)

if __name__ == "__main__":
    sys.exit(main(["rz", "sz", "rb", "sx", "gkermit"], "zvxfer-examples-"))
