// XferInit: a fresh transfer's counters, buffer and protocol defaults, and
// the cancel string sent after a failure.
#include "core/core.h"
#include "platform/heap.h"

namespace zvxfer {

const uint8_t XferCancelString[20] = {
    0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18,
    0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08,
};

namespace {

std::size_t BufferSize(int8_t protocol) {
    if (protocol == Ascii) return 128;
    if (protocol == CompuServeBPlus) return 1025;
    return 1024;
}

void SetProtocolDefaults(XferRecord *record) {
    switch (record->Protocol) {
    case Xmodem:
    case Ymodem:
    case Xmodem1K:
        record->ProtocolHook = -1;
        break;
    case Zmodem:
        record->ProtocolHook = -1;
        record->ProtocolParam = -1;
        break;
    case CompuServeBPlus:
        record->ProtocolHook = 1;
        record->ProtocolBytes.Bytes[3] = 1;
        record->ProtocolBytes.Bytes[4] = 1;
        record->RxSeq = 0;
        record->BlockSize = 1031;
        record->FilePos = 0;
        break;
    default: // the streaming variants and ASCII keep what the entry set
        break;
    }
}

} // namespace

int XferInit(XferRecord *record) {
    record->Result = 0;
    record->ErrorTotal = 0;
    record->ErrorRun = 0;
    record->File = XFER_INVALID_FILE;
    record->RxSeq = -1;
    record->BlockSize = -1;
    record->BlockNumber = 1;
    record->FilePos = -1;

    record->Buffer = static_cast<uint8_t *>(plat::HeapAllocZero(BufferSize(record->Protocol)));
    if (record->Buffer == nullptr) {
        XferStatus(record, 0, "Failed to allocate XFER buffer(s)");
        record->Result = XferErrNoBuffer;
        XferCleanup(record);
        return 0;
    }
    SetProtocolDefaults(record);
    if (record->Port != nullptr) record->Port->Status = 0;
    return XferCheckAbort(record) ? 0 : 1;
}

} // namespace zvxfer
