// The millisecond tick: CLOCK_MONOTONIC folded to 32 wrapping bits, or a
// clock installed by tests, and the time passer such a clock may install.
#include "platform/tick.h"

#include <atomic>
#include <ctime>

namespace zvxfer::plat {

namespace {
std::atomic<TickSource> gSource{nullptr};
std::atomic<TimePasser> gPasser{nullptr};
} // namespace

uint32_t GetTickCount() {
    if (const TickSource source = gSource.load(std::memory_order_acquire)) return source();
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + ts.tv_nsec / 1000000;
    return static_cast<uint32_t>(ms);
}

void SetTickSource(TickSource source) {
    gSource.store(source, std::memory_order_release);
}

void SetTimePasser(TimePasser passer) {
    gPasser.store(passer, std::memory_order_release);
}

TimePasser CurrentTimePasser() {
    return gPasser.load(std::memory_order_acquire);
}

} // namespace zvxfer::plat
