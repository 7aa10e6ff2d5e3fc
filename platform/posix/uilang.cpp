// The user's interface language: the first non-empty of LC_ALL, LC_MESSAGES
// and LANG, its ISO 639 code (and territory) mapped to a Windows language
// identifier: primary language in the low 10 bits, sublanguage above.
#include "platform/uilang.h"

#include <array>
#include <cstdlib>
#include <string_view>

namespace zvxfer::plat {

namespace {

constexpr uint16_t LangId(uint16_t primary, uint16_t sub) {
    return static_cast<uint16_t>((sub << 10) | primary);
}

constexpr uint16_t kEnglishUs = LangId(0x09, 1);
constexpr uint16_t kNeutral = 0x0000;

struct LanguageEntry {
    std::string_view iso;       // ISO 639-1 code
    std::string_view territory; // "" = any territory
    uint16_t langId;
};

// More specific rows (with a territory) come before the language's default.
constexpr std::array kLanguages{
    LanguageEntry{"en", "GB", LangId(0x09, 2)}, LanguageEntry{"en", "", kEnglishUs},
    LanguageEntry{"de", "CH", LangId(0x07, 2)}, LanguageEntry{"de", "AT", LangId(0x07, 3)},
    LanguageEntry{"de", "", LangId(0x07, 1)},   LanguageEntry{"fr", "BE", LangId(0x0C, 2)},
    LanguageEntry{"fr", "CA", LangId(0x0C, 3)}, LanguageEntry{"fr", "CH", LangId(0x0C, 4)},
    LanguageEntry{"fr", "", LangId(0x0C, 1)},   LanguageEntry{"es", "MX", LangId(0x0A, 2)},
    LanguageEntry{"es", "", LangId(0x0A, 3)},   LanguageEntry{"it", "CH", LangId(0x10, 2)},
    LanguageEntry{"it", "", LangId(0x10, 1)},   LanguageEntry{"ja", "", LangId(0x11, 1)},
    LanguageEntry{"pt", "PT", LangId(0x16, 2)}, LanguageEntry{"pt", "", LangId(0x16, 1)},
    LanguageEntry{"nl", "BE", LangId(0x13, 2)}, LanguageEntry{"nl", "", LangId(0x13, 1)},
    LanguageEntry{"sv", "", LangId(0x1D, 1)},   LanguageEntry{"da", "", LangId(0x06, 1)},
    LanguageEntry{"fi", "", LangId(0x0B, 1)},   LanguageEntry{"nb", "", LangId(0x14, 1)},
    LanguageEntry{"nn", "", LangId(0x14, 2)},   LanguageEntry{"no", "", LangId(0x14, 1)},
    LanguageEntry{"pl", "", LangId(0x15, 1)},   LanguageEntry{"ru", "", LangId(0x19, 1)},
    LanguageEntry{"cs", "", LangId(0x05, 1)},   LanguageEntry{"hu", "", LangId(0x0E, 1)},
    LanguageEntry{"tr", "", LangId(0x1F, 1)},   LanguageEntry{"zh", "TW", LangId(0x04, 1)},
    LanguageEntry{"zh", "HK", LangId(0x04, 3)}, LanguageEntry{"zh", "", LangId(0x04, 2)},
    LanguageEntry{"ko", "", LangId(0x12, 1)},   LanguageEntry{"el", "", LangId(0x08, 1)},
    LanguageEntry{"he", "", LangId(0x0D, 1)},   LanguageEntry{"is", "", LangId(0x0F, 1)},
    LanguageEntry{"ca", "", LangId(0x03, 1)},   LanguageEntry{"ar", "", LangId(0x01, 1)},
    LanguageEntry{"bg", "", LangId(0x02, 1)},   LanguageEntry{"ro", "", LangId(0x18, 1)},
    LanguageEntry{"hr", "", LangId(0x1A, 1)},   LanguageEntry{"sk", "", LangId(0x1B, 1)},
    LanguageEntry{"uk", "", LangId(0x22, 1)},   LanguageEntry{"sl", "", LangId(0x24, 1)},
    LanguageEntry{"et", "", LangId(0x25, 1)},   LanguageEntry{"lv", "", LangId(0x26, 1)},
    LanguageEntry{"lt", "", LangId(0x27, 1)},
};

// "de_AT.UTF-8@euro" -> language "de", territory "AT".
void SplitLocale(std::string_view name, std::string_view &language, std::string_view &territory) {
    auto end = name.find_first_of(".@");
    name = name.substr(0, end);
    auto underscore = name.find('_');
    language = name.substr(0, underscore);
    territory = underscore == std::string_view::npos ? "" : name.substr(underscore + 1);
}

bool SameLower(std::string_view mixed, std::string_view lower) {
    if (mixed.size() != lower.size()) return false;
    for (std::size_t i = 0; i < mixed.size(); ++i) {
        char c = mixed[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        if (c != lower[i]) return false;
    }
    return true;
}

} // namespace

uint16_t GetUserDefaultUILanguage() {
    const char *name = nullptr;
    for (const char *variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char *value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            name = value;
            break;
        }
    }
    if (name == nullptr) return kEnglishUs;
    std::string_view language, territory;
    SplitLocale(name, language, territory);
    if (language.empty() || language == "C" || language == "POSIX") return kEnglishUs;
    for (const LanguageEntry &entry : kLanguages) {
        if (SameLower(language, entry.iso) &&
            (entry.territory.empty() || entry.territory == territory))
            return entry.langId;
    }
    return kNeutral;
}

} // namespace zvxfer::plat
