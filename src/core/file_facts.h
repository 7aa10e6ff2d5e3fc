// The text that announces a file before its data: YMODEM's block 0 and
// ZMODEM's ZFILE subpacket carry the same "name\0size octal-time 0" (size
// in decimal, modification time in octal seconds since 1970).
#pragma once
#include <cstdint>
#include <span>

namespace zvxfer {

// Write "name\0size octal-time 0" into `out`, cut at its end; the rest of
// `out` is cleared.  Returns the bytes of text written (at most out.size()).
uint32_t FormatFileFacts(std::span<uint8_t> out, const char *name, int32_t size, int32_t modTime);

struct FileFacts {
    int32_t size = 0;          // 0 when unknown: missing, not a number, or too large
    int32_t modTime = -1;      // -1 when unknown: missing, not a number, or too large
    bool sizeTooLarge = false; // the size was a number beyond 2^31 - 1
};
// Read the size (decimal) and time (octal) tokens after the name's NUL.
// Only plain digits count; a value that does not fit in 31 bits is unknown.
FileFacts ParseFileFacts(std::span<const uint8_t> text);

} // namespace zvxfer
