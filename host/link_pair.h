// LinkPair: two ends of a simulated line in one process.  Each end is a
// host window and a port on its own thread; bytes one end writes travel
// through a SimLine (rate, latency, bit errors, drops, stalls) to the
// other.  Used by the link-pair tests and by loopback runs.
//
//   LinkConfig config;
//   config.aToB.bytesPerSecond = config.bToA.bytesPerSecond = 11520;
//   config.aToB.bitErrorRate = 1e-5;
//   LinkPair link(config);
//   auto [sent, received] = link.Run(
//       [&](XferPort *port) { return ZmodemSendWithOptions(port, names, ...); },
//       [&](XferPort *port) { return ZmodemReceiveWithOptions(port, ...); });
#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "sim_line.h"
#include "zvxfer.h"

namespace zvxfer::host {

struct LinkEndConfig {
    std::string receiveFolder; // ends in '/'; the port keeps a pointer to it
    int32_t policy = XFER_EXISTING_OVERWRITE;
};

struct LinkConfig {
    LineConfig aToB;
    LineConfig bToA;
    uint64_t seed = 1;
    MicroClock clock = RealMicros;
    LinkEndConfig a;
    LinkEndConfig b;
    // When an end's function returns, its side of the line hangs up: the
    // other end reads the rest and then sees the line lost.  Off by
    // default, like a serial line that stays up when one program exits.
    bool hangUpOnExit = false;
    // Called on each end's thread as it begins (`running` true, before its
    // port opens) and as it ends (false, after its hang-up): a scheduler
    // that runs the ends in turns hooks in here.  Empty: not called.
    std::function<void(int end, bool running)> onEnd;
    // Real-time limit for Run in milliseconds (0: none).  When it passes
    // the link is cancelled (see Cancel), which ends the ends' waits.
    uint32_t deadlineMs = 0;
};

struct LinkResult {
    int32_t a = 0;
    int32_t b = 0;
    bool timedOut = false;
};

class LinkPair {
  public:
    using EndFunction = std::function<int32_t(XferPort *port)>;
    enum Direction { AtoB = 0, BtoA = 1 };

    explicit LinkPair(LinkConfig config = {});
    ~LinkPair();
    LinkPair(const LinkPair &) = delete;
    LinkPair &operator=(const LinkPair &) = delete;

    // Run `a` and `b` on two threads, each with a port on its own window,
    // and return both results.  May be called more than once; the lines
    // keep their state (and counters) between runs.
    LinkResult Run(EndFunction a, EndFunction b);

    // Stop both running ends: from now on their line is lost (reads and
    // writes report the Error flag) and their waits see WM_CLOSE, which the
    // default idle hook turns into a stop.  Lasts for the LinkPair's life.
    void Cancel();

    SimLine &Line(Direction d) { return *lines_[d]; }
    LineCounters Counters(Direction d) const { return lines_[d]->Counters(); }

  private:
    friend class LinkEnd;
    int32_t RunEnd(int index, const EndFunction &function);
    // Wake the end that reads `direction` (bytes went onto it, or it hung
    // up), the end that sends on it (the receiver made room), and note that
    // the reader has taken what was there; `end` is about to look at the
    // line (to read or to write).
    void WakeReader(int direction);
    void WakeSender(int direction);
    void DataTaken(int direction);
    void Looking(int end);
#ifdef _WIN32
    void Wake(int end);
    std::array<std::atomic<bool>, 2> wakePosted_{}; // per end: a wake message is on its way
#endif

    LinkConfig config_;
    std::array<std::unique_ptr<SimLine>, 2> lines_;
    // Per direction: signalled when bytes go onto the line (the receiving
    // end watches it) and when the receiver takes bytes (the sending end
    // watches it while the line was full).
    std::array<int, 2> dataEvent_{-1, -1};
    std::array<std::mutex, 2> dataMutex_; // orders a direction's offers and takes
    std::array<int, 2> spaceEvent_{-1, -1};
    std::array<std::atomic<bool>, 2> senderWaiting_{};
    std::atomic<bool> cancelled_{false};
    std::mutex windowsMutex_;
    std::array<ZvHwnd, 2> windows_{};
};

} // namespace zvxfer::host
