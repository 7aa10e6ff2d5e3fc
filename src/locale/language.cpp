// Choosing the interface language of the message catalogue from the locale
// key's settings and the user's UI language, and naming and loading the
// localised catalogue.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "locale/locale.h"
#include "platform/registry.h"
#include "platform/uilang.h"

namespace zvxfer {

namespace {

constexpr std::size_t kValueSize = 260;
constexpr const char *kNoLanguage = "NOLANGUAGE";

struct LanguageCode {
    uint16_t primary;
    const char *code;
};

constexpr std::array kLanguageCodes{
    LanguageCode{0x09, "eng"}, LanguageCode{0x0C, "fra"}, LanguageCode{0x0A, "esp"},
    LanguageCode{0x07, "deu"}, LanguageCode{0x10, "ita"}, LanguageCode{0x11, "jpn"},
    LanguageCode{0x16, "prt"},
};

// Query one value under one root: 0, or the error of opening or reading.
int32_t ReadUnder(plat::RegRoot root, const char *keyPath, const char *valueName, char *buffer,
                  std::size_t size, bool &opened) {
    plat::RegKeyHandle key = nullptr;
    int32_t result = plat::RegOpenKey(root, keyPath, key);
    opened = result == plat::kErrorSuccess;
    if (!opened) return result;
    result = plat::RegQueryString(key, valueName, buffer, size);
    plat::RegCloseKey(key);
    return result;
}

// The first blank- or tab-separated word of `list` into `word`.
void FirstWord(const char *list, char *word, std::size_t size) {
    list += std::strspn(list, " \t");
    std::size_t length = std::min(std::strcspn(list, " \t"), size - 1);
    std::memcpy(word, list, length);
    word[length] = '\0';
}

int32_t LanguageSearchMethod(const char *keyPath) {
    char text[kValueSize] = "";
    if (ReadRegistryString(keyPath, "Language Search Method", text, sizeof text, 0) != 0) return 0;
    long method = std::strtol(text, nullptr, 10);
    return method == 1 ? 1 : 0;
}

// Write `code` with a leading dot into `out`, bounded by `size`.
void CopyDotted(const char *code, char *out, std::size_t size) {
    std::size_t at = 0;
    if (code[0] != '.' && size > 1) out[at++] = '.';
    std::size_t length = std::min(std::strlen(code), size - 1 - at);
    std::memcpy(out + at, code, length);
    out[at + length] = '\0';
}

} // namespace

int32_t ReadRegistryString(const char *keyPath, const char *valueName, char *buffer,
                           std::size_t size, uint32_t rootFlags) {
    using plat::RegRoot;
    std::array<RegRoot, 2> roots{RegRoot::CurrentUser, RegRoot::LocalMachine};
    std::size_t count = 2;
    if (rootFlags & kRegCurrentUserOnly) {
        count = 1;
    } else if (rootFlags & kRegLocalMachineOnly) {
        roots[0] = RegRoot::LocalMachine;
        count = 1;
    } else if (rootFlags & kRegLocalMachineFirst) {
        roots = {RegRoot::LocalMachine, RegRoot::CurrentUser};
    }
    int32_t result = plat::kErrorFileNotFound;
    for (std::size_t i = 0; i < count; ++i) {
        bool opened = false;
        result = ReadUnder(roots[i], keyPath, valueName, buffer, size, opened);
        if (opened) break; // only the first root that has the key is read
    }
    return result;
}

const char *LanguageCodeFromLangId(uint16_t langId) {
    for (const LanguageCode &entry : kLanguageCodes) {
        if (entry.primary == (langId & 0x3FF)) return entry.code;
    }
    return kNoLanguage;
}

int32_t GetUILanguageCode(const char *keyPath, char *out, std::size_t size) {
    if (out == nullptr || size == 0) return kErrorFunctionFailed;
    int32_t method = LanguageSearchMethod(keyPath);
    char wanted[kValueSize] = "";
    if (method == 1) {
        if (ReadRegistryString(keyPath, "Default UI Language", wanted, sizeof wanted, 0) != 0)
            wanted[0] = '\0';
    } else {
        std::strcpy(wanted, LanguageCodeFromLangId(plat::GetUserDefaultUILanguage()));
    }
    char available[kValueSize] = "";
    if (ReadRegistryString(keyPath, "Available UI Languages", available, sizeof available,
                           kRegLocalMachineFirst) != 0)
        available[0] = '\0';

    char answer[kValueSize] = "";
    char fallback[kValueSize] = "";
    if (wanted[0] != '\0' && std::strstr(available, wanted) != nullptr) {
        std::strcpy(answer, wanted);
    } else if (ReadRegistryString(keyPath, "Global Default UI Language", fallback, sizeof fallback,
                                  kRegLocalMachineOnly) == 0 &&
               fallback[0] != '\0' && std::strstr(available, fallback) != nullptr) {
        std::strcpy(answer, fallback);
    } else {
        FirstWord(available, answer, sizeof answer);
        if (answer[0] == '\0') return kErrorFunctionFailed;
    }
    CopyDotted(answer, out, size);
    return 0;
}

int32_t MakeLocalizedName(char *out, const char *name, const char *dottedCode, std::size_t size) {
    if (out == nullptr || name == nullptr || dottedCode == nullptr || size == 0)
        return kErrorFunctionFailed;
    char lower[kValueSize];
    std::size_t length = std::min(std::strlen(name), kValueSize - 1);
    for (std::size_t i = 0; i < length; ++i) {
        char c = name[i];
        lower[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    lower[length] = '\0';
    char *extension = std::strstr(lower, ".nls");
    if (extension == nullptr) return kErrorFunctionFailed;
    *extension = '\0';
    std::size_t stem = std::strlen(lower), code = std::strlen(dottedCode);
    // A name cut short would name another file: refuse it instead.
    if (stem + code + 4 >= size) return kErrorFunctionFailed;
    std::memcpy(out, lower, stem);
    std::memcpy(out + stem, dottedCode, code);
    std::memcpy(out + stem + code, ".nls", 5);
    return 0;
}

plat::ModuleHandle LoadLocalizedLibrary(const char *name) {
    char code[kValueSize];
    char localized[kValueSize];
    if (GetUILanguageCode(kLocaleKey, code, sizeof code) == 0 &&
        MakeLocalizedName(localized, name, code, sizeof localized) == 0) {
        if (plat::ModuleHandle module = plat::LoadModule(localized)) return module;
    }
    return plat::LoadModule(name);
}

} // namespace zvxfer
