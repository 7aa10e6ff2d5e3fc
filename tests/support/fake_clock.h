// A replaceable tick clock for tests: while a FakeClock lives, the
// library's GetTickCount reads it instead of the monotonic clock.
//
//   FakeClock clock;                 // manual: time moves only when told
//   clock.Advance(30000);            // 30 s pass at once
//   clock.SetStepPerRead(100);       // every tick read moves time 100 ms on
//   FakeClock fast(FakeClock::Scaled{1000});  // real time x1000: a 30 s
//                                              // limit passes in 30 ms
//
// Only one FakeClock may exist at a time (the clock is process-wide); the
// destructor restores the real clock.  All members are thread-safe.
#pragma once
#include <cstdint>

namespace zvxfer::test {

class FakeClock {
  public:
    struct Scaled {
        uint32_t factor;
    };

    explicit FakeClock(uint32_t start = 1000);
    explicit FakeClock(Scaled scaled, uint32_t start = 1000);
    ~FakeClock();
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    // Move time on by `ms` (also in scaled mode, on top of the scaling).
    void Advance(uint32_t ms);
    // Jump to `tick` (use values near 0xFFFFFFFF to test the wrap).
    void Set(uint32_t tick);
    // Every read of the tick advances it by `ms` after answering (0: off).
    void SetStepPerRead(uint32_t ms);
    // The tick the library would read now (without stepping).
    uint32_t Now() const;
    // Number of tick reads by the library since construction.
    uint64_t Reads() const;
};

} // namespace zvxfer::test
