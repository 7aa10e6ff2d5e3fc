// XferCheckAbort: the progress callback, then the host's abort hook.
#include "core/core.h"
#include "core/protocol.h"
#include "port/port.h"

namespace zvxfer {

int XferCheckAbort(XferRecord *record) {
    if (record->ProgressCallback != nullptr) record->ProgressCallback(record);
    if (record->Result == XferErrUserAbort) return 1;
    // A transfer that already failed or was stopped is ending anyway: no
    // second abort.
    if (XferStopped(record)) return 0;

    ThreadHooks *hooks = record->Port != nullptr ? record->Port->Hooks : nullptr;
    // A setter on another thread may replace the hook at any moment.
    const XferAbortFn abortFn = hooks != nullptr ? LoadHook(hooks->AbortFunction) : nullptr;
    if (abortFn == nullptr) return 0;
    const int32_t verdict = abortFn(record);
    if (verdict == 0) return 0;

    record->Result = verdict;
    const ProtocolInfo &protocol = ProtocolOf(record->Protocol);
    if (protocol.abortPostsStatus) XferStatusMessage(record, 1, MsgTransferCancelled);
    if (!protocol.endsAbortedTransfer) XferCleanup(record);
    return 1;
}

} // namespace zvxfer
