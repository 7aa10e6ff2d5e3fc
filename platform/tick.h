// Millisecond tick count: 32 bits, wrapping, from a monotonic clock.
// Tests replace the clock, and may replace the sleeping too, so that 30-
// and 60-second limits pass at once and are met to the millisecond.
#pragma once
#include <cstdint>

namespace zvxfer::plat {

using TickSource = uint32_t (*)();

// Current tick in milliseconds (wraps after about 49.7 days).
uint32_t GetTickCount();

// Replace the clock; nullptr restores the monotonic clock.
void SetTickSource(TickSource source);

// Something that makes time pass instead of sleeping: while one is
// installed, a wait with a time limit that finds nothing to do (no message,
// no ready descriptor) calls it with the time it would have slept and
// returns at once.  Waits without a limit still sleep, since only another
// thread can end them.  A test clock installs this beside its tick source.
using TimePasser = void (*)(uint32_t ms);

// Install `passer`; nullptr makes waits sleep in real time again.
void SetTimePasser(TimePasser passer);

// The installed passer, or nullptr.
TimePasser CurrentTimePasser();

// True when `deadline` lies at or before `now`, compared as signed 32-bit
// values so that the comparison survives the wrap of the tick count.
inline bool TickReached(uint32_t now, uint32_t deadline) {
    return static_cast<int32_t>(now - deadline) >= 0;
}

} // namespace zvxfer::plat
