// The millisecond tick: the system's GetTickCount, or a clock installed by
// tests, and the time passer such a clock may install.
#include "platform/win32/win.h"

#include "platform/tick.h"

#include <atomic>

namespace zvxfer::plat {

namespace {
std::atomic<TickSource> gSource{nullptr};
std::atomic<TimePasser> gPasser{nullptr};
} // namespace

uint32_t GetTickCount() {
    if (const TickSource source = gSource.load(std::memory_order_acquire)) return source();
    return static_cast<uint32_t>(::GetTickCount());
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
