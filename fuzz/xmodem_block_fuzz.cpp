// Fuzz target: the pure XMODEM block codec.  Arbitrary bytes are read as a
// block; a block is built from the same bytes and read back, whole, cut
// short at every length, and with one bit flipped.
//
// Input: one set-up byte (bit 0 checksum mode, bit 1 a 1024-byte block,
// bits 2-7 unused), then the bytes.  As a built block: the first byte is its
// number, the next two say where to flip a bit (little end first, taken
// modulo the block's bits), the rest are its data (cut or padded with 0x00
// to the block's length).
#include <cstring>
#include <span>
#include <vector>

#include "fuzz_check.h"
#include "xmodem/xmodem.h"

using namespace zvxfer::xm;

namespace {

// Whatever the bytes, a verdict stays inside them and a good block is one
// that building its number and data gives back byte for byte.
void ReadArbitrary(std::span<const uint8_t> bytes, bool crc) {
    const XmParsedBlock parsed = XmParseBlock(bytes, crc);
    const bool starts = !bytes.empty() && (bytes[0] == SOH || bytes[0] == STX);
    ZVXFER_FUZZ_CHECK(starts == (parsed.verdict != XmBlockVerdict::NotBlock));
    if (parsed.verdict != XmBlockVerdict::Good) {
        ZVXFER_FUZZ_CHECK(parsed.length == 0);
        return;
    }
    ZVXFER_FUZZ_CHECK(parsed.data.size() == (bytes[0] == SOH ? 128u : 1024u));
    ZVXFER_FUZZ_CHECK(parsed.length == parsed.data.size() + (crc ? 5 : 4));
    ZVXFER_FUZZ_CHECK(parsed.length <= bytes.size());
    ZVXFER_FUZZ_CHECK(parsed.data.data() == bytes.data() + 3);
    uint8_t again[kMaxBlockWire];
    const std::size_t n = XmBuildBlock(again, parsed.number, parsed.data, crc);
    ZVXFER_FUZZ_CHECK(n == parsed.length);
    ZVXFER_FUZZ_CHECK(std::memcmp(again, bytes.data(), n) == 0);
}

// A built block reads back good with its number and data; every shorter
// head of it is incomplete; one flipped bit anywhere is never good (both
// checks see every single-bit error; the header and number bytes cannot
// turn into another valid value with one bit).
void BuildAndReadBack(std::span<const uint8_t> bytes, bool crc, bool large) {
    if (bytes.size() < 3) return;
    const uint8_t number = bytes[0];
    const uint32_t flipAt = bytes[1] | bytes[2] << 8;
    std::vector<uint8_t> data(large ? 1024 : 128, 0);
    const std::span<const uint8_t> rest = bytes.subspan(3);
    std::memcpy(data.data(), rest.data(), std::min(rest.size(), data.size()));

    uint8_t block[kMaxBlockWire];
    const std::size_t n = XmBuildBlock(block, number, data, crc);
    ZVXFER_FUZZ_CHECK(n == data.size() + (crc ? 5 : 4));
    const XmParsedBlock whole = XmParseBlock({block, n}, crc);
    ZVXFER_FUZZ_CHECK(whole.verdict == XmBlockVerdict::Good);
    ZVXFER_FUZZ_CHECK(whole.number == number && whole.length == n);
    ZVXFER_FUZZ_CHECK(std::memcmp(whole.data.data(), data.data(), data.size()) == 0);
    for (std::size_t cut = 1; cut < n; ++cut)
        ZVXFER_FUZZ_CHECK(XmParseBlock({block, cut}, crc).verdict == XmBlockVerdict::Incomplete);

    const std::size_t bit = flipAt % (n * 8);
    block[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
    ZVXFER_FUZZ_CHECK(XmParseBlock({block, n}, crc).verdict != XmBlockVerdict::Good);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    const bool crc = (data[0] & 1) == 0;
    const std::span<const uint8_t> bytes(data + 1, size - 1);
    ReadArbitrary(bytes, crc);
    BuildAndReadBack(bytes, crc, (data[0] & 2) != 0);
    return 0;
}
