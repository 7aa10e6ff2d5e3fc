// CompuServeBPlusWithOptions and CompuServeBPlusRespond: the transfer entry
// on the shared entry path, and the terminal's answer to the service's ENQ.
#include <cstdarg>

#include "bplus/bplus.h"
#include "bplus/protocol.h"
#include "core/entry.h"
#include "port/port.h"

namespace zvxfer::bplus {
namespace {

constexpr int32_t kOptions[] = {XferOptFullPath,         XferOptFlag1006,      XferOptAbortKey,
                                XferOptBPlusCheckMethod, XferOptBPlusFileInfo, XferOptBPlusResume,
                                XferOptReleaseHookBuffer};

// Download resume offered with option 1026: the service may continue a
// partial file.
constexpr int8_t kResumeOffered = 2;

void ApplyOption(EntryFrame &frame, const Option &o) {
    XferRecord *r = &frame.record;
    if (o.code == XferOptBPlusCheckMethod) RequestedCheck(r) = static_cast<int8_t>(o.value & 0xFF);
    if (o.code == XferOptBPlusFileInfo) FileInfo(r) = 1;
    if (o.code == XferOptBPlusResume) DownloadResume(r) = kResumeOffered;
}

void Run(EntryFrame &frame, const EntryArgs &) {
    // Names from the service are always placed as bare names.
    frame.record.StripPath = 1;
    BPlusMain(&frame.record);
}

constexpr EntrySpec kEntry{CompuServeBPlus,           kOptions, false, nullptr, &ApplyOption, &Run,
                           EntryOutcome::OneOnSuccess};

} // namespace

int32_t BPlusEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kEntry, args, words);
}

} // namespace zvxfer::bplus

extern "C" {

ZVXFER_EXTERN int32_t CompuServeBPlusWithOptions(XferPort *port, XferStatusFn status,
                                                 XferProgressFn progress, ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, progress);
    const int32_t result = zvxfer::CallWithOptionWords(zvxfer::bplus::BPlusEntry,
                                                       {port, nullptr, status, progress}, options);
    va_end(options);
    return result;
}

ZVXFER_EXTERN int32_t CompuServeBPlusRespond(XferPort *port, int32_t bplusFlag) ZVXFER_NOEXCEPT {
    if (port == nullptr) return PortInvalidParameter;
    using zvxfer::bplus::kDle;
    constexpr int32_t kTimeoutMs = zvxfer::bplus::kWriteTimeoutMs;
    if (bplusFlag != 0) {
        for (uint8_t c : {kDle, uint8_t{'+'}, uint8_t{'+'}})
            zvxfer::WriteCharTimed(port, c, kTimeoutMs);
    }
    zvxfer::WriteCharTimed(port, kDle, kTimeoutMs);
    zvxfer::WriteCharTimed(port, '0', kTimeoutMs);
    return port->Status;
}

} // extern "C"
