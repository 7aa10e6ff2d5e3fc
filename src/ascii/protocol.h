// What the core knows of ASCII upload and capture: a buffer for one line,
// nothing sent after a failure, and files named by the host.  Its entries
// are not built yet, so the generic entries refuse the protocol.
#pragma once
#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::ascii {

inline constexpr int32_t kSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptSubfolders,
                                     XferOptReleaseHookBuffer};

inline constexpr ProtocolInfo kAsciiProtocol{
    .number = Ascii,
    .name = "ASCII",
    .bufferSize = 128,
    .sendSlots = kSlots,
    .receiveSlots = kSlots,
};

} // namespace zvxfer::ascii
