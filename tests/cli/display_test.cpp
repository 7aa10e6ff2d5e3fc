// The program's own display and start watch: how a bar line is fitted to
// the terminal, what the sender's start watch advises for each request it
// hears, and the ZMODEM window the program passes.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "progress.h"
#include "shown_text.h"
#include "start_watch.h"
#include "zmodem_window.h"

namespace zvxfer::cli {
namespace {

TEST(BarLine, NeverReachesTheLastColumnAndKeepsDoneOverTotal) {
    const std::string name = "a-rather-long-file-name-for-a-narrow-pane.bin";
    for (int columns : {200, 80, 40, 30, 20, 12}) {
        for (const std::string label : {"", "receive: "}) {
            const std::string line =
                BarLine(label, name, 3 << 20, 8 << 20, 2.5 * (1 << 20), columns);
            SCOPED_TRACE(line);
            EXPECT_LT(ShownColumns(line), static_cast<std::size_t>(columns));
            if (columns >= 40) {
                EXPECT_NE(line.find("3.0 MiB/8.0 MiB"), std::string::npos);
                if (label.empty()) {
                    EXPECT_NE(line.find("2.5 MiB/s"), std::string::npos);
                }
            }
        }
    }
    const std::string wide = BarLine("", name, 3 << 20, 8 << 20, 2.5 * (1 << 20), 100);
    EXPECT_NE(wide.find("0:02 left"), std::string::npos) << wide;
    EXPECT_NE(wide.find("38%"), std::string::npos) << wide;
    EXPECT_NE(wide.find("[#"), std::string::npos) << wide;
    // Unknown size: the bytes, no bar, no time left.
    const std::string unknown = BarLine("", "x", 5000, 0, 1000, 80);
    EXPECT_NE(unknown.find("4.9 KiB"), std::string::npos) << unknown;
    EXPECT_EQ(unknown.find('['), std::string::npos) << unknown;
    EXPECT_EQ(unknown.find("left"), std::string::npos) << unknown;
}

struct Heard {
    const char *what;
    const char *protocol;
    bool streaming, checksum;
    std::string bytes;  // what the receiver sent before any block
    const char *advice; // part of the verdict; nullptr: none
};

TEST(StartWatch, NamesTheModeTheReceiverAsksFor) {
    const std::vector<Heard> table{
        {"C for ymodem-g", "ymodem-g", true, false, "CC", "use -p ymodem"},
        {"C for xmodem-1k-g", "xmodem-1k-g", true, false, "C", "use -p xmodem-1k"},
        {"NAK for xmodem", "xmodem", false, false, "\x15", "add --checksum"},
        {"C with --checksum", "xmodem", false, true, "C", "leave out --checksum"},
        {"G for ymodem", "ymodem", false, false, "G", "use -p ymodem-g"},
        {"G for xmodem", "xmodem", false, false, "G", "use -p xmodem-1k-g"},
        {"NAK for ymodem-g", "ymodem-g", true, false, "\x15", "use -p ymodem --checksum"},
        {"its own request last", "ymodem-g", true, false, "CCG", nullptr},
        {"its own request", "xmodem", false, false, "C", nullptr},
        {"noise only", "xmodem", false, false, "abc\x18", nullptr},
    };
    for (const Heard &h : table) {
        SCOPED_TRACE(h.what);
        StartWatch watch(h.protocol, h.streaming, h.checksum, 100.0);
        watch.Read(reinterpret_cast<const uint8_t *>(h.bytes.data()), h.bytes.size(), 101.0);
        // Nothing is said before the sender had its grace time.
        EXPECT_EQ(watch.Verdict(101.0 + StartWatch::kGrace - 0.5), "");
        const std::string verdict = watch.Verdict(101.0 + StartWatch::kGrace + 0.1);
        if (h.advice)
            EXPECT_NE(verdict.find(h.advice), std::string::npos) << verdict;
        else
            EXPECT_EQ(verdict, "");
        EXPECT_DOUBLE_EQ(watch.Waited(103.5), 3.5);
    }
}

TEST(StartWatch, SaysNothingOnceABlockWentOut) {
    StartWatch watch("ymodem-g", true, false, 0);
    const uint8_t c = 'C', cancel[] = {0x18, 0x18};
    watch.Read(&c, 1, 0);
    watch.Written(cancel, sizeof cancel); // a cancel string is no block
    EXPECT_FALSE(watch.Started());
    const uint8_t block[] = {0x02, 0x00, 0xFF};
    watch.Written(block, sizeof block);
    EXPECT_TRUE(watch.Started());
    EXPECT_EQ(watch.Verdict(100), "");
}

TEST(ZmodemWindow, StreamsUnlessTheUserSizedAWindow) {
    struct Case {
        bool noWindow;
        std::optional<int32_t> bytes;
        std::vector<int32_t> words;
    };
    for (const Case &c : std::vector<Case>{{false, std::nullopt, {1017}},
                                           {true, std::nullopt, {1017}},
                                           {false, 4096, {1029, 4096}},
                                           {false, 65536, {1029, 65536}},
                                           {true, 4096, {1017}}}) {
        std::vector<int32_t> words;
        AppendWindowWords(ChooseZmodemWindow(c.noWindow, c.bytes), words);
        EXPECT_EQ(words, c.words) << c.noWindow << " " << c.bytes.value_or(0);
    }
}

} // namespace
} // namespace zvxfer::cli
