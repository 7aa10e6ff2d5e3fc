// ZmodemReceiveWithOptions: the options this receiver accepts and the batch
// on the shared entry path.
#include <cstdarg>

#include "zmodem/entries.h"
#include "zmodem/protocol.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kReceiveOptions[] = {XferOptFullPath, XferOptFlag1006, XferOptAbortKey,
                                       XferOptZmResume, XferOptZmPacing, XferOptReleaseHookBuffer,
                                       XferOptMaxErrors};

void Receive(EntryFrame &frame, const EntryArgs &) {
    ZmodemReceive(&frame.record);
}

constexpr EntrySpec kReceive{Zmodem,
                             kReceiveOptions,
                             false,
                             &InitEntry,
                             &ApplyOption,
                             &Receive,
                             EntryOutcome::ResultOrFileCount};

} // namespace

int32_t ZmodemReceiveEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kReceive, args, words);
}

} // namespace zvxfer::zm

extern "C" ZVXFER_EXTERN int32_t ZmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                                          XferProgressFn progress,
                                                          ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, progress);
    const int32_t result = zvxfer::CallWithOptionWords(zvxfer::zm::ZmodemReceiveEntry,
                                                       {port, nullptr, status, progress}, options);
    va_end(options);
    return result;
}
