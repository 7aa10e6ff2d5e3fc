// The link state's life, and the quoting of control characters in both
// directions.
#include <new>

#include "bplus/bplus.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer::bplus {

bool BPlusCreateLink(XferRecord *r) {
    void *block = plat::HeapAllocZero(sizeof(BPlusLink));
    if (block == nullptr) return false;
    auto *link = new (block) BPlusLink{};
    link->ReadTimeout = kReadTimeoutMs;
    // ETX, ENQ, DLE, XON, XOFF and NAK never appear bare inside a packet.
    for (const uint8_t c : {0x03, 0x05, 0x10, 0x11, 0x13, 0x15}) link->QuoteMask[c] = 0x01;
    r->ProtocolParam = reinterpret_cast<intptr_t>(link);
    return true;
}

void BPlusReleaseLink(XferRecord *r) {
    BPlusLink *link = Link(r);
    if (link == nullptr) return;
    for (StoredPacket &slot : link->Store) {
        if (slot.Data != nullptr) plat::HeapFreeBlock(slot.Data);
        slot.Data = nullptr;
    }
    link->Outstanding = 0;
    plat::HeapFreeBlock(link);
    r->ProtocolParam = 0;
}

void BPlusSendQuoted(XferRecord *r, uint8_t c) {
    const BPlusLink *link = Link(r);
    bool quote = false;
    uint8_t shown = c;
    if (c < 0x20) {
        quote = link->QuoteMode == 3 || (link->QuoteMask[c] & 0x01) != 0;
        shown = static_cast<uint8_t>(c + 0x40);
    } else if (c >= 0x80 && c <= 0x9F) {
        quote = link->QuoteMode == 3 || (link->QuoteMask[c - 0x80] & 0x10) != 0;
        shown = static_cast<uint8_t>(c - 0x20);
    }
    if (quote) {
        WriteCharTimed(r->Port, kDle, kWriteTimeoutMs);
        WriteCharTimed(r->Port, shown, kWriteTimeoutMs);
    } else {
        WriteCharTimed(r->Port, c, kWriteTimeoutMs);
    }
}

int32_t BPlusReadQuoted(XferRecord *r) {
    BPlusLink *link = Link(r);
    link->Unquoted = 1;
    int32_t c = ReadCharTimed(r->Port, link->ReadTimeout);
    if (c < 0) return XferErrGetChar;
    if (c == kDle) {
        c = ReadCharTimed(r->Port, link->ReadTimeout);
        if (c < 0) return XferErrGetChar;
        link->Unquoted = 0;
        // 0x40..0x5F stand for 0x00..0x1F, 0x60..0x7F for 0x80..0x9F.
        if (c >= 0x60) c += 0x80;
        c &= 0x9F;
    }
    link->LastChar = c;
    return c;
}

} // namespace zvxfer::bplus
