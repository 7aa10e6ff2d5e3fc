// The B+ packet layer on a scripted line: quoting both ways, packets of
// every check method both ways (compared with the service's own framing),
// the resend store and its window, and the packet reader against repeats,
// failure packets, resend requests, ENQ in mid-packet, damaged packets and
// silence.
#include <gtest/gtest.h>
#include <random>

#include "bplus/bplus.h"
#include "fake_clock.h"
#include "frames.h"
#include "platform/heap.h"
#include "port/port.h"
#include "status_log.h"
#include "test_host.h"

namespace zvxfer::bplus {
namespace {

using namespace zvxfer::test;
using namespace zvxfer::bplus::test;

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
    void Send(const std::string &data) {
        BPlusSendNumbered(&r_, static_cast<int32_t>(data.size()), B(data).data());
    }

    FakeClock clock_{FakeClock::kSleepless};
    TestHost host_;
    XferPort *port_ = nullptr;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(1100);
    XferRecord r_{};
    BPlusLink *link_ = nullptr;
};

// Each class of byte under the default set (mode 0), quote-all (3) and
// the mask after an exchange (4), and read back to the same byte.
TEST_F(BPlusLinkTest, QuotingBothWays) {
    const struct {
        int mode;
        uint8_t in;
        Bytes out;
    } cases[] = {
        {0, 0x03, {DLE, 'C'}},  {0, 0x05, {DLE, 0x45}}, {0, 0x10, {DLE, 0x50}},
        {0, 0x11, {DLE, 0x51}}, {0, 0x13, {DLE, 0x53}}, {0, 0x15, {DLE, 0x55}},
        {0, 0x00, {0x00}},      {0, 0x0D, {0x0D}},      {0, 0x91, {0x91}},
        {3, 0x91, {DLE, 0x71}}, {3, 0x00, {DLE, 0x40}}, {3, 0x1F, {DLE, 0x5F}},
        {3, 0x80, {DLE, 0x60}}, {3, 0x9F, {DLE, 0x7F}}, {3, 0xA0, {0xA0}},
        {3, 0x7F, {0x7F}},      {4, 0x0D, {0x0D}},      {4, 0x03, {DLE, 'C'}},
    };
    for (const auto &c : cases) {
        link_->QuoteMode = c.mode;
        BPlusSendQuoted(&r_, c.in);
        EXPECT_EQ(Sent(), c.out) << "mode " << c.mode << " byte " << int(c.in);
        Line(c.out);
        EXPECT_EQ(BPlusReadQuoted(&r_), c.in);
        EXPECT_EQ(link_->Unquoted, c.out.size() == 1 ? 1 : 0) << int(c.in);
    }
    // The high-half bit of a mask entry quotes 0x80 + i only.
    link_->QuoteMode = 4;
    link_->QuoteMask[0x11] |= 0x10;
    BPlusSendQuoted(&r_, 0x91);
    BPlusSendQuoted(&r_, 0x93);
    EXPECT_EQ(Sent(), (Bytes{DLE, 0x71, 0x93}));
    const uint32_t before = clock_.Now();
    EXPECT_EQ(BPlusReadQuoted(&r_), -616); // silence
    EXPECT_GE(clock_.Now() - before, 15000u);
}

// Under each method: random packets (every byte value, check bytes that
// are control characters among them) go out exactly as the service frames
// them, and the service's packets are read back whole.
TEST_F(BPlusLinkTest, PacketsOfEveryMethodBothWays) {
    std::mt19937 random(5);
    for (int8_t method = 0; method <= 3; ++method) {
        link_->CheckMethod = method;
        for (int n = 0; n < 150; ++n) {
            Bytes data(n == 0 ? 1025 : 1 + random() % 40);
            for (uint8_t &b : data) b = static_cast<uint8_t>(random());
            data[0] = 'N';
            const int seq = n % 10;
            const bool all = n % 3 == 0;
            link_->QuoteMode = all ? 3 : 0;
            EXPECT_EQ(BPlusSendPacket(&r_, static_cast<int32_t>(data.size()), seq, data.data()), 0);
            const Bytes frame =
                Packet(seq, data, method, all ? wire::QuoteSet::All() : wire::QuoteSet::Default());
            ASSERT_EQ(Sent(), frame) << "method " << int(method) << " packet " << n;
            r_.RxSeq = (seq + 9) % 10;
            Line(frame);
            ASSERT_EQ(Wait(), -622) << "method " << int(method) << " packet " << n;
            EXPECT_EQ(Delivered(), data);
            EXPECT_EQ(Sent(), Ack(seq));
        }
    }
    EXPECT_EQ(link_->Outstanding, 0); // a raw packet is not kept
    EXPECT_EQ(r_.ErrorTotal, 0);
}

// A packet leaves whole whatever the host takes at a time; a lost line is
// reported.
TEST_F(BPlusLinkTest, PacketsSurviveSlowHosts) {
    Bytes big(1025, DLE);
    link_->CheckMethod = 3;
    host_.SetWriteLimit(3);
    host_.RefuseWrites(2);
    EXPECT_EQ(BPlusSendPacket(&r_, 1025, 4, big.data()), 0);
    EXPECT_EQ(Sent(), Packet(4, big, 3));
    host_.SetWriteError(true);
    EXPECT_LT(BPlusSendPacket(&r_, 3, 1, big.data()), 0);
}

// Numbered packets take the next numbers and stay stored until
// acknowledged; window 1 lets four go unanswered, a wider window at most
// the five the store holds; the alternate counter numbers packets without
// touching the shared one; no memory leaves nothing sent.
TEST_F(BPlusLinkTest, StoreWindowAndNumbers) {
    for (int i = 1; i <= 4; ++i) {
        Send("Dx");
        EXPECT_EQ(Sent(), Packet(i, "Dx"));
    }
    Line(Ack(2));
    Send("Dx"); // waits for the acknowledgement first
    EXPECT_EQ(Sent(), Packet(5, "Dx"));
    EXPECT_EQ(link_->Outstanding, 3);
    EXPECT_EQ(link_->Store[link_->Oldest].Seq, 3);
    BPlusReleaseAcked(&r_, '9'); // matches nothing
    EXPECT_EQ(link_->Outstanding, 3);
    EXPECT_EQ(link_->LastAck, '9');
    BPlusReleaseAcked(&r_, '5'); // the newest frees all, across the slots' wrap
    EXPECT_EQ(link_->Outstanding, 0);
    for (const StoredPacket &s : link_->Store) EXPECT_EQ(s.Data, nullptr);
    EXPECT_EQ(BPlusWaitAllAcks(&r_), 0);

    SendWindow(&r_) = 4;
    for (int i = 0; i < 5; ++i) Send("Dw");
    Sent();
    Line(Ack(6));
    Send("Dw");
    EXPECT_EQ(Sent(), Packet(1, "Dw"));
    EXPECT_EQ(link_->Outstanding, 5);
    EXPECT_EQ(link_->Store[link_->Oldest].Seq, 7);

    BPlusReleaseAcked(&r_, '1');
    AltSeqParam(&r_) = 1;
    Send("A");
    EXPECT_EQ(Sent(), Packet(1, "A"));
    EXPECT_EQ(r_.RxSeq, 1);
    plat::SetAllocFailAfter(0);
    EXPECT_EQ(BPlusSendNumbered(&r_, 1, B("A").data()), -601);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(link_->Outstanding, 1);
    EXPECT_TRUE(Sent().empty());
}

// The next number is delivered and acknowledged; a repeat of the last one
// is acknowledged again and not delivered; a failure packet is delivered
// whatever its number.
TEST_F(BPlusLinkTest, NextRepeatAndFailurePackets) {
    r_.RxSeq = 4;
    Line(Cat({Packet(5, "Nabc"), Packet(5, "Nabc"), Packet(6, "N\x03\x10z")}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("Nabc"));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("N\x03\x10z"));
    EXPECT_EQ(Sent(), Cat({Ack(5), Ack(5), Ack(6)}));
    EXPECT_EQ(r_.ErrorTotal, 0);

    Line(Packet(2, "FA"));
    EXPECT_EQ(Wait(false), -622);
    EXPECT_EQ(Delivered(), B("FA"));
    EXPECT_EQ(r_.RxSeq, 2);
    EXPECT_TRUE(Sent().empty()); // not acknowledged without the flag
}

// Any other number is refused with NAK and counted; so are damaged checks
// (each method), early ETX, an empty packet and data longer than the limit.
TEST_F(BPlusLinkTest, DamagedPacketsAreRefused) {
    const Bytes good = B("Tdata");
    auto damaged = [&](int method, std::size_t fromEnd, uint8_t flip) {
        Bytes p = Packet(1, good, method);
        p[p.size() - fromEnd] ^= flip;
        return p;
    };
    const struct {
        const char *what;
        int8_t method;
        Bytes line;
    } cases[] = {
        {"wrong number", 0, Packet(3, good)},    {"checksum", 0, damaged(0, 3, 0x01)},
        {"ccitt", 1, damaged(1, 4, 0x01)},       {"x25", 2, damaged(2, 1, 0x40)},
        {"crc32", 3, damaged(3, 4, 0x20)},       {"early etx", 0, Bytes{ETX}},
        {"empty packet", 0, Packet(1, Bytes{})},
    };
    for (const auto &c : cases) {
        link_->CheckMethod = c.method;
        r_.RxSeq = 0;
        r_.ErrorTotal = 0;
        Line(Cat({c.line, Packet(1, good, c.method)}));
        EXPECT_EQ(Wait(), -622) << c.what;
        EXPECT_EQ(Delivered(), good) << c.what;
        EXPECT_EQ(Sent(), Cat({{NAK}, Ack(1)})) << c.what;
        EXPECT_EQ(r_.ErrorTotal, 1) << c.what;
    }
    r_.BlockSize = 4;
    r_.RxSeq = 0;
    Line(Cat({Packet(1, "Tlong"), Packet(1, "Tok!")}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Delivered(), B("Tok!"));
}

// ENQ unquoted in the middle of a packet drops it and answers with the
// acknowledgement of the last packet accepted; a quoted ENQ is data.
TEST_F(BPlusLinkTest, EnqMidPacketAnswersLastAck) {
    r_.RxSeq = 7;
    const Bytes p = Packet(8, "N\x05hello");
    Line(Cat({Head(p, 6), {ENQ}, p}));
    EXPECT_EQ(Wait(), -622);
    EXPECT_EQ(Sent(), Cat({Ack(7), Ack(8)}));
    EXPECT_EQ(Delivered(), B("N\x05hello"));
    EXPECT_EQ(r_.ErrorTotal, 0);
}

// After NAK our side asks with ENQ ENQ; the first acknowledgement releases
// what it covers, the same digit again means the rest was lost: all of it
// goes again, oldest first, each with its own number.
TEST_F(BPlusLinkTest, ResendRequestAndResendAll) {
    for (const char *d : {"Da", "Db", "Dc"}) Send(d);
    Sent();
    Line(Cat({{NAK}, Ack(1), Ack(1)}));
    host_.OnRequest([&](TestHost &h, uintptr_t request) {
        // Once the resent packets are out, the service acknowledges them.
        if (request == PORT_READ && h.Unread() == 0 && h.Written().size() > 2)
            h.Receive(std::span<const uint8_t>(Ack(3)));
    });
    EXPECT_EQ(Wait(), 0);
    host_.OnRequest(nullptr);
    EXPECT_EQ(Sent(), Cat({{ENQ, ENQ}, Packet(2, "Db"), Packet(3, "Dc")}));
    EXPECT_EQ(link_->Outstanding, 0);
    EXPECT_EQ(r_.ErrorTotal, 1);
    // Without leave to resend, the second equal acknowledgement ends the call.
    Send("Da");
    Send("Db");
    Sent();
    Line(Cat({{NAK}, Ack(4), Ack(4)}));
    EXPECT_EQ(Wait(true, false), 0);
    EXPECT_EQ(Sent(), (Bytes{ENQ, ENQ}));
    EXPECT_EQ(link_->Outstanding, 1);
}

// Packets keep arriving while ours go unanswered: after the window + 3 of
// them our side asks for its acknowledgements.
TEST_F(BPlusLinkTest, TooManyPacketsWhileWaiting) {
    Send("Dz");
    for (int seq = 2; seq <= 5; ++seq) {
        Line(Packet(seq, "N"));
        EXPECT_EQ(Wait(), -622);
    }
    Sent();
    Line(Cat({Ack(1), Ack(1)}));
    EXPECT_EQ(Wait(), 0);
    EXPECT_EQ(Sent(), (Bytes{ENQ, ENQ}));
    EXPECT_EQ(r_.ErrorTotal, 2); // the overrun and the resend request
}

// A silent line ends the wait at the tenth error after ten read time-outs:
// each a NAK with nothing outstanding, else one resend request and then
// time-outs counted while it is pending.  The count is never reset.
TEST_F(BPlusLinkTest, SilenceEndsAtTheErrorLimit) {
    for (const bool outstanding : {false, true}) {
        r_.ErrorTotal = 0;
        if (outstanding) Send("Dr");
        Sent();
        const uint32_t start = clock_.Now();
        EXPECT_EQ(Wait(), -610);
        EXPECT_EQ(r_.Result, -610);
        EXPECT_EQ(Sent(), outstanding ? (Bytes{ENQ, ENQ}) : Bytes(10, NAK));
        EXPECT_GE(clock_.Now() - start, 10u * 15000u);
        EXPECT_LE(clock_.Now() - start, 11u * 15000u);
        EXPECT_EQ(Wait(), -610);
        EXPECT_TRUE(Sent().empty());
    }
}

// A failure packet waits for our own packets first, goes out under the next
// number without being stored, and the wait after it runs until the line
// ends it.
TEST_F(BPlusLinkTest, FailurePacket) {
    Send("Dw");
    Sent();
    Line(Ack(1));
    EXPECT_EQ(BPlusSendFailure(&r_, 'A', "cancelled"), -610);
    const Bytes f = Packet(2, "FA");
    EXPECT_EQ(Head(Sent(), f.size()), f);
    EXPECT_EQ(r_.RxSeq, 1);
    EXPECT_EQ(link_->Outstanding, 0);
    EXPECT_EQ(CountStatus("", 1), 1);
}

} // namespace
} // namespace zvxfer::bplus
