// The far end's echo on the user's terminal: escaped like other line text
// but with line ends and tabs kept, and never a character cut in two
// between the pieces it is shown in.
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "echo_text.h"

namespace zvxfer::cli {
namespace {

using namespace std::string_view_literals;

struct Piece {
    const char *what;
    std::string_view bytes;
    std::string_view shown;
};

TEST(ShownEcho, KeepsLineEndsAndTabsAndEscapesTheRest) {
    const Piece cases[] = {
        {"typed line with its terminal echo", "hello world\r\n", "hello world\r\n"},
        {"tab inside", "a\tb", "a\tb"},
        {"bare CR and bare LF", "a\rb\nc", "a\rb\nc"},
        {"escape sequence around line ends", "\x1b[2J\r\n\x1b]0;t\x07",
         "\\x1b[2J\r\n\\x1b]0;t\\x07"},
        {"backspace and DEL", "ab\x08\x7f", "ab\\x08\\x7f"},
        {"NUL between line ends", "\r\0\n"sv, "\r\\x00\n"},
        {"backslash", "a\\b\r\n", "a\\\\b\r\n"},
        {"C1 control",
         "\xc2\x9b"
         "2J\n",
         "\\xc2\\x9b2J\n"},
        {"UTF-8 text", "caf\xc3\xa9\r\n", "caf\xc3\xa9\r\n"},
        {"only line ends", "\r\n\r\n", "\r\n\r\n"},
        {"empty", "", ""},
    };
    for (const Piece &c : cases) EXPECT_EQ(ShownEcho(std::string(c.bytes)), c.shown) << c.what;
}

// The echo arrives a byte at a time and is shown whenever the program
// looks; the pieces joined read as the whole echo shown at once.
TEST(EchoText, PiecesJoinedReadAsTheWholeEcho) {
    const std::string echo = "caf\xc3\xa9 \xe6\xbc\xa2 \xf0\x9f\x98\x80\r\n\x1b[K!";
    for (std::size_t every = 1; every <= 5; ++every) {
        EchoText text;
        std::string shown;
        for (std::size_t i = 0; i < echo.size(); ++i) {
            text.Add(static_cast<uint8_t>(echo[i]));
            if ((i + 1) % every == 0) shown += text.Take();
        }
        shown += text.Take(true);
        EXPECT_EQ(shown, ShownEcho(echo)) << "taken every " << every << " bytes";
        EXPECT_TRUE(text.Empty());
    }
}

TEST(EchoText, HoldsAnUnfinishedCharacterUntilItEndsOrTheEchoDoes) {
    struct Case {
        const char *what;
        std::vector<std::string_view> taken; // added, then taken, in turn
        std::vector<std::string_view> shown;
        std::string_view atEnd; // Take(true) after the last
    };
    const Case cases[] = {
        {"two-byte character split", {"ab\xc3", "\xa9"}, {"ab", "\xc3\xa9"}, ""},
        {"four-byte character in three pieces",
         {"\xf0\x9f", "\x98", "\x80z"},
         {"", "", "\xf0\x9f\x98\x80z"},
         ""},
        {"a complete character is not held", {"\xe6\xbc\xa2"}, {"\xe6\xbc\xa2"}, ""},
        {"the echo ends inside a character", {"x\xe6\xbc"}, {"x"}, "\\xe6\\xbc"},
        {"a stray continuation byte is not held", {"a\xa9"}, {"a\\xa9"}, ""},
        {"a lead byte that can start nothing", {"a\xff"}, {"a\\xff"}, ""},
        {"a broken sequence is shown escaped", {"\xc3", "A"}, {"", "\\xc3A"}, ""},
    };
    for (const Case &c : cases) {
        EchoText text;
        for (std::size_t i = 0; i < c.taken.size(); ++i) {
            for (char b : c.taken[i]) text.Add(static_cast<uint8_t>(b));
            EXPECT_EQ(text.Take(), c.shown[i]) << c.what << ", piece " << i;
        }
        EXPECT_EQ(text.Take(true), c.atEnd) << c.what;
    }
}

} // namespace
} // namespace zvxfer::cli
