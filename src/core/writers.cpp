// The patient writers: keep offering bytes to a full port until a deadline,
// staying responsive to aborts and the host's idle hook meanwhile.
#include <algorithm>

#include "core/core.h"
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// Longest pause between two tries; short enough that a port that frees up
// is used at once, long enough that a full port does not spin a core.
constexpr uint32_t kRetryPauseMs = 1;

// What the two writers differ in.
struct Patience {
    uint32_t limitMs;
    int32_t firstMark;
    int32_t failure; // Result on time-out or port error
    const char *countdown;
};

constexpr Patience kCharPatience{30000, 25, XferErrSendChar, "%d sec left to WriteChar"};
constexpr Patience kBufferPatience{60000, 55, XferErrSendBlock, "%d sec to complete WriteBuffer"};

// One retry round's bookkeeping, shared by both writers.
class RetryClock {
  public:
    explicit RetryClock(const Patience &p)
        : patience_(p), deadline_(plat::GetTickCount() + p.limitMs), mark_(p.firstMark) {}

    bool Expired() const { return plat::TickReached(plat::GetTickCount(), deadline_); }

    // The port refused: fail on time-out or a real error, else 1 to retry.
    // On failure Result is set and the port's answer is stored in `out`.
    bool Refused(XferRecord *record, int32_t answer, int32_t &out) const {
        out = answer;
        if (answer != PortBufferFull && answer != PortBlockedByHandshake) {
            XferStatus(record, 0, "Error %d sending buffer", answer);
        } else if (Expired()) {
            XferStatusMessage(record, 1, MsgWriteTimedOut);
        } else {
            return true;
        }
        record->Result = patience_.failure;
        return false;
    }

    // Between tries: abort check, idle hook, a short wait, the countdown.
    // 0 to try again, else the value the writer returns.
    int32_t Pause(XferRecord *record) {
        if (record->Result != XferErrUserAbort && XferCheckAbort(record))
            return XferStopCode(record);
        const int32_t idle = CallIdle(record->Port);
        if (idle < 0) {
            record->Result = XferErrSendChar;
            return idle;
        }
        const int32_t leftMs = static_cast<int32_t>(deadline_ - plat::GetTickCount());
        if (leftMs > 0) plat::WaitForInput(std::min<uint32_t>(kRetryPauseMs, leftMs));
        const int32_t secondsLeft = static_cast<int32_t>(deadline_ - plat::GetTickCount()) / 1000;
        if (secondsLeft <= mark_) {
            XferStatus(record, 0, patience_.countdown, secondsLeft);
            mark_ -= 5;
        }
        return 0;
    }

  private:
    const Patience &patience_;
    uint32_t deadline_;
    int32_t mark_;
};

} // namespace

int32_t XferWriteChar(XferRecord *record, uint8_t byte) {
    XferPort *port = record->Port;
    const int32_t noted = port->Status;
    RetryClock clock(kCharPatience);
    for (;;) {
        const int32_t answer = port->Ops.WriteChar(port, byte);
        if (answer == 0) return 0;
        int32_t failure = 0;
        if (!clock.Refused(record, answer, failure)) return failure;
        port->Status = noted; // a full port is no failure yet
        if (const int32_t stop = clock.Pause(record); stop != 0) return stop;
    }
}

int32_t XferWriteBuffer(XferRecord *record, const uint8_t *bytes, uint32_t count) {
    XferPort *port = record->Port;
    const int32_t noted = port->Status;
    RetryClock clock(kBufferPatience);
    uint32_t total = 0;
    while (count > 0) {
        // A port made by PortOpen stages at most one transmit buffer a call.
        const uint32_t offered = std::min<uint32_t>(count, XFER_TX_BUFFER_SIZE);
        const int32_t answer = port->Ops.WriteBuffer(port, bytes, offered);
        // Count tells how much a full or successful write took; after any
        // other answer it is stale and nothing is taken.
        uint32_t taken = 0;
        if (answer == 0 || answer == PortBufferFull) {
            taken = std::min(port->Count, offered);
            total += taken;
            bytes += taken;
            count -= taken;
            port->Count = total;
        }
        if (count == 0) return 0;
        if (answer == 0 && taken > 0) continue; // took one slice of a long buffer
        // A port that "succeeds" without taking anything is as good as full.
        const int32_t refusal = answer == 0 ? PortBufferFull : answer;
        int32_t failure = 0;
        if (!clock.Refused(record, refusal, failure)) return failure;
        port->Status = noted;
        if (const int32_t stop = clock.Pause(record); stop != 0) return stop;
    }
    return 0;
}

} // namespace zvxfer
