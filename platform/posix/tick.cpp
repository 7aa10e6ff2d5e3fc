// The millisecond tick: CLOCK_MONOTONIC folded to 32 wrapping bits, or a
// clock installed by tests.
#include "platform/tick.h"

#include <atomic>
#include <ctime>

namespace zvxfer::plat {

namespace {
std::atomic<TickSource> gSource{nullptr};
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

} // namespace zvxfer::plat
