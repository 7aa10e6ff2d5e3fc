// Line text on the user's terminal: what is escaped, what is kept, and how
// escaped text is cut to a width.
#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "shown_text.h"

namespace zvxfer::cli {
namespace {

using namespace std::string_view_literals;

struct Escaping {
    const char *what;
    std::string_view line;
    std::string_view shown;
};

TEST(ShownText, EscapesWhatATerminalWouldActOnAndKeepsText) {
    const Escaping cases[] = {
        {"plain name", "report-2024.txt", "report-2024.txt"},
        {"CSI clear screen", "a\x1b[2Jb", "a\\x1b[2Jb"},
        {"OSC title change ended by BEL", "\x1b]0;owned\x07x", "\\x1b]0;owned\\x07x"},
        {"CR, LF, TAB, DEL", "a\r\n\tb\x7f", "a\\x0d\\x0a\\x09b\\x7f"},
        {"NUL inside", "a\0b"sv, "a\\x00b"},
        {"raw C1 CSI byte",
         "\x9b"
         "31m",
         "\\x9b31m"},
        {"C1 CSI encoded as UTF-8",
         "\xc2\x9b"
         "0m",
         "\\xc2\\x9b0m"},
        {"first code point after C1 kept", "\xc2\xa0", "\xc2\xa0"},
        {"accents kept", "caf\xc3\xa9", "caf\xc3\xa9"},
        {"CJK kept", "\xe6\xbc\xa2\xe5\xad\x97.txt", "\xe6\xbc\xa2\xe5\xad\x97.txt"},
        {"four-byte character kept", "\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
        {"lead byte without continuation", "\xc3(", "\\xc3("},
        {"sequence cut at the end", "ab\xe6\xbc", "ab\\xe6\\xbc"},
        {"stray continuation byte", "\xa9", "\\xa9"},
        {"overlong slash", "\xc0\xaf", "\\xc0\\xaf"},
        {"overlong three-byte form", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
        {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"past U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"0xFF", "\xff", "\\xff"},
        {"a bad byte before a good character", "\xe6\xc3\xa9", "\\xe6\xc3\xa9"},
        {"backslash doubled", "a\\b", "a\\\\b"},
        {"text that looks like an escape", "\\x41", "\\\\x41"},
    };
    for (const Escaping &c : cases) EXPECT_EQ(ShownText(c.line), c.shown) << c.what;
}

struct Cut {
    const char *what;
    std::string_view shown;
    std::size_t columns;
    std::string_view cut;
};

TEST(ShownText, CutsOnCharacterAndEscapeBoundaries) {
    const Cut cases[] = {
        {"ASCII", "abcdef", 3, "abc"},
        {"fits whole", "abc", 10, "abc"},
        {"nothing", "abc", 0, ""},
        {"two-byte character counts one", "\xc3\xa9t\xc3\xa9", 2, "\xc3\xa9t"},
        {"CJK counts one each", "\xe6\xbc\xa2\xe5\xad\x97x", 1, "\xe6\xbc\xa2"},
        {"four-byte character",
         "\xf0\x9f\x98\x80"
         "ab",
         2,
         "\xf0\x9f\x98\x80"
         "a"},
        {"escape that does not fit is left out", "ab\\x1bcd", 5, "ab"},
        {"escape that fits", "ab\\x1bcd", 6, "ab\\x1b"},
        {"after the escape", "ab\\x1bcd", 7, "ab\\x1bc"},
        {"doubled backslash not split", "a\\\\b", 2, "a"},
        {"doubled backslash whole", "a\\\\b", 3, "a\\\\"},
    };
    for (const Cut &c : cases) EXPECT_EQ(CutShown(c.shown, c.columns), c.cut) << c.what;
}

TEST(ShownText, ColumnsCountCharactersAndWholeEscapes) {
    EXPECT_EQ(ShownColumns(ShownText("\x1b[2J")), 7U); // \x1b [ 2 J
    EXPECT_EQ(ShownColumns(ShownText("\xe6\xbc\xa2\xe5\xad\x97")), 2U);
    EXPECT_EQ(ShownColumns(ShownText("a\\b")), 4U);
    EXPECT_EQ(ShownColumns(ShownText("\xc3")), 4U);
}

} // namespace
} // namespace zvxfer::cli
