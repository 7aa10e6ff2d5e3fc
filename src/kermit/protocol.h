// What the core knows of Kermit.  The engine opens, counts and closes its
// files itself and ends an aborted transfer itself; its entries are not
// built yet, so the generic entries refuse the protocol.
#pragma once
#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::kermit {

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
    .sendSlots = kSendSlots,
    .receiveSlots = kReceiveSlots,
};

} // namespace zvxfer::kermit
