// The ZMODEM frame layer: exact header and subpacket bytes, the escaping,
// CRC-32, and the readers against scripted line input (noise, cancels,
// silence, damaged checks, escapes a peer may use, any split of the line).
#include "platform/heap.h"
#include "zm_wire.h"
#include "zmodem/plain_runs.h"

namespace zvxfer::zm {
namespace {

using namespace test;

// The block routine (eight tables, or folding where the processor has it)
// equals the byte-wise table routine for every length class, alignment and
// start value.  (The exact frames below pin the table itself.)
TEST(ZmodemCodec, Crc32BlockEqualsByteWise) {
    const Bytes data = Pattern(2200);
    for (uint32_t length : {0u, 1u, 7u, 8u, 15u, 16u, 17u, 63u, 64u, 65u, 79u, 80u, 127u, 128u,
                            129u, 300u, 1024u, 1031u, 2100u}) {
        for (std::size_t offset : {0u, 1u, 5u}) {
            for (uint32_t start : {0xFFFFFFFFu, 0u, 0x12345678u}) {
                uint32_t expected = start;
                for (uint32_t i = 0; i < length; ++i)
                    expected = Crc32Update(expected, data[offset + i]);
                EXPECT_EQ(Crc32Block(length, start, data.data() + offset), expected)
                    << length << " at " << offset;
            }
        }
    }
}

// Each form once, byte for byte: hex headers (XON after all but ZFIN and
// ZACK), binary headers with escapes in data and check, and a subpacket with
// escapes under each end character (escaped check bytes, XON after ZCRCW).
TEST(ZmodemCodec, HeadersAndSubpacketsAreExact) {
    EXPECT_EQ(Hex(zm::ZRINIT, 0x27000000), Str(std::string("**\x18") + "B0100000027fed4\r\n\x11"));
    EXPECT_EQ(Hex(zm::ZFIN), Str(std::string("**\x18") + "B0800000000022d\r\n"));
    EXPECT_EQ(Hex(zm::ZACK).size(), 20u);
    EXPECT_EQ(
        ZHeader(zm::ZDATA, static_cast<int32_t>(0x917F180D), 'A'),
        (Bytes{0x2a, 0x18, 0x41, 0x0a, 0x18, 0x4d, 0x18, 0x58, 0x7f, 0x18, 0xd1, 0x1e, 0x15}));
    EXPECT_EQ(ZHeader(zm::ZDATA, 0x30201000, 'C'), (Bytes{0x2a, 0x18, 0x43, 0x0a, 0x00, 0x18, 0x50,
                                                          0x20, 0x30, 0xc2, 0x58, 0xe9, 0x23}));

    const Bytes data{0x18, 0x7f, 0x0d, 0x8d, 0x11, 0x61};
    const Bytes escaped{0x18, 0x58, 0x7f, 0x18, 0x4d, 0x18, 0xcd, 0x18, 0x51, 0x61};
    const struct {
        uint8_t end;
        bool crc32;
        Bytes tail;
    } cases[] = {{zm::ZCRCE, false, {0x40, 0x6b}},
                 {zm::ZCRCG, true, {0xc9, 0x52, 0xe6, 0x81}},
                 {zm::ZCRCQ, true, {0x73, 0x03, 0xef, 0x18, 0x58}},
                 {zm::ZCRCW, false, {0x70, 0x08, zm::XON}}};
    for (const auto &c : cases)
        EXPECT_EQ(ZSubpacket(data, c.end, c.crc32), Cat(escaped, Bytes{0x18, c.end}, c.tail));
    // Worst case: every byte escaped still fits the declared wire size.
    EXPECT_LE(ZSubpacket(Bytes(1024, 0x18), zm::ZCRCW, true).size(), zm::kMaxSubpacketWire);
}

// Exactly nine values are escaped, wherever they lie in the sixteen-byte
// steps of the run copier.
TEST(ZmodemCodec, ExactlyNineValuesAreEscapedAtAnyPlace) {
    const Bytes nine{0x0D, 0x10, 0x11, 0x13, 0x18, 0x8D, 0x90, 0x91, 0x93};
    for (std::size_t lead = 0; lead < 16; ++lead) {
        Bytes data(lead, 'a'), expected(lead, 'a');
        for (int v = 0; v < 256; ++v) {
            const bool escaped = std::find(nine.begin(), nine.end(), v) != nine.end();
            data.push_back(static_cast<uint8_t>(v));
            if (escaped) expected.push_back(zm::ZDLE);
            expected.push_back(static_cast<uint8_t>(escaped ? v ^ 0x40 : v));
        }
        const Bytes wire = ZSubpacket(data, zm::ZCRCE, true);
        EXPECT_EQ(Bytes(wire.begin(), wire.begin() + static_cast<long>(expected.size())), expected)
            << lead;
    }
}

// A record on a port whose line input is scripted.
class ZmodemReader : public ZmodemScripted {
  protected:
    void SetUp() override {
        ZmodemScripted::SetUp();
        r_.Port = port_;
        r_.StatusCallback = CollectStatus;
        r_.Buffer = static_cast<uint8_t *>(plat::HeapAllocZero(zm::kMaxSubpacket));
        r_.Protocol = Zmodem;
        ZmMaxErrors(&r_) = 10;
    }
    void TearDown() override {
        plat::HeapFreeBlock(r_.Buffer); // the cancel clean-up frees it and leaves null
        ZmodemScripted::TearDown();
    }

    XferRecord r_{};
};

// A damaged check of each kind, a capital hex digit, an unknown format and a
// hex header with a stray byte before its CR LF: one error each; the error
// run reaching the limit gives -610.
TEST_F(ZmodemReader, DamagedHeadersCountOneErrorEachUpToTheLimit) {
    Bytes bad16 = ZHeader(zm::ZDATA, 0, 'A'), bad32 = ZHeader(zm::ZDATA, 0, 'C'),
          stray = Hex(zm::ZACK);
    bad16[5] ^= 0x01;
    bad32[9] ^= 0x01;
    stray.insert(stray.end() - 2, 'x');
    for (const Bytes &b :
         {bad16, bad32, Str(std::string("**\x18") + "B0100000027FED4\r\n"), Str("*\x18Z"), stray}) {
        host_.Receive(b);
        EXPECT_EQ(ReadFrameHeader(&r_, 1), -1) << r_.ErrorTotal;
    }
    EXPECT_EQ(r_.ErrorTotal, 5);
    EXPECT_EQ(r_.Result, 0);

    ZmMaxErrors(&r_) = 7;
    host_.Receive(Cat(bad16, bad16));
    EXPECT_EQ(ReadFrameHeader(&r_, 0), XferErrTooManyErrors);
}

// The hunt: 2047 noise characters are passed over, 2048 end it (the header
// stays); noise and then one silent second (a header damaged beyond
// recognition) end it as a damaged header; ten silent seconds, flow control
// not shortening them, end it with -619.
TEST_F(ZmodemReader, NoiseLimitSilenceAfterNoiseAndTenSilentSecondsEndTheHunt) {
    host_.Receive(Cat(Bytes(2047, 'x'), Hex(zm::ZFIN)));
    EXPECT_EQ(ReadFrameHeader(&r_, 1), zm::ZFIN);
    host_.Receive(Cat(Bytes(2048, 'x'), Hex(zm::ZFIN)));
    EXPECT_EQ(ReadFrameHeader(&r_, 1), -1);
    EXPECT_EQ(CountStatus("GetPad: Exceeded garbage count", 0), 1);
    EXPECT_EQ(ReadFrameHeader(&r_, 1), zm::ZFIN);

    Bytes damaged = Hex(zm::ZACK);
    damaged[2] ^= 0x04; // the ZDLE: the rest is noise
    host_.Receive(damaged);
    EXPECT_EQ(ReadFrameHeader(&r_, 1), -1);
    EXPECT_EQ(CountStatus("GetPad: silence after noise", 0), 1);

    host_.Receive(Bytes{zm::XON, zm::XOFF | 0x80});
    const uint32_t start = clock_.Now();
    EXPECT_EQ(ReadFrameHeader(&r_, 0), XferErrNoFilesSent);
    EXPECT_GE(clock_.Now() - start, 10000u);
    EXPECT_EQ(CountStatus("No response for 10 seconds", 1), 1);
}

// Four CANs are noise; five cancel, inside data and while hunting alike.
TEST_F(ZmodemReader, FiveCansCancelInsideDataAndWhileHunting) {
    host_.Receive(Cat(Bytes(4, zm::CAN), Hex(zm::ZRINIT), Bytes(5, zm::CAN)));
    EXPECT_EQ(ReadFrameHeader(&r_, 1), zm::ZRINIT);
    EXPECT_EQ(ReadFrameHeader(&r_, 1), XferErrRemoteAbort);
    r_.Result = 0;
    host_.Receive(Cat(Bytes{'a'}, Bytes(4, zm::CAN), Bytes{'X'}, Bytes(5, zm::CAN)));
    EXPECT_EQ(ReadEscaped(&r_), 'a');
    EXPECT_EQ(ReadEscaped(&r_), 0x18); // four CANs and 'X': an escaped ZDLE
    EXPECT_EQ(ReadEscaped(&r_), XferErrRemoteAbort);
    EXPECT_EQ(r_.Result, XferErrRemoteAbort);
    EXPECT_EQ(CountStatus("Transfer cancelled by the other side", 1), 2);
}

// The subpacket's check follows the header that introduced it; more than
// 1024 bytes overflow.
TEST_F(ZmodemReader, SubpacketCheckFollowsTheHeaderFormat) {
    host_.Receive(Cat(Hex(zm::ZDATA), ZSubpacket({1, 2, 3}, zm::ZCRCE, true)));
    ASSERT_EQ(ReadFrameHeader(&r_, 1), zm::ZDATA);
    EXPECT_EQ(ReadDataSubpacket(&r_), -1); // a CRC-32 subpacket checked as CRC-16
    host_.Receive(Cat(ZHeader(zm::ZDATA, 0, 'A'), ZSubpacket({}, zm::ZCRCW, false)));
    ASSERT_EQ(ReadFrameHeader(&r_, 1), zm::ZDATA);
    EXPECT_EQ(ReadDataSubpacket(&r_), zm::ZCRCW);
    EXPECT_EQ(r_.BlockSize, 0);
    ZmHeaderFormat(&r_) = 'C';
    host_.Receive(Bytes(1025, 'a'));
    EXPECT_EQ(ReadDataSubpacket(&r_), PortUserBufferOverflow);
}

// A subpacket from a peer that escapes every control character: ZRUB0 and
// ZRUB1, any character after ZDLE, raw flow control inside an escape and
// between data bytes.  Any split of the line.
TEST_F(ZmodemReader, EveryEscapeFormDecodesWhateverTheSplit) {
    const Bytes peer{0x7F, 0xFF, 'A', 0x01, 0xC1, 0xC1, 'z'};
    const Bytes ours = ZSubpacket(peer, zm::ZCRCW, true); // none escaped: the check at 9
    const Bytes line =
        Cat(ZHeader(zm::ZDATA, 0, 'C'),
            Bytes{zm::ZDLE, zm::ZRUB0, zm::ZDLE, zm::ZRUB1, zm::ZDLE, 0x01, zm::ZDLE, zm::XON, 0x41,
                  zm::ZDLE, 0x81, zm::XOFF, 0xC1, 'z', zm::ZDLE, zm::ZCRCW},
            Bytes(ours.begin() + 9, ours.end()));
    for (std::size_t chunk : {1u, 3u, 64u, 5000u}) {
        SCOPED_TRACE(chunk);
        host_.SetChunkSize(chunk);
        host_.Receive(line);
        ASSERT_EQ(ReadFrameHeader(&r_, 1), zm::ZDATA);
        EXPECT_EQ(ReadDataSubpacket(&r_), zm::ZCRCW);
        EXPECT_EQ(Bytes(r_.Buffer, r_.Buffer + r_.BlockSize), peer);
    }
}

} // namespace
} // namespace zvxfer::zm
