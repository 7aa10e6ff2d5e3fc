// The XMODEM block as bytes: built blocks against a bit-by-bit reference of
// the layout and checks, every verdict of the block reader, and the
// receiver and sender on the line agreeing with the codec, the receiver
// whatever the split of its input.
#include <gtest/gtest.h>
#include <vector>

#include "fake_clock.h"
#include "test_host.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(std::size_t n, uint8_t seed) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(seed + i * 13 + i / 256);
    return data;
}

// CRC-16/XMODEM one bit at a time, without the table the library uses.
uint16_t ReferenceCrc(const Bytes &data) {
    uint32_t crc = 0;
    for (uint8_t b : data) {
        crc ^= static_cast<uint32_t>(b) << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
        crc &= 0xFFFF;
    }
    return static_cast<uint16_t>(crc);
}

Bytes Build(uint8_t number, const Bytes &data, bool crc) {
    Bytes out(data.size() + 5);
    out.resize(XmBuildBlock(out, number, data, crc));
    return out;
}

struct Shape {
    std::size_t size;
    bool crc;
};
constexpr Shape kShapes[] = {{128, true}, {128, false}, {1024, true}, {1024, false}};

// SOH/STX by length, number and complement, the data unchanged, then the
// CRC high byte first or the sum modulo 256; and the reader takes it back.
TEST(XmodemBlockCodec, BuiltBlocksHaveTheLineLayoutAndReadBack) {
    for (const Shape &s : kShapes)
        for (uint8_t number : {0, 1, 0x7F, 0xFF}) {
            SCOPED_TRACE(testing::Message() << s.size << (s.crc ? " crc " : " sum ") << +number);
            const Bytes data = Pattern(s.size, number);
            Bytes expected = {s.size == 128 ? SOH : STX, number,
                              static_cast<uint8_t>(255 - number)};
            expected.insert(expected.end(), data.begin(), data.end());
            if (s.crc) {
                const uint16_t c = ReferenceCrc(data);
                expected.insert(expected.end(), {static_cast<uint8_t>(c >> 8), uint8_t(c)});
            } else {
                uint32_t sum = 0;
                for (uint8_t b : data) sum += b;
                expected.push_back(static_cast<uint8_t>(sum));
            }
            const Bytes block = Build(number, data, s.crc);
            ASSERT_EQ(block, expected);

            Bytes followed = block; // what comes behind a block is not part of it
            followed.insert(followed.end(), {EOT, SOH});
            const XmParsedBlock back = XmParseBlock(followed, s.crc);
            EXPECT_EQ(back.verdict, XmBlockVerdict::Good);
            EXPECT_EQ(back.number, number);
            EXPECT_EQ(back.length, block.size());
            EXPECT_EQ(Bytes(back.data.begin(), back.data.end()), data);
        }
}

// What the reader says of bytes that are not a good block, in the order the
// receiver judges them: the header, the number, then the check.
TEST(XmodemBlockCodec, DamagedAndShortBlocksGetTheReceiversVerdicts) {
    const Bytes good = Build(3, Pattern(128, 9), true);
    auto damaged = [&](std::size_t at, uint8_t mask) {
        Bytes b = good;
        b[at] ^= mask;
        return b;
    };
    const struct {
        const char *what;
        Bytes bytes;
        bool crc;
        XmBlockVerdict verdict;
    } cases[] = {
        {"nothing", {}, true, XmBlockVerdict::NotBlock},
        {"start request", {'C', 1, 0xFE}, true, XmBlockVerdict::NotBlock},
        {"EOT", {EOT}, true, XmBlockVerdict::NotBlock},
        {"header only", {STX}, true, XmBlockVerdict::Incomplete},
        {"complement", damaged(2, 0x01), true, XmBlockVerdict::BadNumber},
        {"number", damaged(1, 0x80), true, XmBlockVerdict::BadNumber},
        {"bad number, data missing", {SOH, 1, 1}, true, XmBlockVerdict::BadNumber},
        {"first data byte", damaged(3, 0x01), true, XmBlockVerdict::BadCheck},
        {"last data byte", damaged(130, 0x80), true, XmBlockVerdict::BadCheck},
        {"CRC high byte", damaged(131, 0x10), true, XmBlockVerdict::BadCheck},
        {"CRC low byte", damaged(132, 0x01), true, XmBlockVerdict::BadCheck},
        {"CRC block read as checksum", good, false, XmBlockVerdict::BadCheck},
        {"checksum block read as CRC", Build(3, Pattern(128, 9), false), true,
         XmBlockVerdict::Incomplete},
    };
    for (const auto &c : cases)
        EXPECT_EQ(XmParseBlock(c.bytes, c.crc).verdict, c.verdict) << c.what;
    for (std::size_t cut = 1; cut < good.size(); ++cut)
        ASSERT_EQ(XmParseBlock({good.data(), cut}, true).verdict, XmBlockVerdict::Incomplete)
            << cut;
}

class XmodemBlockLine : public ::testing::Test {
  protected:
    XmodemBlockLine() {
        r_.Port = port_;
        r_.Buffer = buffer_.data();
        r_.File = XFER_INVALID_FILE;
        r_.FileTime = -1;
    }
    ~XmodemBlockLine() override { port_->Ops.PortClose(port_); }

    test::FakeClock clock_{test::FakeClock::Scaled{1000}};
    test::TestHost host_;
    XferPort *port_ = PortOpen(0, host_.Window(), "", XFER_EXISTING_OVERWRITE);
    Bytes buffer_ = Bytes(1024);
    XferRecord r_{};
};

// A block followed by EOT, handed over in two reads split at every
// position, reads as when it arrives whole: the block's number, data and
// check, then the end of the file, and no answer from this level.
TEST_F(XmodemBlockLine, ReceiverReadsTheSameWhateverTheSplit) {
    for (const Shape &s : {kShapes[0], kShapes[3]}) {
        const Bytes data = Pattern(s.size, 5);
        Bytes line = Build(1, data, s.crc);
        const XmParsedBlock parsed = XmParseBlock(line, s.crc);
        ASSERT_EQ(parsed.verdict, XmBlockVerdict::Good);
        line.push_back(EOT);
        for (std::size_t split = 1; split < line.size(); ++split) {
            SCOPED_TRACE(testing::Message() << s.size << " split at " << split);
            host_.Receive(std::span(line).first(split));
            const Bytes rest(line.begin() + static_cast<long>(split), line.end());
            host_.OnRequest([&rest](test::TestHost &h, uintptr_t request) {
                if (request == PORT_READ && h.Unread() == 0 && !rest.empty()) {
                    h.Receive(rest);
                    h.OnRequest(nullptr);
                }
            });
            r_.Protocol = Xmodem;
            r_.BlockNumber = 1;
            r_.ErrorRun = r_.ErrorTotal = 0;
            r_.ProtocolHook = -1;
            XmSetCrcMode(&r_, s.crc);
            ASSERT_EQ(XmReceiveBlock(&r_), 1);
            EXPECT_EQ(r_.ProtocolHook, s.size == 128 ? SOH : STX);
            EXPECT_EQ(r_.RxSeq, parsed.number);
            EXPECT_EQ(r_.BlockSize, static_cast<int32_t>(s.size));
            EXPECT_EQ(Bytes(buffer_.begin(), buffer_.begin() + r_.BlockSize), data);
            EXPECT_EQ(r_.BlockNumber, 2);
            ASSERT_EQ(XmReceiveBlock(&r_), 1);
            EXPECT_EQ(r_.ProtocolHook, EOT);
            EXPECT_EQ(r_.ErrorTotal, 0);
            EXPECT_EQ(r_.Result, 0);
            EXPECT_TRUE(host_.Written().empty());
            host_.OnRequest(nullptr);
        }
    }
}

// The sender puts exactly the built block on the line: the three header
// bytes one by one, the data in one write, the check byte by byte.
TEST_F(XmodemBlockLine, SenderWritesTheBuiltBlock) {
    for (const Shape &s : kShapes) {
        SCOPED_TRACE(testing::Message() << s.size << (s.crc ? " crc" : " sum"));
        const Bytes data = Pattern(s.size, 77);
        std::copy(data.begin(), data.end(), buffer_.begin());
        r_.Protocol = Xmodem1K;
        r_.BlockNumber = 0x1FF + 1; // the counter is past the block going out
        r_.RxSeq = 0xFF;
        r_.BlockSize = static_cast<int32_t>(s.size);
        XmSetCrcMode(&r_, s.crc);
        host_.ClearWritten();
        const int writesBefore = host_.WriteRequests();
        ASSERT_EQ(XmSendBlock(&r_), 1);
        EXPECT_EQ(host_.Written(), Build(0xFF, data, s.crc));
        EXPECT_EQ(host_.WriteRequests() - writesBefore, 3 + 1 + (s.crc ? 2 : 1));
    }
}

} // namespace
} // namespace zvxfer::xm
