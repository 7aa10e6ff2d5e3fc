// The link state's life, and the quoting of control characters in both
// directions.
#include <algorithm>
#include <new>

#include "bplus/bplus.h"
#include "bplus/wire.h"
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

std::size_t QuoteInto(const BPlusLink &link, uint8_t c, uint8_t *out) {
    bool quote = false;
    uint8_t shown = c;
    if (c < 0x20) {
        quote = link.QuoteMode == 3 || (link.QuoteMask[c] & 0x01) != 0;
        shown = static_cast<uint8_t>(c + 0x40);
    } else if (c >= 0x80 && c <= 0x9F) {
        quote = link.QuoteMode == 3 || (link.QuoteMask[c - 0x80] & 0x10) != 0;
        shown = static_cast<uint8_t>(c - 0x20);
    }
    if (!quote) {
        out[0] = c;
        return 1;
    }
    out[0] = kDle;
    out[1] = shown;
    return 2;
}

void BPlusSendQuoted(XferRecord *r, uint8_t c) {
    uint8_t out[2];
    const std::size_t n = QuoteInto(*Link(r), c, out);
    for (std::size_t i = 0; i < n; ++i) WriteCharTimed(r->Port, out[i], kWriteTimeoutMs);
}

int32_t WriteRun(XferRecord *r, const uint8_t *bytes, std::size_t count) {
    XferPort *port = r->Port;
    while (count != 0) {
        if (port->Ops.WriteBuffer == nullptr) {
            const int32_t result = WriteCharTimed(port, *bytes, kWriteTimeoutMs);
            if (result < 0) return result;
            ++bytes, --count;
            continue;
        }
        const int32_t saved = port->Status;
        port->Status = 0;
        const int32_t result = port->Ops.WriteBuffer(port, bytes, static_cast<uint32_t>(count));
        std::size_t taken = result == 0 ? count : 0;
        if (result == -9 || result == -36) taken = std::min<std::size_t>(port->Count, count);
        port->Status = saved;
        if (result < 0 && result != -9 && result != -36) return result;
        bytes += taken, count -= taken;
        if (count != 0 && taken == 0) {
            // The host takes nothing now: wait for room the way a byte
            // written alone would, then go on with the rest.
            const int32_t one = WriteCharTimed(port, *bytes, kWriteTimeoutMs);
            if (one < 0) return one;
            ++bytes, --count;
        }
    }
    return 0;
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
