// What the core knows of CompuServe B+: its buffer holds a packet's data and
// check, its link state lives in ProtocolParam, and an aborted transfer is
// ended by the engine (which tells the service) without a notice from the
// core.  One entry serves both directions: the service says which.
#pragma once
#include <cstdint>
#include <span>

#include "bplus/bplus.h"
#include "core/options.h"
#include "core/protocol.h"

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

// The link state and the copies it keeps for resending.
inline void ReleaseBPlusState(XferRecord *record) {
    BPlusReleaseLink(record);
}

// The one entry; the generic entries call it for either direction.
int32_t BPlusEntry(const EntryArgs &args, std::span<const int32_t> words);

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
    .send = &BPlusEntry,
    .receive = &BPlusEntry,
    .sendSlots = kSlots,
    .receiveSlots = kSlots,
};

} // namespace zvxfer::bplus
