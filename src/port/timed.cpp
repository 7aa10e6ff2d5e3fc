// The waits every engine builds on: a timed byte read and write, the idle
// wait, the empty test, the idle-hook call and the exported receive purge.
// A wait reads the tick only once it actually has to wait, and sleeps in
// the thread's message wait between rounds instead of spinning a core.
#include <algorithm>

#include "platform/message.h"
#include "platform/nothrow.h"
#include "platform/tick.h"
#include "port/port.h"
#include "port_internal.h"

namespace zvxfer {

namespace {

constexpr uint32_t kRoundMs = 5; // longest sleep between two rounds
constexpr uint32_t kPurgeChunk = 64;

// A deadline of `timeoutMs` (-1: none) that starts on its first check, so
// a wait satisfied at once never reads the clock.
class LazyDeadline {
  public:
    explicit LazyDeadline(int32_t timeoutMs) : timeoutMs_(timeoutMs) {}

    bool Expired() {
        if (timeoutMs_ == -1) return false;
        const uint32_t now = plat::GetTickCount();
        now_ = now;
        if (!started_) {
            deadline_ = now + static_cast<uint32_t>(timeoutMs_);
            started_ = true;
        }
        return plat::TickReached(now, deadline_);
    }

    // Sleep until new input arrives, for at most the time left (and 5 ms);
    // messages the idle hook left queued do not cut the sleep short.
    void Pause() const {
        uint32_t wait = kRoundMs;
        if (timeoutMs_ != -1) {
            // Measured from the tick the last check read: the pause itself
            // reads no clock.
            const auto left = static_cast<int32_t>(deadline_ - now_);
            if (left <= 0) return;
            wait = std::min<uint32_t>(wait, static_cast<uint32_t>(left));
        }
        plat::WaitForNewInput(wait);
    }

  private:
    int32_t timeoutMs_;
    bool started_ = false;
    uint32_t deadline_ = 0;
    uint32_t now_ = 0;
};

// The waiting part of ReadCharTimed, kept out of line so that the common
// case below stays a short leaf-like function.
[[gnu::noinline]] int32_t ReadCharTimedWait(XferPort *port, int32_t timeoutMs, bool own) {
    LazyDeadline deadline(timeoutMs);
    for (;;) {
        if (own) {
            if (port_ops::RxCount(port) != 0) return port_ops::ReadCharInline(port);
        } else if (port->Ops.RxCount(port) != 0) {
            return port->Ops.ReadChar(port);
        }
        const int32_t idle = CallIdle(port);
        if (idle < 0) {
            port->Status = idle;
            return idle;
        }
        if (deadline.Expired()) return PortBufferEmpty;
        // Nothing came: sleep until input arrives (at most 5 ms a round).
        NoteEmptyRead();
        deadline.Pause();
    }
}

} // namespace

// On a port made by PortOpen whose host block still holds bytes, the count
// and the read are taken inline: the same steps, without the calls.
int32_t ReadCharTimed(XferPort *port, int32_t timeoutMs) {
    const bool own =
        port->Ops.RxCount == port_ops::RxCount && port->Ops.ReadChar == port_ops::ReadChar;
    if (own && port->RxBlock.Length != 0) return port_ops::ReadCharInline(port);
    return ReadCharTimedWait(port, timeoutMs, own);
}

int32_t WriteCharTimed(XferPort *port, uint8_t byte, int32_t timeoutMs) {
    const int32_t saved = port->Status;
    LazyDeadline deadline(timeoutMs);
    for (;;) {
        port->Status = PortSuccess;
        const int32_t r = port->Ops.WriteChar(port, byte);
        port->Status = saved;
        if (r == PortSuccess) return r;
        if (r != PortBufferFull && r != PortBlockedByHandshake) return r;
        if (deadline.Expired()) return r;
        const int32_t idle = CallIdle(port);
        if (idle < 0) return idle;
        deadline.Pause();
    }
}

int32_t RxEmpty(XferPort *port) {
    const int32_t r = port->Ops.RxCount(port);
    if (r < 0) return r;
    return r == 0 ? 1 : 0;
}

int32_t IdleWait(XferPort *port, int32_t milliseconds) {
    uint32_t now = plat::GetTickCount();
    const uint32_t deadline = now + static_cast<uint32_t>(milliseconds);
    while (!plat::TickReached(now, deadline)) {
        const int32_t idle = CallIdle(port);
        if (idle < 0) return idle;
        now = plat::GetTickCount();
        if (plat::TickReached(now, deadline)) break;
        plat::WaitForNewInput(std::min<uint32_t>(kRoundMs, deadline - now));
        now = plat::GetTickCount();
    }
    return 0;
}

} // namespace zvxfer

using namespace zvxfer;

// Read and drop what the host holds, 64 bytes at a time, until a read
// moves nothing.
extern "C" ZVXFER_EXTERN int32_t ClearRXBuffer(XferPort *port) ZVXFER_NOEXCEPT try {
    if (port == nullptr) return PortInvalidParameter;
    uint8_t scratch[kPurgeChunk];
    for (;;) {
        const int32_t r = port->Ops.ReadBuffer(port, scratch, kPurgeChunk);
        if (r < 0 && r != PortBufferEmpty) return r;
        if (port->Count == 0) return PortSuccess;
    }
} catch (...) {
    return plat::BoundaryCode();
}
