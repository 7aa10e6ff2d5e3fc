// Local time of day, for the debug log's time stamps.
#pragma once

namespace zvxfer::plat {

struct TimeOfDay {
    int hour, minute, second, millisecond;
};

TimeOfDay GetLocalTime();

} // namespace zvxfer::plat
