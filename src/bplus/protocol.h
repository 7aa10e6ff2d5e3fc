// What the core knows of CompuServe B+: its buffer holds a packet's data and
// check, its link state lives in ProtocolParam, and an aborted transfer is
// ended by the engine (which tells the service) without a notice from the
// core.  One entry serves both directions; it is not built yet, so the
// generic entries refuse the protocol.
#pragma once
#include "core/options.h"
#include "core/protocol.h"
#include "platform/heap.h"

namespace zvxfer::bplus {

// Largest data length offered before the transport parameters are agreed.
constexpr int32_t kInitialBlockSize = 1031;

// Both windows start at one packet; sequence numbers and the byte count at 0.
inline void SetBPlusDefaults(XferRecord *record) {
    record->ProtocolHook = 1;
    record->ProtocolBytes.Bytes[3] = 1; // send window
    record->ProtocolBytes.Bytes[4] = 1; // receive window
    record->RxSeq = 0;
    record->BlockSize = kInitialBlockSize;
    record->FilePos = 0;
}

// The link state is a heap block whose address ProtocolParam holds.
inline void ReleaseBPlusState(XferRecord *record) {
    if (record->ProtocolParam == 0) return;
    plat::HeapFreeBlock(reinterpret_cast<void *>(record->ProtocolParam));
    record->ProtocolParam = 0;
}

inline constexpr int32_t kSlots[] = {XferOptFlag1006,         XferOptAbortKey,
                                     XferOptBPlusCheckMethod, XferOptBPlusFileInfo,
                                     XferOptBPlusResume,      XferOptReleaseHookBuffer};

inline constexpr ProtocolInfo kBPlusProtocol{
    .number = CompuServeBPlus,
    .name = "CompuServe B+",
    .bufferSize = 1025,
    .abortPostsStatus = false,
    .endsAbortedTransfer = true,
    .namesFromLine = true,
    .setDefaults = &SetBPlusDefaults,
    .releaseState = &ReleaseBPlusState,
    .sendSlots = kSlots,
    .receiveSlots = kSlots,
};

} // namespace zvxfer::bplus
