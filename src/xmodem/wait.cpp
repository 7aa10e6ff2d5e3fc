// The waits every XMODEM routine is built on: slices of one second with an
// abort check after each empty slice, and discarding line noise.
#include <algorithm>

#include "core/core.h"
#include "port/port.h"
#include "xmodem/xmodem.h"

namespace zvxfer {

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
    while (ReadCharTimed(r->Port, xm::kSliceMs) >= 0) {
        ++dropped;
        if (XferCheckAbort(r)) return false;
    }
    if (count) *count = dropped;
    return true;
}

} // namespace zvxfer
