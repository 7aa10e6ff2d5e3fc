// The four block checks: the table-driven updates against published check
// values and the residues a good packet leaves, the checksum's end-around
// carry, and the check bytes as they go on the line for each method.
#include <gtest/gtest.h>

#include "bplus/bplus.h"
#include "reference_checks.h"

namespace zvxfer::bplus {
namespace {

using namespace test;

const Bytes kDigits = B("123456789");

TEST(BPlusChecks, PublishedCheckValues) {
    uint16_t ccitt = 0xFFFF, x25 = 0xFFFF;
    uint32_t crc32 = 0xFFFFFFFFu;
    for (const uint8_t b : kDigits) {
        ccitt = Crc16CcittUpdate(ccitt, b);
        x25 = Crc16X25Update(x25, b);
        crc32 = Crc32Update(crc32, b);
    }
    EXPECT_EQ(ccitt, 0x29B1);
    EXPECT_EQ(x25 ^ 0xFFFF, 0x906E);
    EXPECT_EQ(~crc32, 0xCBF43926u);
    // The resume word starts from 0 instead.
    uint16_t fromZero = 0;
    for (const uint8_t b : kDigits) fromZero = Crc16CcittUpdate(fromZero, b);
    EXPECT_EQ(fromZero, 0x31C3);
}

// Feeding a message followed by its check bytes leaves a constant.
TEST(BPlusChecks, ResiduesAfterTheCheckBytes) {
    for (const Bytes &msg : {kDigits, B("N"), Bytes{0x00, 0xFF, 0x10, 0x03}}) {
        uint16_t ccitt = 0xFFFF, x25 = 0xFFFF;
        uint32_t crc32 = 0xFFFFFFFFu;
        for (const uint8_t b : msg) {
            ccitt = Crc16CcittUpdate(ccitt, b);
            x25 = Crc16X25Update(x25, b);
            crc32 = Crc32Update(crc32, b);
        }
        const uint16_t c = ccitt, x = static_cast<uint16_t>(x25 ^ 0xFFFF);
        const uint32_t w = ~crc32;
        ccitt = Crc16CcittUpdate(Crc16CcittUpdate(ccitt, static_cast<uint8_t>(c >> 8)),
                                 static_cast<uint8_t>(c));
        x25 = Crc16X25Update(Crc16X25Update(x25, static_cast<uint8_t>(x)),
                             static_cast<uint8_t>(x >> 8));
        for (int shift = 0; shift < 32; shift += 8)
            crc32 = Crc32Update(crc32, static_cast<uint8_t>(w >> shift));
        EXPECT_EQ(ccitt, 0);
        EXPECT_EQ(x25, 0xF0B8);
        EXPECT_EQ(crc32, 0xDEBB20E3u);
    }
}

// Every byte value through each table equals the bit-wise definition.
TEST(BPlusChecks, TablesMatchTheBitwiseDefinitions) {
    for (int v = 0; v < 256; ++v) {
        const Bytes one{static_cast<uint8_t>(v), static_cast<uint8_t>(255 - v)};
        EXPECT_EQ(Crc16CcittUpdate(Crc16CcittUpdate(0xFFFF, one[0]), one[1]), RefCcitt(one)) << v;
        EXPECT_EQ(Crc16X25Update(Crc16X25Update(0xFFFF, one[0]), one[1]) ^ 0xFFFF, RefX25(one))
            << v;
        EXPECT_EQ(~Crc32Update(Crc32Update(0xFFFFFFFFu, one[0]), one[1]), RefCrc32(one)) << v;
    }
}

// The checksum doubles and folds every carry back in: hand-worked values.
TEST(BPlusChecks, ChecksumFoldsCarries) {
    EXPECT_EQ(RefSum(B("1A\x03")), 0x4A); // 0x31; 0x62+0x41=0xA3; 0x146->0x47, +3
    EXPECT_EQ(RefSum(Bytes{0xFF, 0xFF}), 0xFF);
    EXPECT_EQ(RefSum(Bytes{0x80, 0x00}), 0x01);
    XferRecord r{};
    BPlusCreateLink(&r);
    for (const Bytes &msg : {B("1A\x03"), Bytes{0xFF, 0xFF}, Bytes{0x80, 0x00}, kDigits}) {
        BPlusCheckInit(&r);
        for (const uint8_t b : msg) BPlusCheckUpdate(&r, b);
        EXPECT_EQ(r.RxCheck, RefSum(msg));
    }
    BPlusReleaseLink(&r);
}

// Through the record: each method starts afresh and reaches its residue.
TEST(BPlusChecks, RecordAccumulatorsReachTheirResidue) {
    XferRecord r{};
    ASSERT_TRUE(BPlusCreateLink(&r));
    for (int8_t method = 1; method <= 3; ++method) {
        Link(&r)->CheckMethod = method;
        for (int round = 0; round < 2; ++round) { // the second proves the restart
            BPlusCheckInit(&r);
            const Bytes covered = B("1Tx\x03");
            for (const uint8_t b : covered) BPlusCheckUpdate(&r, b);
            EXPECT_FALSE(BPlusCheckGood(&r)) << int(method);
            for (const uint8_t b : RefCheckBytes(method, covered)) BPlusCheckUpdate(&r, b);
            EXPECT_TRUE(BPlusCheckGood(&r)) << int(method);
        }
    }
    BPlusReleaseLink(&r);
    EXPECT_EQ(r.ProtocolParam, 0);
}

} // namespace
} // namespace zvxfer::bplus
