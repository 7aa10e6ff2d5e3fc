// Download: the service sends a file in 'N' packets and ends it with
// 'T' 'C'.  With download resume agreed, a partial file already here is
// continued: the service is told its length and check word and sends the
// rest (or asks with 'T' 'f' to start the file afresh).
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <new>

#include "bplus/bplus.h"
#include "core/core.h"
#include "locale/locale.h"
#include "platform/file.h"

namespace zvxfer::bplus {

namespace {

constexpr int32_t kStopped = 1; // the scan ended on an abort

// The check word of the partial file: CRC-16 CCITT from 0 for the checksum,
// CRC-16 CCITT and CRC-32 links, the X.25 update from 0xF0B8 for an X.25
// link.  A service can compute it from the file it holds whatever the link
// checks with.
int32_t ScanPartialFile(XferRecord *r, uint8_t *work, int32_t room, uint16_t &word) {
    const bool x25 = Link(r)->CheckMethod == 2;
    word = x25 ? 0xF0B8 : 0;
    if (plat::FileSeek(r->File, 0, 0) < 0) return XferErrFileIo;
    for (;;) {
        const long got = plat::FileRead(r->File, work, static_cast<std::size_t>(room));
        if (got < 0) return XferErrFileIo;
        if (got == 0) return 0;
        for (long i = 0; i < got; ++i)
            word = x25 ? Crc16X25Update(word, work[i]) : Crc16CcittUpdate(word, work[i]);
        if (BPlusCheckAbort(r)) return kStopped;
    }
}

// Sends the resume point and waits for its acknowledgement: 0, kStopped
// after an abort, or the failure (the file is then closed).
int32_t SendResumePoint(XferRecord *r, uint8_t *work, int32_t room) {
    uint16_t word = 0;
    const int32_t scanned = ScanPartialFile(r, work, room, word);
    if (scanned == kStopped) return kStopped;
    const int64_t length = scanned == 0 ? plat::FileSeek(r->File, 0, 2) : -1;
    int32_t result = XferErrFileIo;
    if (length >= 0) {
        char point[48];
        const int n = std::snprintf(point, sizeof point, "Tr%" PRId64 " %u ", length,
                                    static_cast<unsigned>(word));
        XferStatus(r, 0, "ReceiveFile: resuming after %" PRId64 " bytes", length);
        result = BPlusSendNumbered(r, n, reinterpret_cast<const uint8_t *>(point));
        if (result == 0) result = BPlusWaitAllAcks(r);
    }
    if (result != 0) {
        XferCloseFile(r);
        XferStatusMessage(r, 1, MsgBPlusResumeRefused);
    }
    return result;
}

} // namespace

int32_t ReceiveFile(XferRecord *r) {
    BPlusLink *link = Link(r);
    r->Sending = 0;
    XferStatus(r, 0, "ReceiveFile: Filename %s", r->FileName);
    const bool resume = DownloadResume(r) != 0;
    if (!BPlusOpenFile(r, resume)) {
        if (r->Result == XferErrUserAbort || r->Result > 0) {
            BPlusCancel(r);
            return XferErrUserAbort;
        }
        BPlusFail(r, 'C', MsgNameTooLong);
        return XferErrOpenFile;
    }

    const int32_t room = r->BlockSize - 1;
    std::unique_ptr<uint8_t[]> work(new (std::nothrow) uint8_t[static_cast<std::size_t>(room)]);
    if (!work) {
        XferCloseFile(r);
        r->Result = XferErrNoBuffer;
        return XferErrNoBuffer;
    }
    if (!resume) {
        _BPSendACK(r); // the request itself
    } else {
        const int32_t sent = SendResumePoint(r, work.get(), room);
        if (sent == kStopped) {
            BPlusCancel(r);
            return XferErrUserAbort;
        }
        if (sent != 0) return sent;
    }

    for (;;) {
        if (BPlusCheckAbort(r)) {
            BPlusCancel(r);
            return XferErrUserAbort;
        }
        if (_BPWaitForACK(r, false, true, true) != XferErrBPlusPacket) {
            XferCloseFile(r);
            return XferErrPacketSize;
        }
        const uint8_t *packet = r->Buffer;
        const int32_t length = link->RxLength;
        const uint8_t type = length > 0 ? packet[0] : 0;
        const uint8_t what = length > 1 ? packet[1] : 0;
        if (type == 'F') {
            XferCloseFile(r);
            char text[256];
            MessageTextCopy(MsgBPlusServiceFailure, text, sizeof text);
            const int shown = length > 3 ? length - 3 : 0;
            XferStatus(r, 1, "%s%.*s", text, shown, reinterpret_cast<const char *>(packet + 3));
            return XferErrProtocol;
        }
        if (type == 'N') {
            const long count = length - 1;
            if (plat::FileWrite(r->File, packet + 1, static_cast<std::size_t>(count)) != count) {
                BPlusFail(r, 'I', MsgBPlusWriteError);
                XferCloseFile(r);
                return XferErrFileIo;
            }
            r->FilePos += static_cast<int32_t>(count);
        } else if (type == 'T' && what == 'C') {
            // Complete: the file is put in place as it stands.
            r->Result = 0;
            XferCloseFile(r);
            link->Done = 1;
            return r->Result;
        } else if (type == 'T' && what == 'I') {
            // File information: nothing here needs it.
        } else if (type == 'T' && what == 'f') {
            // The service cannot continue the partial file: start it afresh.
            XferCloseFile(r);
            if (!BPlusOpenFile(r, false)) {
                BPlusFail(r, 'C', MsgNameTooLong);
                return XferErrOpenFile;
            }
        } else {
            XferStatus(r, 0, "Unexpected packet type");
            BPlusSendFailure(r, 'N', "Unexpected packet type");
            XferCloseFile(r);
            return XferErrProtocol;
        }
    }
}

} // namespace zvxfer::bplus
