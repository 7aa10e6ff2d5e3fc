#!/usr/bin/env python3
# What the zvxfer program shows while it waits and while it sends: an
# XMODEM/YMODEM sender that hears only requests for another mode ends with
# advice, a silent receiver is waited for visibly, and the bar fits a
# narrow terminal (checked in tmux panes of 40 and 20 columns: no line as
# wide as the pane, nothing scrolled into the history).
#
# usage: display_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import select
import shutil
import subprocess
import sys
import time
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, make_file, run_cases  # noqa: E402

NAK = b"\x15"


def sender_hearing(z, work, args, request, seconds=25):
    # zvxfer sends on pipes; the far end repeats `request` every half
    # second and never sends anything else.  The sender's own time-out for
    # a start request is about 40 s: the deadline here is well short of it.
    src = make_file(work, "f.bin", 3000, seed=1)
    p = subprocess.Popen([z, "send"] + args + [src], stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)
    heard, end = bytearray(), time.monotonic() + seconds
    while p.poll() is None and time.monotonic() < end:
        try:
            p.stdin.write(request)
        except BrokenPipeError:
            break
        ready, _, _ = select.select([p.stdout], [], [], 0.5)
        if ready:
            heard += os.read(p.stdout.fileno(), 4096)
    if p.poll() is None:
        p.kill()
        p.wait()
        return None, heard, p.stderr.read().decode(errors="replace")
    heard += p.stdout.read()
    return p.returncode, heard, p.stderr.read().decode(errors="replace")


ADVICE = [  # (options, request heard, advice expected)
    (["-p", "ymodem-g"], b"C", "use -p ymodem"),
    (["-p", "xmodem-1k-g"], b"C", "use -p xmodem-1k"),
    (["-p", "xmodem", "--checksum"], b"C", "leave out --checksum"),
]


def case_wrong_start_request_named(z, work):
    for args, request, advice in ADVICE:
        status, heard, err = sender_hearing(z, work, args, request)
        what = "%s hearing %r" % (" ".join(args), request)
        check(status == 1, "%s: exit %s, stderr %r" % (what, status, err))
        check(advice in err, "%s: no advice %r in %r" % (what, advice, err))
        check(heard[:2] == b"\x18\x18", "%s: not cancelled: %r" % (what, bytes(heard[:8])))


def case_matching_request_starts(z, work):
    # Its own request: the sender starts, no advice, no cancel for a mode.
    for args, request in ((["-p", "xmodem"], b"C"), (["-p", "xmodem-1k-g"], b"G"),
                          (["-p", "xmodem", "--checksum"], NAK)):
        status, heard, err = sender_hearing(z, work, args, request, seconds=8)
        what = " ".join(args)
        check(heard[:1] in (b"\x01", b"\x02"), "%s: no block sent: %r" % (what, bytes(heard[:8])))
        check("asks for" not in err, "%s: advice for its own mode: %r" % (what, err))


def case_silent_receiver_waiting_shown(z, work):
    src = make_file(work, "f.bin", 3000, seed=1)
    p = subprocess.Popen([z, "send", "-p", "ymodem", src], stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    time.sleep(4)
    p.kill()
    p.wait()
    err = p.stderr.read().decode(errors="replace")
    check(err.count("waiting for the receiver") == 1, "waiting not said once: %r" % err)


def tmux(name, *args):
    return subprocess.run(["tmux", "-L", name] + list(args), capture_output=True, text=True,
                          timeout=20).stdout


def pane_run(z, work, columns, command, seconds, resize=None):
    # Run `command` in a detached pane `columns` wide; capture the pane every
    # 0.3 s until the command printed "DONE"; give every capture and the
    # history size at the end.  `resize` (captures, columns): the window is
    # made that narrow after that many captures.
    name = "zvxfer-display-%d-%d" % (os.getpid(), columns)
    script = os.path.join(work, "run.sh")
    with open(script, "w") as f:
        f.write("cd %s\n%s\necho DONE\nsleep 60\n" % (work, command))
    tmux(name, "-f", "/dev/null", "set", "-g", "window-size", "manual")
    tmux(name, "-f", "/dev/null", "new-session", "-d", "-x", str(columns), "-y", "40",
         "sh " + script)
    captures, end = [], time.monotonic() + seconds
    try:
        while time.monotonic() < end:
            captures.append(tmux(name, "capture-pane", "-p"))
            if "DONE" in captures[-1]:
                break
            if resize and len(captures) == resize[0]:
                tmux(name, "resize-window", "-x", str(resize[1]))
            time.sleep(0.3)
        history = tmux(name, "display", "-p", "#{history_size}").strip()
    finally:
        tmux(name, "kill-server")
    return captures, history


def case_bar_fits_narrow_panes(z, work):
    if not shutil.which("tmux"):
        raise Failure("tmux is needed (scripts/deps.sh installs it)")
    make_file(work, "narrow-pane-file-with-a-long-name.bin", 48000, seed=2)
    for columns in (40, 20):
        os.makedirs(os.path.join(work, "out%d" % columns))
        captures, history = pane_run(
            z, work, columns, "%s loopback -p ymodem --baud 57600 -d out%d "
            "narrow-pane-file-with-a-long-name.bin" % (z, columns), 60)
        check(captures and "DONE" in captures[-1], "%d columns: no end: %r" % (columns, captures[-1:]))
        # While the file moves only the bar is redrawn (the library's notice
        # at the file's end and the summary are lines of their own, which
        # may wrap like any long line).
        moving = []
        for c in captures:
            shown = [line for line in c.splitlines() if line]
            if shown and not all(line.startswith(("send: ", "receive: ")) for line in shown):
                break  # a wrapped bar ends the list here too, early
            moving.append(c)
        check(len(moving) >= 3, "%d columns: too few captures with only bars: %r"
              % (columns, captures[len(moving):len(moving) + 1]))
        lines = [line for c in moving for line in c.splitlines()]
        check(all(len(line) < columns for line in lines),
              "%d columns: a line fills the pane: %r" % (columns, [l for l in lines if len(l) >= columns]))
        check(history == "0", "%d columns: %s lines scrolled into the history" % (columns, history))
        # Done/total shows while the file moves (at 40 columns), and the end
        # rate is never 0 B/s.
        if columns == 40:
            check(any("KiB/46.9 KiB" in line for line in lines), "no done/total: %r" % lines)
        check(not any(" 0 B/s" in line for line in captures[-1].splitlines()),
              "an end rate of 0 B/s: %r" % captures[-1])


def bar_lines(capture):
    return [line for line in capture.splitlines() if line.startswith(("receive: ", "send: "))]


def case_bar_follows_resize(z, work):
    if not shutil.which("tmux"):
        raise Failure("tmux is needed (scripts/deps.sh installs it)")
    make_file(work, "resized.bin", 48000, seed=4)
    os.makedirs(os.path.join(work, "out"))
    captures, _ = pane_run(z, work, 100, "%s loopback -p ymodem --baud 57600 -d out resized.bin"
                           % z, 60, resize=(8, 30))
    before = [bar_lines(c)[-1] for c in captures[2:8] if bar_lines(c)]
    check(any(len(line) > 40 for line in before), "no wide bar before the resize: %r" % before)
    # The next redraws after the resize are narrow (the terminal may have
    # re-wrapped what was on the screen; the newest bar line is redrawn).
    after = [bar_lines(c)[-1] for c in captures[11:-1] if bar_lines(c) and "DONE" not in c]
    check(after and all(len(line) < 30 for line in after),
          "bars after the resize: %r" % after[:3])


def case_fast_file_ends_with_its_rate(z, work):
    # A 2 MB file to rz in well under a second: the bar's last line gives
    # the bytes over the time taken, not 0 B/s.
    if not shutil.which("tmux") or not shutil.which("rz"):
        raise Failure("tmux and rz are needed (scripts/deps.sh installs them)")
    make_file(work, "fast.bin", 2000000, seed=5)
    os.makedirs(os.path.join(work, "out"))
    relay = os.path.join(os.path.dirname(z), "zvxfer-line-relay")
    captures, _ = pane_run(z, work, 40, "%s -- %s send -p zmodem fast.bin -- sh -c "
                           "'cd out && exec rz -q'" % (relay, z), 30)
    final = [line for line in captures[-1].splitlines() if line.startswith("fast.bin")]
    check(final, "no bar line for the file: %r" % captures[-1])
    rate = re.search(r"([0-9.]+) (B|KiB|MiB|GiB)/s", final[-1])
    check(rate and float(rate.group(1)) > 0 and rate.group(2) != "B",
          "the file's last line: %r" % final[-1])
    check("1.9 MiB/1.9 MiB" in final[-1], "not the whole file: %r" % final[-1])


def case_zmodem_window_passed(z, work):
    # Our receiver traces "Sending a ZACK" for each subpacket that asks for
    # one (a windowed sender's); a streaming sender asks only at the end.
    src = make_file(work, "z.bin", 20000, seed=6)
    for extra, windowed in (([], False), (["--no-window"], False),
                            (["--window", "4096"], True), (["--window", "65536"], True)):
        out = os.path.join(work, "out-%d" % len(os.listdir(work)))
        os.makedirs(out)
        r = subprocess.run([z, "loopback", "-p", "zmodem", "-v", "-d", out] + extra + [src],
                           capture_output=True, text=True, timeout=60)
        check(r.returncode == 0, "%s: exit %d: %s" % (extra, r.returncode, r.stderr[-300:]))
        acks = r.stderr.count("Sending a ZACK")
        check(acks > 10 if windowed else acks <= 2, "%s: %d ZACKs" % (extra, acks))


def case_waiting_counts_in_pane(z, work):
    if not shutil.which("tmux"):
        raise Failure("tmux is needed (scripts/deps.sh installs it)")
    make_file(work, "f.bin", 1000, seed=3)
    # The line is a pipe nobody writes to: a silent receiver.
    captures, _ = pane_run(z, work, 40, "sleep 30 | timeout 5 %s send -p xmodem f.bin "
                           ">/dev/null" % z, 20)
    seen = [c for c in captures if "waiting for the receiver (" in c]
    check(len(seen) >= 2, "no waiting line: %r" % captures[-1:])
    counts = {line.strip() for c in seen for line in c.splitlines() if "waiting" in line}
    check(len(counts) >= 2, "the seconds do not move: %r" % counts)


CASES = {name[5:]: fn for name, fn in sorted(globals().items()) if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-display-", lambda case, z, work: case(z, work)))
