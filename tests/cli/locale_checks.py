#!/usr/bin/env python3
# The zvxfer program in the user's language: German and French sessions show
# the program's own summary, its errors and the result texts in that
# language (also when the named locale is not installed on the machine),
# LANGUAGE wins over LANG, a "C" locale gives English, an installation finds
# its catalogues beside itself, and the catalogue check finds the faults a
# translation can have.
#
# usage: locale_checks.py ZVXFER CASE      (CASE "list" prints the case names)
import glob
import os
import shutil
import subprocess
import sys
import tempfile
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from case_runner import Failure, check, make_file, run_cases  # noqa: E402

SOURCE = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
CAN = b"\x18"

# What each language must say; the result text of -606 is the library
# catalogue's own message for a transfer the far end cancelled.
WORDS = {
    "de": {"summary": "2 von 2 Übertragungen in {} geprüft",
           "verdict": "ok             Download f.bin  3000 Bytes",
           "usage": "zvxfer serve: mindestens ein --download oder --upload angeben",
           "cancelled": "-606 Übertragung von der Gegenseite abgebrochen"},
    "fr": {"summary": "2 transferts sur 2 vérifiés dans {}",
           "verdict": "ok        téléchargement f.bin  3000 octets",
           "usage": "zvxfer serve: donnez au moins un --download ou --upload",
           "cancelled": "-606 Transfert annulé par le correspondant"},
    "en": {"summary": "2 of 2 transfers verified in {}",
           "verdict": "ok      download f.bin  3000 bytes",
           "usage": "zvxfer serve: give at least one --download or --upload",
           "cancelled": "-606 Remote end sent abort code"},
}


def environment(**settings):
    # The process environment with no locale variable but those given.
    env = {k: v for k, v in os.environ.items()
           if k not in ("LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG", "LC_CTYPE")}
    env.update(settings)
    return env


def run(argv, env, stdin=subprocess.DEVNULL, timeout=60):
    try:
        r = subprocess.run(argv, stdin=stdin, capture_output=True, timeout=timeout, env=env)
    except subprocess.TimeoutExpired:
        raise Failure("%s did not end within %d s" % (" ".join(argv), timeout))
    return r.returncode, r.stderr.decode("utf-8", errors="replace")


def cancelled_receive(z, work, env):
    # An XMODEM receive whose sender cancels at once: the result code's text.
    cancel = os.path.join(work, "cancel")
    with open(cancel, "wb") as f:
        f.write(CAN * 8)
    with open(cancel, "rb") as line:
        status, err = run([z, "receive", "-p", "xmodem", os.path.join(work, "x.bin")], env, line)
    check(status == 1, "a cancelled receive exits %d\n%s" % (status, err))
    return err


def speaks(z, work, lang, env):
    # A B+ loopback's summary, a usage error and a result text, all in `lang`.
    words = WORDS[lang]
    f = make_file(work, "f.bin", 3000, 7)
    folder = tempfile.mkdtemp(prefix="copies-%s-" % lang, dir=work)
    status, err = run([z, "loopback", "-p", "bplus", "-d", folder, f], env)
    check(status == 0, "the loopback exits %d\n%s" % (status, err))
    check(words["summary"].format(folder) in err and words["verdict"] in err,
          "%s: the summary is not in that language:\n%s" % (lang, err))
    status, err = run([z, "serve", "-p", "bplus"], env)
    check(status == 2 and words["usage"] in err,
          "%s: the usage error (exit %d) is not in that language:\n%s" % (lang, status, err))
    err = cancelled_receive(z, work, env)
    check(words["cancelled"] in err, "%s: the result text is not in that language:\n%s"
          % (lang, err))


def case_german_locale_even_when_not_installed(z, work):
    # de_DE is named whether or not the machine has it: German either way.
    speaks(z, work, "de", environment(LANG="de_DE.UTF-8"))
    speaks(z, work, "de", environment(LC_ALL="de_AT.UTF-8", LANG="fr_FR.UTF-8"))


def case_french_locale(z, work):
    speaks(z, work, "fr", environment(LC_MESSAGES="fr_FR.UTF-8", LANG="en_US.UTF-8"))


def case_language_variable_wins(z, work):
    # LANGUAGE over LANG, for the program's words and the library's alike.
    speaks(z, work, "fr", environment(LANGUAGE="fr", LANG="de_DE.UTF-8"))
    speaks(z, work, "de", environment(LANGUAGE="de"))
    speaks(z, work, "de", environment(LANGUAGE="es:de:fr", LANG="C.UTF-8"))
    speaks(z, work, "en", environment(LANGUAGE="en:fr", LANG="de_DE.UTF-8"))


def case_c_locale_is_english(z, work):
    speaks(z, work, "en", environment(LANG="C"))
    speaks(z, work, "en", environment(LANG="C", LANGUAGE="fr"))
    speaks(z, work, "en", environment(LC_ALL="POSIX", LANG="de_DE.UTF-8", LANGUAGE="de"))
    speaks(z, work, "en", environment(LANG="nl_NL.UTF-8"))


def case_installed_program_finds_its_catalogues(z, work):
    # An installation's program reads <prefix>/share/locale; without it the
    # words are English (so the build tree's catalogues were not used).
    build = os.path.dirname(os.path.dirname(z))
    cmake = shutil.which("cmake")
    check(cmake is not None, "cmake is needed to install the build")
    prefix = os.path.join(work, "prefix")
    r = subprocess.run([cmake, "--install", build, "--prefix", prefix], capture_output=True)
    check(r.returncode == 0, "installing failed:\n%s" % r.stderr.decode(errors="replace"))
    for lang in ("de", "fr"):
        mo = os.path.join(prefix, "share", "locale", lang, "LC_MESSAGES", "zvxfer.mo")
        check(os.path.isfile(mo), "%s was not installed" % mo)
    installed = os.path.join(prefix, "bin", "zvxfer")
    libs = sorted(set(os.path.dirname(p) for p in glob.glob(os.path.join(prefix, "**", "libzvxfer.so*"),
                                                           recursive=True)))
    env = environment(LANG="de_DE.UTF-8", LD_LIBRARY_PATH=":".join(libs))
    status, err = run([installed, "serve", "-p", "bplus"], env)
    check(status == 2 and WORDS["de"]["usage"] in err, "the installed program:\n%s" % err)
    err = cancelled_receive(installed, work, env)
    check(WORDS["de"]["cancelled"] in err, "the installed program's result text:\n%s" % err)
    shutil.rmtree(os.path.join(prefix, "share", "locale"))
    status, err = run([installed, "serve", "-p", "bplus"], env)
    check(status == 2 and WORDS["en"]["usage"] in err,
          "without its catalogues the installed program still says:\n%s" % err)


# --- the catalogue check ---------------------------------------------------

TEMPLATE = '''msgid ""
msgstr ""
"Content-Type: text/plain; charset=UTF-8\\n"

msgid "plain"
msgstr ""

msgid "{} of {} at {:.1f} s"
msgstr ""

msgid "{} file"
msgid_plural "{} files"
msgstr[0] ""
msgstr[1] ""

msgid "braces {{}} and {}"
msgstr ""
'''

GOOD = {
    "plain": 'msgstr "schlicht"',
    "{} of {} at {:.1f} s": 'msgstr "{} von {} nach {:.1f} s"',
    "{} file": 'msgstr[0] "{} Datei"\nmsgstr[1] "{} Dateien"',
    "braces {{}} and {}": 'msgstr "Klammern {{}} und {}"',
}

# Each fault, planted into an otherwise good catalogue, and the words the
# check must report it with.
FAULTS = [
    ("a text missing", "plain", None, "lacks 'plain'"),
    ("a text untranslated", "plain", 'msgstr ""', "does not translate 'plain'"),
    ("a fuzzy translation", "plain", "#, fuzzy", "(fuzzy)"),
    ("a placeholder lost", "{} of {} at {:.1f} s", 'msgstr "{} von {} nach"', "placeholders"),
    ("placeholders swapped", "{} of {} at {:.1f} s", 'msgstr "{:.1f} s: {} von {}"',
     "placeholders"),
    ("a brace left open", "braces {{}} and {}", 'msgstr "Klammern {{} und {}"', "placeholders"),
    ("a plural form empty", "{} file", 'msgstr[0] "{} Datei"\nmsgstr[1] ""',
     "does not translate '{} file'"),
    ("a plural form without its number", "{} file", 'msgstr[0] "{} Datei"\nmsgstr[1] "Dateien"',
     "placeholders"),
]


def catalogue(faulty=None, how=None):
    text = 'msgid ""\nmsgstr ""\n"Content-Type: text/plain; charset=UTF-8\\n"\n' \
           '"Plural-Forms: nplurals=2; plural=(n != 1);\\n"\n\n'
    for msgid, translation in GOOD.items():
        entry_id = 'msgid "%s"' % msgid
        if msgid == "{} file":
            entry_id += '\nmsgid_plural "{} files"'
        if msgid == faulty:
            if how is None:
                continue
            if how.startswith("#"):
                text += "%s\n%s\n%s\n\n" % (how, entry_id, translation)
                continue
            translation = how
        text += "%s\n%s\n\n" % (entry_id, translation)
    return text


def case_catalogue_check_finds_faults(z, work):
    checker = os.path.join(SOURCE, "scripts", "po_check.py")

    def verdict(po_text):
        folder = os.path.join(work, "po")
        shutil.rmtree(folder, ignore_errors=True)
        os.mkdir(folder)
        with open(os.path.join(folder, "zvxfer.pot"), "w", encoding="utf-8") as f:
            f.write(TEMPLATE)
        with open(os.path.join(folder, "de.po"), "w", encoding="utf-8") as f:
            f.write(po_text)
        r = subprocess.run([sys.executable, checker, folder], capture_output=True)
        return r.returncode, r.stdout.decode(errors="replace")

    status, out = verdict(catalogue())
    check(status == 0, "a good catalogue is refused:\n%s" % out)
    for what, msgid, how, words in FAULTS:
        status, out = verdict(catalogue(msgid, how))
        check(status == 1 and words in out, "%s is not reported:\n%s" % (what, out))


CASES = {name[5:]: f for name, f in sorted(globals().items()) if name.startswith("case_")}

if __name__ == "__main__":
    sys.exit(run_cases(CASES, "zvxfer-locale-", lambda case, zvxfer, work: case(zvxfer, work)))
