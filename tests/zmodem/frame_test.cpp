// The ZMODEM frame layer: exact header and subpacket bytes, the escaping,
// both CRCs, and the readers against scripted line input (noise, cancels,
// silence, damaged checks, a subpacket's CRC following its header).
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "platform/heap.h"
#include "port/port.h"
#include "status_log.h"
#include "test_host.h"
#include "xmodem/xmodem.h"
#include "zm_wire.h"
#include "zmodem/plain_runs.h"
#include "zmodem/zmodem.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using test::Bytes;
using test::Cat;
using test::FakeClock;
using test::Str;
using test::TestHost;

using test::CollectStatus;
using test::CountStatus;
using test::StatusLines;

// The standard check value and the residue; then the block routine (tables,
// or folding where the processor has it) gives the byte-wise result for
// every length class, alignment and start value.
TEST(ZmodemCodec, Crc32CheckValueResidueAndBlockEqualsByteWise) {
    const std::string text = "123456789";
    const auto *bytes = reinterpret_cast<const uint8_t *>(text.data());
    EXPECT_EQ(~Crc32Block(9, 0xFFFFFFFFu, bytes), 0xCBF43926u);
    // Running the update over data and the sent complement leaves the residue.
    uint32_t crc = Crc32Block(9, 0xFFFFFFFFu, bytes);
    const uint32_t sent = ~crc;
    for (int i = 0; i < 4; ++i) crc = Crc32Update(crc, static_cast<uint8_t>(sent >> (8 * i)));
    EXPECT_EQ(crc, zm::kCrc32Good);

    Bytes data(2200);
    uint32_t seed = 12345;
    for (auto &b : data) b = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 23);
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

TEST(ZmodemCodec, HexHeadersAreExactAndXonFollowsAllButZfinAndZack) {
    EXPECT_EQ(test::ZHeader(zm::ZRINIT, {0, 0, 0, 0x27}, 'B'),
              Str(std::string("**\x18"
                              "B0100000027fed4\r\n\x11")));
    const Bytes fin = test::ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B');
    EXPECT_EQ(fin.size(), 20u);
    EXPECT_EQ(Bytes(fin.end() - 2, fin.end()), Str("\r\n"));
    const Bytes ack = test::ZHeader(zm::ZACK, {0, 0, 0, 0}, 'B');
    const Bytes rpos = test::ZHeader(zm::ZRPOS, {0, 0, 0, 0}, 'B');
    EXPECT_EQ(ack.size(), 20u);
    EXPECT_EQ(rpos.size(), 21u);
    EXPECT_EQ(rpos[20], zm::XON);
}

TEST(ZmodemCodec, ExactlyTheNineValuesAreEscaped) {
    const Bytes escaped{0x0D, 0x10, 0x11, 0x13, 0x18, 0x8D, 0x90, 0x91, 0x93};
    for (int v = 0; v < 256; ++v) {
        uint8_t out[2];
        const std::size_t n = ZmEscape(out, static_cast<uint8_t>(v));
        const bool expected = std::find(escaped.begin(), escaped.end(), v) != escaped.end();
        ASSERT_EQ(n, expected ? 2u : 1u) << v;
        if (expected) {
            EXPECT_EQ(out[0], zm::ZDLE);
            EXPECT_EQ(out[1], v ^ 0x40);
        } else {
            EXPECT_EQ(out[0], v);
        }
    }
}

TEST(ZmodemCodec, BinaryHeadersCarryTheirCheckInLineOrder) {
    // CRC-16: high byte first; CRC-32: complement, low byte first.
    const Bytes h16 = test::ZHeader(zm::ZDATA, {1, 2, 3, 4}, 'A');
    const uint8_t body[5] = {zm::ZDATA, 1, 2, 3, 4};
    const uint16_t c16 = Crc16Block(5, 0, body);
    EXPECT_EQ(h16, (Bytes{'*', 0x18, 'A', zm::ZDATA, 1, 2, 3, 4, static_cast<uint8_t>(c16 >> 8),
                          static_cast<uint8_t>(c16)}));
    const Bytes h32 = test::ZHeader(zm::ZDATA, {1, 2, 3, 4}, 'C');
    const uint32_t c32 = ~Crc32Block(5, 0xFFFFFFFFu, body);
    ASSERT_EQ(h32.size(), 12u);
    EXPECT_EQ(h32[2], 'C');
    for (int i = 0; i < 4; ++i) EXPECT_EQ(h32[8 + i], static_cast<uint8_t>(c32 >> (8 * i)));
}

TEST(ZmodemCodec, SubpacketEndsWithZdleEndCheckAndXonAfterZcrcw) {
    const Bytes s = test::ZSubpacket({0x18, 0x7F, 0x1B}, zm::ZCRCW, false);
    ASSERT_GE(s.size(), 8u);
    EXPECT_EQ(Bytes(s.begin(), s.begin() + 6), (Bytes{0x18, 0x58, 0x7F, 0x1B, 0x18, zm::ZCRCW}));
    EXPECT_EQ(s.back(), zm::XON);
    EXPECT_NE(test::ZSubpacket({1}, zm::ZCRCG, true).back(), zm::XON);
    // Worst case: every byte escaped still fits the declared wire size.
    EXPECT_LE(test::ZSubpacket(Bytes(1024, 0x18), zm::ZCRCW, true).size(), zm::kMaxSubpacketWire);
}

// A record on a port whose line input is scripted.
class ZmodemReader : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        port_ = PortOpen(0, host_.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
        record_.Port = port_;
        record_.StatusCallback = CollectStatus;
        record_.Buffer = static_cast<uint8_t *>(plat::HeapAllocZero(zm::kMaxSubpacket));
        record_.Protocol = Zmodem;
        ZmMaxErrors(&record_) = 10;
    }
    void TearDown() override {
        plat::HeapFreeBlock(record_.Buffer); // unless a clean-up already did
        port_->Ops.PortClose(port_);
    }
    void Line(const Bytes &bytes) { host_.Receive(bytes); }
    Bytes Data() const { return Bytes(record_.Buffer, record_.Buffer + record_.BlockSize); }

    FakeClock clock_{FakeClock::Scaled{1000}};
    TestHost host_;
    XferPort *port_ = nullptr;
    XferRecord record_{};
};

TEST_F(ZmodemReader, EscapedBytesAndSubpacketEnds) {
    Line({0x18, 'l', 0x18, 'm', 0x18, 'A', 0x18, 'h', 0x18, 'k', 0x7F, 0x18, 0x18, 0x58});
    EXPECT_EQ(ReadEscaped(&record_), 0x7F);
    EXPECT_EQ(ReadEscaped(&record_), 0xFF);
    EXPECT_EQ(ReadEscaped(&record_), 0x01);
    EXPECT_EQ(ReadEscaped(&record_), 0x168);
    EXPECT_EQ(ReadEscaped(&record_), 0x16B);
    EXPECT_EQ(ReadEscaped(&record_), 0x7F);
    // ZDLE CAN then 'X': the CAN run is broken and 'X' decodes.
    EXPECT_EQ(ReadEscaped(&record_), 0x18);
    EXPECT_EQ(ReadEscaped(&record_), -8); // nothing more: the read times out
}

TEST_F(ZmodemReader, RawFlowControlIsNeverData) {
    // A hex header's closing XON, then a subpacket holding an escaped XON.
    Line(Cat(test::ZHeader(zm::ZSINIT, {0, 0, 0, 0x40}, 'B'),
             test::ZSubpacket({0x00, 0x11, 0x13}, zm::ZCRCW, false)));
    ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZSINIT);
    EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCW);
    EXPECT_EQ(Data(), (Bytes{0x00, 0x11, 0x13}));
    Line({0x11, 0x93, 'a', 0x18, 0x91, 0x18, 0x51});
    EXPECT_EQ(ReadEscaped(&record_), 'a');
    EXPECT_EQ(ReadEscaped(&record_), 0x11); // XON within the escape is passed over too
}

TEST_F(ZmodemReader, HeadersOfEveryFormatRoundTrip) {
    for (char format : {'A', 'B', 'C'}) {
        SCOPED_TRACE(format);
        Line(test::ZHeader(zm::ZRPOS, {0x10, 0x20, 0x30, 0x40}, format));
        EXPECT_EQ(ReadFrameHeader(&record_, 1), zm::ZRPOS);
        EXPECT_EQ(ZmHeaderFormat(&record_), format);
        EXPECT_EQ(ZmGetPosition(ZmHeaderData(&record_)), 0x40302010);
        if (format == 'B') {
            EXPECT_EQ(ZmHexSeen(&record_), 1);
        }
        EXPECT_EQ(host_.Unread(), 0u);
    }
    EXPECT_EQ(record_.ErrorTotal, 0);
}

TEST_F(ZmodemReader, DamagedMisspelledOrUnknownHeadersCountOneError) {
    Bytes bad16 = test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'A');
    bad16[5] ^= 0x01;
    Bytes bad32 = test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'C');
    bad32[9] ^= 0x01;
    const Bytes capital = Str(std::string("**\x18"
                                          "B0100000027FED4\r\n"));
    for (const Bytes &bad : {bad16, bad32, capital}) {
        record_.ErrorRun = 0;
        Line(bad);
        EXPECT_EQ(ReadFrameHeader(&record_, 1), -1);
        EXPECT_EQ(record_.ErrorRun, 1);
        while (ReadCharTimed(port_, 0) >= 0) {
        }
    }
    EXPECT_GE(CountStatus("CRC-16 error", 0), 1);
    EXPECT_GE(CountStatus("CRC-32 error", 0), 1);
    EXPECT_EQ(record_.Result, 0);

    // An unknown format, and a hex header followed by something other than
    // CR, LF, XON: one error each.
    record_.ErrorTotal = 0;
    Line(Str("*\x18Z"));
    EXPECT_EQ(ReadFrameHeader(&record_, 1), -1);
    EXPECT_GE(CountStatus("ReadFrameHeader: Header Type Z", 0), 1);
    Bytes hex = test::ZHeader(zm::ZACK, {0, 0, 0, 0}, 'B');
    hex.insert(hex.end() - 2, 'x');
    Line(hex);
    EXPECT_EQ(ReadFrameHeader(&record_, 1), -1);
    EXPECT_EQ(record_.ErrorTotal, 2);
}

TEST_F(ZmodemReader, NoiseLimitIs2048CharactersPerHeader) {
    Line(Cat(Bytes(2047, 'x'), test::ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B')));
    EXPECT_EQ(ReadFrameHeader(&record_, 1), zm::ZFIN);
    EXPECT_EQ(record_.ErrorTotal, 0);

    Line(Cat(Bytes(2048, 'x'), test::ZHeader(zm::ZFIN, {0, 0, 0, 0}, 'B')));
    EXPECT_EQ(ReadFrameHeader(&record_, 1), -1);
    EXPECT_EQ(record_.ErrorTotal, 1);
    EXPECT_GE(CountStatus("GetPad: Exceeded garbage count", 0), 1);
    EXPECT_EQ(ReadFrameHeader(&record_, 1), zm::ZFIN); // the header is still there
}

// Four CANs are noise; five cancel, inside data and while hunting alike.
TEST_F(ZmodemReader, FiveCansCancelInsideDataAndWhileHunting) {
    Line(Cat(Bytes(4, zm::CAN), test::ZHeader(zm::ZRINIT, {0, 0, 0, 0x27}, 'B')));
    EXPECT_EQ(ReadFrameHeader(&record_, 1), zm::ZRINIT);
    EXPECT_EQ(record_.Result, 0);

    Line(Bytes(5, zm::CAN));
    EXPECT_EQ(ReadFrameHeader(&record_, 1), XferErrRemoteAbort);
    EXPECT_EQ(ZmHeaderFormat(&record_), -8);

    record_.Result = 0;
    Line(Bytes(5, zm::CAN));
    EXPECT_EQ(ReadEscaped(&record_), XferErrRemoteAbort);
    EXPECT_EQ(record_.Result, XferErrRemoteAbort);
    EXPECT_GE(CountStatus("Transfer cancelled by the other side", 1), 1);
}

// Ten silent seconds end the hunt; flow control does not shorten them.
// Noise and then one silent second (a header damaged beyond recognition,
// the other side waiting) end it as a damaged header, with no result set.
TEST_F(ZmodemReader, SilenceEndsTheHuntAfterTenSecondsOrOneAfterNoise) {
    Line({zm::XON, zm::XOFF | 0x80});
    uint32_t start = clock_.Now();
    EXPECT_EQ(ReadFrameHeader(&record_, 0), XferErrNoFilesSent);
    EXPECT_EQ(record_.Result, XferErrNoFilesSent);
    EXPECT_GE(clock_.Now() - start, 10000u);
    EXPECT_GE(CountStatus("No response for 10 seconds", 1), 1);

    record_.Result = 0;
    Bytes damaged = test::ZHeader(zm::ZACK, {0, 0, 0, 0}, 'B');
    damaged[2] ^= 0x04; // the ZDLE: the rest is noise
    Line(damaged);
    StatusLines().clear();
    EXPECT_EQ(ReadFrameHeader(&record_, 1), -1);
    EXPECT_EQ(record_.Result, 0);
    EXPECT_EQ(CountStatus("GetPad: silence after noise", 0), 1);
    EXPECT_EQ(CountStatus("No response for 10 seconds", 1), 0);
}

TEST_F(ZmodemReader, ErrorRunReachingTheLimitGives610) {
    ZmMaxErrors(&record_) = 3;
    Bytes bad = test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'A');
    bad.back() ^= 0x01;
    for (int i = 0; i < 3; ++i) Line(bad);
    EXPECT_EQ(ReadFrameHeader(&record_, 0), XferErrTooManyErrors);
    EXPECT_EQ(record_.ErrorRun, 3);
}

TEST_F(ZmodemReader, SubpacketCheckFollowsTheHeaderFormat) {
    Bytes data(1024);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    // A CRC-32 header, then a CRC-32 subpacket: good.
    Line(Cat(test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'C'), test::ZSubpacket(data, zm::ZCRCG, true)));
    ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZDATA);
    EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCG);
    EXPECT_EQ(Data(), data);
    // A hex header, then the same CRC-32 subpacket: checked as CRC-16, fails.
    Line(Cat(test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'B'),
             test::ZSubpacket({1, 2, 3}, zm::ZCRCE, true)));
    ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZDATA);
    EXPECT_EQ(ReadDataSubpacket(&record_), -1);
    while (ReadCharTimed(port_, 0) >= 0) {
    }
    // A CRC-16 header with a CRC-16 subpacket that ends the frame.
    Line(Cat(test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'A'), test::ZSubpacket({}, zm::ZCRCW, false)));
    ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZDATA);
    EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCW);
    EXPECT_EQ(record_.BlockSize, 0);
}

TEST_F(ZmodemReader, SubpacketsSurviveAnySplitOfTheLine) {
    Bytes data(1024);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 37);
    for (std::size_t chunk : {1u, 2u, 7u, 64u, 5000u}) {
        host_.SetChunkSize(chunk);
        Line(Cat(test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'C'),
                 test::ZSubpacket(data, zm::ZCRCQ, true),
                 test::ZSubpacket({0x18, 0x11}, zm::ZCRCW, true)));
        ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZDATA);
        EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCQ) << chunk;
        EXPECT_EQ(Data(), data) << chunk;
        EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCW) << chunk;
        EXPECT_EQ(Data(), (Bytes{0x18, 0x11})) << chunk;
    }
}

// Escapes our sender never makes but a peer may: ZRUB0/ZRUB1, any other
// character after ZDLE, raw flow control inside an escape and between data
// bytes.  Read as one run and byte by byte alike.
TEST_F(ZmodemReader, EveryEscapeFormDecodesWhateverTheSplit) {
    const Bytes data{0x7F, 0xFF, 'A', 0x01, 0xC1, 0xC1, 'z'};
    const Bytes body{zm::ZDLE, zm::ZRUB0, zm::ZDLE, zm::ZRUB1, zm::ZDLE, 0x01, zm::ZDLE,
                     zm::XON,  0x41,      zm::ZDLE, 0x81,      zm::XOFF, 0xC1, 'z'};
    uint32_t crc = Crc32Update(Crc32Block(7, 0xFFFFFFFFu, data.data()), zm::ZCRCW);
    crc = ~crc;
    Bytes line = Cat(test::ZHeader(zm::ZDATA, {0, 0, 0, 0}, 'C'), body);
    line.push_back(zm::ZDLE);
    line.push_back(zm::ZCRCW);
    for (int i = 0; i < 4; ++i) {
        uint8_t out[2];
        line.insert(line.end(), out, out + ZmEscape(out, static_cast<uint8_t>(crc >> (8 * i))));
    }
    for (std::size_t chunk : {1u, 3u, 5000u}) {
        host_.SetChunkSize(chunk);
        Line(line);
        ASSERT_EQ(ReadFrameHeader(&record_, 1), zm::ZDATA);
        EXPECT_EQ(ReadDataSubpacket(&record_), zm::ZCRCW) << chunk;
        EXPECT_EQ(Data(), data) << chunk;
    }
}

// The run copier stops exactly at the first byte of its set, wherever it
// lies in a sixteen-byte step, and copies everything before it.
TEST(ZmodemCodec, PlainRunsEndAtTheFirstSpecialByte) {
    constexpr std::size_t kLength = 40;
    for (int v = 0; v < 256; ++v) {
        const auto value = static_cast<uint8_t>(v);
        for (std::size_t at = 0; at < kLength; at += 3) {
            Bytes in(kLength, 'a'), out(kLength, 0);
            in[at] = value;
            const std::size_t escaped =
                zm::CopyPlainRun<zm::RunEnd::Escaped>(out.data(), in.data(), kLength);
            EXPECT_EQ(escaped, zm::EndsRun(value, zm::RunEnd::Escaped) ? at : kLength) << v;
            EXPECT_TRUE(std::equal(in.begin(), in.begin() + escaped, out.begin())) << v;
            const std::size_t special =
                zm::CopyPlainRun<zm::RunEnd::ReaderSpecial>(out.data(), in.data(), kLength);
            EXPECT_EQ(special, zm::EndsRun(value, zm::RunEnd::ReaderSpecial) ? at : kLength) << v;
        }
    }
    // The sets themselves: the nine escaped values, and what a reader must look at.
    int escapedCount = 0, specialCount = 0;
    for (int v = 0; v < 256; ++v) {
        escapedCount += zm::EndsRun(static_cast<uint8_t>(v), zm::RunEnd::Escaped);
        specialCount += zm::EndsRun(static_cast<uint8_t>(v), zm::RunEnd::ReaderSpecial);
    }
    EXPECT_EQ(escapedCount, 9);
    EXPECT_EQ(specialCount, 5);
}

TEST_F(ZmodemReader, OverlongSubpacketIsRefused) {
    ZmHeaderFormat(&record_) = 'C';
    Line(Bytes(1025, 'a'));
    EXPECT_EQ(ReadDataSubpacket(&record_), PortUserBufferOverflow);
}

TEST_F(ZmodemReader, SendersWriteOneBufferPerFrame) {
    record_.ProtocolFlag = zm::CANFC32;
    const uint8_t pos[4] = {0, 4, 0, 0};
    SendBinHeader(&record_, zm::ZDATA, pos);
    for (int i = 0; i < 3; ++i) record_.Buffer[i] = static_cast<uint8_t>(0x11 + i);
    EXPECT_EQ(SendDataSubpacket(&record_, 3, zm::ZCRCW), 0);
    EXPECT_EQ(host_.WriteRequests(), 2);
    EXPECT_EQ(host_.Written(), Cat(test::ZHeader(zm::ZDATA, {0, 4, 0, 0}, 'C'),
                                   test::ZSubpacket({0x11, 0x12, 0x13}, zm::ZCRCW, true)));
}

} // namespace
} // namespace zvxfer
