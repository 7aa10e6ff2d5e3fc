// The six XMODEM and YMODEM entries: each one's accepted option codes and
// engine on the shared entry path.
#include <cstdarg>
#include <cstdio>

#include "core/core.h"
#include "core/entry.h"
#include "xmodem/protocol.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

constexpr int32_t kXmodemReceiveOptions[] = {XferOptFlag1006, XferOptAbortKey, XferOptChecksum,
                                             XferOptReleaseHookBuffer};
constexpr int32_t kXmodemSendOptions[] = {XferOptFlag1006, XferOptAbortKey, XferOptChecksum,
                                          XferOptSendTimeout, XferOptReleaseHookBuffer};
constexpr int32_t k1KReceiveOptions[] = {XferOptFlag1006, XferOptAbortKey, XferOptStreaming,
                                         XferOptReleaseHookBuffer};
constexpr int32_t k1KSendOptions[] = {XferOptFlag1006,    XferOptAbortKey,
                                      XferOptChecksum,    XferOptStreaming,
                                      XferOptSendTimeout, XferOptReleaseHookBuffer};
constexpr int32_t kYmodemSendOptions[] = {
    XferOptFullPath,  XferOptFlag1006,    XferOptAbortKey,         XferOptSubfolders,
    XferOptStreaming, XferOptSendTimeout, XferOptReleaseHookBuffer};
constexpr int32_t kYmodemReceiveOptions[] = {XferOptFullPath, XferOptFlag1006, XferOptAbortKey,
                                             XferOptStreaming, XferOptReleaseHookBuffer};

void InitRecord(EntryFrame &frame, const EntryArgs &) {
    XmSetCrcMode(&frame.record, true);
    frame.record.ProtocolParam = kReplyTimeoutMs;
}

// What the streaming option turns a protocol into.
int8_t StreamingOf(int8_t protocol) {
    if (protocol == Xmodem1K) return Xmodem1KG;
    if (protocol == Ymodem) return YmodemG;
    return protocol;
}

void ApplyOption(EntryFrame &frame, const Option &o) {
    XferRecord &r = frame.record;
    switch (o.code) {
    case XferOptChecksum:
        XmSetCrcMode(&r, false);
        break;
    case XferOptStreaming:
        r.Protocol = StreamingOf(r.Protocol);
        break;
    case XferOptSendTimeout:
        r.ProtocolParam = o.value;
        break;
    default:
        break; // accepted without effect (1009)
    }
}

void ReceiveNamedFile(EntryFrame &frame, const EntryArgs &args) {
    std::snprintf(frame.fileName, sizeof frame.fileName, "%s", args.name ? args.name : "");
    frame.record.FileName = frame.fileName;
    XmReceiveFile(&frame.record);
}
void ReceiveBatch(EntryFrame &frame, const EntryArgs &) {
    YmReceiveBatch(&frame.record);
}
void SendFiles(EntryFrame &frame, const EntryArgs &) {
    XmSendFile(&frame.record);
}
void SendBatch(EntryFrame &frame, const EntryArgs &) {
    YmSendBatch(&frame.record);
}

constexpr EntrySpec Spec(int8_t protocol, std::span<const int32_t> accepted, bool sends,
                         void (*run)(EntryFrame &, const EntryArgs &)) {
    return EntrySpec{
        protocol, accepted, sends, &InitRecord, &ApplyOption, run, EntryOutcome::ResultOrFileCount};
}

constexpr EntrySpec kXmodemSend = Spec(Xmodem, kXmodemSendOptions, true, &SendFiles);
constexpr EntrySpec kXmodemReceive = Spec(Xmodem, kXmodemReceiveOptions, false, &ReceiveNamedFile);
constexpr EntrySpec k1KSend = Spec(Xmodem1K, k1KSendOptions, true, &SendFiles);
constexpr EntrySpec k1KReceive = Spec(Xmodem1K, k1KReceiveOptions, false, &ReceiveNamedFile);
constexpr EntrySpec kYmodemSend = Spec(Ymodem, kYmodemSendOptions, true, &SendBatch);
constexpr EntrySpec kYmodemReceive = Spec(Ymodem, kYmodemReceiveOptions, false, &ReceiveBatch);

} // namespace

int32_t XmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kXmodemSend, args, words);
}
int32_t XmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kXmodemReceive, args, words);
}
int32_t Xmodem1KSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(k1KSend, args, words);
}
int32_t Xmodem1KReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(k1KReceive, args, words);
}
int32_t YmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kYmodemSend, args, words);
}
int32_t YmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kYmodemReceive, args, words);
}

} // namespace zvxfer::xm

// --- exported entries ---

namespace {

int32_t WithWords(zvxfer::EntryFn entry, XferPort *port, char *name, XferStatusFn status,
                  XferProgressFn progress, va_list options) noexcept {
    return zvxfer::CallWithOptionWords(entry, {port, name, status, progress}, options);
}

} // namespace

#define ZVXFER_VA_ENTRY(entry, name)                                                               \
    va_list options;                                                                               \
    va_start(options, progress);                                                                   \
    const int32_t result = WithWords(entry, port, name, status, progress, options);                \
    va_end(options);                                                                               \
    return result

extern "C" {

ZVXFER_EXTERN int32_t XmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::XmodemSendEntry, names);
}
ZVXFER_EXTERN int32_t XmodemReceiveWithOptions(XferPort *port, char *fileName, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::XmodemReceiveEntry, fileName);
}
ZVXFER_EXTERN int32_t Xmodem1KSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                              XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::Xmodem1KSendEntry, names);
}
ZVXFER_EXTERN int32_t Xmodem1KReceiveWithOptions(XferPort *port, char *fileName,
                                                 XferStatusFn status, XferProgressFn progress,
                                                 ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::Xmodem1KReceiveEntry, fileName);
}
ZVXFER_EXTERN int32_t YmodemSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                            XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::YmodemSendEntry, names);
}
ZVXFER_EXTERN int32_t YmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                               XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    ZVXFER_VA_ENTRY(zvxfer::xm::YmodemReceiveEntry, nullptr);
}

} // extern "C"
