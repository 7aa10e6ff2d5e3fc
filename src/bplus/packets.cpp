// Packets on the wire: the raw sender, the numbered sender with its resend
// store, acknowledgements sent and received, and the failure packet.
#include <cstring>

#include "bplus/bplus.h"
#include "core/core.h"
#include "locale/messages.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer::bplus {
namespace {

// A byte that goes out as it is; the first failure is kept for the caller.
void Put(XferRecord *r, uint8_t b, int32_t &failure) {
    const int32_t result = WriteCharTimed(r->Port, b, kWriteTimeoutMs);
    if (result < 0 && failure == 0) failure = result;
}

bool Waiting(int32_t result) {
    return result == 0 || result == XferErrBPlusPacket;
}

} // namespace

int32_t BPlusSendPacket(XferRecord *r, int32_t length, int32_t seq, const uint8_t *data) {
    int32_t failure = 0;
    const auto seqChar = static_cast<uint8_t>('0' + seq);
    BPlusCheckInit(r);
    Put(r, kDle, failure);
    Put(r, 'B', failure);
    Put(r, seqChar, failure);
    BPlusCheckUpdate(r, seqChar);
    for (int32_t i = 0; i < length; ++i) {
        BPlusSendQuoted(r, data[i]);
        BPlusCheckUpdate(r, data[i]);
    }
    Put(r, kEtx, failure);
    BPlusCheckUpdate(r, kEtx);
    BPlusSendCheck(r);
    return failure;
}

int32_t BPlusSendNumbered(XferRecord *r, int32_t length, const uint8_t *data) {
    BPlusLink *link = Link(r);
    // Up to the window + 3 packets may be on their way unacknowledged.
    while (link->Outstanding > SendWindow(r) + 2) {
        const int32_t result = _BPWaitForACK(r, false, true, true);
        if (!Waiting(result)) return result;
    }
    auto *copy = static_cast<uint8_t *>(plat::HeapAllocZero(length > 0 ? length : 1));
    if (copy == nullptr) return XferErrNoBuffer;
    if (length > 0) std::memcpy(copy, data, static_cast<std::size_t>(length));

    StoredPacket &slot = link->Store[(link->Oldest + link->Outstanding) % kStoreSize];
    ++link->Outstanding;
    int32_t seq;
    if (AltSeqParam(r) != 0) {
        link->AltSeq = (link->AltSeq + 1) % 10;
        seq = link->AltSeq;
    } else {
        r->RxSeq = (r->RxSeq + 1) % 10;
        seq = r->RxSeq;
    }
    if (slot.Data != nullptr) plat::HeapFreeBlock(slot.Data);
    slot.Seq = seq;
    slot.Length = length;
    slot.Data = copy;
    link->RxSinceSend = 0;
    BPlusSendPacket(r, length, seq, copy);
    return 0;
}

void _BPSendACK(XferRecord *r) {
    WriteCharTimed(r->Port, kDle, kWriteTimeoutMs);
    WriteCharTimed(r->Port, static_cast<uint8_t>('0' + r->RxSeq), kWriteTimeoutMs);
    XferStatus(r, 0, "_BPSendACK : Sent ACK");
}

void BPlusReleaseAcked(XferRecord *r, int32_t ackChar) {
    BPlusLink *link = Link(r);
    link->LastAck = ackChar;
    const int32_t seq = ackChar - '0';
    for (int32_t i = link->Outstanding - 1; i >= 0; --i) {
        const int32_t index = (link->Oldest + i) % kStoreSize;
        if (link->Store[index].Seq != seq) continue;
        // This one and every older one are acknowledged.
        for (int32_t k = 0; k <= i; ++k) {
            StoredPacket &slot = link->Store[(link->Oldest + k) % kStoreSize];
            plat::HeapFreeBlock(slot.Data);
            slot = StoredPacket{};
        }
        link->Oldest = (index + 1) % kStoreSize;
        link->Outstanding -= i + 1;
        return;
    }
}

int32_t BPlusSendFailure(XferRecord *r, char code, const char * /*text*/) {
    BPlusLink *link = Link(r);
    while (link->Outstanding >= 1) {
        if (!Waiting(_BPWaitForACK(r, false, false, false))) break;
    }
    const uint8_t packet[2] = {'F', static_cast<uint8_t>(code)};
    BPlusSendPacket(r, 2, (r->RxSeq + 1) % 10, packet);
    // The service acknowledges and then ends the exchange; wait until the
    // line says so (an error, a time-out or the error limit).
    while (Waiting(r->Result)) _BPWaitForACK(r, false, false, false);
    if (code == 'A') XferStatusMessage(r, 1, MsgTransferCancelled);
    return r->Result;
}

} // namespace zvxfer::bplus
