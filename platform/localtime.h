// Local time of day, for the debug log's time stamps.
#pragma once

namespace zvxfer::plat {

struct TimeOfDay {
    int hour, minute, second, millisecond;
};

TimeOfDay GetLocalTime();

// Replace the clock behind GetLocalTime (tests); nullptr restores the
// system's local time.
using LocalTimeSource = TimeOfDay (*)();
void SetLocalTimeSource(LocalTimeSource source);

} // namespace zvxfer::plat
