// What the core knows of ASCII upload and capture: a buffer for one line,
// nothing sent after a failure, files named by the host, and aborts ended
// by the engine (so that a capture the user stops keeps its file).
#pragma once
#include <cstdint>
#include <span>

#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::ascii {

int32_t AsciiSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t AsciiReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);

inline constexpr int32_t kSendSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptSubfolders,
                                         XferOptReleaseHookBuffer};
// The receive time-out's slots come last, so an idle time-out set in the
// block reaches the capture.
inline constexpr int32_t kReceiveSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptSubfolders,
                                            XferOptReleaseHookBuffer, XferOptReceiveTimeout};

inline constexpr ProtocolInfo kAsciiProtocol{
    .number = Ascii,
    .name = "ASCII",
    .bufferSize = 128,
    .endsAbortedTransfer = true,
    .send = &AsciiSendEntry,
    .receive = &AsciiReceiveEntry,
    .sendSlots = kSendSlots,
    .receiveSlots = kReceiveSlots,
};

} // namespace zvxfer::ascii
