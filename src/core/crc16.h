// CRC-16/XMODEM: polynomial 0x1021, most significant bit first, no
// reflection, no final XOR; the caller gives the starting value (0 for
// every block and header).  XMODEM blocks, ZMODEM CRC-16 headers and
// subpackets and the B+ CRC method all use it.
#pragma once
#include <array>
#include <cstdint>

namespace zvxfer {

constexpr std::array<uint16_t, 256> MakeCrc16Table() {
    std::array<uint16_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
        table[i] = static_cast<uint16_t>(crc);
    }
    return table;
}

// Entry b is the CRC of the single byte b from 0; entry 1 is the polynomial.
inline constexpr std::array<uint16_t, 256> kCrc16Table = MakeCrc16Table();

inline uint16_t Crc16Update(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>((crc << 8) ^ kCrc16Table[((crc >> 8) ^ byte) & 0xFF]);
}

// The CRC after `count` bytes, starting from `crc`: eight bytes a step,
// the rest byte by byte.
uint16_t Crc16Block(uint32_t count, uint16_t crc, const uint8_t *bytes);

} // namespace zvxfer
