// The packet reader: one call reads the line until a packet is accepted, an
// acknowledgement settles the wait, or the error count reaches its limit.
// Every read waits the link's read time-out, so with the error count (NAKs
// sent, resend requests, time-outs while a resend is pending) every call
// ends within a bounded time whatever arrives.
#include <algorithm>

#include "bplus/bplus.h"
#include "bplus/protocol.h"
#include "core/core.h"
#include "locale/messages.h"
#include "port/port.h"

namespace zvxfer::bplus {
namespace {

enum class State {
    GetDle,
    AfterDle,
    GetSeq,
    GetData,
    GetCheck1,
    GetCheck2,
    GetCheck4,
    VerifyCrc,
    VerifySum,
    CheckSeq,
    SendNak,
    SendAck,
    Resend,
    ResendAll,
};

bool IsDigit(int32_t c) {
    return c >= '0' && c <= '9';
}

} // namespace

int32_t _BPWaitForACK(XferRecord *r, bool afterDleB, bool acknowledge, bool allowResend) {
    BPlusLink *link = Link(r);
    XferPort *port = r->Port;
    r->Result = 0;
    link->RxLength = 0;
    const int32_t dataLimit =
        std::min<int32_t>(r->BlockSize, static_cast<int32_t>(kBPlusProtocol.bufferSize));
    int32_t index = 0;    // data bytes stored
    int32_t crcCount = 0; // CRC-32 check bytes still to read after the second
    int32_t seq = 0;      // sequence number of the packet being read
    int32_t c = 0;        // the last byte read
    State state = afterDleB ? State::GetSeq : State::GetDle;

    for (;;) {
        if (r->ErrorTotal >= kMaxErrors) {
            r->Result = XferErrTooManyErrors;
            return XferErrTooManyErrors;
        }
        switch (state) {
        case State::GetDle:
            if (link->RxSinceSend > SendWindow(r) + 2 && link->Outstanding >= 1) {
                // The other side keeps talking while ours go unanswered.
                r->Result = XferErrPacketTimeout;
                ++r->ErrorTotal;
                link->RxSinceSend = 0;
                state = State::Resend;
                break;
            }
            c = ReadCharTimed(port, link->ReadTimeout);
            if (c < 0) {
                if (link->ResendPending)
                    ++r->ErrorTotal;
                else
                    state = State::Resend;
                break;
            }
            link->LastChar = c;
            if (c == kDle) {
                XferStatus(r, 0, "_BPWaitForACK : Got DLE");
                state = State::AfterDle;
            } else if (c == kNak) {
                XferStatus(r, 0, "_BPWaitForACK : Got NAK instead of DLE");
                state = State::Resend;
            } else if (c == kEnq) {
                XferStatus(r, 0, "_BPWaitForACK : Got ENQ instead of DLE");
                state = State::SendAck;
            } else if (c == kEtx) {
                r->Result = XferErrPacketSize;
                XferStatus(r, 0, "_BPWaitForACK : ETX seen too early");
                state = State::SendNak;
            }
            break;

        case State::AfterDle:
            c = ReadCharTimed(port, link->ReadTimeout);
            if (c < 0) {
                state = State::Resend;
                break;
            }
            link->LastChar = c;
            if (IsDigit(c)) {
                if (link->ResendPending && c == link->LastAck) {
                    // The same acknowledgement twice after our resend
                    // request: everything after it is lost.
                    link->ResendPending = 0;
                    if (link->Outstanding == 0) return 0;
                    state = State::ResendAll;
                    break;
                }
                XferStatus(r, 0, "_BPWaitForACK : Received ACK");
                BPlusReleaseAcked(r, c);
                if (!link->ResendPending) return 0;
                state = State::GetDle;
            } else if (c == 'B') {
                state = State::GetSeq;
            } else if (c == kEnq) {
                state = State::SendAck;
            } else {
                state = State::GetDle; // ';' (wait) and anything else
            }
            break;

        case State::GetSeq:
            c = ReadCharTimed(port, link->ReadTimeout);
            if (c < 0) {
                XferStatus(r, 0, "_BPWaitForACK : read char failure");
                state = State::SendNak;
                break;
            }
            link->LastChar = c;
            if (c == kEnq) {
                state = State::SendAck;
                break;
            }
            XferStatus(r, 0, "_BPWaitForACK : Received <DLE> B");
            BPlusCheckInit(r);
            seq = c - '0';
            BPlusCheckUpdate(r, static_cast<uint8_t>(c));
            index = 0;
            state = State::GetData;
            break;

        case State::GetData:
            c = BPlusReadQuoted(r);
            if (c < 0) {
                XferStatus(r, 0, "_BPWaitForACK : Sending NAK, read char failure");
                state = State::SendNak;
            } else if (link->Unquoted && c == kEtx) {
                crcCount = 2;
                state = State::GetCheck1;
            } else if (link->Unquoted && c == kEnq) {
                state = State::SendAck;
            } else if (index >= dataLimit) {
                r->Result = XferErrPacketSize;
                XferStatus(r, 0, "_BPWaitForACK : Sending NAK, buffer overflow");
                state = State::SendNak;
            } else {
                r->Buffer[index++] = static_cast<uint8_t>(c);
                BPlusCheckUpdate(r, static_cast<uint8_t>(c));
            }
            break;

        case State::GetCheck1:
            BPlusCheckUpdate(r, kEtx);
            c = BPlusReadQuoted(r);
            if (c < 0)
                state = State::SendNak;
            else if (link->Unquoted && c == kEnq)
                state = State::SendAck;
            else if (link->CheckMethod == 1 || link->CheckMethod == 2)
                state = State::GetCheck2;
            else if (link->CheckMethod == 3)
                state = State::GetCheck4;
            else
                state = State::VerifySum;
            break;

        case State::GetCheck2:
        case State::GetCheck4:
            BPlusCheckUpdate(r, static_cast<uint8_t>(c));
            c = BPlusReadQuoted(r);
            if (c < 0)
                state = State::SendNak;
            else if (link->Unquoted && c == kEnq)
                state = State::SendAck;
            else if (state == State::GetCheck4 && crcCount > 0)
                --crcCount;
            else
                state = State::VerifyCrc;
            break;

        case State::VerifyCrc:
            BPlusCheckUpdate(r, static_cast<uint8_t>(c));
            if (BPlusCheckGood(r)) {
                state = State::CheckSeq;
            } else {
                r->Result = XferErrPacketSize;
                XferStatusMessage(r, 1, MsgBPlusCrcError);
                state = State::SendNak;
            }
            break;

        case State::VerifySum:
            if ((r->RxCheck & 0xFF) == c) {
                state = State::CheckSeq;
            } else {
                r->Result = XferErrPacketSize;
                XferStatusMessage(r, 1, MsgBPlusChecksumError);
                state = State::SendNak;
            }
            break;

        case State::CheckSeq:
            // A failure packet counts whatever its number.
            if (seq == (r->RxSeq + 1) % 10 || (index > 0 && r->Buffer[0] == 'F')) {
                ++link->RxSinceSend;
                r->RxSeq = seq;
                if (acknowledge) _BPSendACK(r);
                link->RxLength = index;
                r->Result = XferErrBPlusPacket;
                XferStatus(r, 0, "_BPWaitForACK : Received packet");
                return XferErrBPlusPacket;
            }
            if (seq == r->RxSeq) {
                state = State::SendAck; // a repeat: our acknowledgement was lost
            } else {
                r->Result = XferErrBPlusSequence;
                state = State::SendNak;
            }
            break;

        case State::SendNak:
            ++r->ErrorTotal;
            WriteCharTimed(port, kNak, kWriteTimeoutMs);
            state = State::GetDle;
            break;

        case State::SendAck:
            _BPSendACK(r);
            state = State::GetDle;
            break;

        case State::Resend:
            if (link->Outstanding < 1) {
                state = State::SendNak;
                break;
            }
            link->ResendPending = 1;
            WriteCharTimed(port, kEnq, kWriteTimeoutMs);
            WriteCharTimed(port, kEnq, kWriteTimeoutMs);
            ++r->ErrorTotal;
            link->LastAck = -1;
            state = State::GetDle;
            break;

        case State::ResendAll:
            if (!allowResend) return r->Result;
            for (int32_t i = 0; i < link->Outstanding; ++i) {
                const StoredPacket &slot = link->Store[(link->Oldest + i) % kStoreSize];
                BPlusSendPacket(r, slot.Length, slot.Seq, slot.Data);
            }
            state = State::GetDle;
            break;
        }
    }
}

int32_t BPlusWaitAllAcks(XferRecord *r) {
    while (Link(r)->Outstanding >= 1) {
        const int32_t result = _BPWaitForACK(r, false, true, true);
        if (result != 0 && result != XferErrBPlusPacket) return result;
    }
    return 0;
}

} // namespace zvxfer::bplus
