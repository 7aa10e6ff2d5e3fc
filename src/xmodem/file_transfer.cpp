// One file with XMODEM, XMODEM-1K or their streaming form (also the data
// phase of every YMODEM file): the start handshake, the block/answer cycle
// with its retries, and the end-of-file exchange.
#include <algorithm>
#include <climits>

#include "core/core.h"
#include "core/file_writer.h"
#include "platform/file.h"
#include "port/port.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

int32_t ReplyTimeout(const XferRecord *r) {
    return static_cast<int32_t>(r->ProtocolParam);
}

bool AcceptsCrcStart(const XferRecord *r) {
    return XmCrcMode(r) &&
           (r->Protocol == Xmodem || r->Protocol == Ymodem || r->Protocol == Xmodem1K);
}

// Remember the newest control character, keeping the one before it for the
// two-CANs-in-a-row test.
intptr_t NoteControl(XferRecord *r, int32_t c) {
    const intptr_t previous = r->ProtocolHook;
    r->ProtocolHook = c;
    return previous;
}

// Wait until the port has put out everything it holds.
bool Drained(XferRecord *r) {
    XferPort *port = r->Port;
    if (port->Status < 0) return false;
    while (port->Ops.TxCount(port) > 0)
        if (XferCheckAbort(r)) return false;
    if (port->Status == PortNotSupported) port->Status = 0;
    return true;
}

// True when the host has reported the connection lost and holds no byte
// that came before the loss.
bool LineLost(const XferPort *port) {
    return port->RxBlock.Error != 0 && port->RxBlock.Length == 0;
}

// The answer to the batch-ending block 0.  One slice of silence counts as the
// receiver's acknowledgement, and so does a line the host reports lost: a
// receiver that has taken every file may hang up at once, and its answer
// (lost with the line) could not change the outcome.  The loss ends the wait
// as soon as it is seen and before the abort hook, which a host may use to
// turn a lost line into a failure.  Returns the byte, kXmTimedOut or
// kXmAborted.
int32_t WaitFinalAnswer(XferRecord *r) {
    constexpr int32_t kPieceMs = 50; // how soon a reported loss is noticed
    XferPort *port = r->Port;
    const int32_t slice = std::min(ReplyTimeout(r), xm::kSliceMs);
    if (slice <= 0) return kXmTimedOut;
    for (int32_t left = slice; left > 0; left -= kPieceMs) {
        const int32_t c = ReadCharTimed(port, std::min(left, kPieceMs));
        if (c >= 0) return c;
        if (LineLost(port)) return kXmTimedOut;
        if (c != kXmTimedOut) break; // the idle hook asked to stop
    }
    return XferCheckAbort(r) ? kXmAborted : kXmTimedOut;
}

enum class StartSeen { Start, Stop, Retry };

// What a character the sender sees while it waits for the receiver's start
// means: NAK (checksum), 'C' (CRC) or 'G' (streaming) where accepted, two
// CANs, or noise to discard and count.
StartSeen OnStartChar(XferRecord *r, int32_t c) {
    const intptr_t previous = NoteControl(r, c);
    if (c == xm::NAK) {
        if (XmCrcMode(r)) {
            XferStatusMessage(r, 1, MsgReceiverWantsChecksum);
            XmSetCrcMode(r, false);
        }
        return StartSeen::Start;
    }
    if (c == xm::StartCrc && AcceptsCrcStart(r)) return StartSeen::Start;
    if (c == xm::StartStreaming && XmStreaming(r)) return StartSeen::Start;
    if (c == xm::CAN && previous == xm::CAN) {
        r->Result = XferErrRemoteAbort;
        XferStatusMessage(r, 1, MsgReceiverCancelled);
        return StartSeen::Stop;
    }
    if (c != xm::CAN && c != xm::StartCrc && c != xm::StartStreaming && !XmDiscard(r))
        return StartSeen::Stop;
    return StartSeen::Retry;
}

} // namespace

int XmWaitStart(XferRecord *r) {
    bool lateAnswerSeen = false;
    for (;;) {
        if (XferCheckAbort(r)) return 0;
        const int32_t c = XmWaitChar(r, ReplyTimeout(r));
        if (c == kXmAborted) return 0;
        // One ACK is the late answer to YMODEM's block 0 and is passed
        // over; more of them fail the try like any other stray character
        // (without the discard, which could swallow the start character).
        if (c == xm::ACK && !lateAnswerSeen) {
            lateAnswerSeen = true;
            continue;
        }
        if (c >= 0 && c != xm::ACK) {
            const StartSeen seen = OnStartChar(r, c);
            if (seen != StartSeen::Retry) return seen == StartSeen::Start ? 1 : 0;
        }
        r->ErrorTotal++;
        if (++r->ErrorRun >= xm::kMaxErrors) {
            r->Result = XferErrPacketTimeout;
            return 0;
        }
    }
}

int XmWaitAck(XferRecord *r, int final) {
    const bool streaming = XmStreaming(r);
    if (!streaming && !Drained(r)) return 0;
    if (streaming && r->BlockSize != 0 && r->Port->Ops.RxCount(r->Port) <= 0) return 1;

    const int32_t c = final ? WaitFinalAnswer(r) : XmWaitChar(r, ReplyTimeout(r));
    if (c == kXmAborted) return 0;
    if (c == kXmTimedOut) return final ? 1 : 0;

    const intptr_t previous = NoteControl(r, c);
    switch (c) {
    case xm::ACK:
        return 1;
    case xm::NAK:
        if (streaming) r->Result = XferErrRemoteAbort;
        return 0;
    case xm::CAN:
        if (streaming || previous == xm::CAN) r->Result = XferErrRemoteAbort;
        return 0;
    default: {
        int dropped = 0;
        if (!XmDiscard(r, &dropped)) return 0;
        return final && dropped > 0 ? 1 : 0;
    }
    }
}

int XmSendEot(XferRecord *r) {
    if (XferWriteChar(r, xm::EOT) < 0) {
        r->Result = XferErrSendEot;
        return 0;
    }
    return 1;
}

void XmSendFile(XferRecord *r) {
    r->Sending = 1;
    r->FileTime = -1;
    if (!XferInit(r)) return;
    r->BlockNumber = 1;
    if (r->SendList && !r->SendList->Next(r, r->SendList)) {
        r->Result = XferErrNoFilesSent;
        XferCleanup(r);
        return;
    }
    if (!XferOpenFile(r)) return;
    if (!XmWaitStart(r)) {
        XferCleanup(r);
        return;
    }
    if (!XmFillBlock(r)) {
        if (r->Result != XferErrUserAbort) r->Result = XferErrFileIo;
        XferCleanup(r);
        return;
    }
    for (;;) {
        int sent;
        if (r->BlockSize == 0) {
            XferStatus(r, 0, "File transmission complete");
            sent = XmSendEot(r);
            XferStatusMessage(r, 1, MsgFileSent);
        } else {
            sent = XmSendBlock(r);
        }
        if (!sent) break;

        if (XmWaitAck(r, 0)) {
            r->ErrorRun = 0;
            if (r->BlockSize == 0) break;
            if (!XmFillBlock(r) && r->Result != 0) break;
            continue;
        }
        if (r->Result != 0) break;
        r->ErrorTotal++;
        if (++r->ErrorRun >= xm::kMaxErrors) {
            XferStatusMessage(r, 1, MsgTooManyRetries);
            r->Result = XferErrTooManyErrors;
            break;
        }
    }
    XferCleanup(r);
}

void XmReceiveFile(XferRecord *r) {
    r->Sending = 0;
    if (!XferInit(r)) return;
    r->BlockNumber = 1;
    if (!XferOpenFile(r)) return;
    if (!XmSendNak(r)) {
        XferCleanup(r);
        return;
    }
    const bool acknowledge = !XmStreaming(r);
    FileWriter out(r);
    while (XmReceiveBlock(r)) {
        const intptr_t header = r->ProtocolHook;
        if (header == xm::SOH || header == xm::STX) {
            // The answer goes out before the data is taken, so the sender
            // reads its next block while this side works; the data joins
            // a 64 KiB piece, written when full, before the end of file is
            // acknowledged, and before the file closes.
            if (int64_t{r->FilePos} + r->BlockSize > INT32_MAX) {
                // Positions are 32-bit: the file would pass what they carry.
                XferStatus(r, 0, "File position would pass %ld", static_cast<long>(INT32_MAX));
                r->Result = XferErrFileIo;
                break;
            }
            const bool answered = !acknowledge || XmSendAck(r);
            if (!r->SkipFile && r->BlockSize > 0 &&
                !out.Append(r->Buffer, static_cast<std::size_t>(r->BlockSize))) {
                r->Result = XferErrFileIo;
                break;
            }
            r->FilePos += r->BlockSize;
            if (!answered) break;
            r->ErrorRun = 0;
        } else if (header == xm::EOT) {
            // The end is acknowledged only once the file holds every block,
            // so a sender never counts a file this side could not write.
            if (!out.Flush()) {
                r->Result = XferErrFileIo;
                break;
            }
            XmSendAck(r);
            if (!r->SkipFile) {
                XferStatus(r, 0, "End of file, cleaning up");
                XferStatusMessage(r, 1, MsgFileReceived);
            }
            break;
        } else {
            r->Result = XferErrInternal;
            break;
        }
    }
    // Whatever ended the file, the blocks taken so far reach it.
    if (!out.Flush() && r->Result == 0) r->Result = XferErrFileIo;
    XferCleanup(r);
}

} // namespace zvxfer::xm
