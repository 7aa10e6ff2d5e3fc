// The keys of a terminal session (escape key, menu, answers on the bottom
// line) and the bytes that draw there without moving the remote's cursor.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "progress.h"
#include "term_menu.h"
#include "term_screen.h"

namespace zvxfer::cli {
namespace {

TEST(EscapeKey, CaretFormsAndControlBytesOnly) {
    const struct {
        const char *text;
        int key; // -1: refused
    } cases[] = {
        {"^]", 0x1d}, {"^A", 0x01},   {"^a", 0x01},   {"^z", 0x1a}, {"^@", 0x00}, {"^_", 0x1f},
        {"^?", 0x7f}, {"\x1d", 0x1d}, {"\x7f", 0x7f}, {"a", -1},    {"^1", -1},   {"^", -1},
        {"^]x", -1},  {"", -1},       {"]", -1},      {"^ ", -1},   {"^`", -1},
    };
    for (const auto &c : cases) {
        const std::optional<uint8_t> key = ParseEscapeKey(c.text);
        EXPECT_EQ(key ? *key : -1, c.key) << c.text;
    }
    // Every control key's name reads back as the same key.
    for (int key = 0; key < 0x20; ++key)
        EXPECT_EQ(ParseEscapeKey(EscapeKeyName(static_cast<uint8_t>(key))), key) << key;
    EXPECT_EQ(EscapeKeyName(0x7f), "^?");
    EXPECT_EQ(EscapeKeyName(0x1d), "^]");
}

// The events of typed chunks as text: L(line bytes) M (menu) C(item)
// E(answer so far) A(answer) X (cancelled).  A choice of send, receive or
// capture asks a question, as the session does; an answer "again" asks
// another one.
std::string Events(const std::vector<std::string> &chunks, uint8_t escape = 0x1d) {
    TermKeys keys(escape);
    std::string out;
    static const char *const names[] = {"quit",    "capture", "break", "send",
                                        "receive", "upload",  "close"};
    for (const std::string &chunk : chunks)
        keys.Feed(chunk, [&](const KeyEvent &e) {
            if (!out.empty()) out += ' ';
            switch (e.kind) {
            case KeyEvent::ToLine:
                out += "L(" + e.bytes + ")";
                break;
            case KeyEvent::OpenMenu:
                out += "M";
                break;
            case KeyEvent::Choose:
                out += std::string("C(") + names[static_cast<int>(e.item)] + ")";
                if (e.item == MenuItem::Send || e.item == MenuItem::Receive ||
                    e.item == MenuItem::Capture)
                    keys.Ask();
                break;
            case KeyEvent::Edit:
                out += "E(" + e.bytes + ")";
                break;
            case KeyEvent::Answer:
                out += "A(" + e.bytes + ")";
                if (e.bytes == "again") keys.Ask("x");
                break;
            case KeyEvent::Cancel:
                out += "X";
                break;
            }
        });
    return out;
}

TEST(TermKeys, TypedBytesMenuChoicesAndAnswers) {
    const struct {
        const char *what;
        std::vector<std::string> chunks;
        const char *events;
    } cases[] = {
        {"plain typing is one run", {"ls -l\r"}, "L(ls -l\r)"},
        {"bytes before the key go first", {"ab\x1d"}, "L(ab) M"},
        {"pressed twice the key is sent once",
         {"ab\x1d\x1d"
          "cd"},
         "L(ab) M C(close) L(\x1d"
         "cd)"},
        {"twice across two reads", {"\x1d", "\x1d"}, "M C(close) L(\x1d)"},
        {"menu keys", {"\x1dq"}, "M C(quit)"},
        {"menu keys in capitals",
         {"\x1d"
          "B"},
         "M C(break)"},
        {"another key closes the menu and is dropped", {"\x1dz rest"}, "M C(close) L( rest)"},
        {"an answer with a correction",
         {"\x1dsab\x7f"
          "c\r tail"},
         "M C(send) E(a) E(ab) E(a) E(ac) A(ac) L( tail)"},
        {"backspace as ^H too", {"\x1dsa\x08\r"}, "M C(send) E(a) E() A()"},
        {"Ctrl-C cancels, typing goes on",
         {"\x1dsab\x03"
          "x"},
         "M C(send) E(a) E(ab) X L(x)"},
        {"Esc cancels", {"\x1dra\x1b"}, "M C(receive) E(a) X"},
        {"the escape key cancels",
         {"\x1d"
          "ca\x1d"},
         "M C(capture) E(a) X"},
        {"Ctrl-U clears",
         {"\x1dsab\x15"
          "c\n"},
         "M C(send) E(a) E(ab) E() E(c) A(c)"},
        {"a UTF-8 character is erased whole",
         {"\x1ds\xc3\xa4\x7f"
          "\r"},
         "M C(send) E(\xc3) E(\xc3\xa4"
         ") E() A()"},
        {"other controls are not taken", {"\x1ds\ta\x01\r"}, "M C(send) E(a) A(a)"},
        {"an answer split over reads", {"\x1ds", "a", "b\r"}, "M C(send) E(a) E(ab) A(ab)"},
        {"a second question takes the next bytes",
         {"\x1ds"
          "again\ry\r"},
         "M C(send) E(a) E(ag) E(aga) E(agai) E(again) A(again) E(xy) A(xy)"},
    };
    for (const auto &c : cases) EXPECT_EQ(Events(c.chunks), c.events) << c.what;
    EXPECT_EQ(Events({"a\x01\x01q"}, 0x01), "L(a) M C(close) L(\x01q)") << "another escape key";
    EXPECT_EQ(Events({"\x1d"}, 0x01), "L(\x1d)") << "^] is plain with another key";
}

TEST(TermKeys, AnswerLengthIsBounded) {
    TermKeys keys(0x1d);
    std::string answer;
    keys.Ask();
    keys.Feed(std::string(TermKeys::kAnswerMax + 50, 'n') + "\r", [&](const KeyEvent &e) {
        if (e.kind == KeyEvent::Answer) answer = e.bytes;
    });
    EXPECT_EQ(answer.size(), TermKeys::kAnswerMax);
}

TEST(BottomLine, CursorSavedOnceAndPutBack) {
    const std::string shown = BottomLineBytes("hello", 30);
    EXPECT_EQ(shown.rfind("\0337", 0), 0u) << "cursor saved first";
    EXPECT_TRUE(shown.ends_with("\0338")) << "cursor put back last";
    EXPECT_NE(shown.find("\033[30;1H"), std::string::npos) << "last row";
    EXPECT_NE(shown.find("\033[2Khello"), std::string::npos) << "row cleared, then the text";
    // A question saves the cursor when it appears; redraws while the answer
    // is typed must not save again (the remote's cursor would be lost).
    const std::string first = QuestionBytes("send: ", 24, true);
    const std::string redraw = QuestionBytes("send: ab", 24, false);
    EXPECT_EQ(first.rfind("\0337", 0), 0u);
    EXPECT_EQ(redraw.find("\0337"), std::string::npos);
    EXPECT_EQ(first.find("\0338"), std::string::npos) << "the cursor stays after the question";
    EXPECT_TRUE(redraw.ends_with("send: ab"));
    const std::string end = EndQuestionBytes(24);
    EXPECT_EQ(end.find("\0337"), std::string::npos);
    EXPECT_TRUE(end.ends_with("\0338"));
    EXPECT_NE(end.find("\033[24;1H\033[0m\033[2K"), std::string::npos);
}

// On the bottom line the bar never ends a line or scrolls: every drawing
// saves the cursor, goes to the last row and puts the cursor back.
TEST(BottomLine, ReporterDrawsWithoutNewLines) {
    XferRecord record{};
    char name[] = "dir/report.bin";
    record.FileName = name;
    record.File = 3;
    record.FileSize = 1000;
    testing::internal::CaptureStderr();
    {
        Reporter reporter(Verbosity::Normal, true);
        reporter.UseBottomLine();
        record.FilePos = 500;
        reporter.Progress(record);
        reporter.Status(record, 1, "a notice");
        record.FilePos = 1000;
        reporter.Progress(record);
        reporter.Finish(0);
    }
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(out.find('\n'), std::string::npos) << out;
    EXPECT_EQ(out.find('\r'), std::string::npos) << out;
    EXPECT_NE(out.find("report.bin"), std::string::npos) << out;
    EXPECT_NE(out.find("a notice"), std::string::npos) << out;
    // Saves and restores pair up, each drawing one of each.
    std::size_t saves = 0, restores = 0;
    for (std::size_t at = 0; (at = out.find("\0337", at)) != std::string::npos; ++at) ++saves;
    for (std::size_t at = 0; (at = out.find("\0338", at)) != std::string::npos; ++at) ++restores;
    EXPECT_GE(saves, 3u);
    EXPECT_EQ(saves, restores);
    EXPECT_TRUE(out.ends_with("\0338")) << out;
}

} // namespace
} // namespace zvxfer::cli
