// Reading one data subpacket into the record's Buffer and checking it with
// the CRC of the header that introduced it.
#include "core/core.h"
#include "xmodem/xmodem.h"
#include "zmodem/zmodem.h"

namespace zvxfer {

int32_t ReadDataSubpacket(XferRecord *record) {
    record->BlockSize = 0;
    for (;;) {
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
