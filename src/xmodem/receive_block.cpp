// The receiving side of one block: wait for its header, read number, data and
// check, and classify it (good, repeated, out of order, damaged).  Writing the
// data and acknowledging it are the caller's.
#include "core/core.h"
#include "platform/tick.h"
#include "port/port.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

enum class Pass { Accepted, EndOfFile, Retry, Fail };

// Bytes keep arriving but none of them make a valid block: garbage, however
// it comes (a flood, a byte a second, or blocks that trickle in a byte at a
// time), ends the wait for a block kNoBlockLimitMs after its first byte.
// Silence alone never starts the watch: its limits are the header waits'.
class GarbageWatch {
  public:
    void Saw() {
        if (started_) return;
        started_ = true;
        giveUp_ = plat::GetTickCount() + xm::kNoBlockLimitMs;
    }
    bool Expired() const { return started_ && plat::TickReached(plat::GetTickCount(), giveUp_); }

  private:
    bool started_ = false;
    uint32_t giveUp_ = 0;
};

// One byte of a block's body.  The clock is read only when the byte has to
// be waited for, so a block that arrives whole costs no clock reads.
int32_t BodyChar(XferPort *port, const GarbageWatch &watch) {
    if (port->RxBlock.Length == 0 && watch.Expired()) return kXmTimedOut;
    return ReadCharTimed(port, xm::kSliceMs);
}

void CountError(XferRecord *r) {
    r->ErrorTotal++;
    r->ErrorRun++;
}

// A damaged block is answered only once the line has been quiet for a second,
// so the request does not meet the rest of the damaged block on its way.
Pass Reject(XferRecord *r) {
    if (!XferWaitQuiet(r)) return Pass::Fail;
    if (!XmSendNak(r)) return Pass::Fail;
    CountError(r);
    return Pass::Retry;
}

// Wait for SOH, STX or EOT.  Anything else is counted; after three misses
// on the first block the receiver falls back to checksum mode.
Pass ReadHeader(XferRecord *r, GarbageWatch &watch) {
    const int32_t timeout = r->BlockNumber < 2 ? 5000 : 10000;
    const int32_t c = XmWaitChar(r, timeout);
    if (c == kXmAborted) return Pass::Fail;
    if (c >= 0) {
        watch.Saw();
        const intptr_t previous = r->ProtocolHook;
        r->ProtocolHook = c;
        if (c == xm::SOH || c == xm::STX || c == xm::EOT) return Pass::Accepted;
        if (c == xm::CAN && previous == xm::CAN) {
            r->Result = XferErrRemoteAbort;
            return Pass::Fail;
        }
        if (c != xm::CAN && !XmDiscard(r)) return Pass::Fail;
    }
    CountError(r);
    if (r->ErrorRun >= 3 && r->BlockNumber == 1 &&
        (r->Protocol == Xmodem || r->Protocol == Ymodem || r->Protocol == Xmodem1K))
        XmSetCrcMode(r, false);
    if (!XmSendNak(r)) return Pass::Fail;
    if (r->ErrorRun >= xm::kMaxErrors) r->Result = XferErrPacketTimeout;
    return Pass::Retry;
}

// Number, complement, data and check of a block whose header has arrived.
Pass ReadBody(XferRecord *r, const GarbageWatch &watch) {
    XferPort *port = r->Port;
    const int32_t number = BodyChar(port, watch);
    const int32_t complement = BodyChar(port, watch);
    if (!XmNumberValid(number, complement)) {
        const Pass pass = Reject(r);
        if (pass == Pass::Retry)
            XferStatusMessage(r, 1, MsgBlockNumberMismatch, number, complement);
        return pass;
    }
    r->RxSeq = number;

    for (int32_t i = 0; i < r->BlockSize; ++i) {
        const int32_t c = BodyChar(port, watch);
        if (c < 0) return Reject(r);
        r->Buffer[i] = static_cast<uint8_t>(c);
    }
    if (XmCrcMode(r)) {
        const int32_t high = BodyChar(port, watch);
        const int32_t low = BodyChar(port, watch);
        if (high < 0 || low < 0) return Reject(r);
        r->RxCheck = high * 256 + low;
    } else {
        const int32_t sum = BodyChar(port, watch);
        if (sum < 0) return Reject(r);
        r->RxCheck = sum;
    }
    return Pass::Accepted;
}

// Sequence and check of a complete block.
Pass Validate(XferRecord *r) {
    const auto length = static_cast<uint32_t>(r->BlockSize);
    if (r->RxSeq == ((r->BlockNumber - 1) & 0xFF)) {
        if (!XmSendAck(r)) return Pass::Fail;
        CountError(r);
        XferStatus(r, 0, "Duplicate block %ld", static_cast<long>(r->BlockNumber));
        return Pass::Retry;
    }
    if (r->RxSeq != (r->BlockNumber & 0xFF)) {
        if (!XmSendNak(r)) return Pass::Fail;
        CountError(r);
        XferStatusMessage(r, 1, MsgWrongBlockNumber, static_cast<long>(r->BlockNumber));
        return Pass::Retry;
    }
    const bool crc = XmCrcMode(r);
    if (XmBlockCheck({r->Buffer, length}, crc) != r->RxCheck) {
        if (!XmSendNak(r)) return Pass::Fail;
        CountError(r);
        XferStatusMessage(r, 1, crc ? MsgBlockCrcError : MsgBlockChecksumError,
                          static_cast<long>(r->BlockNumber));
        return Pass::Retry;
    }
    return Pass::Accepted;
}

Pass ReceiveOnce(XferRecord *r, GarbageWatch &watch) {
    Pass pass = ReadHeader(r, watch);
    if (pass != Pass::Accepted) return pass;
    switch (r->ProtocolHook) {
    case xm::SOH:
        r->BlockSize = 128;
        break;
    case xm::STX:
        r->BlockSize = 1024;
        break;
    case xm::EOT:
        return Pass::EndOfFile;
    default:
        r->Result = XferErrInternal;
        return Pass::Fail;
    }
    pass = ReadBody(r, watch);
    if (pass != Pass::Accepted) return pass;
    return Validate(r);
}

} // namespace

int XmReceiveBlock(XferRecord *r) {
    GarbageWatch watch;
    for (;;) {
        if (r->ErrorRun >= xm::kMaxErrors) {
            r->Result = XferErrTooManyErrors;
            return 0;
        }
        if (watch.Expired()) {
            XferStatus(r, 0, "No valid block for %d seconds",
                       static_cast<int>(xm::kNoBlockLimitMs / 1000));
            r->Result = XferErrTooManyErrors;
            return 0;
        }
        if (XferCheckAbort(r)) return 0;
        switch (ReceiveOnce(r, watch)) {
        case Pass::EndOfFile:
            return 1;
        case Pass::Fail:
            return 0;
        case Pass::Retry:
            if (r->Result != 0) return 0;
            continue;
        case Pass::Accepted:
            break;
        }
        XferStatus(r, 0, "Read %d byte block %ld", static_cast<int>(r->BlockSize),
                   static_cast<long>(r->BlockNumber));
        r->BlockNumber++;
        if ((r->Protocol == Ymodem || r->Protocol == YmodemG) && r->FileSize >= 1 &&
            int64_t{r->FilePos} + r->BlockSize > r->FileSize)
            r->BlockSize = r->FilePos < r->FileSize ? r->FileSize - r->FilePos : 0;
        return 1;
    }
}

} // namespace zvxfer::xm
