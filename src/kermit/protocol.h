// What the core knows of Kermit.  The engine opens, counts and closes its
// files itself and ends an aborted transfer itself; the generic entries
// reach its two entries for protocol number 2.
#pragma once
#include <cstdint>
#include <span>

#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::kermit {

int32_t KermitSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t KermitReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);

inline constexpr int32_t kSendSlots[] = {
    XferOptKermitQuote8Bit, XferOptKermitTextMode, XferOptKermitNoRepeat, XferOptFlag1006,
    XferOptSubfolders,      XferOptFullPath,       XferOptAbortKey,       XferOptReleaseHookBuffer};
inline constexpr int32_t kReceiveSlots[] = {XferOptKermitTextMode, XferOptKermitNoRepeat,
                                            XferOptFlag1006,       XferOptFullPath,
                                            XferOptAbortKey,       XferOptReleaseHookBuffer};

inline constexpr ProtocolInfo kKermitProtocol{
    .number = Kermit,
    .name = "Kermit",
    .endsAbortedTransfer = true,
    .namesFromLine = true,
    .send = &KermitSendEntry,
    .receive = &KermitReceiveEntry,
    .sendSlots = kSendSlots,
    .receiveSlots = kReceiveSlots,
};

} // namespace zvxfer::kermit
