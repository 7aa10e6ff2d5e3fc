// The capture: every byte that arrives goes to the character callback and,
// unless it is a dropped line feed, straight into the file; the line's
// silence for the idle time-out is the normal end.
#include <algorithm>

#include "ascii/ascii.h"
#include "core/core.h"
#include "platform/file.h"
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer::ascii {

namespace {

// Longest sleep while waiting for the line; the time-out is met exactly.
constexpr uint32_t kWaitRoundMs = 5;

enum class Step { More, Stop };

// Take in everything that waits.  Stop on a read or write failure or when
// the abort check (every 256 bytes) stops the transfer.
Step TakeWaiting(XferRecord *r) {
    XferPort *port = r->Port;
    const XferCharFn show = CharCallback(r);
    const bool dropLf = DropLf(r) != 0;
    while (port->Ops.RxCount(port) != 0) {
        const int32_t c = port->Ops.ReadChar(port);
        if (c < 0) {
            XferStatus(r, 0, "Error %ld reading the port", static_cast<long>(c));
            r->Result = XferErrGetChar;
            return Step::Stop;
        }
        const auto byte = static_cast<uint8_t>(c & 0xFF);
        if (show != nullptr) show(byte);
        CountByte(r);
        if (r->FilePos % kAbortCheckEvery == 0 && XferCheckAbort(r)) return Step::Stop;
        if (dropLf && byte == kLf) continue;
        if (plat::FileWrite(r->File, &byte, 1) != 1) {
            XferStatus(r, 0, "Error writing %s", r->FileName ? r->FileName : "");
            r->Result = XferErrFileIo;
            return Step::Stop;
        }
    }
    return Step::More;
}

// Wait until bytes arrive (More) or the transfer ends: an abort, the idle
// hook asking to stop, or the idle time-out passing since the wait began.
Step WaitForLine(XferRecord *r) {
    XferPort *port = r->Port;
    const intptr_t limit = IdleTimeoutMs(r);
    const uint32_t since = plat::GetTickCount();
    for (;;) {
        if (port->Ops.RxCount(port) != 0) return Step::More;
        if (XferCheckAbort(r)) return Step::Stop;
        if (StopOnIdleAnswer(r, CallIdle(port))) return Step::Stop;
        if (port->Ops.RxCount(port) != 0) return Step::More;
        uint32_t pause = kWaitRoundMs;
        if (limit >= 0) {
            const uint32_t now = plat::GetTickCount();
            const uint32_t end = since + static_cast<uint32_t>(limit);
            if (plat::TickReached(now, end)) {
                XferStatus(r, 0, "No character for %ld ms", static_cast<long>(limit));
                r->Result = XferErrCharTimeout;
                return Step::Stop;
            }
            pause = std::min(pause, end - now);
        }
        plat::WaitForNewInput(pause);
    }
}

// Silence and stops by the user or host are how a capture ends: the file
// holds what arrived and takes the place of an old file of its name.
// After a read or write failure an old file stays as it was.
void EndCapture(XferRecord *r) {
    const int32_t cause = r->Result;
    if (r->File != XFER_INVALID_FILE && cause != XferErrGetChar && cause != XferErrFileIo) {
        r->Result = 0;
        XferCloseFile(r);
        if (r->Result == 0) r->Result = cause;
    }
    XferCleanup(r);
}

} // namespace

void AsciiReceive(XferRecord *r) {
    r->Sending = 0;
    if (!XferInit(r) || !XferOpenFile(r)) {
        XferCleanup(r);
        return;
    }
    if (r->SkipFile) {
        // The file exists and the port's policy keeps it: nothing is taken
        // from the line.
        XferCleanup(r);
        return;
    }
    while (TakeWaiting(r) == Step::More && WaitForLine(r) == Step::More) {
    }
    EndCapture(r);
}

} // namespace zvxfer::ascii
