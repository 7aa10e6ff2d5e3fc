// Millisecond tick count: 32 bits, wrapping, from a monotonic clock.
// Tests replace the clock so that 30- and 60-second limits pass in
// milliseconds of real time.
#pragma once
#include <cstdint>

namespace zvxfer::plat {

using TickSource = uint32_t (*)();

// Current tick in milliseconds (wraps after about 49.7 days).
uint32_t GetTickCount();

// Replace the clock; nullptr restores the monotonic clock.
void SetTickSource(TickSource source);

// True when `deadline` lies at or before `now`, compared as signed 32-bit
// values so that the comparison survives the wrap of the tick count.
inline bool TickReached(uint32_t now, uint32_t deadline) {
    return static_cast<int32_t>(now - deadline) >= 0;
}

} // namespace zvxfer::plat
