// The debug log: a trace line stamped with the local time of day, handed to
// the debugger output whole.
#include <cstdarg>
#include <cstdio>

#include "locale/locale.h"
#include "platform/debugout.h"
#include "platform/localtime.h"

namespace zvxfer {

namespace {

constexpr std::size_t kLineSize = 24032;
constexpr int kMaxText = 23998; // formatted texts this long or longer end the process

} // namespace

void DebugLogV(uintptr_t /*context*/, const char *format, va_list args) {
    char line[kLineSize];
    plat::TimeOfDay now = plat::GetLocalTime();
    int stamp = std::snprintf(line, sizeof line, "%2.2i:%2.2i:%2.2i.%3.3i ", now.hour, now.minute,
                              now.second, now.millisecond);
    int length = std::vsnprintf(line + stamp, sizeof line - stamp, format, args);
    if (length >= kMaxText) plat::FatalAppExit("String passed to DebugPrintf is too long!");
    plat::OutputDebugString(line);
}

void DebugLog(uintptr_t context, const char *format, ...) {
    va_list args;
    va_start(args, format);
    DebugLogV(context, format, args);
    va_end(args);
}

} // namespace zvxfer
