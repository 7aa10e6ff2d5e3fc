// The four block checks.  The 16-bit ones keep their value in the record's
// RxCheck; CRC-32 has its own accumulator in the link state.  A packet's
// check runs over the sequence character, the data and the ETX; the
// receiver then feeds the check bytes too and looks for a fixed residue.
#include <array>

#include "bplus/bplus.h"
#include "core/crc16.h"
#include "port/port.h"

namespace zvxfer::bplus {
namespace {

// CRC-16/X-25: 0x1021 reflected, least significant bit first.
constexpr std::array<uint16_t, 256> MakeX25Table() {
    std::array<uint16_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1;
        table[i] = static_cast<uint16_t>(crc);
    }
    return table;
}
constexpr auto kX25Table = MakeX25Table();
static_assert(kX25Table[1] == 0x1189);

// CRC-32/ISO-HDLC, reflected polynomial 0xEDB88320.
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

constexpr uint16_t kX25Residue = 0xF0B8;
constexpr uint32_t kCrc32Residue = 0xDEBB20E3u;

// Check bytes of the CRC methods: only control characters go through the
// quoting rule; everything from 0x20 up goes out as it is.
void SendCheckByte(XferRecord *r, uint8_t b) {
    if (b < 0x20)
        BPlusSendQuoted(r, b);
    else
        WriteCharTimed(r->Port, b, kWriteTimeoutMs);
}

uint32_t SumUpdate(uint32_t s, uint8_t b) {
    s <<= 1;
    if (s > 255) s = (s & 255) + 1;
    s += b;
    if (s > 255) s = (s & 255) + 1;
    return s;
}

} // namespace

uint16_t Crc16CcittUpdate(uint16_t crc, uint8_t b) {
    return Crc16Update(crc, b);
}

uint16_t Crc16X25Update(uint16_t crc, uint8_t b) {
    return static_cast<uint16_t>((crc >> 8) ^ kX25Table[(crc ^ b) & 0xFF]);
}

uint32_t Crc32Update(uint32_t crc, uint8_t b) {
    return (crc >> 8) ^ kCrc32Table[(crc ^ b) & 0xFF];
}

void BPlusCheckInit(XferRecord *r) {
    BPlusLink *link = Link(r);
    switch (link->CheckMethod) {
    case 1:
    case 2:
        r->RxCheck = 0xFFFF;
        break;
    case 3:
        link->Crc32 = 0xFFFFFFFFu;
        break;
    default:
        r->RxCheck = 0;
        break;
    }
}

void BPlusCheckUpdate(XferRecord *r, uint8_t b) {
    BPlusLink *link = Link(r);
    const auto value = static_cast<uint32_t>(r->RxCheck);
    switch (link->CheckMethod) {
    case 1:
        r->RxCheck = Crc16CcittUpdate(static_cast<uint16_t>(value), b);
        break;
    case 2:
        r->RxCheck = Crc16X25Update(static_cast<uint16_t>(value), b);
        break;
    case 3:
        link->Crc32 = Crc32Update(link->Crc32, b);
        break;
    default:
        r->RxCheck = static_cast<int32_t>(SumUpdate(value, b));
        break;
    }
}

void BPlusSendCheck(XferRecord *r) {
    const BPlusLink *link = Link(r);
    const auto value = static_cast<uint32_t>(r->RxCheck);
    switch (link->CheckMethod) {
    case 1:
        SendCheckByte(r, static_cast<uint8_t>(value >> 8));
        SendCheckByte(r, static_cast<uint8_t>(value));
        break;
    case 2: {
        const uint32_t sent = value ^ 0xFFFF;
        SendCheckByte(r, static_cast<uint8_t>(sent));
        SendCheckByte(r, static_cast<uint8_t>(sent >> 8));
        break;
    }
    case 3: {
        const uint32_t sent = ~link->Crc32;
        for (int shift = 0; shift < 32; shift += 8)
            SendCheckByte(r, static_cast<uint8_t>(sent >> shift));
        break;
    }
    default:
        BPlusSendQuoted(r, static_cast<uint8_t>(value));
        break;
    }
}

bool BPlusCheckGood(const XferRecord *r) {
    const BPlusLink *link = Link(r);
    switch (link->CheckMethod) {
    case 1:
        return (r->RxCheck & 0xFFFF) == 0;
    case 2:
        return (r->RxCheck & 0xFFFF) == kX25Residue;
    case 3:
        return link->Crc32 == kCrc32Residue;
    default:
        // The checksum is compared with the received byte, not fed with it.
        return false;
    }
}

} // namespace zvxfer::bplus
