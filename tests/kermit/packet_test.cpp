// The Kermit packet layer on the wire: packets built against the framer of
// wire.h (lengths, both forms, the three checks), the reader's verdicts, the
// data-field coding as exact characters and as round trips through packets,
// and the host link (partial writes, time-outs on a sleepless clock).
#include <gtest/gtest.h>

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
using wire::Frame;
using Traces = wire::Traces;

std::string Str(const Bytes &b) {
    return std::string(b.begin(), b.end());
}

class KermitPacket : public ::testing::Test {
  protected:
    test::FakeClock clock{test::FakeClock::kSleepless};
    Traces traces;
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
    static int DecodeInto(KermitEngine &e, Bytes &out) {
        out.assign(20000, 0xEE);
        e.memorySink = out.data();
        e.memorySinkRoom = static_cast<int32_t>(out.size());
        const int r = e.decode(e.rdlen);
        out.resize(static_cast<std::size_t>(e.memorySink - out.data()));
        e.memorySink = nullptr;
        return r;
    }
    static int DecodeField(KermitEngine &e, std::string field, Bytes &out) {
        e.rdata = reinterpret_cast<uint8_t *>(field.data());
        e.rdlen = static_cast<int32_t>(field.size());
        return DecodeInto(e, out);
    }
    // Encode bytes the way getpkt walks them (each with the next one), with
    // no limit.
    static std::string EncodeAll(KermitEngine &e, std::string_view bytes) {
        e.dsize = 0;
        e.rptcount = 0;
        e.maxdata = 9000;
        for (std::size_t i = 0; i < bytes.size(); ++i)
            e.encode(static_cast<uint8_t>(bytes[i]),
                     i + 1 < bytes.size() ? static_cast<uint8_t>(bytes[i + 1]) : -1);
        return std::string(reinterpret_cast<const char *>(e.data),
                           static_cast<std::size_t>(e.dsize));
    }
};

// ---- building and reading packets -------------------------------------------

TEST_F(KermitPacket, NormalAndLongFormAtTheBoundaryForEachCheck) {
    // The worked example: SOH, LEN '#', SEQ '%', 'Y', chk1("#%Y") = 'C', CR,
    // handed over whole.
    engine->chkuse = 1;
    EXPECT_EQ(engine->spacket('Y', 5, 0, nullptr), 6);
    EXPECT_EQ(host.WrittenString(), "\x01#%YC\r");
    EXPECT_TRUE(Traces::Has("PKT->[^A#%YC](6)\n"));
    EXPECT_EQ(host.WriteRequests(), 1);

    const struct {
        int check, length;
        bool longForm;
    } cases[] = {
        {1, 91, false}, {1, 92, true}, {2, 90, false}, {2, 91, true},   {3, 89, false},
        {3, 90, true},  {1, 0, false}, {3, 0, false},  {3, 8990, true}, {2, 1000, true},
    };
    for (const auto &c : cases) {
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
        // The reader takes back what was built.
        host.Receive(host.WrittenString());
        EXPECT_EQ(engine->rpacket(), 'D');
        EXPECT_EQ(engine->rseq, 7);
        EXPECT_EQ(Data(), data);
    }
}

// A damaged packet is refused with the check named, and the reader goes on
// past noise to the next good one.
TEST_F(KermitPacket, DamageInEachCheckTypeIsRefusedWithItsTrace) {
    const char *const names[] = {"", "chk1", "chk2", "crc"};
    for (int check = 1; check <= 3; ++check) {
        SCOPED_TRACE(check);
        engine->chkuse = check;
        for (bool longForm : {false, true}) {
            std::string good = Frame('D', 9, "some data here", check, longForm);
            std::string bad = good;
            bad[bad.size() - 2 - static_cast<std::size_t>(check)] ^= 0x01; // last data character
            Traces::Clear();
            host.Receive("login: \r\n\x7f\xff" + bad + "\r\n+++ noise" + good);
            EXPECT_EQ(engine->rpacket(), 'Q');
            EXPECT_TRUE(
                Traces::HasPrefix(std::string("rpacket chksum error. ") + names[check] + " (0x"));
            EXPECT_EQ(engine->rpacket(), 'D');
            EXPECT_EQ(Data(), "some data here");
        }
    }
}

TEST_F(KermitPacket, LongPacketWithWrongHeaderCheckIsRefusedBeforeItsData) {
    std::string p = Frame('D', 3, std::string(200, 'q'), 1, true);
    p[6] = static_cast<char>(p[6] == '!' ? '"' : '!');
    host.Receive(p);
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_TRUE(Traces::HasPrefix("rpacket header checksum: "));
    EXPECT_FALSE(Traces::HasPrefix("rpacket chksum error"));
}

TEST_F(KermitPacket, ThreeCtrlCInARowInterruptEvenInsideAPacket) {
    host.Receive("\x01~!Dabc\x03\x03\x03" + std::string(200, 'z'));
    EXPECT_EQ(engine->rpacket(), 'T');
    EXPECT_TRUE(Traces::Has("ttinl interrupted\n"));
    // Two in a row are ordinary bytes.
    host.Receive(Frame('D', 4, "\x03\x03x\x03"));
    EXPECT_EQ(engine->rpacket(), 'D');
    EXPECT_EQ(Data(), "\x03\x03x\x03");
}

TEST_F(KermitPacket, LengthOfOneIsNeverCompleteAndEndsAtTheLimit) {
    host.SetChunkSize(512);
    host.Receive("\x01!" + std::string(9100, 'x'));
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_TRUE(Traces::Has("ttinl overflow\n"));
    // 9000 characters stored, the one after them read and refused.
    EXPECT_EQ(engine->readBlock.Length + host.Unread(), 9102u - 9001u);
}

TEST_F(KermitPacket, TimeOutAfterTimoSecondsOnTheSleeplessClock) {
    const uint32_t start = clock.Now();
    engine->timo = 9;
    EXPECT_EQ(engine->rpacket(), 'Q');
    EXPECT_GE(clock.Now() - start, 9000u);
    EXPECT_LT(clock.Now() - start, 9100u);
    // With a time-out of 0 the reader waits for as long as it takes.
    host.UseClock([this] { return clock.Now(); });
    engine->timo = 0;
    const uint32_t later = clock.Now();
    host.ReceiveAt(later + 60000, Frame('S', 0, "~"));
    EXPECT_EQ(engine->rpacket(), 'S');
    EXPECT_GE(clock.Now() - later, 60000u);
}

// ---- the data field -------------------------------------------------------

TEST_F(KermitPacket, EncodingOfSingleBytesAndRuns) {
    const struct {
        int rpton, ebqon;
        std::string bytes, field;
    } cases[] = {
        {1, 0, std::string(200, 'A'), "~~A~~A~,A"}, // 94 + 94 + 12
        {1, 0, "xAAy", "xAAy"},                     // a pair is never prefixed
        {1, 0, "AAA", "~#A"},
        {0, 0, "AAA", "AAA"},
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
        {0, 1, "\xC1", "&A"},
        {1, 1, "\x81\x81", "&#A&#A"},
        {1, 1, "\xFE\xFE\xFE\xFE", "~$&#~"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "rpt " << c.rpton << " ebq " << c.ebqon << " field " << c.field);
        engine->rpton = c.rpton;
        engine->ebqon = c.ebqon;
        EXPECT_EQ(EncodeAll(*engine, c.bytes), c.field);
        Bytes back;
        EXPECT_EQ(DecodeField(*engine, c.field, back), 0);
        EXPECT_EQ(Str(back), c.bytes);
    }
}

TEST_F(KermitPacket, DecodingAndItsMalformedFields) {
    const struct {
        int rpton, ebqon;
        std::string field;
        int result;
        std::string bytesOrTrace;
    } cases[] = {
        {0, 0, "#a#?#@", 0, std::string("a\x7F\0", 3)}, // 'a' is not a control letter
        {1, 1, "~%&#M", 0, "\x8D\x8D\x8D\x8D\x8D"},
        {1, 0, "~ x", 0, "x"}, // a count of 0 stands for one byte
        {1, 0, "AB~", -1, "decode rpt error A\n"},
        {1, 0, "~#", -1, "decode rpt error B\n"},
        {0, 1, "x&", -1, "decode ebq error\n"},
        {0, 0, "x#", -1, "decode ctl error\n"},
        {0, 0, "~#C", 0, "~\x03"}, // without repeats ~ is an ordinary byte
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.field);
        Traces::Clear();
        engine->rpton = c.rpton;
        engine->ebqon = c.ebqon;
        Bytes out;
        EXPECT_EQ(DecodeField(*engine, c.field, out), c.result);
        if (c.result == 0) {
            EXPECT_EQ(Str(out), c.bytesOrTrace);
        } else {
            EXPECT_TRUE(Traces::Has(c.bytesOrTrace));
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
}

// Random bytes with runs, through getpkt, spacket, the line, rpacket and
// decode, every packet decoded on its own: no encoded byte is ever split
// between packets, and no field passes its limit.
TEST_F(KermitPacket, RoundTripsThroughPacketsForEachPrefixAndCheck) {
    const struct {
        int rpton, ebqon, check, limit;
    } cases[] = {
        {0, 0, 1, 84},
        {1, 0, 2, 84},
        {0, 1, 3, 84},
        {1, 1, 1, 84},
        {1, 1, 3, 84},
        // 6 is the smallest limit that holds every group (a pair of
        // prefixed high control bytes).
        {1, 1, 3, 6},
        {1, 0, 2, 7},
        {1, 1, 3, 8980},
    };
    std::mt19937 rng(2026);
    for (const auto &c : cases) {
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
        EXPECT_TRUE(output == input);
    }
}

// ---- the host link --------------------------------------------------------

TEST_F(KermitPacket, APacketTakenInPiecesArrivesWhole) {
    std::string data(300, 'w');
    host.SetWriteLimit(7);
    engine->spacket('D', 1, 300, reinterpret_cast<const uint8_t *>(data.data()));
    EXPECT_EQ(host.WrittenString(), Frame('D', 1, data));
    // A host that never takes anything is given up on.
    host.ClearWritten();
    host.SetWriteLimit(0);
    EXPECT_EQ(engine->spacket('Y', 3, 0, nullptr), 6);
    EXPECT_TRUE(host.Written().empty());
}

} // namespace
} // namespace zvxfer::kermit
