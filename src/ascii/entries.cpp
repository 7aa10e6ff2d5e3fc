// AsciiSendWithOptions and AsciiReceiveWithOptions: each one's accepted
// option codes, its record fields and its engine on the shared entry path.
#include <cstdarg>
#include <cstdio>

#include "ascii/ascii.h"
#include "ascii/protocol.h"
#include "core/entry.h"

namespace zvxfer::ascii {
namespace {

constexpr int32_t kSendOptions[] = {XferOptFlag1006, XferOptAbortKey, XferOptSubfolders,
                                    XferOptReleaseHookBuffer};
constexpr int32_t kReceiveOptions[] = {XferOptFlag1006, XferOptAbortKey, XferOptReceiveTimeout,
                                       XferOptReleaseHookBuffer};

void InitSender(EntryFrame &frame, const EntryArgs &args) {
    XferRecord *r = &frame.record;
    SetCharCallback(r, args.character);
    DropLf(r) = args.flag != 0 ? 1 : 0;
    LineDelayMs(r) = args.value;
}

void InitReceiver(EntryFrame &frame, const EntryArgs &args) {
    XferRecord *r = &frame.record;
    SetCharCallback(r, args.character);
    DropLf(r) = args.flag != 0 ? 1 : 0;
    IdleTimeoutMs(r) = kDefaultIdleMs;
}

void ApplyOption(EntryFrame &frame, const Option &o) {
    if (o.code == XferOptSubfolders) frame.subfolders = true;
    if (o.code == XferOptReceiveTimeout) IdleTimeoutMs(&frame.record) = o.value;
}

void Send(EntryFrame &frame, const EntryArgs &) {
    AsciiSend(&frame.record);
}

void Receive(EntryFrame &frame, const EntryArgs &args) {
    std::snprintf(frame.fileName, sizeof frame.fileName, "%s", args.name ? args.name : "");
    frame.record.FileName = frame.fileName;
    AsciiReceive(&frame.record);
}

constexpr EntrySpec kSend{
    Ascii, kSendOptions, true, &InitSender, &ApplyOption, &Send, EntryOutcome::ResultOrFileCount};
constexpr EntrySpec kReceive{Ascii,
                             kReceiveOptions,
                             false,
                             &InitReceiver,
                             &ApplyOption,
                             &Receive,
                             EntryOutcome::ResultOrFileCount};

} // namespace

int32_t AsciiSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kSend, args, words);
}
int32_t AsciiReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kReceive, args, words);
}

} // namespace zvxfer::ascii

extern "C" {

ZVXFER_EXTERN int32_t AsciiSendWithOptions(XferPort *port, char *names, XferStatusFn status,
                                           XferProgressFn progress, XferCharFn charCallback,
                                           uint8_t dropLf, int32_t lineDelayMs,
                                           ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, lineDelayMs);
    const int32_t result = zvxfer::CallWithOptionWords(
        zvxfer::ascii::AsciiSendEntry,
        {port, names, status, progress, charCallback, dropLf, lineDelayMs}, options);
    va_end(options);
    return result;
}

ZVXFER_EXTERN int32_t AsciiReceiveWithOptions(XferPort *port, char *fileName, XferStatusFn status,
                                              XferProgressFn progress, XferCharFn charCallback,
                                              uint8_t dropLf, ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, dropLf);
    const int32_t result = zvxfer::CallWithOptionWords(
        zvxfer::ascii::AsciiReceiveEntry,
        {port, fileName, status, progress, charCallback, dropLf, 0}, options);
    va_end(options);
    return result;
}

} // extern "C"
