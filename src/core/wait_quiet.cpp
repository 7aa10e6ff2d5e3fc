// XferWaitQuiet: wait until the line has been silent for one second.
#include "core/core.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// Bytes that keep coming for this long are no burst of noise: the wait
// gives up, so a line that is never quiet cannot hold the transfer.
constexpr uint32_t kNoisyLineMs = 3000;
constexpr uint32_t kCheckBytes = 256;

} // namespace

int XferWaitQuiet(XferRecord *record) {
    XferPort *port = record->Port;
    const uint32_t giveUp = plat::GetTickCount() + kNoisyLineMs;
    auto noisy = [&] { return plat::TickReached(plat::GetTickCount(), giveUp); };
    for (;;) {
        if (XferCheckAbort(record)) return 0;
        // What is buffered goes first; the clock is read once every
        // kCheckBytes of it.
        bool expired = false;
        for (uint32_t n = 1; !expired && port->Ops.ReadChar(port) >= 0; ++n)
            expired = n % kCheckBytes == 0 && noisy();
        // A NUL ends the wait like silence: line noise often reads as 0.
        if (!expired && ReadCharTimed(port, 1000) <= 0) return 1;
        if (expired || noisy()) {
            // Counted toward the protocol's error limit, which ends a line
            // that stays like this.
            XferStatus(record, 0, "Line not quiet for %d seconds",
                       static_cast<int>(kNoisyLineMs / 1000));
            record->ErrorTotal++;
            record->ErrorRun++;
            return 1;
        }
    }
}

} // namespace zvxfer
