// The waits every XMODEM routine is built on: slices of one second with an
// abort check after each empty slice, and discarding line noise.
#include <algorithm>

#include "core/core.h"
#include "platform/tick.h"
#include "port/port.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {

int32_t XmWaitChar(XferRecord *r, int32_t timeoutMs) {
    for (int32_t left = timeoutMs; left > 0;) {
        const int32_t slice = std::min(left, xm::kSliceMs);
        const int32_t c = ReadCharTimed(r->Port, slice);
        if (c >= 0) return c;
        left -= slice;
        if (XferCheckAbort(r)) return kXmAborted;
    }
    return kXmTimedOut;
}

bool XmDiscard(XferRecord *r, int *count) {
    int dropped = 0;
    const uint32_t giveUp = plat::GetTickCount() + xm::kNoiseLimitMs;
    for (;;) {
        // The clock is read when a byte had to be waited for, and once
        // every 256 bytes of a flood.
        const bool waited = r->Port->RxBlock.Length == 0;
        if (ReadCharTimed(r->Port, xm::kSliceMs) < 0) break;
        ++dropped;
        if (XferCheckAbort(r)) return false;
        // Bytes that never stop are no burst of noise: the caller counts
        // this try as failed and answers, instead of waiting for ever.
        if ((waited || dropped % 256 == 0) && plat::TickReached(plat::GetTickCount(), giveUp)) {
            XferStatus(r, 0, "Discarding given up: %d bytes of noise", dropped);
            break;
        }
    }
    if (count) *count = dropped;
    return true;
}

} // namespace zvxfer::xm
