// CRC-16/XMODEM eight bytes a step, through eight tables derived from the
// byte-wise one.
#include "core/crc16.h"

namespace zvxfer {
namespace {

static_assert(kCrc16Table[1] == 0x1021);

// Slices for eight bytes at a time: slice k maps a byte to its CRC followed
// by k zero bytes, so the eight lookups of one step add up to the CRC the
// byte-wise update reaches after those eight bytes.
using SliceTable = std::array<std::array<uint16_t, 256>, 8>;
constexpr SliceTable MakeSlices() {
    SliceTable slices{};
    slices[0] = kCrc16Table;
    for (std::size_t k = 1; k < 8; ++k) {
        for (std::size_t b = 0; b < 256; ++b) {
            const uint16_t prev = slices[k - 1][b];
            slices[k][b] = static_cast<uint16_t>((prev << 8) ^ kCrc16Table[prev >> 8]);
        }
    }
    return slices;
}
constexpr auto kSlices = MakeSlices();

} // namespace

// Every block's check runs through here: eight bytes per step, the rest
// byte by byte.
uint16_t Crc16Block(uint32_t count, uint16_t crc, const uint8_t *bytes) {
    uint32_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const uint8_t *p = bytes + i;
        crc =
            static_cast<uint16_t>(kSlices[7][p[0] ^ (crc >> 8)] ^ kSlices[6][p[1] ^ (crc & 0xFF)] ^
                                  kSlices[5][p[2]] ^ kSlices[4][p[3]] ^ kSlices[3][p[4]] ^
                                  kSlices[2][p[5]] ^ kSlices[1][p[6]] ^ kSlices[0][p[7]]);
    }
    for (; i < count; ++i) crc = Crc16Update(crc, bytes[i]);
    return crc;
}

} // namespace zvxfer
