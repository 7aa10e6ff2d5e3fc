// What the core knows of XMODEM, XMODEM-1K, their streaming forms and
// YMODEM: one descriptor per protocol number.  The streaming forms arise
// only through the streaming option, so the generic entries offer none.
#pragma once
#include "core/options.h"
#include "core/protocol.h"

namespace zvxfer::xm {

int32_t XmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t XmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t Xmodem1KSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t Xmodem1KReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t YmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words);
int32_t YmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words);

// The block header byte is not known yet when a transfer starts.
inline void SetBlockDefaults(XferRecord *record) {
    record->ProtocolHook = -1;
}

inline constexpr int32_t kXmodemSendSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptChecksum,
                                               XferOptSendTimeout, XferOptReleaseHookBuffer};
inline constexpr int32_t kXmodemReceiveSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptChecksum,
                                                  XferOptReleaseHookBuffer};
inline constexpr int32_t k1KSendSlots[] = {XferOptFlag1006,  XferOptAbortKey,
                                           XferOptChecksum,  XferOptSendTimeout,
                                           XferOptStreaming, XferOptReleaseHookBuffer};
inline constexpr int32_t k1KReceiveSlots[] = {XferOptFlag1006, XferOptAbortKey, XferOptStreaming,
                                              XferOptReleaseHookBuffer};
inline constexpr int32_t kYmodemSendSlots[] = {
    XferOptFlag1006, XferOptFullPath, XferOptStreaming,   XferOptSubfolders,
    XferOptAbortKey, XferOptChecksum, XferOptSendTimeout, XferOptReleaseHookBuffer};
inline constexpr int32_t kYmodemReceiveSlots[] = {
    XferOptFlag1006, XferOptFullPath, XferOptStreaming, XferOptAbortKey, XferOptReleaseHookBuffer};

// The fields every XMODEM-family descriptor shares; `streaming` forms send
// nothing after a failure and keep the defaults their entry set.
constexpr ProtocolInfo BlockProtocol(int32_t number, const char *name, bool streaming,
                                     bool namesFromLine) {
    return ProtocolInfo{
        .number = number,
        .name = name,
        .onFailure = streaming ? FailureSignal::Nothing : FailureSignal::CancelString,
        .namesFromLine = namesFromLine,
        .setDefaults = streaming ? nullptr : &SetBlockDefaults,
    };
}

constexpr ProtocolInfo WithEntries(ProtocolInfo info, EntryFn send, EntryFn receive,
                                   std::span<const int32_t> sendSlots,
                                   std::span<const int32_t> receiveSlots) {
    info.send = send;
    info.receive = receive;
    info.sendSlots = sendSlots;
    info.receiveSlots = receiveSlots;
    return info;
}

inline constexpr ProtocolInfo kXmodemProtocol =
    WithEntries(BlockProtocol(Xmodem, "XMODEM", false, false), &XmodemSendEntry,
                &XmodemReceiveEntry, kXmodemSendSlots, kXmodemReceiveSlots);
inline constexpr ProtocolInfo kXmodem1KProtocol =
    WithEntries(BlockProtocol(Xmodem1K, "XMODEM-1K", false, false), &Xmodem1KSendEntry,
                &Xmodem1KReceiveEntry, k1KSendSlots, k1KReceiveSlots);
inline constexpr ProtocolInfo kYmodemProtocol =
    WithEntries(BlockProtocol(Ymodem, "YMODEM", false, true), &YmodemSendEntry, &YmodemReceiveEntry,
                kYmodemSendSlots, kYmodemReceiveSlots);
inline constexpr ProtocolInfo kXmodem1KGProtocol =
    BlockProtocol(Xmodem1KG, "XMODEM-1K-G", true, false);
inline constexpr ProtocolInfo kYmodemGProtocol = BlockProtocol(YmodemG, "YMODEM-G", true, true);

} // namespace zvxfer::xm
