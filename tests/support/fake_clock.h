// A replaceable tick clock for tests: while a FakeClock lives, the
// library's GetTickCount reads it instead of the monotonic clock.
//
// Manual (time moves only when told), sleepless (manual, and every wait of
// the library moves time on by what it would have slept and returns at
// once), stepping (every tick read moves time on) or scaled (real time
// times a factor).
//
// Only one FakeClock may exist at a time (the clock is process-wide); the
// destructor restores the real clock and real sleeping.  All members are
// thread-safe.
//
// A sleepless clock makes a test on one thread deterministic: bytes the
// test host hands over arrive when the library asks for them, and time
// moves only through the library's own waits, so a 10-second limit ends
// exactly 10000 ms after it began.  It is meant for one thread: a wait on
// another thread that depends on this one would see time race ahead.
#pragma once
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "platform/tick.h"

namespace zvxfer::test {

class FakeClock {
    using Steady = std::chrono::steady_clock;
    static inline std::atomic<bool> active_{false};
    static inline std::atomic<uint32_t> offset_{0}, step_{0}, factor_{0}; // factor 0: manual
    static inline std::atomic<uint64_t> reads_{0};
    static inline Steady::time_point origin_;

    static uint32_t ScaledPart() {
        if (factor_ == 0) return 0; // manual: no need to ask the real clock
        const auto us =
            std::chrono::duration_cast<std::chrono::microseconds>(Steady::now() - origin_);
        return static_cast<uint32_t>(static_cast<uint64_t>(us.count()) * factor_ / 1000);
    }
    static uint32_t ReadTick() {
        ++reads_;
        return offset_.fetch_add(step_) + ScaledPart();
    }
    static void PassTime(uint32_t ms) { offset_ += ms; }

  public:
    struct Scaled {
        uint32_t factor;
    };
    static constexpr struct Sleepless {
    } kSleepless{};

    explicit FakeClock(uint32_t start = 1000) : FakeClock(Scaled{0}, start) {}
    explicit FakeClock(Scaled scaled, uint32_t start = 1000) {
        if (active_.exchange(true)) std::abort(); // two would fight over the one clock
        origin_ = Steady::now();
        offset_ = start, step_ = 0, factor_ = scaled.factor, reads_ = 0;
        plat::SetTickSource(ReadTick);
    }
    explicit FakeClock(Sleepless, uint32_t start = 1000) : FakeClock(start) {
        plat::SetTimePasser(PassTime);
    }
    ~FakeClock() {
        plat::SetTimePasser(nullptr);
        plat::SetTickSource(nullptr);
        active_ = false;
    }
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    // Move time on by `ms` (also in scaled mode, on top of the scaling).
    void Advance(uint32_t ms) { offset_ += ms; }
    // Jump to `tick` (use values near 0xFFFFFFFF to test the wrap).
    void Set(uint32_t tick) { offset_ = tick - ScaledPart(); }
    // Every read of the tick advances it by `ms` after answering (0: off).
    void SetStepPerRead(uint32_t ms) { step_ = ms; }
    // The tick the library would read now (without stepping).
    uint32_t Now() const { return offset_ + ScaledPart(); }
    // Number of tick reads by the library since construction.
    uint64_t Reads() const { return reads_; }
};

} // namespace zvxfer::test
