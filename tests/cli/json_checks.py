#!/usr/bin/env python3
# `zvxfer --json`: the events a front end reads on standard error.  Every
# line is one JSON object with "event" and "time"; a session opens with
# session_start and closes with session_end (carrying the exit status);
# each file runs file_start, progress..., file_end; a failure ends its file
# with a negative result; a hostile name still gives valid JSON that keeps
# every byte; progress events come at most four times a second per file.
#
# usage: json_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import json
import os
import select
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "peer"))
from wiring import Failure, check, describe, make_file, peer, pipes, run_cases  # noqa: E402

ENV = dict(os.environ, LC_ALL="C", LANGUAGE="")
PROGRESS_EVERY = 0.25  # seconds between a file's progress events, at least

# The fields each event kind carries (beyond "event" and "time"), with
# their types; None allowed where a size may be unknown.
NUM = (int, float)
FIELDS = {
    "session_start": {"protocol": str, "direction": str, "version": str, "line": str},
    "file_start": {"name": str, "size": (int, type(None))},
    "progress": {"name": str, "bytes": int, "size": (int, type(None)), "rate": NUM},
    "file_end": {"name": str, "result": int, "text": str, "bytes": int,
                 "size": (int, type(None)), "skipped": bool},
    "session_end": {"files": int, "failed": int, "skipped": int, "bytes": int, "exit": int},
    "notice": {"level": int, "text": str},
    "message": {"text": str},
    "waiting": {"seconds": int},
    "verify": {"name": str, "ok": bool, "bytes": int},
    "echo": {"text": str},
}


def events_of(raw, who):
    # Every line of standard error parsed and checked against its kind's
    # fields; raw control bytes (an escape sequence reaching the terminal)
    # are a fault even inside valid JSON.
    check(raw.endswith(b"\n"), "%s: standard error does not end a line: %r" % (who, raw[-60:]))
    events, last = [], 0.0
    for line in raw.split(b"\n")[:-1]:
        check(not any(b < 0x20 for b in line), "%s: a raw control byte in %r" % (who, line))
        try:
            e = json.loads(line.decode("utf-8"))
        except (UnicodeDecodeError, ValueError) as error:
            raise Failure("%s: not a JSON line (%s): %r" % (who, error, line))
        check(isinstance(e, dict) and e.get("event") in FIELDS,
              "%s: unknown event in %r" % (who, line))
        check(isinstance(e.get("time"), NUM) and e["time"] >= last,
              "%s: time missing or going back in %r" % (who, line))
        last = e["time"]
        for key, kind in FIELDS[e["event"]].items():
            # (true and false are ints to Python: only a bool field takes them)
            typed = key in e and isinstance(e[key], kind) and \
                (kind is bool or not isinstance(e[key], bool))
            check(typed, "%s: %s lacks %s of the right type: %r" % (who, e["event"], key, line))
        events.append(e)
    check(events and events[0]["event"] == "session_start" and
          events[-1]["event"] == "session_end", "%s: not one whole session: %r" % (who, raw))
    check(sum(e["event"] == "session_start" for e in events) == 1 and
          sum(e["event"] == "session_end" for e in events) == 1,
          "%s: more than one session in %r" % (who, raw))
    return events


def files_of(events, who):
    # The file events in order, each file_start followed by its progress and
    # its file_end (one side only); returns the file_end events.
    ends, current = [], None
    for e in events:
        kind = e["event"]
        if kind == "file_start":
            check(current is None, "%s: %s started inside %s" % (who, e["name"], current))
            current = e
        elif kind in ("progress", "file_end"):
            check(current is not None and e["name"] == current["name"],
                  "%s: %s outside its file: %r" % (who, kind, e))
            if current["size"] is not None and not e.get("skipped"):
                check(e["bytes"] <= current["size"] + 1023,
                      "%s: more bytes than the size: %r" % (who, e))
            if kind == "file_end":
                ends.append(e)
                current = None
    check(current is None, "%s: %s never ended" % (who, current and current["name"]))
    return ends


def stderr_bytes(run):
    with open(run.err_path, "rb") as f:
        return f.read()


def version_of(z):
    out = subprocess.run([z, "--version"], capture_output=True, env=ENV).stdout.decode()
    return out.split()[1].rstrip(",")


def case_events_of_a_batch_in_both_directions(z, work):
    # Sender and receiver (this program on both ends, crossed pipes) for a
    # protocol of each family; one file is empty.
    version = version_of(z)
    for protocol, sizes in (("zmodem", (70000, 0, 3000)), ("xmodem", (5000,)),
                            ("ymodem", (20000, 1)), ("kermit", (9000, 0, 400))):
        src, out = os.path.join(work, protocol + "-src"), os.path.join(work, protocol + "-out")
        os.makedirs(src)
        os.makedirs(out)
        names = ["f%d.bin" % i for i in range(len(sizes))]
        paths = [make_file(src, n, s, seed=s) for n, s in zip(names, sizes)]
        receiver = [z, "receive", "--json", "-p", protocol]
        if protocol == "xmodem":
            receiver.append(names[0])
        runs = pipes([z, "--json", "send", "-p", protocol] + paths, receiver, work, cwd_b=out)
        for run, direction in zip(runs, ("send", "receive")):
            who = "%s %s" % (protocol, direction)
            check(not run.killed and run.rc == 0, who + " did not end well", runs)
            events = events_of(stderr_bytes(run), who)
            start, end = events[0], events[-1]
            check((start["protocol"], start["direction"], start["version"], start["line"]) ==
                  (protocol, direction, version, "stdin/stdout"), "%s: %r" % (who, start))
            ends = files_of(events, who)
            check([e["name"] for e in ends] == names,
                  "%s: files %r, not %r" % (who, [e["name"] for e in ends], names))
            for e, size in zip(ends, sizes):
                # XMODEM's receiver writes whole blocks and knows no size.
                pad = 127 if protocol == "xmodem" and direction == "receive" else 0
                check(e["result"] == 0 and e["text"] == "Success" and not e["skipped"] and
                      size <= e["bytes"] <= size + pad, "%s: %r" % (who, e))
            check((end["files"], end["failed"], end["skipped"], end["exit"]) ==
                  (len(sizes), 0, 0, 0) and end["bytes"] == sum(e["bytes"] for e in ends),
                  "%s: %r" % (who, end))


def case_a_failed_transfer_ends_its_file_and_the_session_with_the_code(z, work):
    # An XMODEM receiver that asks for CRC once and then never answers: the
    # sender gives up on the file it started.
    f = make_file(work, "big.bin", 50000, seed=1)
    with open(os.path.join(work, "err"), "wb+") as err:
        proc = subprocess.Popen([z, "send", "--json", "-p", "xmodem", "--timeout", "200", f],
                                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=err,
                                env=ENV)
        proc.stdin.write(b"C")
        proc.stdin.flush()
        rc = proc.wait(timeout=60)
        proc.stdin.close()
        err.seek(0)
        raw = err.read()
    events = events_of(raw, "xmodem send")
    ends = files_of(events, "xmodem send")
    check(rc == 1 and len(ends) == 1 and ends[0]["result"] < 0 and ends[0]["name"] == "big.bin",
          "exit %d, file ends %r" % (rc, ends))
    check(ends[0]["text"] not in ("", "Success"), "no text for the code: %r" % ends[0])
    end = events[-1]
    check((end["files"], end["failed"], end["exit"]) == (0, 1, 1), "session end %r" % end)
    check(ends[0]["bytes"] < 50000, "the failed file claims every byte: %r" % ends[0])


def case_a_line_lost_in_the_middle_of_a_file_fails_that_file(z, work):
    # The sender's line to a peer receiver is cut once 100000 bytes went:
    # the file in progress ends with a negative result (for Kermit, whose
    # engine gives none, the program's code for a lost line) and a reason
    # where the program judged it.
    f = make_file(work, "big.bin", 3000000, seed=6)
    for protocol, receiver in (("kermit", [peer("gkermit"), "-r", "-q"]),
                               ("zmodem", [peer("rz"), "-q"])):
        out = os.path.join(work, protocol)
        os.makedirs(out)
        err_path = os.path.join(work, protocol + ".stderr")
        with open(err_path, "wb") as err:
            sender = subprocess.Popen([z, "send", "--json", "-p", protocol, f],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                      stderr=err, env=ENV)
        far = subprocess.Popen(receiver, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, cwd=out)
        try:
            relayed = 0
            while relayed < 100000 and sender.poll() is None:
                ready, _, _ = select.select([sender.stdout, far.stdout], [], [], 10)
                check(ready, "%s: the line went quiet before 100000 bytes" % protocol)
                for source, sink in ((sender.stdout, far.stdin), (far.stdout, sender.stdin)):
                    if source in ready:
                        data = os.read(source.fileno(), 65536)
                        check(data, "%s: a side ended early" % protocol)
                        sink.write(data)
                        sink.flush()
                        relayed += len(data) if source is sender.stdout else 0
        finally:
            far.kill()
            far.wait()
            sender.stdin.close()
            sender.stdout.close()
            rc = sender.wait(timeout=60)
        with open(err_path, "rb") as err:
            events = events_of(err.read(), protocol)
        ends = files_of(events, protocol)
        check(rc == 1 and len(ends) == 1 and ends[0]["result"] < 0 and
              ends[0]["bytes"] < 3000000, "%s: exit %d, file ends %r" % (protocol, rc, ends))
        check(protocol != "kermit" or ends[0].get("reason"), "kermit: no reason: %r" % ends[0])
        end = events[-1]
        check((end["files"], end["failed"], end["exit"]) == (0, 1, 1),
              "%s: session end %r" % (protocol, end))


def case_files_the_receiver_skips_are_marked_on_both_sides(z, work):
    # The receiver keeps its existing copies (--existing skip, and rz -p):
    # those files end skipped, not failed, and the session ends cleanly.
    src, out = os.path.join(work, "src"), os.path.join(work, "out")
    os.makedirs(src)
    os.makedirs(out)
    old = make_file(src, "old.bin", 30000, seed=2)
    new = make_file(src, "new.bin", 3000, seed=3)
    make_file(out, "old.bin", 10, seed=4)
    for receiver in ([z, "receive", "--json", "-p", "zmodem", "--existing", "skip"],
                     [peer("rz"), "-p", "-q"]):
        if os.path.exists(os.path.join(out, "new.bin")):
            os.remove(os.path.join(out, "new.bin"))
        runs = pipes([z, "send", "--json", "-p", "zmodem", old, new], receiver, work, cwd_b=out)
        check(all(r.rc == 0 and not r.killed for r in runs), "a side did not end well", runs)
        sides = [("send", runs[0])] + ([("receive", runs[1])] if receiver[0] == z else [])
        for side, run in sides:
            events = events_of(stderr_bytes(run), side)
            ends = {e["name"]: e for e in files_of(events, side)}
            check(ends.get("old.bin", {}).get("skipped") is True and
                  ends["old.bin"]["result"] == 0 and
                  ends.get("new.bin", {}).get("skipped") is False,
                  "%s: file ends %r" % (side, ends), runs)
            end = events[-1]
            check((end["files"], end["failed"], end["skipped"], end["exit"]) == (1, 0, 1, 0),
                  "%s: session end %r" % (side, end), runs)


# Names as a hostile sender may give them: terminal escapes, C1 controls,
# bytes that are not UTF-8, a quote, DEL and TAB, next to valid UTF-8.  No
# backslash: the library reads it as a folder separator on Linux too.
HOSTILE = [b"esc\x1b]0;owned\x07.bin", b"bad\xff\xfe\xc0\xaf.bin", b"c1\xc2\x9b2J.bin",
           b"b's\x7f\t.bin", "caf\u00e9-\u6587.bin".encode()]


def case_hostile_names_give_valid_json_that_keeps_every_byte(z, work):
    src, out = os.path.join(work, "src").encode(), os.path.join(work, "out").encode()
    os.makedirs(src)
    os.makedirs(out)
    paths = []
    for i, name in enumerate(HOSTILE):
        paths.append(os.path.join(src, name))
        with open(paths[-1], "wb") as f:
            f.write(bytes([i]) * (100 + i))
    runs = pipes([z.encode(), b"send", b"--json", b"-p", b"zmodem"] + paths,
                 [z, "receive", "--json", "-p", "zmodem"], work, cwd_b=out)
    check(all(r.rc == 0 and not r.killed for r in runs), "a side did not end well", runs)
    for side, run in zip(("send", "receive"), runs):
        ends = files_of(events_of(stderr_bytes(run), side), side)
        check(len(ends) == len(HOSTILE), "%s: %d file ends" % (side, len(ends)), runs)
        written = os.listdir(out)
        for e, name in zip(ends, HOSTILE):
            # The text is the name where it is UTF-8; otherwise it has U+FFFD
            # for the stray bytes and the hex field holds the name exactly.
            if "name_hex" in e:
                check("\ufffd" in e["name"], "%s: %r" % (side, e), runs)
                exact = bytes.fromhex(e["name_hex"])
            else:
                exact = e["name"].encode()
            # The sender names its file; the receiver the file it wrote.
            check(exact == name if side == "send" else exact in written,
                  "%s: %r is not %r (written: %r)" % (side, exact, name, written), runs)
        if side == "send":
            check(["name_hex" in e for e in ends] == [False, True, False, False, False],
                  "%s: hex fields where the names are not UTF-8: %r" % (side, ends), runs)


def case_progress_comes_at_most_four_times_a_second(z, work):
    # A file slow enough to take a few seconds (9600 bit/s): its progress
    # events keep their distance on the program's own clock, and their
    # number stays under a generous ceiling.
    f = make_file(work, "slow.bin", 3000, seed=5)
    r = subprocess.run([z, "loopback", "--json", "-p", "zmodem", "--baud", "9600", f],
                       capture_output=True, timeout=100, env=ENV)
    events = events_of(r.stderr, "loopback")
    check(r.returncode == 0 and events[-1]["exit"] == 0, "loopback failed: %r" % r.stderr[-300:])
    for side in ("send", "receive"):
        mine = [e for e in events if e.get("side") == side]
        files_of(mine, side)
        times = [e["time"] for e in mine if e["event"] == "progress"]
        check(len(times) >= 2, "%s: %d progress events for a 3 s file" % (side, len(times)))
        gaps = [b - a for a, b in zip(times, times[1:])]
        check(min(gaps) >= PROGRESS_EVERY - 0.002, "%s: progress %.3f s apart" % (side, min(gaps)))
        check(len(times) <= 40, "%s: %d progress events" % (side, len(times)))


def case_loopback_sides_of_a_capture_and_a_bplus_session(z, work):
    # A capture ended by its silence and both directions of a B+ session
    # are whole files: result 0 and the file's own byte count on every side.
    f = make_file(work, "t.txt", 700, pattern=b"a line of text\n")
    for protocol, sides, extra in (("ascii", ("send", "receive"), ["--idle", "300"]),
                                   ("bplus", ("terminal",), [])):
        r = subprocess.run([z, "loopback", "--json", "-p", protocol] + extra + [f],
                           capture_output=True, timeout=100, env=ENV)
        events = events_of(r.stderr, protocol)
        for side in sides:
            ends = files_of([e for e in events if e.get("side") == side], side)
            check(ends and all(e["result"] == 0 and e["bytes"] == 700 for e in ends),
                  "%s %s: %r" % (protocol, side, ends))
        end = events[-1]
        check(r.returncode == 0 and (end["exit"], end["failed"]) == (0, 0) and end["files"] >= 1,
              "%s: exit %d, %r" % (protocol, r.returncode, end))


def case_messages_and_usage_errors(z, work):
    # Under --json every line after the arguments are read is JSON: a bad
    # name before the session is a message event (no session), and the
    # parser's own usage errors stay text with exit status 2.
    r = subprocess.run([z, "send", "--json", "-p", "zmodem", os.path.join(work, "nosuch")],
                       capture_output=True, env=ENV, timeout=30)
    lines = [json.loads(x) for x in r.stderr.decode().splitlines()]
    check(r.returncode == 1 and lines and all(x["event"] == "message" for x in lines) and
          "nosuch" in lines[0]["text"], "exit %d: %r" % (r.returncode, r.stderr))
    r = subprocess.run([z, "send", "--json", "-p", "nosuch", "x"], capture_output=True, env=ENV,
                       timeout=30)
    check(r.returncode == 2 and r.stderr.startswith(b"zvxfer: "), "usage error %r" % r.stderr)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-json-", lambda case, zvxfer, work: case(zvxfer, work)))
