// Local time of day from the system's GetLocalTime, replaceable for tests.
#include "platform/win32/win.h"

#include "platform/localtime.h"

#include <atomic>

namespace zvxfer::plat {

namespace {

std::atomic<LocalTimeSource> gSource{nullptr};

TimeOfDay SystemLocalTime() {
    SYSTEMTIME now{};
    ::GetLocalTime(&now);
    return {now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
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
