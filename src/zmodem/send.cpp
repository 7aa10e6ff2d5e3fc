// The ZMODEM sender's conversation around the data: the main loop over the
// send list, opening the link (ZRQINIT, ZRINIT), offering each file (ZFILE,
// answered by ZRPOS or ZSKIP) and closing the link (ZFIN, "OO").
#include "core/core.h"
#include "core/file_facts.h"
#include "locale/locale.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr uint8_t kNoData[4] = {0, 0, 0, 0};

// The transfer has failed, or an abort during a wait has already run the
// clean-up (Buffer released): nothing more may be sent from Buffer.
bool Ended(const XferRecord *record) {
    return XferStopped(record) || record->Buffer == nullptr;
}

} // namespace

int OpenLink(XferRecord *record) {
    if (SendHexHeader(record, zm::ZRQINIT, kNoData) < 0) {
        XferStatusMessage(record, 1, MsgSessionNotStarted);
        return 0;
    }
    // ZRQINIT goes out once; a receiver that missed it announces itself
    // anyway when it starts.
    while (!XferStopped(record)) {
        const int32_t type = ReadFrameHeader(record, 0);
        if (type == zm::ZRINIT) {
            XferStatus(record, 0, "OpenLink: Got ZRINIT");
            const uint8_t *data = ZmHeaderData(record);
            ZmPeerBufferSize(record) = data[0] + 256 * data[1];
            ZmPeerFlags(record) = data[3]; // ZF0
            if ((ZmPeerFlags(record) & zm::CANFDX) == 0) ZmWindowMode(record) = 0;
            return 1;
        }
        XferStatus(record, 0, "OpenLink: got %d instead of ZRINIT", static_cast<int>(type));
        ZmCountError(record);
    }
    return 0;
}

int NextFileInfo(XferRecord *record) {
    SendFileList *list = record->SendList;
    if (list == nullptr || !list->Next(record, list)) {
        if (list != nullptr && list->SearchError == XferErrNoBuffer)
            record->Result = XferErrNoBuffer;
        else if (list != nullptr && list->SearchError != 0)
            record->Result = XferErrFileEngine;
        return 0;
    }
    if (!XferOpenFile(record)) return 0;
    ZmForgetReadAhead();

    XferStatus(record, 0, "SendFile: sending filename & size");
    const char *name = list->Path;
    if (record->StripPath) {
        name = BareName(list->Path);
        XferStatus(record, 0, "Stripped filename: %s", name);
    }
    // The text ends before the last byte of the buffer, as a C string
    // formatted into it would.
    record->BlockSize = static_cast<int32_t>(
        FormatFileFacts({record->Buffer, zm::kMaxSubpacket - 1}, name, list->Size, list->ModTime));
    return 1;
}

int SendFileFrame(XferRecord *record) {
    ZmRestartPending(record) = 0;
    if (ZmPeerFlags(record) & zm::CANFC32) XferStatus(record, 0, "Sending with CRC-32");
    // ZP2 is ZF1 (management), ZP3 is ZF0 (conversion: 3 asks to resume).
    const uint8_t data[4] = {0, 0, static_cast<uint8_t>(ZmManagement(record)),
                             static_cast<uint8_t>(ZmResumeFlag(record) ? 3 : 0)};
    SendBinHeader(record, zm::ZFILE, data);
    if (Ended(record)) return 0;
    SendDataSubpacket(record, static_cast<uint32_t>(record->BlockSize), zm::ZCRCW);
    if (XferStopped(record)) return 0;

    for (;;) {
        const int32_t type = ReadFrameHeader(record, 0);
        switch (type) {
        case zm::ZSKIP:
            XferStatusMessage(record, 1, MsgFileSkipped);
            XferStatus(record, 0, "SendFile: received a ZSKIP frame");
            return 0;
        case zm::ZRPOS:
            record->FilePos = ZmGetPosition(ZmHeaderData(record));
            if (record->FilePos >= 0) return 1;
            // No file position is beyond 2^31 - 1: a damaged answer.
            record->FilePos = 0;
            XferStatus(record, 0, "SendFile: bad ZRPOS location");
            if (ZmCountError(record)) return 0;
            continue;
        case zm::ZRINIT: // the receiver repeating itself; ZFILE is not sent again
            continue;
        default:
            XferStatus(record, 0, "SendFile: read frame type %d", static_cast<int>(type));
            if (XferStopped(record) || ZmCountError(record)) return 0;
            continue;
        }
    }
}

int32_t CloseLink(XferRecord *record) {
    for (;;) {
        SendHexHeader(record, zm::ZFIN, kNoData);
        if (XferStopped(record)) {
            XferStatusMessage(record, 1, MsgSessionNotClosed);
            break;
        }
        int32_t type = ReadFrameHeader(record, 0);
        if (type == zm::ZRINIT || type == zm::ZFERR) type = ReadFrameHeader(record, 0);
        if (type == zm::ZFIN) break;
        XferStatus(record, 0, "CloseLink: got %d instead of ZFIN", static_cast<int>(type));
        if (XferStopped(record)) break;
        // At the limit the next round sends ZFIN once more, posts the
        // notice and stops.
        ZmCountError(record);
    }
    XferWriteChar(record, 'O');
    XferWriteChar(record, 'O');
    return record->Result;
}

void ZmodemSend(XferRecord *record) {
    char shown[256];
    MessageTextCopy(MsgWaitingForFileName, shown, sizeof shown);
    record->FileName = shown;
    record->Sending = 1;
    record->FileTime = -1;
    if (!XferInit(record)) {
        record->FileName = nullptr; // `shown` does not outlive this call
        return;
    }

    if (OpenLink(record)) {
        while (NextFileInfo(record)) {
            if (SendFileFrame(record)) {
                SendFileData(record);
                if (record->Result == 0) XferStatusMessage(record, 1, MsgFileSent);
            }
            if (Ended(record)) break;
            XferCloseFile(record);
        }
    }
    if (!XferStopped(record) && record->Buffer != nullptr) CloseLink(record);
    XferCleanup(record);
    if (record->FileName == shown) record->FileName = nullptr;
    if (record->Result == 0 && record->FileCount == 0) record->Result = XferErrNoFilesSent;
}

} // namespace zvxfer::zm
