// SimLine: the model of one direction of a simulated serial line.  Bytes
// offered by the sender are serialised at a byte rate, arrive after a
// one-way latency, and may be corrupted (bit errors), lost (dropped bytes)
// or held up (stalls).  All randomness comes from a seed so a failing run
// can be replayed; time comes from an injectable microsecond clock so the
// model can run in simulated time.  Thread-safe: one sender and one
// receiver may use it from different threads.
#pragma once
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <vector>

namespace zvxfer::host {

// Microseconds on some monotonic scale.
using MicroClock = std::function<uint64_t()>;

// The real monotonic clock in microseconds.
uint64_t RealMicros();

struct LineStall {
    uint64_t startUs; // clock time the stall begins
    uint64_t lengthUs;
};

struct LineConfig {
    uint64_t bytesPerSecond = 0;   // 0: unlimited
    uint32_t latencyMs = 0;        // one way
    double bitErrorRate = 0;       // probability that a bit is flipped
    double dropRate = 0;           // probability that a byte is lost
    uint64_t stallEveryBytes = 0;  // after every N bytes on the wire ...
    uint32_t stallMs = 0;          // ... the line stops for this long
    std::vector<LineStall> stalls; // extra stalls at fixed times
    // Bytes that may wait for the wire before the sender is held back
    // (a UART's queue), and bytes that may be on the line or unread by the
    // receiver (a socket's buffer).  0: no limit.
    std::size_t queueBytes = 4096;
    std::size_t bufferBytes = 64 * 1024;
};

struct LineCounters {
    uint64_t offered = 0;   // bytes the line accepted from the sender
    uint64_t delivered = 0; // bytes the receiver took
    uint64_t flippedBits = 0;
    uint64_t dropped = 0;
};

class SimLine {
  public:
    SimLine(LineConfig config, uint64_t seed, MicroClock clock = RealMicros);

    // Put bytes on the line; returns how many it accepted (fewer than
    // offered when its queue or buffer is full).
    std::size_t Offer(std::span<const uint8_t> bytes);
    // Take the bytes that have arrived by now (at most out.size()).
    std::size_t Take(std::span<uint8_t> out);
    // Clock time at which the next byte arrives, if any is on its way.
    std::optional<uint64_t> NextArrival() const;
    // True when no accepted byte is still waiting for the receiver.
    bool Empty() const;

    // The sender has gone: once everything sent has arrived, the receiver
    // sees the end of the line.
    void Close();
    bool Closed() const;
    bool ClosedAndDrained() const;

    LineCounters Counters() const;
    uint64_t Now() const { return clock_(); }

  private:
    struct Byte {
        uint64_t departUs; // when its last bit left the sender
        uint64_t arriveUs;
        uint8_t value;
        bool dropped;
    };
    uint64_t StartTime(uint64_t now, uint64_t free) const;
    std::size_t Room(uint64_t now) const;
    uint8_t Corrupt(uint8_t value);
    bool DropNext();

    LineConfig config_;
    MicroClock clock_;
    mutable std::mutex mutex_;
    std::deque<Byte> queue_;
    uint64_t lineFreeNs_ = 0;
    uint64_t wireBytes_ = 0; // bytes serialised so far, for stallEveryBytes
    bool closed_ = false;
    LineCounters counters_;
    std::mt19937_64 random_;
    // Distances to the next flipped bit and the next dropped byte, drawn
    // from geometric distributions so that clean stretches cost nothing.
    uint64_t bitsToFlip_ = 0;
    uint64_t bytesToDrop_ = 0;
};

} // namespace zvxfer::host
