// The terminal session's transfer-start detector: the starts that real
// programs put on the line, found whole, split at every point and in random
// chunks of long streams; look-alikes shown unchanged; nothing held longer
// than a start's prefix; kinds turned off.
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "../kermit/wire.h"
#include "term_detect.h"

namespace zvxfer::cli {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes B(const std::string &s) {
    return Bytes(s.begin(), s.end());
}
std::string S(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

// A Kermit packet without the CR that ends it.
std::string KermitPacket(char type, int seq, const std::string &data, int check = 1) {
    std::string p = wire::Frame(type, seq, data, check);
    p.pop_back();
    return p;
}

// The first bytes of real far sides (lrzsz, gkermit, C-Kermit), of this
// program's ZMODEM receiver, and of a B+ service.
struct Start {
    const char *what;
    std::string bytes;
    StartKind kind;
};
const std::vector<Start> &Starts() {
    static const std::vector<Start> starts = {
        {"sz ZRQINIT",
         std::string("**\x18"
                     "B00000000000000",
                     18),
         StartKind::ZmodemSender},
        {"ZRQINIT with a flag",
         "**\x18"
         "B00000000011021",
         StartKind::ZmodemSender},
        {"rz ZRINIT",
         "**\x18"
         "B0100000023be50",
         StartKind::ZmodemReceiver},
        {"our ZRINIT",
         "**\x18"
         "B0100000027fed4",
         StartKind::ZmodemReceiver},
        {"ZRINIT with a buffer size",
         "**\x18"
         "B0100040023"
         "6290",
         StartKind::ZmodemReceiver},
        {"gkermit S",
         "\x01"
         "9 S~' @-#Y3~*!J*0+++J\"U1@O",
         StartKind::KermitSendInit},
        {"our Kermit S",
         "\x01"
         "9 S~' @-#Y3~*!J*0+++B\"U1AH",
         StartKind::KermitSendInit},
        {"C-Kermit S",
         "\x01"
         "9 S~/ @-#Y3~^>J)0___N\"U1@G",
         StartKind::KermitSendInit},
        {"short S", KermitPacket('S', 0, "~* @-#Y3"), StartKind::KermitSendInit},
        {"S without data", KermitPacket('S', 0, ""), StartKind::KermitSendInit},
        {"S of 91 characters", KermitPacket('S', 0, std::string(91, '~')),
         StartKind::KermitSendInit},
        {"B+ ENQ", "\x05", StartKind::BPlusEnquiry},
        {"B+ packet",
         "\x10"
         "B",
         StartKind::BPlusPacket},
    };
    return starts;
}

// Feeds `chunks` and gathers the outcome; after a start, the rest of its
// chunk is fed again, as the session does once the transfer is over.
struct Seen {
    std::string shown;               // everything shown, Flush() at the end included
    std::vector<StartKind> kinds;    // starts in order
    std::vector<std::string> starts; // their bytes
};
Seen Detect(const std::vector<std::string> &chunks, StartSet enabled = StartSet::All(),
            bool flushAtEnd = true) {
    StartDetector d(enabled);
    Seen seen;
    for (const std::string &chunk : chunks) {
        Bytes rest = B(chunk);
        for (;;) {
            const auto out = d.Feed(rest.data(), rest.size());
            seen.shown += S(out.show);
            if (!out.start) break;
            seen.kinds.push_back(*out.start);
            seen.starts.push_back(S(out.startBytes));
            EXPECT_EQ(d.Held(), 0u);
            rest = out.after;
        }
    }
    if (flushAtEnd) seen.shown += S(d.Flush());
    return seen;
}

TEST(TermDetect, StartsFoundWholeWithTextAround) {
    for (const Start &s : Starts()) {
        SCOPED_TRACE(s.what);
        StartDetector d;
        const Bytes in = B("$ ls\r\n" + s.bytes + "\r\x8a\x11tail");
        const auto out = d.Feed(in.data(), in.size());
        ASSERT_TRUE(out.start);
        EXPECT_EQ(*out.start, s.kind);
        EXPECT_EQ(S(out.show), "$ ls\r\n");
        EXPECT_EQ(S(out.startBytes), s.bytes);
        EXPECT_EQ(S(out.after), "\r\x8a\x11tail");
        EXPECT_EQ(d.Held(), 0u);
    }
}

// Every split of every start into two reads, and one byte a read: found
// with the same bytes, and no byte of it shown on the way.
TEST(TermDetect, StartsSplitAnywhere) {
    for (const Start &s : Starts()) {
        for (std::size_t cut = 0; cut <= s.bytes.size(); ++cut) {
            SCOPED_TRACE(std::string(s.what) + " cut at " + std::to_string(cut));
            const Seen seen = Detect({"ab" + s.bytes.substr(0, cut), s.bytes.substr(cut) + "cd"});
            ASSERT_EQ(seen.kinds.size(), 1u);
            EXPECT_EQ(seen.kinds[0], s.kind);
            EXPECT_EQ(seen.starts[0], s.bytes);
            EXPECT_EQ(seen.shown, "abcd");
        }
        std::vector<std::string> bytes;
        for (char c : s.bytes) bytes.push_back(std::string(1, c));
        const Seen seen = Detect(bytes);
        ASSERT_EQ(seen.kinds.size(), 1u) << s.what;
        EXPECT_EQ(seen.starts[0], s.bytes) << s.what;
        EXPECT_EQ(seen.shown, "") << s.what;
    }
}

// Output that only looks like a start is shown as it came, byte for byte,
// whether it arrives whole or one byte a read.
TEST(TermDetect, LookAlikesPassUnchanged) {
    const std::string rinit = "**\x18"
                              "B0100000027fed4";
    const std::string good = KermitPacket('S', 0, "~* @-#Y3");
    std::string badCheck = good;
    badCheck.back() = static_cast<char>(badCheck.back() == '~' ? '!' : badCheck.back() + 1);
    const std::string looks[] = {
        "a lone ** in a line",
        "***bold***",
        "**\x18", // held, then let go by Flush
        std::string("**\x18"
                    "A\x01\x00\x00\x00\x27\x12\x34",
                    12), // a binary header: not looked for
        "**\x18"
        "B0100000027FED4", // capital hex digits
        "**\x18"
        "B0100000027fed5", // wrong CRC
        "**\x18"
        "B0200000000"
        "4483", // ZSINIT: no start
        "**\x18"
        "B01000000", // cut short, then text
        "**\x18"
        "B01000000\r\nmore",
        "*\x18"
        "B0100000027fed4", // one ZPAD only
        "B00 and B01 and 0100000027fed4",
        "dump \x01\x02\x03\xff\x01\x01 end",
        "\x01\x7f\x01",
        badCheck,
        KermitPacket('S', 1, "~* @-#Y3"),         // sequence 1
        KermitPacket('Y', 0, "~* @-#Y3"),         // an acknowledgement
        KermitPacket('S', 0, "~* @-#Y3", 3),      // check type 3
        wire::Frame('S', 0, "~* @-#Y3", 1, true), // the long form
        "\x01"
        "9 S~' @-#\x07Y3~*!J*0+++J\"U1@O", // a control character inside
        "\x10"
        "A\x10\x10\x10 B",
        "B\x10",
    };
    for (const std::string &text : looks) {
        SCOPED_TRACE(testing::PrintToString(text));
        const Seen whole = Detect({text});
        EXPECT_TRUE(whole.kinds.empty());
        EXPECT_EQ(whole.shown, text);
        std::vector<std::string> bytes;
        for (char c : text) bytes.push_back(std::string(1, c));
        const Seen split = Detect(bytes);
        EXPECT_TRUE(split.kinds.empty());
        EXPECT_EQ(split.shown, text);
    }
}

// Only a proper prefix of a start is held, and it is shown with the byte
// that proves it is none.
TEST(TermDetect, HoldsOnlyWhatMayStillBeAStart) {
    struct Step {
        const char *in;
        const char *shown;
        std::size_t held;
    };
    const std::vector<std::vector<Step>> cases = {
        {{"abc*", "abc", 1}, {"x", "*x", 0}},
        {{"**", "", 2},
         {"*", "*", 2},
         {"\x18"
          "B01",
          "", 6},
         {"q",
          "**\x18"
          "B01q",
          0}},
        {{"\x01", "", 1},
         {"9 S", "", 4},
         {"\n",
          "\x01"
          "9 S\n",
          0}},
        {{"\x01", "", 1}, {"\x01", "\x01", 1}, {"\n", "\x01\n", 0}},
        {{"\x10", "", 1},
         {"b",
          "\x10"
          "b",
          0}},
        {{"\x10", "", 1}, {"\x10", "\x10", 1}},
        {{"plain text, no start at all\r\n", "plain text, no start at all\r\n", 0}},
    };
    for (const auto &steps : cases) {
        StartDetector d;
        for (const Step &st : steps) {
            SCOPED_TRACE(testing::PrintToString(std::string(st.in)));
            const std::string in = st.in;
            const auto out = d.Feed(reinterpret_cast<const uint8_t *>(in.data()), in.size());
            EXPECT_FALSE(out.start);
            EXPECT_EQ(S(out.show), st.shown);
            EXPECT_EQ(d.Held(), st.held);
        }
    }
}

// A start that begins inside a held run that failed is still found.
TEST(TermDetect, StartInsideAHeldRun) {
    const std::string zrq = "**\x18"
                            "B00000000000000";
    const std::string kermit = "\x01"
                               "9 S~' @-#Y3~*!J*0+++J\"U1@O";
    const struct {
        std::string before;
        std::string start;
        StartKind kind;
    } cases[] = {
        {"*", zrq, StartKind::ZmodemSender},
        {"**\x18", zrq, StartKind::ZmodemSender},
        {"\x01", zrq, StartKind::ZmodemSender},
        {"\x01"
         "9 S~",
         "\x05", StartKind::BPlusEnquiry},
        {"**\x18"
         "B01",
         "\x10"
         "B",
         StartKind::BPlusPacket},
        {"\x10", kermit, StartKind::KermitSendInit},
        {"\x01"
         "9 S",
         kermit, StartKind::KermitSendInit},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.before + c.start));
        const Seen seen = Detect({c.before + c.start + "z"});
        ASSERT_EQ(seen.kinds.size(), 1u);
        EXPECT_EQ(seen.kinds[0], c.kind);
        EXPECT_EQ(seen.starts[0], c.start);
        EXPECT_EQ(seen.shown, c.before + "z");
    }
}

TEST(TermDetect, KindsTurnedOff) {
    for (const Start &s : Starts()) {
        SCOPED_TRACE(s.what);
        const Seen off = Detect({"<" + s.bytes + ">"}, StartSet::All().Without(s.kind));
        EXPECT_TRUE(off.kinds.empty());
        EXPECT_EQ(off.shown, "<" + s.bytes + ">");
        const Seen only = Detect({"<" + s.bytes + ">"}, StartSet::None().With(s.kind));
        ASSERT_EQ(only.kinds.size(), 1u);
        EXPECT_EQ(only.kinds[0], s.kind);
    }
    const Seen none = Detect({"**\x18"
                              "B00000000000000\x05\x10"
                              "B"},
                             StartSet::None());
    EXPECT_TRUE(none.kinds.empty());

    // Turned off while its beginning is held: the held bytes come back.
    StartDetector d;
    const Bytes in = B("**\x18"
                       "B0");
    EXPECT_TRUE(d.Feed(in.data(), in.size()).show.empty());
    EXPECT_TRUE(d.SetEnabled(StartSet::All().Without(StartKind::ZmodemSender)).empty());
    EXPECT_EQ(d.Held(), 5u);
    EXPECT_EQ(S(d.SetEnabled(StartSet::None().With(StartKind::KermitSendInit))), S(in));
    EXPECT_EQ(d.Held(), 0u);
}

// A quiet line lets the held bytes go; a start cut by that is not found
// (its senders write it in one piece, far faster than the quiet time).
TEST(TermDetect, FlushLetsGo) {
    StartDetector d;
    const Bytes a = B("x**\x18"
                      "B01");
    EXPECT_EQ(S(d.Feed(a.data(), a.size()).show), "x");
    EXPECT_EQ(S(d.Flush()), "**\x18"
                            "B01");
    EXPECT_EQ(d.Held(), 0u);
    const Bytes b = B("00000027fed4");
    const auto out = d.Feed(b.data(), b.size());
    EXPECT_FALSE(out.start);
    EXPECT_EQ(S(out.show), "00000027fed4");
    EXPECT_TRUE(d.Flush().empty());
}

// Long streams of output, look-alikes and starts, cut into random reads:
// every start found in order with its bytes, and what is shown is the rest
// of the stream exactly.
TEST(TermDetect, RandomChunksOfLongStreams) {
    const std::vector<std::string> noise = {
        "hello, world\r\n",
        "**",
        "*",
        "\x01",
        "\x10",
        "B00",
        "\x10"
        "A",
        "**\x18",
        "**\x18"
        "B01",
        std::string("\x00\xff\x8a\x11", 4),
        "\x01"
        "9 S~' @",
        "\x1b[1;31mred\x1b[0m",
        "**\x18"
        "B0100000027fed5",
    };
    std::mt19937 rng(19);
    for (int round = 0; round < 200; ++round) {
        std::string stream, expectShown;
        std::vector<std::string> expectStarts;
        for (int piece = 0; piece < 60; ++piece) {
            if (rng() % 6 == 0) {
                const Start &s = Starts()[rng() % Starts().size()];
                stream += s.bytes;
                expectStarts.push_back(s.bytes);
            } else {
                const std::string &n = noise[rng() % noise.size()];
                stream += n;
                expectShown += n;
            }
            // A line end after each piece ends any held run.
            stream += "\n";
            expectShown += "\n";
        }
        std::vector<std::string> chunks;
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t n = std::min<std::size_t>(1 + rng() % 40, stream.size() - at);
            chunks.push_back(stream.substr(at, n));
            at += n;
        }
        const Seen seen = Detect(chunks);
        ASSERT_EQ(seen.starts, expectStarts) << "round " << round;
        ASSERT_EQ(seen.shown, expectShown) << "round " << round;
    }
}

// Random bytes drawn mostly from the starts' own characters: however the
// stream is cut, the same starts are found and the same bytes shown, and
// nothing is lost or doubled.
TEST(TermDetect, RandomBytesAnyCutSameResult) {
    const std::string alphabet = std::string("**\x18\x01\x05\x10"
                                             "B0123456789abcdef S~#9 \r\n") +
                                 Starts()[0].bytes + Starts()[6].bytes;
    std::mt19937 rng(8);
    for (int round = 0; round < 300; ++round) {
        std::string stream;
        for (int k = 0; k < 400; ++k) {
            if (rng() % 50 == 0)
                stream += Starts()[rng() % Starts().size()].bytes;
            else
                stream += alphabet[rng() % alphabet.size()];
        }
        std::vector<std::string> bytes, chunks;
        for (char c : stream) bytes.push_back(std::string(1, c));
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t n = std::min<std::size_t>(1 + rng() % 30, stream.size() - at);
            chunks.push_back(stream.substr(at, n));
            at += n;
        }
        const Seen one = Detect(bytes), cut = Detect(chunks), whole = Detect({stream});
        ASSERT_EQ(cut.starts, one.starts) << "round " << round;
        ASSERT_EQ(cut.shown, one.shown) << "round " << round;
        ASSERT_EQ(whole.starts, one.starts) << "round " << round;
        ASSERT_EQ(whole.shown, one.shown) << "round " << round;
        std::size_t total = one.shown.size();
        for (const std::string &st : one.starts) total += st.size();
        ASSERT_EQ(total, stream.size()) << "round " << round;
    }
}

} // namespace
} // namespace zvxfer::cli
