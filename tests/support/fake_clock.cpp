// The fake tick source: a manual counter, optionally stepped on each read
// or driven by scaled real time.
#include "fake_clock.h"

#include <atomic>
#include <chrono>
#include <cstdlib>

#include "platform/tick.h"

namespace zvxfer::test {

namespace {

using Steady = std::chrono::steady_clock;

std::atomic<bool> gActive{false};
std::atomic<uint32_t> gOffset{0}; // manual part of the tick
std::atomic<uint32_t> gStep{0};
std::atomic<uint32_t> gFactor{0}; // 0: no scaled real time
std::atomic<uint64_t> gReads{0};
Steady::time_point gOrigin;

uint32_t ScaledPart() {
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(Steady::now() - gOrigin).count();
    return static_cast<uint32_t>(static_cast<uint64_t>(us) * gFactor.load() / 1000);
}

uint32_t ReadTick() {
    gReads.fetch_add(1);
    return gOffset.fetch_add(gStep.load()) + ScaledPart();
}

} // namespace

FakeClock::FakeClock(uint32_t start) : FakeClock(Scaled{0}, start) {}

FakeClock::FakeClock(Scaled scaled, uint32_t start) {
    // Two fake clocks at once would fight over the one process clock.
    if (gActive.exchange(true)) std::abort();
    gOrigin = Steady::now();
    gOffset = start;
    gStep = 0;
    gFactor = scaled.factor;
    gReads = 0;
    plat::SetTickSource(ReadTick);
}

FakeClock::~FakeClock() {
    plat::SetTickSource(nullptr);
    gActive = false;
}

void FakeClock::Advance(uint32_t ms) {
    gOffset.fetch_add(ms);
}

void FakeClock::Set(uint32_t tick) {
    gOffset.store(tick - ScaledPart());
}

void FakeClock::SetStepPerRead(uint32_t ms) {
    gStep.store(ms);
}

uint32_t FakeClock::Now() const {
    return gOffset.load() + ScaledPart();
}

uint64_t FakeClock::Reads() const {
    return gReads.load();
}

} // namespace zvxfer::test
