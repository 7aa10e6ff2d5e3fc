// Block checks and YMODEM's block 0: the pure codecs of the XMODEM family.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "xmodem/xmodem.h"

namespace zvxfer {
namespace {

const uint8_t *Bytes(const char *text) {
    return reinterpret_cast<const uint8_t *>(text);
}

TEST(Crc16, KnownVectorsAndIncrementalUse) {
    EXPECT_EQ(Crc16Block(9, 0, Bytes("123456789")), 0x31C3);
    EXPECT_EQ(Crc16Block(3, 0, Bytes("abc")), 0x9DD6);
    EXPECT_EQ(Crc16Block(0, 0x1234, Bytes("")), 0x1234);
    uint16_t crc = 0;
    for (const char *p = "123456789"; *p; ++p) crc = Crc16Update(crc, static_cast<uint8_t>(*p));
    EXPECT_EQ(crc, 0x31C3);
    // Appending the CRC high byte first makes the whole run check to zero,
    // which is how a receiver can verify data and check in one pass.
    uint8_t framed[11];
    std::memcpy(framed, "123456789", 9);
    framed[9] = 0x31;
    framed[10] = 0xC3;
    EXPECT_EQ(Crc16Block(11, 0, framed), 0);
}

// The block routine takes eight bytes per step: every length, alignment and
// starting value must give what the byte-wise update gives.
TEST(Crc16, BlockAgreesWithByteWiseUpdate) {
    uint8_t data[1100];
    uint32_t seed = 12345;
    for (uint8_t &b : data) {
        seed = seed * 1103515245u + 12345u;
        b = static_cast<uint8_t>(seed >> 16);
    }
    for (uint32_t offset : {0u, 1u, 7u}) {
        for (uint32_t length = 0; length <= 1029; length += (length < 40 ? 1 : 97)) {
            for (uint16_t start : {uint16_t{0}, uint16_t{0xFFFF}, uint16_t{0x1D0F}}) {
                uint16_t slow = start;
                for (uint32_t i = 0; i < length; ++i) slow = Crc16Update(slow, data[offset + i]);
                ASSERT_EQ(Crc16Block(length, start, data + offset), slow)
                    << "length " << length << " offset " << offset << " start " << start;
            }
        }
    }
}

TEST(Checksum, SumModulo256) {
    EXPECT_EQ(XmChecksum({Bytes("abc"), 3}), 0x26);
    uint8_t ff[128];
    std::memset(ff, 0xFF, sizeof ff);
    EXPECT_EQ(XmChecksum(ff), static_cast<uint8_t>(128 * 0xFF));
}

TEST(Block0, FormatsNameSizeAndOctalTime) {
    uint8_t block[128];
    const uint32_t used = YmFormatBlock0(block, "report.txt", 1000, 1600000000);
    const std::string expected = std::string("report.txt") + '\0' + "1000 13727410000 0";
    ASSERT_EQ(used, expected.size());
    EXPECT_EQ(std::memcmp(block, expected.data(), expected.size()), 0);
    for (uint32_t i = used; i < 128; ++i) ASSERT_EQ(block[i], 0) << "byte " << i;

    const Block0Facts facts = YmParseBlock0(block);
    EXPECT_EQ(facts.size, 1000);
    EXPECT_EQ(facts.modTime, 1600000000);
}

TEST(Block0, LongNameIsCutAndLosesItsFacts) {
    uint8_t block[128];
    const std::string name(140, 'n');
    EXPECT_EQ(YmFormatBlock0(block, name.c_str(), 5, 7), 128u);
    EXPECT_EQ(block[127], 'n');
    const Block0Facts facts = YmParseBlock0(block);
    EXPECT_EQ(facts.size, 0);
    EXPECT_EQ(facts.modTime, -1);
}

TEST(Block0, MissingTokens) {
    auto parse = [](const std::string &text) {
        uint8_t block[128] = {};
        std::memcpy(block, text.data(), text.size());
        return YmParseBlock0(block);
    };
    Block0Facts f = parse(std::string("a") + '\0' + "42");
    EXPECT_EQ(f.size, 42);
    EXPECT_EQ(f.modTime, -1);
    f = parse(std::string("a") + '\0');
    EXPECT_EQ(f.size, 0);
    EXPECT_EQ(f.modTime, -1);
    f = parse(std::string("a") + '\0' + "7 0 0");
    EXPECT_EQ(f.size, 7);
    EXPECT_EQ(f.modTime, 0);
}

} // namespace
} // namespace zvxfer
