// Reading one data subpacket into the record's Buffer and checking it with
// the CRC of the header that introduced it.
#include <algorithm>
#include <array>

#include "core/core.h"
#include "core/crc16.h"
#include "port/port.h"
#include "zmodem/plain_runs.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

// What the character after a ZDLE decodes to when it simply stands for one
// data byte; -1 for the ones ReadEscaped must see (CAN runs, subpacket
// ends, flow control passed over inside the escape).
constexpr std::array<int16_t, 256> MakeUnescape() {
    std::array<int16_t, 256> value{};
    for (int c = 0; c < 256; ++c) value[c] = static_cast<int16_t>(c ^ 0x40);
    for (uint8_t c : {zm::CAN, zm::XON, zm::XOFF, uint8_t{zm::XON | 0x80}, uint8_t{zm::XOFF | 0x80},
                      zm::ZCRCE, zm::ZCRCG, zm::ZCRCQ, zm::ZCRCW})
        value[c] = -1;
    value[zm::ZRUB0] = 0x7F;
    value[zm::ZRUB1] = 0xFF;
    return value;
}
constexpr auto kUnescape = MakeUnescape();

enum class Run { Taken, Overflow, None };

// Decode the head of what the host has handed over straight into Buffer:
// plain bytes and ZDLE pairs that stand for one data byte.  The byte-wise
// reader takes over at anything else (a subpacket end, CAN, raw flow
// control, a ZDLE whose partner has not arrived) or when nothing is
// buffered.
Run TakePlainRun(XferRecord *record) {
    const std::span<const uint8_t> run = PeekRun(record->Port);
    if (run.empty()) return Run::None;
    uint8_t *out = record->Buffer + record->BlockSize;
    const std::size_t room = zm::kMaxSubpacket - static_cast<uint32_t>(record->BlockSize);
    std::size_t in = 0, made = 0;
    for (;;) {
        const std::size_t plain = zm::CopyPlainRun<zm::RunEnd::ReaderSpecial>(
            out + made, run.data() + in, std::min(run.size() - in, room - made));
        in += plain;
        made += plain;
        if (in == run.size() || made == room) break;
        if (run[in] != zm::ZDLE || in + 1 == run.size()) break;
        const int16_t value = kUnescape[run[in + 1]];
        if (value < 0) break;
        out[made++] = static_cast<uint8_t>(value);
        in += 2;
    }
    if (in == 0) {
        if (room != 0 || zm::kRunEnd<zm::RunEnd::ReaderSpecial>[run[0]]) return Run::None;
        TakeRun(record->Port, 1); // the 1025th data byte
        return Run::Overflow;
    }
    record->BlockSize += static_cast<int32_t>(made);
    TakeRun(record->Port, static_cast<uint32_t>(in));
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
    XferStatusMessage(record, 0, MsgSubpacketCrc32);
    return -1;
}

} // namespace zvxfer::zm
