// CRC-32 as ZMODEM uses it: IEEE 802.3, reflected (0xEDB88320), one table
// of 256 words.  Neither call inverts: a check starts from 0xFFFFFFFF and the
// sender puts the complement on the line.
#include <array>

#include "zmodem/zmodem.h"

namespace zvxfer {
namespace {

constexpr std::array<uint32_t, 256> MakeCrc32Table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        table[i] = crc;
    }
    return table;
}

constexpr auto kCrc32Table = MakeCrc32Table();
static_assert(kCrc32Table[1] == 0x77073096u);

} // namespace

uint32_t Crc32Update(uint32_t crc, uint8_t byte) {
    return (crc >> 8) ^ kCrc32Table[(crc ^ byte) & 0xFF];
}

uint32_t Crc32Block(uint32_t count, uint32_t crc, const uint8_t *bytes) {
    for (uint32_t i = 0; i < count; ++i) crc = Crc32Update(crc, bytes[i]);
    return crc;
}

} // namespace zvxfer
