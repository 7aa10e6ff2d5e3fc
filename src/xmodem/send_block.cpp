// The sending side of one block: cutting the file into blocks, putting a
// block on the line, and the receiver's one-byte answers (NAK/'C'/'G', ACK).
#include <climits>
#include <cstring>

#include "core/core.h"
#include "platform/file.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {

// XMODEM always uses 128-byte blocks; the other variants use 1024-byte
// blocks until at most 896 bytes (seven short blocks) remain.
int XmFillBlock(XferRecord *r) {
    uint32_t length = 128;
    if (r->Protocol != Xmodem && r->FileSize - r->FilePos > 896) length = 1024;
    long got = plat::FileRead(r->File, r->Buffer, length);
    if (got <= 0) {
        r->BlockSize = 0;
        return 0;
    }
    if (int64_t{r->FilePos} + got > INT32_MAX) {
        // A file that grew past what 32-bit positions carry while it was
        // being sent: it cannot be sent exactly.
        XferStatus(r, 0, "File position would pass %ld", static_cast<long>(INT32_MAX));
        r->Result = XferErrFileIo;
        r->BlockSize = 0;
        return 0;
    }
    if (static_cast<uint32_t>(got) < length) std::memset(r->Buffer + got, 0, length - got);
    r->BlockSize = static_cast<int32_t>(length);
    r->RxSeq = r->BlockNumber & 0xFF;
    r->BlockNumber++;
    r->FilePos += static_cast<int32_t>(got);
    return XferCheckAbort(r) ? 0 : 1;
}

int XmSendBlock(XferRecord *r) {
    if (r->BlockNumber != 0)
        XferStatus(r, 0, "Sending block %ld", static_cast<long>(r->BlockNumber - 1));
    else if (r->Buffer[0] != 0)
        XferStatus(r, 0, "Sending YMODEM startup block");
    else
        XferStatus(r, 0, "Sending YMODEM termination block");

    // Header bytes, the data straight from the record's buffer in one
    // write, then the check: each part's failure has its own notice.
    const auto length = static_cast<uint32_t>(r->BlockSize);
    const XmBlockFrame frame =
        XmFrameBlock(static_cast<uint8_t>(r->RxSeq), {r->Buffer, length}, XmCrcMode(r));
    if (XferWriteChar(r, frame.head[0]) < 0) {
        XferStatusMessage(r, 1, MsgCannotSendBlockHeader);
        r->Result = XferErrSendBlock;
        return 0;
    }
    bool ok = XferWriteChar(r, frame.head[1]) >= 0;
    ok = XferWriteChar(r, frame.head[2]) >= 0 && ok;
    if (!ok) {
        XferStatusMessage(r, 1, MsgCannotSendBlockNumber);
        r->Result = XferErrSendBlock;
        return 0;
    }
    if (XferWriteBuffer(r, r->Buffer, length) < 0) return 0;

    ok = true;
    for (uint8_t i = 0; i < frame.checkLength; ++i)
        ok = XferWriteChar(r, frame.check[i]) >= 0 && ok;
    if (!ok) {
        XferStatusMessage(r, 1, MsgCannotSendCheck);
        r->Result = XferErrSendBlock;
        return 0;
    }
    return 1;
}

// The same character both starts a file (block counter 0 or 1) and rejects
// every later block.
int XmSendNak(XferRecord *r) {
    uint8_t request = xm::NAK;
    if (r->BlockNumber < 2) {
        if (XmStreaming(r))
            request = xm::StartStreaming;
        else if (XmCrcMode(r))
            request = xm::StartCrc;
    }
    if (XferWriteChar(r, request) < 0) {
        r->Result = XferErrSendNak;
        return 0;
    }
    return 1;
}

int XmSendAck(XferRecord *r) {
    if (XferWriteChar(r, xm::ACK) < 0) {
        r->Result = XferErrSendAck;
        return 0;
    }
    return 1;
}

} // namespace zvxfer::xm
