// The shipped catalogues: every message the library uses has a text in
// every language, and each text's conversions are exactly those its users
// pass (a translation that differs would make the formatter read the wrong
// arguments).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "locale/message_args.h"
#include "locale_test_env.h"

namespace zvxfer {
namespace {

TEST(MessageConversions, Notation) {
    struct Case {
        const char *format;
        const char *conversions;
    } cases[] = {
        {"plain text", ""},      {"100%% done", ""},     {"name %s", "s"},
        {"block %5.3ld!", "ld"}, {"%-3d and %+d", "dd"}, {"%lld %hhx %zu", "lldhhxzu"},
        {"%c%%%s", "cs"},        {"width %*d", "?"},     {"%1$s", "?"},
        {"count %n", "?"},       {"ends with %", "?"},   {"%y", "?"},
    };
    for (const Case &c : cases) EXPECT_EQ(FormatConversions(c.format), c.conversions) << c.format;
    EXPECT_TRUE(TextFitsArguments(28285, "block %ld"));
    EXPECT_FALSE(TextFitsArguments(28285, "block %d"));
    EXPECT_FALSE(TextFitsArguments(28288, "%d"));
    EXPECT_TRUE(TextFitsArguments(1, "no conversions"));
    EXPECT_FALSE(TextFitsArguments(1, "%s"));
}

bool ValidUtf8(const std::string &text) {
    for (std::size_t i = 0; i < text.size();) {
        unsigned char c = text[i];
        std::size_t extra = c < 0x80         ? 0
                            : (c >> 5) == 6  ? 1
                            : (c >> 4) == 14 ? 2
                            : (c >> 3) == 30 ? 3
                                             : 9;
        if (extra == 9 || i + extra >= text.size()) return false;
        for (std::size_t k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        i += extra + 1;
    }
    return true;
}

// number -> text of one catalogue file; duplicates and malformed lines fail.
std::map<int32_t, std::string> ReadCatalogue(const std::filesystem::path &file) {
    std::map<int32_t, std::string> texts;
    std::ifstream in(file);
    std::string line;
    int lineNumber = 0;
    while (std::getline(in, line)) {
        ++lineNumber;
        if (line.empty() || line[0] == '#') continue;
        auto tab = line.find('\t');
        EXPECT_NE(tab, std::string::npos) << file << ":" << lineNumber;
        if (tab == std::string::npos) continue;
        int32_t number = std::stoi(line.substr(0, tab));
        EXPECT_TRUE(texts.emplace(number, line.substr(tab + 1)).second)
            << file << ":" << lineNumber << " repeats " << number;
    }
    return texts;
}

TEST(Catalogues, EveryLanguageHasEveryMessageWithItsArguments) {
    std::filesystem::path folder = test::CatalogueFolder();
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".nls") names.insert(entry.path().filename().string());
    for (const char *required :
         {"zvui32.nls", "zvui32.eng.nls", "zvui32.deu.nls", "zvui32.fra.nls"})
        EXPECT_TRUE(names.count(required)) << required << " missing in " << folder;

    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        auto texts = ReadCatalogue(folder / name);
        for (const MessageArguments &message : kMessageArguments) {
            auto it = texts.find(message.number);
            if (it == texts.end()) {
                ADD_FAILURE() << "no text for " << message.number;
                continue;
            }
            const std::string &text = it->second;
            EXPECT_EQ(FormatConversions(text), message.conversions)
                << message.number << ": " << text;
            EXPECT_FALSE(text.empty()) << message.number;
            EXPECT_LE(text.size(), 255u) << message.number;
            EXPECT_TRUE(ValidUtf8(text)) << message.number;
        }
        for (const auto &[number, text] : texts)
            EXPECT_NE(ExpectedConversions(number), nullptr) << "unused number " << number;
    }
    // The unlocalised catalogue is the English one.
    EXPECT_EQ(ReadCatalogue(folder / "zvui32.nls"), ReadCatalogue(folder / "zvui32.eng.nls"));
}

} // namespace
} // namespace zvxfer
