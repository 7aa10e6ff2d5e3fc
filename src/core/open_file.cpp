// XferOpenFile: open the current file for sending or receiving, applying
// the port's existing-file policy on the receive side.
#include <cstring>

#include "core/core.h"
#include "core/protocol.h"
#include "port/port.h"

namespace zvxfer {

namespace {

XferFile OpenThroughHook(XferRecord *record, const char *mode) {
    ThreadHooks *hooks = record->Port != nullptr ? record->Port->Hooks : nullptr;
    XferFileOpenFn open = hooks != nullptr ? LoadHook(hooks->FileOpenFunction) : nullptr;
    if (open == nullptr) open = DefaultFileOpen;
    return open(record, record->FileName, mode);
}

// Receive side: skip or rename an existing file, then open for writing.
void OpenForReceive(XferRecord *record) {
    const bool exists = XferFileExists(record->FileName);
    XferStatus(record, 0, "Opening file %s", record->FileName);
    record->SkipFile = 0;
    const int32_t policy = record->Port != nullptr ? record->Port->ExistingFilePolicy : 0;

    if (exists && policy == XFER_EXISTING_SKIP) {
        record->SkipFile = 1;
        record->File = XFER_INVALID_FILE;
        if (ProtocolOf(record->Protocol).skipReport == SkipReport::AskSenderToSkip) {
            XferStatusMessage(record, 1, MsgFileSkipped);
            record->Result = XferErrShouldSkip;
        } else {
            XferStatusMessage(record, 1, MsgExistingFileSkipped);
            ++record->FileCount;
        }
        return;
    }
    if (exists && policy == XFER_EXISTING_RENAME) {
        // No free name (past "(9)"): the file is not opened and the open
        // fails like any other.
        const std::size_t size = std::strlen(record->FileName) + kFreeNameRoom + 1;
        if (!XferFreeName(record->FileName, size)) {
            record->File = XFER_INVALID_FILE;
            return;
        }
    }
    record->File = OpenThroughHook(record, "wb");
}

} // namespace

int XferOpenFile(XferRecord *record) {
    if (record->Result == XferErrShouldSkip) record->Result = 0;
    record->FilePos = 0;

    if (record->Sending) {
        if (record->SendList != nullptr) record->FileName = record->SendList->Path;
        XferStatus(record, 0, "Opening file %s", record->FileName);
        record->File = OpenThroughHook(record, "rb");
    } else {
        OpenForReceive(record);
    }

    if (record->File != XFER_INVALID_FILE) {
        if (!record->Sending || ProtocolOf(record->Protocol).openCountsSentFiles)
            ++record->FileCount;
        if (record->Sending && record->SendList != nullptr)
            record->FileSize = record->SendList->Size;
        return XferCheckAbort(record) ? 0 : 1;
    }
    if (record->SkipFile == 1) return 1;

    record->Result = XferErrOpenFile;
    XferStatusMessage(record, 1, MsgCannotOpenFile);
    XferCleanup(record);
    return 0;
}

int XferOpenFileToAppend(XferRecord *record) {
    if (record->Result == XferErrShouldSkip) record->Result = 0;
    record->FilePos = 0;
    record->SkipFile = 0;
    XferStatus(record, 0, "Opening file %s to continue it", record->FileName);
    record->File = OpenThroughHook(record, "ab");
    if (record->File != XFER_INVALID_FILE) {
        ++record->FileCount;
        return XferCheckAbort(record) ? 0 : 1;
    }
    record->Result = XferErrOpenFile;
    XferStatusMessage(record, 1, MsgCannotOpenFile);
    XferCleanup(record);
    return 0;
}

} // namespace zvxfer
