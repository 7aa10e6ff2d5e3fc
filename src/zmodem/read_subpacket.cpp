// Reading one data subpacket into the record's Buffer and checking it with
// the CRC of the header that introduced it.
#include <array>
#include <cstring>

#include "core/core.h"
#include "port/port.h"
#include "xmodem/xmodem.h"
#include "zmodem/zmodem.h"

namespace zvxfer {
namespace {

// Bytes that need ReadEscaped: ZDLE and the raw flow-control characters it
// passes over.  Everything else in a subpacket is data as it stands.
constexpr std::array<bool, 256> MakeSpecial() {
    std::array<bool, 256> special{};
    for (uint8_t b :
         {zm::ZDLE, zm::XON, zm::XOFF, uint8_t{zm::XON | 0x80}, uint8_t{zm::XOFF | 0x80}})
        special[b] = true;
    return special;
}
constexpr auto kSpecial = MakeSpecial();

enum class Run { Taken, Overflow, None };

// Copy the plain bytes at the head of what the host has handed over
// straight into Buffer; the byte-wise reader takes over at the first byte
// that needs decoding or when nothing is buffered.
Run TakePlainRun(XferRecord *record) {
    const std::span<const uint8_t> run = PeekRun(record->Port);
    std::size_t n = 0;
    while (n < run.size() && !kSpecial[run[n]]) ++n;
    if (n == 0) return Run::None;
    const auto room = zm::kMaxSubpacket - static_cast<uint32_t>(record->BlockSize);
    if (room == 0) {
        TakeRun(record->Port, 1); // the 1025th data byte
        return Run::Overflow;
    }
    if (n > room) n = room;
    std::memcpy(record->Buffer + record->BlockSize, run.data(), n);
    record->BlockSize += static_cast<int32_t>(n);
    TakeRun(record->Port, static_cast<uint32_t>(n));
    ZmCanCount(record) = 0;
    return Run::Taken;
}

} // namespace

int32_t ReadDataSubpacket(XferRecord *record) {
    record->BlockSize = 0;
    for (;;) {
        const Run run = TakePlainRun(record);
        if (run == Run::Overflow) return PortUserBufferOverflow;
        if (run == Run::Taken) continue;
        const int32_t c = ReadEscaped(record);
        if (c < 0) return c;
        if (c >= zm::kEndFlag) {
            const int end = c & 0xFF;
            const int32_t check = ZmHeaderFormat(record) == zm::ZBIN32 ? ReadCrc32(record, end)
                                                                       : ReadCrc16(record, end);
            return check < 0 ? check : end;
        }
        if (static_cast<uint32_t>(record->BlockSize) >= zm::kMaxSubpacket)
            return PortUserBufferOverflow;
        record->Buffer[record->BlockSize++] = static_cast<uint8_t>(c);
    }
}

int32_t ReadCrc16(XferRecord *record, int end) {
    const int32_t high = ReadEscaped(record);
    if (high < 0) return high;
    const int32_t low = ReadEscaped(record); // a failed read fails the compare
    uint16_t crc = Crc16Block(static_cast<uint32_t>(record->BlockSize), 0, record->Buffer);
    crc = Crc16Update(crc, static_cast<uint8_t>(end));
    return high == (crc >> 8) && low == (crc & 0xFF) ? 0 : -1;
}

int32_t ReadCrc32(XferRecord *record, int end) {
    uint32_t crc =
        Crc32Block(static_cast<uint32_t>(record->BlockSize), 0xFFFFFFFFu, record->Buffer);
    crc = Crc32Update(crc, static_cast<uint8_t>(end));
    for (int i = 0; i < 4; ++i) {
        const int32_t c = ReadEscaped(record);
        if (c < 0) return c;
        crc = Crc32Update(crc, static_cast<uint8_t>(c));
    }
    if (crc == zm::kCrc32Good) {
        XferStatus(record, 0, "ReadCrc32:  good CRC-32");
        return 0;
    }
    XferStatusMessage(record, 0, 28302);
    return -1;
}

} // namespace zvxfer
