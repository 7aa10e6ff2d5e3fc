// The language of the program's words chosen from the environment, and
// result codes read in that language.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

#include "i18n.h"
#include "zvxfer.h"

namespace zvxfer::cli {
namespace {

struct Choice {
    const char *what;
    LanguageEnvironment env; // LANGUAGE, LC_ALL, LC_MESSAGES, LANG
    const char *chosen;
};

TEST(ChooseLanguage, FollowsLanguageThenTheLocaleVariables) {
    const Choice cases[] = {
        {"nothing set", {"", "", "", ""}, ""},
        {"LANG with territory and charset", {"", "", "", "de_DE.UTF-8"}, "de"},
        {"LANG with modifier", {"", "", "", "fr_BE@euro"}, "fr"},
        {"capital language code", {"", "", "", "DE_at"}, "de"},
        {"no catalogue for the language", {"", "", "", "nl_NL.UTF-8"}, ""},
        {"English locale", {"", "", "", "en_GB.UTF-8"}, ""},
        {"LC_MESSAGES before LANG", {"", "", "fr_FR.UTF-8", "de_DE.UTF-8"}, "fr"},
        {"LC_ALL before LC_MESSAGES", {"", "de_CH.UTF-8", "fr_FR.UTF-8", ""}, "de"},
        {"LANGUAGE before the locale", {"fr", "", "", "de_DE.UTF-8"}, "fr"},
        {"LANGUAGE alone", {"de", "", "", ""}, "de"},
        {"LANGUAGE with a C.UTF-8 locale", {"fr_CA", "", "", "C.UTF-8"}, "fr"},
        {"first entry without a catalogue skipped", {"es:it:fr:de", "", "", "de_DE"}, "fr"},
        {"English in LANGUAGE stops the search", {"en_US:de", "", "", "fr_FR"}, ""},
        {"LANGUAGE naming nothing known", {"es:pt", "", "", "de_DE.UTF-8"}, ""},
        {"empty entries skipped", {"::de", "", "", ""}, "de"},
        {"LANG=C", {"", "", "", "C"}, ""},
        {"explicit C ignores LANGUAGE", {"fr", "", "", "C"}, ""},
        {"explicit POSIX ignores LANGUAGE", {"de", "POSIX", "", "fr_FR"}, ""},
        {"C in LANG, German in LC_ALL", {"fr", "de_DE", "", "C"}, "fr"},
    };
    for (const Choice &c : cases) EXPECT_EQ(ChooseLanguage(c.env), c.chosen) << c.what;
}

// Every code the program may report, with the library's text for it.
struct Code {
    int32_t code;
    const char *english;
};

std::vector<Code> ReportedCodes() {
    std::vector<Code> codes;
#define ZVXFER_TEST_CODE(value, name, text) codes.push_back({value, text});
    XFER_RESULT_MAP(ZVXFER_TEST_CODE)
#undef ZVXFER_TEST_CODE
    for (int32_t port : {-1, -7, -8, -9, -10, -24, -31, -36}) {
#define ZVXFER_TEST_CODE(value, name, text)                                                        \
    if (port == (value)) codes.push_back({value, text});
        PORT_RESULT_MAP(ZVXFER_TEST_CODE)
#undef ZVXFER_TEST_CODE
    }
    return codes;
}

// The program's set-up in a language, as main does it (each test runs in a
// process of its own).
void SetUpIn(const char *language) {
    unsetenv("LC_ALL");
    unsetenv("LC_MESSAGES");
    setenv("LANG", "C.UTF-8", 1);
    setenv("LANGUAGE", language, 1);
    SetUpLanguage();
}

TEST(ResultText, EnglishIsTheLibrarysOwnName) {
    SetUpIn("en");
    EXPECT_EQ(ChosenLanguage(), "");
    for (const Code &c : ReportedCodes()) EXPECT_EQ(ResultText(c.code, c.english), c.english);
}

TEST(ResultText, GermanComesFromTheLibrarysCatalogueOrTheProgramsOwn) {
    SetUpIn("de");
    ASSERT_EQ(ChosenLanguage(), "de");
    // The library's catalogue was loaded again in German: its words for a
    // cancelled transfer and for the far end's cancel.
    char cancelled[256], remote[256];
    ASSERT_GT(ZvMessageText(28263, cancelled, sizeof cancelled), 0);
    ASSERT_GT(ZvMessageText(28297, remote, sizeof remote), 0);
    EXPECT_EQ(std::string(cancelled), "Übertragung abgebrochen");
    EXPECT_EQ(ResultText(XferErrUserAbort, "User hit abort key"), cancelled);
    EXPECT_EQ(ResultText(XferErrRemoteAbort, "Remote end sent abort code"), remote);
    // Every other code has a translation of its own: none stays English.
    for (const Code &c : ReportedCodes()) {
        const std::string text = ResultText(c.code, c.english);
        EXPECT_FALSE(text.empty()) << c.code;
        EXPECT_NE(text, c.english) << c.code << " is not translated";
    }
    EXPECT_EQ(ResultText(-9999, "Unknown error code"), "Unbekannter Fehlercode");
}

TEST(ResultText, FrenchWhenLanguageSaysSoOverAGermanLang) {
    unsetenv("LC_ALL");
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("LANGUAGE", "fr", 1);
    SetUpLanguage();
    EXPECT_EQ(ChosenLanguage(), "fr");
    EXPECT_EQ(ResultText(XferErrPacketTimeout, "Timed out waiting for packet"),
              "Aucun bloc reçu dans le délai");
    EXPECT_EQ(std::string(_("Buffer full")), "Tampon plein");
    // The library's LC_ALL was only borrowed for loading its catalogue.
    EXPECT_EQ(std::getenv("LC_ALL"), nullptr);
}

} // namespace
} // namespace zvxfer::cli
