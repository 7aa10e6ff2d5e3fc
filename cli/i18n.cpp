// Choosing the language of the program's words and of the library's
// catalogue from the environment, and the texts of result codes.
#include "i18n.h"

#include <array>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <unistd.h>

#include "zvxfer.h"

#ifndef ZVXFER_LOCALEDIR
#define ZVXFER_LOCALEDIR "/usr/local/share/locale"
#endif

namespace zvxfer::cli {

namespace {

constexpr const char *kTextDomain = "zvxfer";

// The languages this program has catalogues for; the library's catalogues
// cover the same ones, so both speak the same language.
constexpr std::array<std::string_view, 2> kTranslated{"de", "fr"};

std::string g_language; // "" = English

// "de_AT.UTF-8@euro" -> "de", lower-cased.
std::string LanguageOf(std::string_view name) {
    name = name.substr(0, name.find_first_of("_.@"));
    std::string language(name);
    for (char &c : language)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return language;
}

bool Translated(std::string_view language) {
    for (std::string_view known : kTranslated)
        if (known == language) return true;
    return false;
}

std::string_view Env(const char *name) {
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

// <folder of the executable>/../share/locale, the layout of both the build
// tree and an installation; the configured folder when that is missing.
std::string LocaleFolder() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        const std::filesystem::path folder = self.parent_path().parent_path() / "share" / "locale";
        if (std::filesystem::is_directory(folder, error)) return folder.string();
    }
    return ZVXFER_LOCALEDIR;
}

bool IsPlainC(const char *locale) {
    return locale == nullptr || std::string_view(locale) == "C" ||
           std::string_view(locale) == "POSIX";
}

// The UTF-8 form of "C" for one category; systems that lack it mostly have
// an English UTF-8 locale instead.
void UseUtf8(int category) {
    for (const char *name : {"C.UTF-8", "C.utf8", "en_US.UTF-8"})
        if (std::setlocale(category, name) != nullptr) return;
}

// Load the library's catalogue again with `language` as the user's
// language.  The library reads LC_ALL first, so it is set for the moment of
// loading and put back afterwards.
void ReloadLibraryCatalogue(const std::string &language) {
    const char *old = std::getenv("LC_ALL");
    const std::string saved = old != nullptr ? old : "";
    setenv("LC_ALL", language.empty() ? "en" : language.c_str(), 1);
    UnregisterXferDLL();
    RegisterXferDLL();
    if (old != nullptr)
        setenv("LC_ALL", saved.c_str(), 1);
    else
        unsetenv("LC_ALL");
}

} // namespace

std::string ChooseLanguage(const LanguageEnvironment &env) {
    std::string_view locale = !env.lcAll.empty()        ? env.lcAll
                              : !env.lcMessages.empty() ? env.lcMessages
                                                        : env.lang;
    if (locale == "C" || locale == "POSIX") return "";
    if (!env.language.empty()) {
        std::string_view list = env.language;
        while (!list.empty()) {
            const std::size_t colon = list.find(':');
            const std::string language = LanguageOf(list.substr(0, colon));
            if (language == "en") return "";
            if (Translated(language)) return language;
            list = colon == std::string_view::npos ? std::string_view{} : list.substr(colon + 1);
        }
        return "";
    }
    const std::string language = LanguageOf(locale);
    return Translated(language) ? language : "";
}

void SetUpLanguage() {
    // A locale that is not installed leaves every category "C"; the
    // messages language is then chosen below all the same.
    std::setlocale(LC_ALL, "");
    // Numbers are read and written the same way in every language.
    std::setlocale(LC_NUMERIC, "C");
    const LanguageEnvironment env{Env("LANGUAGE"), Env("LC_ALL"), Env("LC_MESSAGES"), Env("LANG")};
    g_language = ChooseLanguage(env);
    const bool languageListed = !env.language.empty(); // env's views end with setenv below
    if (g_language.empty()) {
        // gettext gives every text untranslated in the "C" messages locale.
        std::setlocale(LC_MESSAGES, "C");
    } else {
        // gettext honours LANGUAGE only outside the "C" messages locale, and
        // converts its texts to the character set of LC_CTYPE: the UTF-8
        // form of "C" keeps the translated words' letters intact.  The
        // chosen language alone is left in LANGUAGE, so that gettext cannot
        // pick another entry of the list than the one chosen here.
        if (IsPlainC(std::setlocale(LC_MESSAGES, nullptr))) UseUtf8(LC_MESSAGES);
        if (IsPlainC(std::setlocale(LC_CTYPE, nullptr))) UseUtf8(LC_CTYPE);
        setenv("LANGUAGE", g_language.c_str(), 1);
    }
    bindtextdomain(kTextDomain, LocaleFolder().c_str());
    textdomain(kTextDomain);
    // The library chose its catalogue from the locale variables when it was
    // loaded; LANGUAGE may have chosen differently here.
    if (languageListed) ReloadLibraryCatalogue(g_language);
}

const std::string &ChosenLanguage() {
    return g_language;
}

namespace {

struct ResultWords {
    int32_t code;
    int32_t message; // the library catalogue's message saying the same, or 0
    const char *english;
};

// The result codes the program may report, with their texts marked for
// translation.  The English texts are the library's own names of the codes
// (the program's tests hold this table against the header's).
constexpr std::array kResultWords{
    ResultWords{-601, 0, N_("Can't allocate xfer buffer")},
    ResultWords{-602, 28282, N_("Can't open xfer file")},
    ResultWords{-603, 0, N_("Can't send NAK, buffer full")},
    ResultWords{-604, 0, N_("Can't send ACK, buffer full")},
    ResultWords{-605, 28263, N_("User hit abort key")},
    ResultWords{-606, 28297, N_("Remote end sent abort code")},
    ResultWords{-607, 0, N_("Error during file I/O")},
    ResultWords{-608, 28280, N_("Timed out waiting for packet")},
    ResultWords{-609, 0, N_("Got an invalid packet size")},
    ResultWords{-610, 28289, N_("Too many errors to continue")},
    ResultWords{-611, 0, N_("Internal error")},
    ResultWords{-612, 0, N_("Can't send block, buffer full")},
    ResultWords{-613, 0, N_("Can't send EOT, buffer full")},
    ResultWords{-614, 0, N_("Protocol error")},
    ResultWords{-615, 0, N_("Can't send char, buffer full")},
    ResultWords{-616, 0, N_("Can't get character")},
    ResultWords{-617, 0, N_("Timeout waiting for characters")},
    ResultWords{-618, 0, N_("Lost carrier during transfer")},
    ResultWords{-619, 0, N_("No files were sent")},
    ResultWords{-620, 0, N_("Receiver should send ZSKIP")},
    ResultWords{-621, 0, N_("CompuServe B+ packet sequence err")},
    ResultWords{-622, 0, N_("CompuServe B+ packet arrived")},
    ResultWords{-623, 0, N_("File engine failed")},
    // The port-layer codes the library itself produces.
    ResultWords{-1, 0, N_("General error")},
    ResultWords{-7, 0, N_("Invalid parameter")},
    ResultWords{-8, 0, N_("Buffer empty")},
    ResultWords{-9, 0, N_("Buffer full")},
    ResultWords{-10, 0, N_("Time out")},
    ResultWords{-24, 0, N_("Function not supported")},
    ResultWords{-31, 0, N_("User buffer overflow")},
    ResultWords{-36, 0, N_("Blocked by handshaking")},
    // Any code without a name of its own.
    ResultWords{0, 0, N_("Unknown error code")},
};

} // namespace

std::string ResultText(int32_t code, const char *english) {
    if (g_language.empty()) return english;
    for (const ResultWords &words : kResultWords) {
        if (words.code != code || std::string_view(words.english) != english) continue;
        if (words.message != 0) {
            char text[256];
            if (ZvMessageText(words.message, text, sizeof text) > 0) return text;
        }
        break;
    }
    return gettext(english);
}

} // namespace zvxfer::cli
