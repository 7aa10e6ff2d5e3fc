// Bit-at-a-time forms of the four B+ block checks, written from their
// definitions (no tables), and the wire form of a packet as a service puts
// it on the line with the default quote set: what the tests compare the
// engine's table-driven checks and its packets against.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace zvxfer::bplus::test {

using Bytes = std::vector<uint8_t>;

inline Bytes B(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

inline uint8_t RefSum(const Bytes &data) {
    uint32_t s = 0;
    for (const uint8_t b : data) {
        s *= 2;
        if (s > 255) s = (s & 255) + 1;
        s += b;
        if (s > 255) s = (s & 255) + 1;
    }
    return static_cast<uint8_t>(s);
}

// CRC-16/CCITT-FALSE from the given start.
inline uint16_t RefCcitt(const Bytes &data, uint16_t crc = 0xFFFF) {
    for (const uint8_t b : data) {
        crc ^= static_cast<uint16_t>(b << 8);
        for (int i = 0; i < 8; ++i)
            crc = static_cast<uint16_t>(crc & 0x8000 ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

// CRC-16/X-25 as sent: reflected, from 0xFFFF, complemented at the end.
inline uint16_t RefX25(const Bytes &data) {
    uint16_t crc = 0xFFFF;
    for (const uint8_t b : data) {
        crc ^= b;
        for (int i = 0; i < 8; ++i)
            crc = static_cast<uint16_t>(crc & 1 ? (crc >> 1) ^ 0x8408 : crc >> 1);
    }
    return static_cast<uint16_t>(crc ^ 0xFFFF);
}

// CRC-32/ISO-HDLC as sent.
inline uint32_t RefCrc32(const Bytes &data) {
    uint32_t crc = 0xFFFFFFFFu;
    for (const uint8_t b : data) {
        crc ^= b;
        for (int i = 0; i < 8; ++i) crc = crc & 1 ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return ~crc;
}

// The check bytes of a packet in the order they follow ETX (before quoting).
inline Bytes RefCheckBytes(int method, const Bytes &covered) {
    switch (method) {
    case 1: {
        const uint16_t c = RefCcitt(covered);
        return {static_cast<uint8_t>(c >> 8), static_cast<uint8_t>(c)};
    }
    case 2: {
        const uint16_t c = RefX25(covered);
        return {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8)};
    }
    case 3: {
        const uint32_t c = RefCrc32(covered);
        return {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8),
                static_cast<uint8_t>(c >> 16), static_cast<uint8_t>(c >> 24)};
    }
    default:
        return {RefSum(covered)};
    }
}

inline bool DefaultQuoted(uint8_t b) {
    return b == 0x03 || b == 0x05 || b == 0x10 || b == 0x11 || b == 0x13 || b == 0x15;
}

inline void PutQuoted(Bytes &out, uint8_t b) {
    if (DefaultQuoted(b)) {
        out.push_back(0x10);
        out.push_back(static_cast<uint8_t>(b + 0x40));
    } else {
        out.push_back(b);
    }
}

// DLE 'B' seq data ETX check, with the default quote set.
inline Bytes RefPacket(int method, int seq, const Bytes &data) {
    Bytes covered{static_cast<uint8_t>('0' + seq)};
    covered.insert(covered.end(), data.begin(), data.end());
    covered.push_back(0x03);
    Bytes out{0x10, 'B', static_cast<uint8_t>('0' + seq)};
    for (const uint8_t b : data) PutQuoted(out, b);
    out.push_back(0x03);
    for (const uint8_t b : RefCheckBytes(method, covered)) {
        if (method == 0 || b < 0x20)
            PutQuoted(out, b);
        else
            out.push_back(b);
    }
    return out;
}

} // namespace zvxfer::bplus::test
