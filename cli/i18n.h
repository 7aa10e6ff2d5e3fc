// The program's own words, translated through gettext (the program's text
// domain is set up once in main).  Mark every text a user reads:
//   _("text")        a translated plain string
//   F_("{} of {}")   a translated fmt format string (checked at run time)
//   P_("{} file", "{} files", n)  a translated fmt format string whose
//                    wording follows the count n
//   N_("text")       marked for translation, translated later with _()
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <libintl.h>
#include <string>
#include <string_view>

#define _(text) ::gettext(text)
#define N_(text) text
#define F_(text) ::fmt::runtime(::gettext(text))
#define P_(singular, plural, n) ::fmt::runtime(::ngettext(singular, plural, n))

namespace zvxfer::cli {

// The locale variables the language is chosen from.
struct LanguageEnvironment {
    std::string_view language;   // LANGUAGE: a ':'-separated list of choices
    std::string_view lcAll;      // LC_ALL
    std::string_view lcMessages; // LC_MESSAGES
    std::string_view lang;       // LANG
};

// The language of the program's words: "de", "fr", or "" for English.
// The locale is the first non-empty of LC_ALL, LC_MESSAGES and LANG; an
// explicit "C" or "POSIX" means English whatever LANGUAGE says (the plain,
// predictable output scripts ask for).  Otherwise the first entry of
// LANGUAGE that names English or a language with a catalogue decides; a
// LANGUAGE with no such entry gives English, and without LANGUAGE the
// locale's language decides.
std::string ChooseLanguage(const LanguageEnvironment &env);

// Set up the C locale, the program's text domain and the library's
// catalogue so that both speak the language ChooseLanguage picks from the
// process environment, also when the named locale is not installed.  Run
// once, first thing in main, before any other thread starts.
void SetUpLanguage();

// The language SetUpLanguage chose ("" for English, also before it ran).
const std::string &ChosenLanguage();

// The text of a result code: in English the library's own name for the
// code (`english`), otherwise the library catalogue's words for it where
// the catalogue has a message saying the same, else this program's
// translation of `english`.
std::string ResultText(int32_t code, const char *english);

} // namespace zvxfer::cli
