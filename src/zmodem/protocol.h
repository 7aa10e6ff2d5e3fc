// What the core knows of ZMODEM.
#pragma once
#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::zm {

int32_t ZmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t ZmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);

// No frame seen yet, no position agreed yet.
inline void SetZmodemDefaults(XferRecord *record) {
    record->ProtocolHook = -1;
    record->ProtocolParam = -1;
}

inline constexpr int32_t kSendSlots[] = {
    XferOptFlag1006,   XferOptSubfolders,  XferOptFullPath,  XferOptAbortKey,
    XferOptZmNoWindow, XferOptZmResume,    kOptZmManagement, XferOptReleaseHookBuffer,
    XferOptMaxErrors,  XferOptZmWindowSize};
inline constexpr int32_t kReceiveSlots[] = {
    XferOptFlag1006, XferOptFullPath,          XferOptAbortKey, XferOptZmResume,
    XferOptZmPacing, XferOptReleaseHookBuffer, XferOptMaxErrors};

inline constexpr ProtocolInfo kZmodemProtocol{
    .number = Zmodem,
    .name = "ZMODEM",
    .onFailure = FailureSignal::PurgeThenCancel,
    .openCountsSentFiles = false, // the sender counts a file once the receiver takes it
    .skipReport = SkipReport::AskSenderToSkip,
    .receiverOwnsFileName = true,
    .namesFromLine = true,
    .setDefaults = &SetZmodemDefaults,
    .send = &ZmodemSendEntry,
    .receive = &ZmodemReceiveEntry,
    .sendSlots = kSendSlots,
    .receiveSlots = kReceiveSlots,
};

} // namespace zvxfer::zm
