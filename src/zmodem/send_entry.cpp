// ZmodemSendWithOptions: the sender's defaults and accepted options, the
// send list and the sender's main loop on the shared entry path.
#include <cstdarg>

#include "zmodem/entries.h"
#include "zmodem/protocol.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kSendOptions[] = {
    XferOptFullPath,          XferOptFlag1006,   XferOptAbortKey,      XferOptSubfolders,
    XferOptZmResume,          XferOptZmNoWindow, XferOptZmNewerLonger, XferOptZmAppend,
    XferOptZmReplace,         XferOptZmDiffer,   XferOptZmProtect,     XferOptZmNewer,
    XferOptReleaseHookBuffer, XferOptMaxErrors,  XferOptZmWindowSize};

// The sender streams with a window unless an option says otherwise.
void InitSender(EntryFrame &frame, const EntryArgs &args) {
    InitEntry(frame, args);
    ZmWindowMode(&frame.record) = 1;
    ZmWindowSize(&frame.record) = kDefaultWindow;
}

void Send(EntryFrame &frame, const EntryArgs &) {
    ZmodemSend(&frame.record);
}

constexpr EntrySpec kSend{
    Zmodem, kSendOptions, true, &InitSender, &ApplyOption, &Send, EntryOutcome::ResultOrFileCount};

} // namespace

int32_t ZmodemSendEntry(const EntryArgs &args, std::span<const int32_t> words) {
    return RunEntry(kSend, args, words);
}

} // namespace zvxfer::zm

extern "C" ZVXFER_EXTERN int32_t ZmodemSendWithOptions(XferPort *port, char *names,
                                                       XferStatusFn status, XferProgressFn progress,
                                                       ...) ZVXFER_NOEXCEPT {
    va_list options;
    va_start(options, progress);
    const int32_t result = zvxfer::CallWithOptionWords(zvxfer::zm::ZmodemSendEntry,
                                                       {port, names, status, progress}, options);
    va_end(options);
    return result;
}
