// Bounded formatting: never writes past `size`, always NUL-terminates
// (when size > 0) and returns the length written.
#pragma once
#include <cstdarg>
#include <cstddef>

namespace zvxfer::plat {

int FormatV(char *buffer, std::size_t size, const char *format, va_list args);
int Format(char *buffer, std::size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace zvxfer::plat
