// The Kermit packet layer on the wire: packets built against the framer of
// wire.h (lengths, both forms, the three checks), the reader's verdicts, the
// data-field coding as exact characters and as round trips through packets,
// and the host link (partial writes, time-outs on a sleepless clock, polls).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fake_clock.h"
#include "kermit/engine.h"
#include "test_host.h"
#include "wire.h"
#include "zvxfer.h"

namespace zvxfer::kermit {
namespace {

using Bytes = std::vector<uint8_t>;

std::string Str(const Bytes &b) {
    return std::string(b.begin(), b.end());
}
Bytes Raw(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

using wire::Frame;
using TraceCapture = wire::Traces;

// ---- the engine on a scripted host -------------------------------------------

class KermitPacket : public ::testing::Test {
  protected:
    test::FakeClock clock{test::FakeClock::kSleepless};
    TraceCapture traces;
    test::TestHost host;
    XferRecord record{};
    std::unique_ptr<KermitEngine> engine = NewEngine(host);

    std::unique_ptr<KermitEngine> NewEngine(test::TestHost &h) {
        auto e = std::make_unique<KermitEngine>();
        e->hostWindow = h.Window();
        e->record = &record;
        e->tracing = true;
        return e;
    }
    std::string Data() const {
        return std::string(reinterpret_cast<const char *>(engine->rdata),
                           static_cast<std::size_t>(engine->rdlen));
    }
    // Decode the last packet's data field into a fresh sink.
    static int DecodeInto(KermitEngine &e, Bytes &out, std::size_t room = 20000) {
        out.assign(room, 0xEE);
        e.memorySink = out.data();
        e.memorySinkRoom = static_cast<int32_t>(room);
        const int r = e.decode(e.rdlen);
        out.resize(static_cast<std::size_t>(e.memorySink - out.data()));
        e.memorySink = nullptr;
        return r;
    }
    // Encode bytes the way getpkt walks them (each with the next one), with
    // no limit, and return the field (at most 3 characters a byte: keep the
    // input within a third of the field).
    static std::string EncodeAll(KermitEngine &e, const Bytes &bytes) {
        EXPECT_LT(bytes.size() * 3, sizeof e.data);
        e.dsize = 0;
        e.rptcount = 0;
        e.maxdata = 9000;
        for (std::size_t i = 0; i < bytes.size(); ++i)
            e.encode(bytes[i], i + 1 < bytes.size() ? bytes[i + 1] : -1);
        return std::string(reinterpret_cast<const char *>(e.data),
                           static_cast<std::size_t>(e.dsize));
    }
    static int DecodeField(KermitEngine &e, std::string field, Bytes &out) {
        e.rdata = reinterpret_cast<uint8_t *>(field.data());
        e.rdlen = static_cast<int32_t>(field.size());
        return DecodeInto(e, out);
    }
};

// ---- building packets ----------------------------------------------------------

TEST_F(KermitPacket, EmptyAckIsSixExactBytesWithItsTrace) {
    engine->chkuse = 1;
    EXPECT_EQ(engine->spacket('Y', 5, 0, nullptr), 6);
    // SOH, LEN tochar(3) '#', SEQ tochar(5) '%', 'Y', chk1("#%Y") = 'C', CR.
    EXPECT_EQ(host.WrittenString(), "\x01#%YC\r");
    EXPECT_EQ(host.WrittenString(), Frame('Y', 5, ""));
    EXPECT_EQ(engine->sndlen, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(engine->sndbuf), 6), "\x01#%YC\r");
    EXPECT_TRUE(TraceCapture::Has("PKT->[^A#%YC](6)\n"));
    EXPECT_EQ(host.WriteRequests(), 1); // the whole packet in one hand-over
}

struct FormCase {
    int check;
    int length;
    bool longForm;
};

TEST_F(KermitPacket, NormalAndLongFormAtTheBoundaryForEachCheck) {
    const FormCase cases[] = {
        {1, 91, false}, {1, 92, true}, {2, 90, false}, {2, 91, true},   {3, 89, false},
        {3, 90, true},  {1, 0, false}, {3, 0, false},  {3, 8990, true}, {2, 1000, true},
    };
    for (const FormCase &c : cases) {
        SCOPED_TRACE(testing::Message() << "check " << c.check << ", " << c.length << " bytes");
        host.ClearWritten();
        engine->chkuse = c.check;
        std::string data(static_cast<std::size_t>(c.length), 'x');
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(33 + i % 90);
        const int n =
            engine->spacket('D', 7, c.length, reinterpret_cast<const uint8_t *>(data.data()));
        const std::string want = Frame('D', 7, data, c.check, c.longForm);
        EXPECT_EQ(host.WrittenString(), want);
        EXPECT_EQ(n, static_cast<int>(want.size()));
        EXPECT_EQ(host.WrittenString()[1] == ' ', c.longForm);
        if (c.check == 1 && c.length == 91) {
            EXPECT_EQ(host.WrittenString()[1], '~');
        }

        // The reader takes back what was built.
        host.Receive(host.WrittenString());
        EXPECT_EQ(engine->rpacket(), 'D');
        EXPECT_EQ(engine->rseq, 7);
        EXPECT_EQ(Data(), data);
    }
}

TEST_F(KermitPacket, BlockCheckValues) {
    const auto crcOf = [&](std::string_view s) {
        return engine->crc(reinterpret_cast<const uint8_t *>(s.data()), static_cast<int>(s.size()));
    };
    EXPECT_EQ(crcOf("123456789"), 0x2189u);
    EXPECT_EQ(crcOf("abc"), 0x58E9u);
    EXPECT_EQ(crcOf(""), 0u);
    EXPECT_TRUE(TraceCapture::Has("crc=22761\n")); // 0x58E9 for "abc"
    std::mt19937 rng(11);
    for (int round = 0; round < 50; ++round) {
        std::string s(rng() % 300, '\0');
        for (char &c : s) c = static_cast<char>(rng());
        const auto *p = reinterpret_cast<const uint8_t *>(s.data());
        const int n = static_cast<int>(s.size());
        ASSERT_EQ(engine->crc(p, n), wire::BitCrc(s));
        ASSERT_EQ(engine->chk2(p, n), wire::Sum(s));
        ASSERT_EQ(tochar(static_cast<int>(engine->chk1(p, n))), wire::Chk1(s));
    }
    // The 6-bit check folds the sum's two top bits of its low byte in.
    const uint8_t ff[] = {0xFF, 0xFF};
    TraceCapture::Clear();
    EXPECT_EQ(engine->chk1(ff, 2), (510u + 3u) & 63u);
    EXPECT_TRUE(TraceCapture::Has("chksum=510\n"));
}

// ---- reading packets ------------------------------------------------------------

TEST_F(KermitPacket, GarbageBeforeBetweenAndAfterPacketsIsSkipped) {
    host.Receive("login: \r\n\x7f\xff");
    host.Receive(Frame('D', 1, "hello"));
    host.Receive("\r\n+++ noise");
    host.Receive(Frame('Z', 2, ""));
    host.Receive("trailing");
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(engine->rseq, 1);
    EXPECT_EQ(Data(), "hello");
    EXPECT_EQ(engine->rpacket(), 'Z');
    EXPECT_EQ(engine->rseq, 2);
    EXPECT_EQ(engine->rdlen, 0);
    EXPECT_EQ(engine->rpacket(), 'Q'); // only junk left, then the time-out
    EXPECT_EQ(engine->rseq, -1);
}

TEST_F(KermitPacket, DamageInEachCheckTypeIsRefusedWithItsTrace) {
    const char *const names[] = {"", "chk1", "chk2", "crc"};
    for (int check = 1; check <= 3; ++check) {
        SCOPED_TRACE(check);
        engine->chkuse = check;
        for (bool longForm : {false, true}) {
            std::string good = Frame('D', 9, "some data here", check, longForm);
            std::string bad = good;
            bad[bad.size() - 2 - static_cast<std::size_t>(check)] ^= 0x01; // last data character
            TraceCapture::Clear();
            host.Receive(bad + good);
            EXPECT_EQ(engine->rpacket(), 'Q');
            EXPECT_TRUE(TraceCapture::HasPrefix(std::string("rpacket chksum error. ") +
                                                names[check] + " (0x"));
            EXPECT_EQ(engine->rpacket(), 'D');
            EXPECT_EQ(Data(), "some data here");
        }
    }
}

TEST_F(KermitPacket, LongPacketWithWrongHeaderCheckIsRefusedBeforeItsData) {
    std::string p = Frame('D', 3, std::string(200, 'q'), 1, true);
    const char header = p[6];
    p[6] = static_cast<char>(header == '!' ? '"' : '!');
    host.Receive(p);
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_TRUE(TraceCapture::Has(
        "rpacket header checksum: " + std::to_string(static_cast<unsigned char>(p[6])) + "\n"));
    EXPECT_FALSE(TraceCapture::HasPrefix("rpacket type="));
    EXPECT_FALSE(TraceCapture::HasPrefix("rpacket chksum error"));
}

TEST_F(KermitPacket, ThreeCtrlCInARowInterruptEvenInsideAPacket) {
    host.Receive("\x01~!Dabc\x03\x03\x03" + std::string(200, 'z'));
    EXPECT_EQ(engine->rpacket(), 'T');
    EXPECT_EQ(engine->rcvbuf[0], 0);
    EXPECT_TRUE(TraceCapture::Has("^C...\n"));
    EXPECT_TRUE(TraceCapture::Has("ttinl interrupted\n"));

    // Two in a row (here inside the data) are ordinary bytes.
    host.Receive(Frame('D', 4, "\x03\x03x\x03"));
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(Data(), "\x03\x03x\x03");
    // ... and three before any packet interrupt too.
    host.Receive("\x03\x03\x03" + Frame('D', 5, ""));
    EXPECT_EQ(engine->rpacket(), 'T');
}

TEST_F(KermitPacket, LengthOfOneIsNeverCompleteAndEndsAtTheLimit) {
    host.SetChunkSize(512);
    host.Receive("\x01!" + std::string(9100, 'x'));
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_TRUE(TraceCapture::Has("ttinl overflow\n"));
    EXPECT_TRUE(TraceCapture::Has("rpacket runt\n"));
    // 9000 characters stored, the one after them read and refused.
    EXPECT_EQ(engine->readBlock.Length + host.Unread(), 9102u - 9001u);

    // A long packet announcing more than the limit ends there too.
    engine->readBlock.Length = 0;
    const int announced = 94 * 95 + 94; // 9024 characters after the header
    const std::string head =
        std::string("\x01 !D") + wire::ToChar(announced / 95) + wire::ToChar(announced % 95);
    host.Receive(head + std::string(9100, 'y'));
    TraceCapture::Clear();
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_TRUE(TraceCapture::Has("ttinl length = 9029\n"));
    EXPECT_TRUE(TraceCapture::Has("ttinl overflow\n"));
}

TEST_F(KermitPacket, TimeOutAfterTimoSecondsOnTheSleeplessClock) {
    const uint32_t start = clock.Now();
    engine->timo = 9;
    EXPECT_EQ(engine->rpacket(), 'Q');
    const uint32_t waited = clock.Now() - start;
    EXPECT_GE(waited, 9000u);
    EXPECT_LT(waited, 9100u);
    EXPECT_EQ(engine->errorNumber, -1);
    EXPECT_TRUE(TraceCapture::Has("ttinl - Error reading 1 byte from stack. -1\n"));
    EXPECT_GE(host.ReadRequests(), 9000 / 10); // asked again at least every 10 ms

    // With a time-out of 0 the reader waits for as long as it takes.
    host.UseClock([this] { return clock.Now(); });
    engine->timo = 0;
    const uint32_t later = clock.Now();
    host.ReceiveAt(later + 60000, Frame('S', 0, "~"));
    EXPECT_EQ(engine->rpacket(), 'S');
    EXPECT_GE(clock.Now() - later, 60000u);
}

// ---- the data field ---------------------------------------------------------------

struct EncodeCase {
    int rpton;
    int ebqon;
    std::string bytes;
    std::string field;
};

TEST_F(KermitPacket, EncodingOfSingleBytesAndRuns) {
    const EncodeCase cases[] = {
        {1, 0, std::string(200, 'A'), "~~A~~A~,A"}, // 94 + 94 + 12
        {1, 0, "AA", "AA"},                         // a pair is never prefixed
        {1, 0, "xAAy", "xAAy"},
        {1, 0, "AAA", "~#A"},
        {0, 0, "AAA", "AAA"},
        {1, 0, std::string(94, 'b'), "~~b"},
        {1, 0, std::string(96, 'b'), "~~bbb"},
        {1, 0, std::string(97, 'b'), "~~b~#b"},
        {0, 1, "\x8D", "&#M"},
        {0, 0, "\x8D", "#\xCD"},
        {0, 0, std::string(1, '\0'), "#@"},
        {0, 0, "\x01\x1F\x7F", "#A#_#?"},
        {0, 0, "#", "##"},
        {0, 1, "&", "#&"},
        {0, 0, "&", "&"},
        {1, 0, "~", "#~"},
        {0, 0, "~", "~"},
        {0, 1, "\xFF", "&#?"},
        {0, 1, "\xA3", "&##"},
        {0, 1, "\xC1", "&A"},
        {0, 0, "\xC1", "\xC1"},
        {1, 1, "\x81\x81", "&#A&#A"},
        {1, 1, "\x81\x81\x81", "~#&#A"},
        {1, 1, "\xFE\xFE\xFE\xFE", "~$&#~"},
    };
    for (const EncodeCase &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "rpt " << c.rpton << " ebq " << c.ebqon << " field " << c.field);
        engine->rpton = c.rpton;
        engine->ebqon = c.ebqon;
        EXPECT_EQ(EncodeAll(*engine, Raw(c.bytes)), c.field);
        Bytes back;
        EXPECT_EQ(DecodeField(*engine, c.field, back), 0);
        EXPECT_EQ(Str(back), c.bytes);
    }
}

struct DecodeCase {
    int rpton;
    int ebqon;
    std::string field;
    int result;
    std::string bytes_or_trace;
};

TEST_F(KermitPacket, DecodingAndItsMalformedFields) {
    const DecodeCase cases[] = {
        {0, 0, "#a#?#@", 0, std::string("a\x7F\0", 3)}, // 'a' is not a control letter
        {0, 0, "#\xC1", 0, "\x81"},
        {1, 1, "~%&#M", 0, "\x8D\x8D\x8D\x8D\x8D"},
        {1, 0, "~ x", 0, "x"}, // a count of 0 stands for one byte
        {1, 0, "AB~", -1, "decode rpt error A\n"},
        {1, 0, "~#", -1, "decode rpt error B\n"},
        {0, 1, "x&", -1, "decode ebq error\n"},
        {0, 0, "x#", -1, "decode ctl error\n"},
        {0, 1, "&#", -1, "decode ctl error\n"},
        {0, 0, "~#C", 0, "~\x03"}, // without repeats ~ is an ordinary byte
    };
    for (const DecodeCase &c : cases) {
        SCOPED_TRACE(c.field);
        TraceCapture::Clear();
        engine->rpton = c.rpton;
        engine->ebqon = c.ebqon;
        Bytes out;
        EXPECT_EQ(DecodeField(*engine, c.field, out), c.result);
        if (c.result == 0) {
            EXPECT_EQ(Str(out), c.bytes_or_trace);
        } else {
            EXPECT_TRUE(TraceCapture::Has(c.bytes_or_trace));
        }
    }
}

TEST_F(KermitPacket, TextModeDropsCarriageReturnsOnlyForALineFeedPeer) {
    engine->rpton = 1;
    engine->textmode = 1;
    Bytes out;
    engine->crlocal = 1;
    EXPECT_EQ(DecodeField(*engine, "A#M#JB~##MX", out), 0);
    EXPECT_EQ(Str(out), "A\r\nB\r\r\rX");
    engine->crlocal = 0;
    EXPECT_EQ(DecodeField(*engine, "A#M#JB~##MX", out), 0);
    EXPECT_EQ(Str(out), "A\nBX");
    engine->textmode = 0;
    EXPECT_EQ(DecodeField(*engine, "A#M#J", out), 0);
    EXPECT_EQ(Str(out), "A\r\n");
}

// How getpkt splits a run of input into fields of at most `limit`.
std::vector<std::string> Fields(KermitEngine &e, const char *input, int limit) {
    std::vector<std::string> fields;
    e.maxdata = limit;
    e.stringSource = reinterpret_cast<const uint8_t *>(input);
    e.fillstate = 1;
    for (int x; (x = e.getpkt(limit)) > 0;)
        fields.emplace_back(reinterpret_cast<const char *>(e.data), static_cast<std::size_t>(x));
    e.stringSource = nullptr;
    return fields;
}

TEST_F(KermitPacket, FieldsBreakBetweenEncodedBytesAndInsideAPair) {
    using F = std::vector<std::string>;
    // A pair may be split by the end of a field; a repeat group never is.
    EXPECT_EQ(Fields(*engine, "abcdee", 5), (F{"abcde", "e"}));
    engine->rpton = 1;
    EXPECT_EQ(Fields(*engine, "abcdee", 5), (F{"abcde", "e"}));
    EXPECT_EQ(Fields(*engine, "abceee", 5), (F{"abc", "~#e"}));
    EXPECT_EQ(Fields(*engine, "abcd\x01", 5), (F{"abcd", "#A"}));
    engine->ebqon = 1;
    EXPECT_EQ(Fields(*engine, "ab\x81\x81\x81", 5), (F{"ab", "~#&#A"}));
    EXPECT_EQ(Fields(*engine, "abcde", 5), (F{"abcde"}));
    EXPECT_EQ(Fields(*engine, "", 5), (F{}));
}

struct RoundTrip {
    int rpton;
    int ebqon;
    int check;
    int limit;
};

// Random bytes with runs, through getpkt, spacket, the line, rpacket and
// decode, every packet decoded on its own: no encoded byte is ever split
// between packets, and no field passes its limit.
TEST_F(KermitPacket, RoundTripsThroughPacketsForEachPrefixAndCheck) {
    std::vector<RoundTrip> cases;
    for (int rpt : {0, 1})
        for (int ebq : {0, 1})
            for (int check : {1, 2, 3}) cases.push_back({rpt, ebq, check, 84});
    // 6 is the smallest limit that holds every group (a pair of prefixed
    // high control bytes).
    cases.push_back({1, 1, 3, 6});
    cases.push_back({1, 1, 1, 7});
    cases.push_back({1, 0, 2, 7});
    cases.push_back({0, 1, 3, 1000});
    cases.push_back({1, 1, 3, 8980});

    std::mt19937 rng(2026);
    for (const RoundTrip &c : cases) {
        SCOPED_TRACE(testing::Message() << "rpt " << c.rpton << " ebq " << c.ebqon << " check "
                                        << c.check << " limit " << c.limit);
        std::string input;
        while (input.size() < 6000) {
            const char b = static_cast<char>(1 + rng() % 255); // NUL ends a string source
            input.append(rng() % 4 == 0 ? 1 + rng() % 200 : 1, b);
        }
        test::TestHost far;
        auto sender = NewEngine(host);
        auto receiver = NewEngine(far);
        for (KermitEngine *e : {sender.get(), receiver.get()}) {
            e->rpton = c.rpton;
            e->ebqon = c.ebqon;
            e->chkuse = c.check;
        }
        host.ClearWritten();
        sender->maxdata = c.limit;
        sender->stringSource = reinterpret_cast<const uint8_t *>(input.c_str());
        sender->fillstate = 1;
        int seq = 0;
        for (int x; (x = sender->getpkt(c.limit)) > 0; seq = (seq + 1) % 64) {
            ASSERT_LE(x, c.limit);
            sender->spacket('D', seq, x, sender->data);
        }
        far.Receive(host.Written());

        std::string output;
        for (int expect = 0;; expect = (expect + 1) % 64) {
            const int type = receiver->rpacket();
            if (type == 'Q') break;
            ASSERT_EQ(type, 'D');
            ASSERT_EQ(receiver->rseq, expect);
            Bytes piece;
            ASSERT_EQ(DecodeInto(*receiver, piece), 0);
            output += Str(piece);
        }
        EXPECT_EQ(output.size(), input.size());
        EXPECT_TRUE(output == input);
    }
}

// ---- the host link --------------------------------------------------------------

TEST_F(KermitPacket, APacketTakenInPiecesArrivesWhole) {
    std::string data(300, 'w');
    host.SetWriteLimit(7);
    engine->spacket('D', 1, 300, reinterpret_cast<const uint8_t *>(data.data()));
    EXPECT_EQ(host.WrittenString(), Frame('D', 1, data));

    host.ClearWritten();
    host.SetWriteLimit(SIZE_MAX);
    host.RefuseWrites(4);
    EXPECT_EQ(engine->spacket('Y', 2, 0, nullptr), 6);
    EXPECT_EQ(host.WrittenString(), Frame('Y', 2, ""));

    // A host that never takes anything is given up on.
    host.ClearWritten();
    host.SetWriteLimit(0);
    EXPECT_EQ(engine->spacket('Y', 3, 0, nullptr), 6);
    EXPECT_TRUE(host.Written().empty());
    // ... and so is a lost line, at once.
    host.SetWriteLimit(SIZE_MAX);
    host.SetWriteError(true);
    const int before = host.WriteRequests();
    EXPECT_EQ(engine->spacket('Y', 4, 0, nullptr), 6);
    EXPECT_EQ(host.WriteRequests(), before + 1);
}

int g_polls = 0;
int32_t CountPoll(XferRecord *) {
    ++g_polls;
    return 0;
}

TEST_F(KermitPacket, TheHostIsPolledAfterEverySendAndAtMostEvery100msOfReading) {
    g_polls = 0;
    record.ProgressCallback = CountPoll;
    engine->spacket('Y', 1, 0, nullptr);
    engine->spacket('Y', 2, 0, nullptr);
    EXPECT_EQ(g_polls, 2);

    host.Receive(Frame('D', 1, "a") + Frame('D', 2, "b") + Frame('D', 3, "c"));
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(g_polls, 3);
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(g_polls, 3); // no time has passed
    clock.Advance(100);
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(g_polls, 4);
    EXPECT_EQ(engine->cx, 0);
    EXPECT_EQ(engine->cz, 0);
}

} // namespace
} // namespace zvxfer::kermit
