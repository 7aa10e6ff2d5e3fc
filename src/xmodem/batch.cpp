// YMODEM batches: block 0 before each file, the file as an XMODEM data
// phase, and an all-zero block 0 at the end.  The block-0 exchanges run on a
// copy of the caller's record; the caller's record carries each data phase.
#include <cstring>

#include "core/core.h"
#include "core/file_facts.h"
#include "locale/locale.h"
#include "port/port.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

void PrepareBlock0(XferRecord *copy) {
    copy->RxSeq = 0;
    copy->BlockNumber = 0;
    copy->BlockSize = static_cast<int32_t>(xm::kBlock0Size);
    std::memset(copy->Buffer, 0, xm::kBlock0Size);
}

// Up to ten tries to deliver block 0.  Returns false when the batch must end.
bool DeliverBlock0(XferRecord *copy, bool last) {
    const bool streaming = XmStreaming(copy);
    copy->ErrorRun = 0;
    while (copy->ErrorRun < xm::kMaxErrors) {
        if (!XmSendBlock(copy)) {
            copy->ErrorRun++;
            if (streaming || copy->Result != 0) return false;
            continue;
        }
        if (XmWaitAck(copy, last ? 1 : 0)) return true;
        copy->ErrorRun++;
        if (streaming || copy->Result != 0) return false;
        copy->ErrorTotal++;
    }
    copy->Result = XferErrTooManyErrors;
    return false;
}

} // namespace

void YmSendBatch(XferRecord *r) {
    XferRecord copy = *r;
    char shown[256];
    MessageTextCopy(MsgWaitingForFileName, shown, sizeof shown);
    copy.Sending = 1;
    copy.FileName = shown;
    copy.File = XFER_INVALID_FILE;
    r->SendList = nullptr;
    if (XferInit(&copy)) {
        for (;;) {
            PrepareBlock0(&copy);
            if (!XmWaitStart(&copy)) break;
            SendFileList *list = copy.SendList;
            const bool last = !(list && list->Next(&copy, list));
            if (!last) {
                r->FileName = list->Path;
                r->FileSize = list->Size;
                const char *name = list->Path;
                if (r->StripPath) {
                    name = BareName(list->Path);
                    XferStatus(&copy, 0, "Stripped name: %s", name);
                }
                FormatFileFacts({copy.Buffer, xm::kBlock0Size}, name, list->Size, list->ModTime);
            }
            if (!DeliverBlock0(&copy, last)) break;
            if (last) break;
            XmSendFile(r);
            if (r->Result != 0) break;
        }
    }
    XferCleanup(&copy);
    if (copy.Result != 0) r->Result = copy.Result;
}

void YmReceiveBatch(XferRecord *r) {
    XferRecord copy = *r;
    copy.Sending = 0;
    char name[XFER_PATH_MAX];
    char received[256];
    for (;;) {
        if (!XferInit(&copy)) break;
        copy.BlockNumber = 0;
        copy.FileSize = 0;
        if (!XmSendNak(&copy) || !XmReceiveBlock(&copy)) break;
        const bool acknowledged = XmSendAck(&copy);
        if (copy.ProtocolHook != xm::SOH && copy.ProtocolHook != xm::STX) break;

        const auto length = static_cast<std::size_t>(copy.BlockSize);
        const auto *end = static_cast<const uint8_t *>(std::memchr(copy.Buffer, 0, length));
        const std::size_t nameLength = end ? static_cast<std::size_t>(end - copy.Buffer) : length;
        if (nameLength == 0) {
            // The batch is complete.  A sender that hangs up right after its
            // last block 0 cannot take the answer; that is no failure.
            if (!acknowledged) copy.Result = 0;
            break;
        }
        if (!acknowledged) break;
        const std::size_t kept = nameLength < sizeof received ? nameLength : sizeof received - 1;
        std::memcpy(received, copy.Buffer, kept);
        received[kept] = 0;
        XferReceivedName(r, received, name, "Stripped name: ");
        r->FileName = name;

        const FileFacts facts = ParseFileFacts({copy.Buffer, length});
        r->FileSize = facts.size;
        r->FileTime = facts.modTime;
        r->SendList = nullptr;
        XmReceiveFile(r);
        IdleWait(r->Port, 1000);
        if (r->Result != 0) break;
        XferCleanup(&copy);
    }
    XferCleanup(&copy);
    if (copy.Result != 0) r->Result = copy.Result;
}

} // namespace zvxfer::xm
