// The B+ packet layer on a scripted line: quoting both ways, packets as
// they go out under each check method, the resend store and its window,
// and the packet reader against repeats, failure packets, resend requests,
// ENQ in mid-packet, damaged packets and lines that never make sense.
#include <gtest/gtest.h>
#include <random>

#include "bplus/bplus.h"
#include "fake_clock.h"
#include "platform/heap.h"
#include "port/port.h"
#include "reference_checks.h"
#include "status_log.h"
#include "test_host.h"

namespace zvxfer::bplus {
namespace {

using namespace zvxfer::test;
using namespace zvxfer::bplus::test;

constexpr uint8_t DLE = 0x10, ETX = 0x03, ENQ = 0x05, NAK = 0x15;

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes Ack(int seq) {
    return {DLE, static_cast<uint8_t>('0' + seq)};
}

class BPlusLinkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        host_.UseClock([this] { return clock_.Now(); });
        port_ = PortOpen(0, host_.Window(), "", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
        r_.Port = port_;
        r_.Buffer = buffer_.data();
        r_.BlockSize = 1031;
        r_.StatusCallback = CollectStatus;
        SendWindow(&r_) = 1;
        ASSERT_TRUE(BPlusCreateLink(&r_));
        link_ = Link(&r_);
    }
    void TearDown() override {
        BPlusReleaseLink(&r_);
        port_->Ops.PortClose(port_);
    }
    void Line(const Bytes &bytes) { host_.Receive(std::span<const uint8_t>(bytes)); }
    Bytes Sent() {
        Bytes w = host_.Written();
        host_.ClearWritten();
        return w;
    }
    Bytes Delivered() const { return Bytes(buffer_.begin(), buffer_.begin() + link_->RxLength); }
    int32_t Wait(bool acknowledge = true, bool allowResend = true) {
        return _BPWaitForACK(&r_, false, acknowledge, allowResend);
    }

    FakeClock clock_{FakeClock::kSleepless};
    TestHost host_;
    XferPort *port_ = nullptr;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(1100);
    XferRecord r_{};
    BPlusLink *link_ = nullptr;
};

TEST_F(BPlusLinkTest, CreatedWithItsDefaults) {
    EXPECT_EQ(link_->ReadTimeout, 15000);
    EXPECT_EQ(link_->Outstanding, 0);
    EXPECT_EQ(link_->CheckMethod, 0);
    EXPECT_EQ(link_->QuoteMode, 0);
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(link_->QuoteMask[i], DefaultQuoted(static_cast<uint8_t>(i)) ? 1 : 0) << i;
}

TEST_F(BPlusLinkTest, QuotingOfEachClass) {
    const struct {
        int mode;
        uint8_t in;
        Bytes out;
    } cases[] = {
        {0, 0x03, {DLE, 'C'}},  {0, 0x05, {DLE, 0x45}}, {0, 0x10, {DLE, 0x50}},
        {0, 0x11, {DLE, 0x51}}, {0, 0x13, {DLE, 0x53}}, {0, 0x15, {DLE, 0x55}},
        {0, 0x00, {0x00}},      {0, 0x0D, {0x0D}},      {0, 0x1B, {0x1B}},
        {0, 0x91, {0x91}},      {0, 0x83, {0x83}},      {0, 'A', {'A'}},
        {3, 0x91, {DLE, 0x71}}, {3, 0x00, {DLE, 0x40}}, {3, 0x1F, {DLE, 0x5F}},
        {3, 0x80, {DLE, 0x60}}, {3, 0x9F, {DLE, 0x7F}}, {3, 0xA0, {0xA0}},
        {3, 0x7F, {0x7F}},      {4, 0x0D, {0x0D}},      {4, 0x03, {DLE, 'C'}},
    };
    for (const auto &c : cases) {
        link_->QuoteMode = c.mode;
        BPlusSendQuoted(&r_, c.in);
        EXPECT_EQ(Sent(), c.out) << "mode " << c.mode << " byte " << int(c.in);
    }
    // The high-half bit of a mask entry quotes 0x80 + i only.
    link_->QuoteMode = 4;
    link_->QuoteMask[0x11] |= 0x10;
    BPlusSendQuoted(&r_, 0x91);
    EXPECT_EQ(Sent(), (Bytes{DLE, 0x71}));
    BPlusSendQuoted(&r_, 0x93);
    EXPECT_EQ(Sent(), (Bytes{0x93}));
}

TEST_F(BPlusLinkTest, ReadingUndoesQuoting) {
    Line({DLE, 'C', 0x03, DLE, 0x71, DLE, 0x40, 0x91, DLE, 0x7F});
    const struct {
        int32_t value, unquoted;
    } expected[] = {{0x03, 0}, {0x03, 1}, {0x91, 0}, {0x00, 0}, {0x91, 1}, {0x9F, 0}};
    for (const auto &e : expected) {
        EXPECT_EQ(BPlusReadQuoted(&r_), e.value);
        EXPECT_EQ(link_->Unquoted, e.unquoted) << e.value;
    }
    const uint32_t before = clock_.Now();
    EXPECT_EQ(BPlusReadQuoted(&r_), -616); // silence
    EXPECT_GE(clock_.Now() - before, 15000u);
}

// Each method's packet byte for byte, check bytes included.
TEST_F(BPlusLinkTest, PacketsUnderEachMethod) {
    const Bytes data = {'N', 0x00, 0x03, 0x10, 0x91, 0xFF, 0x0D};
    for (int8_t method = 0; method <= 3; ++method) {
        link_->CheckMethod = method;
        EXPECT_EQ(BPlusSendPacket(&r_, static_cast<int32_t>(data.size()), 7, data.data()), 0);
        EXPECT_EQ(Sent(), RefPacket(method, 7, data)) << int(method);
    }
    EXPECT_EQ(link_->Outstanding, 0); // a raw packet is not kept
    EXPECT_EQ(r_.RxSeq, 0);
}

// CRC-32 check bytes go least significant first; a control character
// among them is quoted, 0x80..0x9F are not.
TEST_F(BPlusLinkTest, Crc32CheckByteNakIsQuoted) {
    link_->CheckMethod = 3;
    Bytes data;
    uint32_t crc = 0;
    int found = -1;
    for (int v = 0; v < 65536 && found < 0; ++v) {
        data = {'T', static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
        crc = RefCrc32(Cat({B("1"), data, {ETX}}));
        for (int k = 0; k < 4; ++k)
            if (((crc >> (8 * k)) & 0xFF) == NAK) found = k;
    }
    ASSERT_GE(found, 0);
    BPlusSendPacket(&r_, 3, 1, data.data());
    Bytes expected = {DLE, 'B', '1'};
    for (const uint8_t b : data) PutQuoted(expected, b);
    expected.push_back(ETX);
    for (int k = 0; k < 4; ++k) {
        const auto b = static_cast<uint8_t>(crc >> (8 * k));
        if (b == NAK) {
            expected.insert(expected.end(), {DLE, 0x55});
        } else if (b < 0x20) {
            PutQuoted(expected, b);
        } else {
            expected.push_back(b);
        }
    }
    EXPECT_EQ(Sent(), expected);
    // Quote-all mode does not touch check bytes of 0x20 and above.
    link_->QuoteMode = 3;
    link_->CheckMethod = 1;
    const Bytes one{'A'};
    BPlusSendPacket(&r_, 1, 2, one.data());
    const uint16_t c = RefCcitt(B("2A\x03"));
    Bytes tail;
    for (const uint8_t b : {static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c)}) {
        if (b < 0x20)
            tail.insert(tail.end(), {DLE, static_cast<uint8_t>(b + 0x40)});
        else
            tail.push_back(b);
    }
    EXPECT_EQ(Sent(), Cat({{DLE, 'B', '2', 'A', ETX}, tail}));
}

TEST_F(BPlusLinkTest, AcknowledgementCarriesTheSharedCounter) {
    r_.RxSeq = 6;
    _BPSendACK(&r_);
    EXPECT_EQ(Sent(), Ack(6));
    EXPECT_EQ(CountStatus("_BPSendACK : Sent ACK", 0), 1);
}

// Numbered packets take the next numbers, stay in the store until
// acknowledged, and a fifth waits for room (window 1: four in flight).
TEST_F(BPlusLinkTest, StoreAndWindow) {
    const Bytes d = B("Dx");
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(BPlusSendNumbered(&r_, 2, d.data()), 0);
        EXPECT_EQ(Sent(), RefPacket(0, i, d));
    }
    EXPECT_EQ(link_->Outstanding, 4);
    EXPECT_EQ(r_.RxSeq, 4);
    Line(Ack(2));
    EXPECT_EQ(BPlusSendNumbered(&r_, 2, d.data()), 0);
    EXPECT_EQ(Sent(), RefPacket(0, 5, d));
    EXPECT_EQ(link_->Outstanding, 3);
    EXPECT_EQ(link_->Store[link_->Oldest].Seq, 3);
    EXPECT_EQ(link_->LastAck, '2');
    // An acknowledgement that matches nothing changes only LastAck.
    BPlusReleaseAcked(&r_, '9');
    EXPECT_EQ(link_->Outstanding, 3);
    EXPECT_EQ(link_->LastAck, '9');
    // Acknowledging the newest frees everything, across the wrap of the slots.
    BPlusReleaseAcked(&r_, '5');
    EXPECT_EQ(link_->Outstanding, 0);
    for (const StoredPacket &s : link_->Store) EXPECT_EQ(s.Data, nullptr);
    EXPECT_EQ(BPlusWaitAllAcks(&r_), 0);
}

TEST_F(BPlusLinkTest, AlternateSequenceAndNoMemory) {
    AltSeqParam(&r_) = 1;
    r_.RxSeq = 3;
    const Bytes d = B("A");
    BPlusSendNumbered(&r_, 1, d.data());
    EXPECT_EQ(Sent(), RefPacket(0, 1, d));
    EXPECT_EQ(r_.RxSeq, 3);
    plat::SetAllocFailAfter(0);
    EXPECT_EQ(BPlusSendNumbered(&r_, 1, d.data()), -601);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(link_->Outstanding, 1);
    EXPECT_TRUE(Sent().empty());
}

// The next number is delivered and acknowledged; a repeat of the last one
// is acknowledged again and not delivered; a failure packet is delivered
// whatever its number.
TEST_F(BPlusLinkTest, NextRepeatAndFailurePackets) {
    r_.RxSeq = 4;
    Line(RefPacket(0, 5, B("Nabc")));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(r_.Result, -622);
    EXPECT_EQ(Delivered(), B("Nabc"));
    EXPECT_EQ(r_.RxSeq, 5);
    EXPECT_EQ(Sent(), Ack(5));

    Line(Cat({RefPacket(0, 5, B("Nabc")), RefPacket(0, 6, B("N\x03\x10z"))}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("N\x03\x10z"));
    EXPECT_EQ(Sent(), Cat({Ack(5), Ack(6)}));
    EXPECT_EQ(r_.ErrorTotal, 0);

    Line(RefPacket(0, 2, B("FA")));
    EXPECT_EQ(Wait(false), -622);
    EXPECT_EQ(Delivered(), B("FA"));
    EXPECT_EQ(r_.RxSeq, 2);
    EXPECT_TRUE(Sent().empty()); // not acknowledged without the flag
    EXPECT_EQ(CountStatus("_BPWaitForACK : Received packet"), 3);
}

// Any other number is refused with NAK and counted; so are damaged checks
// (each method), early ETX and data longer than the limit.
TEST_F(BPlusLinkTest, DamagedPacketsAreRefused) {
    const Bytes good = B("Tdata");
    const struct {
        const char *what;
        int8_t method;
        Bytes line;
    } cases[] = {
        {"wrong number", 0, RefPacket(0, 3, good)},
        {"checksum", 0,
         Cat({{DLE, 'B', '1', 'T', 'd', 'a', 't', 'b', ETX}, {RefCheckBytes(0, B("1Tdata\x03"))}})},
        {"ccitt", 1,
         [&] {
             Bytes p = RefPacket(1, 1, good);
             p[4] ^= 1;
             return p;
         }()},
        {"x25", 2,
         [&] {
             Bytes p = RefPacket(2, 1, good);
             p.back() ^= 0x40;
             return p;
         }()},
        {"crc32", 3,
         [&] {
             Bytes p = RefPacket(3, 1, good);
             p[p.size() - 4] ^= 0x20;
             return p;
         }()},
        {"early etx", 0, Bytes{ETX}},
    };
    for (const auto &c : cases) {
        link_->CheckMethod = c.method;
        r_.RxSeq = 0;
        r_.ErrorTotal = 0;
        StatusLines().clear();
        Line(Cat({c.line, RefPacket(c.method, 1, good)}));
        EXPECT_EQ(Wait(), -622) << c.what;
        EXPECT_EQ(Delivered(), good) << c.what;
        EXPECT_EQ(Sent(), Cat({{NAK}, Ack(1)})) << c.what;
        EXPECT_EQ(r_.ErrorTotal, 1) << c.what;
        const bool crc = c.method != 0;
        const bool sum = c.method == 0 && std::string(c.what) == "checksum";
        EXPECT_EQ(CountStatus("", 1), crc || sum ? 1 : 0) << c.what;
    }
    r_.BlockSize = 4;
    r_.RxSeq = 0;
    Line(Cat({RefPacket(0, 1, B("Tlong")), RefPacket(0, 1, B("Tok!"))}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("Tok!"));
    EXPECT_EQ(CountStatus("buffer overflow"), 1);
}

// ENQ unquoted in the middle of a packet drops it and answers with the
// acknowledgement of the last packet accepted; the packet then comes again.
TEST_F(BPlusLinkTest, EnqMidPacketAnswersLastAck) {
    r_.RxSeq = 7;
    const Bytes p = RefPacket(0, 8, B("Nhello"));
    Line(Cat({Bytes(p.begin(), p.begin() + 6), {ENQ}, p}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Sent(), Cat({Ack(7), Ack(8)}));
    EXPECT_EQ(Delivered(), B("Nhello"));
    EXPECT_EQ(r_.ErrorTotal, 0);
    // A quoted ENQ is data.
    Line(RefPacket(0, 9, B("N\x05")));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("N\x05"));
}

// After NAK our side asks with ENQ ENQ; the first acknowledgement releases
// what it covers, the same digit again means the rest was lost: all of it
// goes again, oldest first, each with its own number.
TEST_F(BPlusLinkTest, ResendRequestAndResendAll) {
    const Bytes a = B("Da"), b = B("Db"), c = B("Dc");
    for (const Bytes *d : {&a, &b, &c}) BPlusSendNumbered(&r_, 2, d->data());
    Sent();
    Line(Cat({{NAK}, Ack(1), Ack(1)}));
    host_.OnRequest([&](TestHost &h, uintptr_t request) {
        // Once the resent packets are out, the service acknowledges them.
        if (request == PORT_READ && h.Unread() == 0 && h.Written().size() > 2)
            h.Receive(std::span<const uint8_t>(Ack(3)));
    });
    EXPECT_EQ(Wait(), 0);
    host_.OnRequest(nullptr);
    EXPECT_EQ(Sent(), Cat({{ENQ, ENQ}, RefPacket(0, 2, b), RefPacket(0, 3, c)}));
    EXPECT_EQ(link_->Outstanding, 0);
    EXPECT_EQ(link_->ResendPending, 0);
    EXPECT_EQ(r_.ErrorTotal, 1);
    // Without leave to resend, the second equal acknowledgement ends the call.
    BPlusSendNumbered(&r_, 2, a.data());
    BPlusSendNumbered(&r_, 2, b.data());
    Sent();
    Line(Cat({{NAK}, Ack(4), Ack(4)}));
    EXPECT_EQ(Wait(true, false), 0);
    EXPECT_EQ(Sent(), (Bytes{ENQ, ENQ}));
    EXPECT_EQ(link_->Outstanding, 1);
}

// Packets keep arriving while ours go unanswered: after the window + 3 of
// them our side asks for its acknowledgements.
TEST_F(BPlusLinkTest, TooManyPacketsWhileWaiting) {
    const Bytes d = B("Dz");
    BPlusSendNumbered(&r_, 2, d.data());
    Sent();
    for (int seq = 2; seq <= 5; ++seq) {
        Line(RefPacket(0, seq, B("N")));
        EXPECT_EQ(Wait(), -622);
    }
    Sent();
    Line(Cat({Ack(1), Ack(1)}));
    EXPECT_EQ(Wait(), 0);
    EXPECT_EQ(Sent(), (Bytes{ENQ, ENQ}));
    EXPECT_EQ(r_.ErrorTotal, 2); // the overrun and the resend request
    EXPECT_EQ(link_->Outstanding, 0);
}

// A silent line: each time-out is a NAK (nothing outstanding) and the tenth
// error ends the wait after ten read time-outs.
TEST_F(BPlusLinkTest, SilenceEndsAtTheErrorLimit) {
    const uint32_t start = clock_.Now();
    EXPECT_EQ(Wait(), -610);
    EXPECT_EQ(r_.Result, -610);
    EXPECT_EQ(Sent(), Bytes(10, NAK));
    EXPECT_GE(clock_.Now() - start, 10u * 15000u);
    EXPECT_LE(clock_.Now() - start, 11u * 15000u);
    // The count is never reset: the next wait ends at once.
    EXPECT_EQ(Wait(), -610);
    EXPECT_TRUE(Sent().empty());
}

// With a packet outstanding the first time-out asks for a resend; the
// time-outs while that request is pending are counted without more asking.
TEST_F(BPlusLinkTest, SilenceAfterAResendRequest) {
    BPlusSendNumbered(&r_, 2, B("Dr").data());
    Sent();
    const uint32_t start = clock_.Now();
    EXPECT_EQ(Wait(), -610);
    EXPECT_EQ(Sent(), (Bytes{ENQ, ENQ}));
    EXPECT_EQ(link_->ResendPending, 1);
    EXPECT_EQ(link_->Outstanding, 1);
    EXPECT_GE(clock_.Now() - start, 10u * 15000u);
    EXPECT_LE(clock_.Now() - start, 11u * 15000u);
}

// Endless garbage (never the same twice, with packet starts in it) ends at
// the error limit; with packets outstanding the errors are resend requests.
TEST_F(BPlusLinkTest, EndlessGarbageEndsAtTheErrorLimit) {
    for (const bool outstanding : {false, true}) {
        r_.ErrorTotal = 0;
        if (outstanding) BPlusSendNumbered(&r_, 2, B("Dq").data());
        Sent();
        std::mt19937 random(outstanding ? 7 : 3);
        std::size_t fed = 0;
        host_.OnRequest([&](TestHost &h, uintptr_t request) {
            if (request != PORT_READ || h.Unread() != 0) return;
            Bytes chunk(61);
            for (uint8_t &b : chunk) b = static_cast<uint8_t>(random());
            chunk[random() % 50] = DLE;
            chunk[random() % 50 + 1] = 'B';
            fed += chunk.size();
            h.Receive(std::span<const uint8_t>(chunk));
        });
        EXPECT_EQ(Wait(), -610);
        host_.OnRequest(nullptr);
        EXPECT_EQ(r_.ErrorTotal, 10);
        EXPECT_LT(fed, 2000000u);
        const Bytes sent = Sent();
        EXPECT_GT(sent.size(), 0u);
        while (host_.Unread() != 0) ReadCharTimed(port_, 0);
    }
}

// A failure packet waits for our own packets first, goes out under the next
// number without being stored, and the wait after it runs until the line
// ends it.
TEST_F(BPlusLinkTest, FailurePacket) {
    BPlusSendNumbered(&r_, 2, B("Dw").data());
    Sent();
    Line(Ack(1));
    const int32_t result = BPlusSendFailure(&r_, 'A', "cancelled");
    EXPECT_EQ(result, -610);
    const Bytes sent = Sent();
    const Bytes f = RefPacket(0, 2, B("FA"));
    ASSERT_GE(sent.size(), f.size());
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + static_cast<long>(f.size())), f);
    EXPECT_EQ(r_.RxSeq, 1);
    EXPECT_EQ(link_->Outstanding, 0);
    EXPECT_EQ(CountStatus("", 1), 1);
}

} // namespace
} // namespace zvxfer::bplus
