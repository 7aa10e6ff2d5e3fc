// The sender: lines read from the file a byte at a time, written to the
// port a byte at a time so that flow control is met byte by byte, the echo
// shown after each line and whenever the port is full, the line delay.
#include <algorithm>

#include "ascii/ascii.h"
#include "core/core.h"
#include "platform/file.h"
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer::ascii {

namespace {

// Longest sleep inside the line delay; shorter delays are met exactly.
constexpr uint32_t kDelayRoundMs = 5;
// Pause before offering a refused byte again, so a full port does not spin
// a core.
constexpr uint32_t kRefusedPauseMs = 1;

enum class LineRead { Line, EndOfFile, Failed };

// The next line into Buffer (its length in BlockSize).  A read error is a
// failure of the transfer (-607), never taken for the end of the file.
LineRead ReadLine(XferRecord *r) {
    std::size_t stored = 0;
    r->BlockSize = 0;
    const bool dropLf = DropLf(r) != 0;
    while (stored < kMaxLine) {
        uint8_t byte = 0;
        const long got = plat::FileRead(r->File, &byte, 1);
        if (got < 0) {
            XferStatus(r, 0, "Error reading %s", r->FileName ? r->FileName : "");
            r->Result = XferErrFileIo;
            return LineRead::Failed;
        }
        if (got == 0) break;
        CountByte(r);
        if (dropLf && byte == kLf) continue;
        r->Buffer[stored++] = byte;
        if (byte == kCr) break;
    }
    r->BlockSize = static_cast<int32_t>(stored);
    return stored == 0 ? LineRead::EndOfFile : LineRead::Line;
}

// Hand what has arrived to the character callback (or drop it).  False
// when the abort check stopped the transfer.
bool DrainEcho(XferRecord *r) {
    if (XferCheckAbort(r)) return false;
    XferPort *port = r->Port;
    const XferCharFn show = CharCallback(r);
    while (port->Ops.RxCount(port) > 0) {
        const int32_t c = port->Ops.ReadChar(port);
        if (c < 0) break; // nothing to show after all; the next write tells
        if (show != nullptr) show(static_cast<uint8_t>(c & 0xFF));
    }
    return true;
}

// Write the line in Buffer.  A full or handshake-blocked port gets the
// same byte again for as long as it takes, the echo drained in between;
// any other refusal fails the transfer with -615.
bool SendLine(XferRecord *r) {
    XferPort *port = r->Port;
    const int32_t status = port->Status;
    for (int32_t i = 0; i < r->BlockSize; ++i) {
        for (;;) {
            const int32_t answer = port->Ops.WriteChar(port, r->Buffer[i]);
            if (answer >= 0) break;
            if (answer != PortBufferFull && answer != PortBlockedByHandshake) {
                XferStatus(r, 0, "Error %d writing to the port", answer);
                r->Result = XferErrSendChar;
                return false;
            }
            port->Status = status;
            if (!DrainEcho(r)) return false;
            plat::WaitForInput(kRefusedPauseMs);
        }
    }
    return DrainEcho(r);
}

// Spend the line delay on abort checks and the idle hook.  False when the
// transfer stopped meanwhile.
bool WaitLineDelay(XferRecord *r) {
    const int32_t delay = LineDelayMs(r);
    if (delay <= 0) return true;
    const uint32_t end = plat::GetTickCount() + static_cast<uint32_t>(delay);
    for (;;) {
        if (XferCheckAbort(r)) return false;
        if (StopOnIdleAnswer(r, CallIdle(r->Port))) return false;
        const uint32_t now = plat::GetTickCount();
        if (plat::TickReached(now, end)) return true;
        plat::WaitForNewInput(std::min(kDelayRoundMs, end - now));
    }
}

// Close the file and open the next one of the list until one yields a
// line.  False when the list is done, a file cannot be opened, or a read
// failed.
bool NextFileLine(XferRecord *r) {
    for (;;) {
        XferCloseFile(r);
        if (!r->SendList->Next(r, r->SendList)) return false;
        if (!XferOpenFile(r)) return false;
        const LineRead read = ReadLine(r);
        if (read == LineRead::Line) return true;
        if (read == LineRead::Failed) return false;
    }
}

} // namespace

int StopOnIdleAnswer(XferRecord *r, int32_t idle) {
    if (idle >= 0) return 0;
    XferStatus(r, 0, "The host's idle hook answered %ld", static_cast<long>(idle));
    if (!XferStopped(r)) {
        r->Result = XferErrUserAbort;
        XferStatusMessage(r, 1, MsgTransferCancelled);
    }
    return 1;
}

void AsciiSend(XferRecord *r) {
    r->Sending = 1;
    if (!XferInit(r)) {
        XferCleanup(r);
        return;
    }
    if (r->SendList == nullptr || !r->SendList->Next(r, r->SendList)) {
        r->Result = XferErrNoFilesSent;
        XferCleanup(r);
        return;
    }
    if (!XferOpenFile(r)) {
        XferCleanup(r);
        return;
    }
    for (;;) {
        const LineRead read = ReadLine(r);
        if (read == LineRead::Failed) break;
        if (read == LineRead::EndOfFile && !NextFileLine(r)) break;
        if (!SendLine(r) || !WaitLineDelay(r) || XferCheckAbort(r)) break;
    }
    XferCleanup(r);
}

} // namespace zvxfer::ascii
