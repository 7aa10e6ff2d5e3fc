// Headers and subpackets onto the line: each is built in one stack buffer
// and handed to the patient writer in one call.
#include "core/core.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

bool PeerTakesCrc32(const XferRecord *record) {
    return (record->ProtocolFlag & zm::CANFC32) != 0;
}

} // namespace

int32_t SendHexHeader(XferRecord *record, int type, const uint8_t data[4]) {
    uint8_t out[32];
    const std::size_t n = ZmFormatHexHeader(out, type, data);
    return XferWriteBuffer(record, out, static_cast<uint32_t>(n));
}

void SendBinHeader(XferRecord *record, int type, const uint8_t data[4]) {
    uint8_t out[3 + 2 * 9];
    const std::size_t n = ZmFormatBinHeader(out, type, data, PeerTakesCrc32(record));
    XferWriteBuffer(record, out, static_cast<uint32_t>(n));
}

int32_t SendDataSubpacket(XferRecord *record, uint32_t count, uint8_t end) {
    uint8_t out[zm::kMaxSubpacketWire];
    const std::size_t n =
        ZmFormatSubpacket(out, {record->Buffer, count}, end, PeerTakesCrc32(record));
    const int32_t r = XferWriteBuffer(record, out, static_cast<uint32_t>(n));
    if (r < 0) XferStatusMessage(record, 1, MsgCannotSendSubpacket);
    return r;
}

} // namespace zvxfer::zm
