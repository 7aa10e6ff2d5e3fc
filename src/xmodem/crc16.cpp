// CRC-16/XMODEM (polynomial 0x1021, initial 0, MSB first, no final XOR) and
// the 8-bit arithmetic checksum.  The CRC table also serves ZMODEM and B+.
#include <array>

#include "xmodem/xmodem.h"

namespace zvxfer {
namespace {

constexpr std::array<uint16_t, 256> MakeCrc16Table() {
    std::array<uint16_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
        table[i] = static_cast<uint16_t>(crc);
    }
    return table;
}

constexpr auto kCrc16Table = MakeCrc16Table();
static_assert(kCrc16Table[1] == 0x1021);

} // namespace

uint16_t Crc16Update(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>((crc << 8) ^ kCrc16Table[((crc >> 8) ^ byte) & 0xFF]);
}

uint16_t Crc16Block(uint32_t count, uint16_t crc, const uint8_t *bytes) {
    for (uint32_t i = 0; i < count; ++i) crc = Crc16Update(crc, bytes[i]);
    return crc;
}

uint8_t XmChecksum(std::span<const uint8_t> data) {
    uint32_t sum = 0;
    for (uint8_t b : data) sum += b;
    return static_cast<uint8_t>(sum);
}

} // namespace zvxfer
