#!/usr/bin/env python3
# The zvxfer(1) manual: it renders without a warning, and it keeps up with
# the program: every subcommand and every long option that the program's
# --help and each subcommand's --help list, every JSON event kind and field
# the event checks know, and every exit status the program uses.
#
# usage: manual_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import os
import re
import shutil
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))
from case_runner import Failure, check, run_cases  # noqa: E402

PAGE = os.path.join(HERE, "..", "..", "man", "zvxfer.1")
ENV = dict(os.environ, LC_ALL="C.UTF-8", LANGUAGE="", MANWIDTH="80")
SUBCOMMANDS = ["send", "receive", "loopback", "serve", "term"]


def rendered():
    # The page as a UTF-8 terminal shows it, without bold or underline.
    r = subprocess.run(["groff", "-man", "-Tutf8", "-P-c", "-P-b", "-P-u", PAGE],
                       capture_output=True, env=ENV, timeout=60)
    check(r.returncode == 0, "groff failed: %s" % r.stderr.decode(errors="replace"))
    return r.stdout.decode("utf-8")


def section(text, title):
    # The rendered section under a heading (headings start in column 0).
    m = re.search(r"^%s\n(.*?)(?=^[A-Z][A-Z ]+\n)" % re.escape(title), text, re.S | re.M)
    check(m, "no section %s in the manual" % title)
    return m.group(1)


def long_options(z, subcommand):
    argv = [z] + ([subcommand] if subcommand else []) + ["--help"]
    r = subprocess.run(argv, capture_output=True, env=dict(ENV, LC_ALL="C"), timeout=30)
    check(r.returncode == 0, "%s failed" % " ".join(argv))
    # Options stand at the start of a help line, short form first.
    found = set()
    for line in r.stdout.decode().splitlines():
        m = re.match(r"\s+(?:-\w,)?(--[a-z][a-z0-9-]*)", line)
        if m:
            found.add(m.group(1))
    check(len(found) >= 3, "%s lists no options: %r" % (" ".join(argv), r.stdout))
    return found


def case_renders_without_warnings(z, work):
    for device in ("utf8", "ascii"):
        r = subprocess.run(["groff", "-man", "-T" + device, "-ww", "-z", PAGE],
                           capture_output=True, env=ENV, timeout=60)
        check(r.returncode == 0 and not r.stderr,
              "groff -T%s warns: %s" % (device, r.stderr.decode(errors="replace")))
    if shutil.which("man"):
        r = subprocess.run(["man", "-l", "--warnings", PAGE], capture_output=True, env=ENV,
                           timeout=60)
        check(r.returncode == 0 and not r.stderr and b"zvxfer" in r.stdout,
              "man -l: exit %d: %s" % (r.returncode, r.stderr.decode(errors="replace")))
    # A line of the source starting with a quote is a request by mistake.
    with open(PAGE, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            check(not line.startswith("'"), "line %d starts with a quote" % number)


def case_every_option_of_every_help_is_in_the_manual(z, work):
    text = rendered()
    options_part = section(text, "OPTIONS")
    missing = []
    for subcommand in [None] + SUBCOMMANDS:
        for option in sorted(long_options(z, subcommand)):
            if not re.search(re.escape(option) + r"(?![a-z0-9-])", options_part):
                missing.append("%s %s" % (subcommand or "zvxfer", option))
    check(not missing, "options without a line in the manual's OPTIONS: %s" % ", ".join(missing))
    for subcommand in SUBCOMMANDS:
        check(re.search(r"^       %s\s" % subcommand, section(text, "SUBCOMMANDS"), re.M),
              "subcommand %s is not described" % subcommand)


def case_every_event_and_field_is_documented(z, work):
    import json_checks  # the event kinds and fields the event checks hold the program to
    events = section(rendered(), "JSON EVENTS")
    for kind, fields in json_checks.FIELDS.items():
        m = re.search(r"^       %s\n(.*?)(?=^       \S|\Z)" % kind, events, re.S | re.M) or \
            re.search(r"^       %s (.*?)(?=^       \S|\Z)" % kind, events, re.S | re.M)
        check(m, "event %s has no paragraph in JSON EVENTS" % kind)
        described = " ".join(m.group(1).split())
        for field in fields:
            check(re.search(r"\b%s\b" % field, described),
                  "field %s of %s is not described" % (field, kind))
    for field in ("event", "time", "side", "name_hex"):
        check(re.search(r"\b%s\b" % field, events), "field %s is not described" % field)


def case_exit_statuses_and_environment_are_documented(z, work):
    text = rendered()
    statuses = section(text, "EXIT STATUS")
    for status in ("0", "1", "2"):
        check(re.search(r"^       %s\s" % status, statuses, re.M), "exit status %s" % status)
    environment = section(text, "ENVIRONMENT")
    for name in ("LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG", "ZVXFER_DEBUG",
                 "ZVXFER_REGISTRY_DIR", "XDG_CONFIG_HOME"):
        check(re.search(r"\b%s\b" % name, environment), "%s is not in ENVIRONMENT" % name)
    examples = section(text, "EXAMPLES")
    for needle in ("picocom", "--send-cmd", "--receive-cmd", "minicom", "tmux",
                   "--line /dev/ttyUSB0 --baud 115200", "--tcp "):
        check(needle in examples, "no example with %s" % needle)


CASES = {name[5:]: fn for name, fn in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    sys.path.insert(0, HERE)
    sys.exit(run_cases(CASES, "zvxfer-manual-", lambda case, zvxfer, work: case(zvxfer, work)))
