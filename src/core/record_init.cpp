// XferInit: a fresh transfer's counters, buffer and protocol defaults, and
// the cancel string sent after a failure.
#include "core/core.h"
#include "core/protocol.h"
#include "platform/heap.h"

namespace zvxfer {

const uint8_t XferCancelString[20] = {
    0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18,
    0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08,
};

int XferInit(XferRecord *record) {
    record->Result = 0;
    record->ErrorTotal = 0;
    record->ErrorRun = 0;
    record->File = XFER_INVALID_FILE;
    record->RxSeq = -1;
    record->BlockSize = -1;
    record->BlockNumber = 1;
    record->FilePos = -1;

    const ProtocolInfo &protocol = ProtocolOf(record->Protocol);
    record->Buffer = static_cast<uint8_t *>(plat::HeapAllocZero(protocol.bufferSize));
    if (record->Buffer == nullptr) {
        XferStatus(record, 0, "Failed to allocate XFER buffer(s)");
        record->Result = XferErrNoBuffer;
        XferCleanup(record);
        return 0;
    }
    if (protocol.setDefaults != nullptr) protocol.setDefaults(record);
    if (record->Port != nullptr) record->Port->Status = 0;
    return XferCheckAbort(record) ? 0 : 1;
}

} // namespace zvxfer
