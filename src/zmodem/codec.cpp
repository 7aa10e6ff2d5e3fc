// The bytes of ZMODEM headers and data subpackets, built in memory without
// any I/O: hex headers, binary headers with CRC-16 or CRC-32, subpackets
// with their end character and check, and the ZDLE escaping of each byte.
#include <array>
#include <cstdio>

#include "core/crc16.h"
#include "zmodem/plain_runs.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr auto &kEscaped = zm::kRunEnd<zm::RunEnd::Escaped>;

inline uint8_t *Put(uint8_t *out, uint8_t byte) {
    if (kEscaped[byte]) {
        *out++ = zm::ZDLE;
        *out++ = byte ^ 0x40;
    } else {
        *out++ = byte;
    }
    return out;
}

// The check of `bytes` as the line carries it: CRC-16 high byte first, or
// the complemented CRC-32 low byte first.  Returns the bytes of check.
std::size_t Check(uint8_t check[4], const uint8_t *bytes, std::size_t count, uint8_t extra,
                  bool withExtra, bool crc32) {
    if (crc32) {
        uint32_t crc = Crc32Block(static_cast<uint32_t>(count), 0xFFFFFFFFu, bytes);
        if (withExtra) crc = Crc32Update(crc, extra);
        crc = ~crc;
        for (int i = 0; i < 4; ++i) check[i] = static_cast<uint8_t>(crc >> (8 * i));
        return 4;
    }
    uint16_t crc = Crc16Block(static_cast<uint32_t>(count), 0, bytes);
    if (withExtra) crc = Crc16Update(crc, extra);
    check[0] = static_cast<uint8_t>(crc >> 8);
    check[1] = static_cast<uint8_t>(crc);
    return 2;
}

} // namespace

std::size_t ZmEscape(uint8_t *out, uint8_t byte) {
    return static_cast<std::size_t>(Put(out, byte) - out);
}

std::size_t ZmFormatHexHeader(uint8_t *out, int type, const uint8_t data[4]) {
    const uint8_t body[5] = {static_cast<uint8_t>(type), data[0], data[1], data[2], data[3]};
    const uint16_t crc = Crc16Block(5, 0, body);
    char text[32];
    int n = std::snprintf(text, sizeof text, "**%cB%02x%02x%02x%02x%02x%04x\r\n", zm::ZDLE, body[0],
                          body[1], body[2], body[3], body[4], crc);
    if (type != zm::ZFIN && type != zm::ZACK)
        n += std::snprintf(text + n, sizeof text - n, "%c", zm::XON);
    for (int i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(text[i]);
    return static_cast<std::size_t>(n);
}

std::size_t ZmFormatBinHeader(uint8_t *out, int type, const uint8_t data[4], bool crc32) {
    const uint8_t body[5] = {static_cast<uint8_t>(type), data[0], data[1], data[2], data[3]};
    uint8_t *p = out;
    *p++ = zm::ZPAD;
    *p++ = zm::ZDLE;
    *p++ = crc32 ? zm::ZBIN32 : zm::ZBIN;
    for (uint8_t b : body) p = Put(p, b);
    uint8_t check[4];
    const std::size_t checkBytes = Check(check, body, sizeof body, 0, false, crc32);
    for (std::size_t i = 0; i < checkBytes; ++i) p = Put(p, check[i]);
    return static_cast<std::size_t>(p - out);
}

std::size_t ZmFormatSubpacket(uint8_t *out, std::span<const uint8_t> data, uint8_t end,
                              bool crc32) {
    uint8_t *p = out;
    for (std::size_t i = 0; i < data.size();) {
        const std::size_t plain =
            zm::CopyPlainRun<zm::RunEnd::Escaped>(p, data.data() + i, data.size() - i);
        p += plain;
        i += plain;
        if (i < data.size()) p = Put(p, data[i++]);
    }
    *p++ = zm::ZDLE;
    *p++ = end;
    uint8_t check[4];
    const std::size_t checkBytes = Check(check, data.data(), data.size(), end, true, crc32);
    for (std::size_t i = 0; i < checkBytes; ++i) p = Put(p, check[i]);
    if (end == zm::ZCRCW) *p++ = zm::XON;
    return static_cast<std::size_t>(p - out);
}

} // namespace zvxfer::zm
