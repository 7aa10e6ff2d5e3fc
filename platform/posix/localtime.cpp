// Local time of day from the real-time clock, replaceable for tests.
#include "platform/localtime.h"

#include <time.h>

#include <atomic>

namespace zvxfer::plat {

namespace {

std::atomic<LocalTimeSource> gSource{nullptr};

TimeOfDay SystemLocalTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    localtime_r(&now.tv_sec, &parts);
    return {parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(now.tv_nsec / 1000000)};
}

} // namespace

TimeOfDay GetLocalTime() {
    LocalTimeSource source = gSource.load(std::memory_order_acquire);
    return source != nullptr ? source() : SystemLocalTime();
}

void SetLocalTimeSource(LocalTimeSource source) {
    gSource.store(source, std::memory_order_release);
}

} // namespace zvxfer::plat
