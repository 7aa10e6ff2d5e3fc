// Building XMODEM-family blocks as a peer would put them on the line, for
// the scripted-peer tests.
#pragma once
#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "xmodem/xmodem.h"

namespace zvxfer::test {

using Bytes = std::vector<uint8_t>;

// One block: header, number, complement, data padded with zeros to `size`,
// then the CRC-16 (high byte first) or the checksum.
inline Bytes WireBlock(uint8_t number, Bytes data, bool crc = true, std::size_t size = 128) {
    data.resize(size, 0);
    Bytes out(3 + size);
    out[0] = static_cast<uint8_t>(size == 128 ? 0x01 : 0x02);
    out[1] = number;
    out[2] = static_cast<uint8_t>(~number);
    std::copy(data.begin(), data.end(), out.begin() + 3);
    if (crc) {
        const uint16_t c = Crc16Block(static_cast<uint32_t>(size), 0, data.data());
        out.push_back(static_cast<uint8_t>(c >> 8));
        out.push_back(static_cast<uint8_t>(c));
    } else {
        out.push_back(XmChecksum(data));
    }
    return out;
}

inline Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

} // namespace zvxfer::test
