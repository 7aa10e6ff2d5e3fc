// Bounded formatting over the C runtime's vsnprintf (on Windows the C99
// one that mingw-w64 supplies for C++: %lld, %zu and %hhd behave as on any
// C99 system, and a cut result is still NUL-terminated; wsprintfA is no
// choice there: it stops at 1024 bytes and knows no 64-bit or size_t
// conversions).
#include "platform/format.h"

#include <cstdio>

namespace zvxfer::plat {

int FormatV(char *buffer, std::size_t size, const char *format, va_list args) {
    if (buffer == nullptr || size == 0) return 0;
    const int wanted = std::vsnprintf(buffer, size, format, args);
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(wanted) < size ? wanted : static_cast<int>(size - 1);
}

int Format(char *buffer, std::size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int written = FormatV(buffer, size, format, args);
    va_end(args);
    return written;
}

} // namespace zvxfer::plat
