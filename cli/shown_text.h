// Text that came from the line (file names, the library's notices, the far
// end's messages) made safe to print on the user's terminal: no byte of it
// can move the cursor, change the title, clear the screen or start any
// other escape sequence.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace zvxfer::cli {

// Line text as shown text: bytes 0x00-0x1F and 0x7F, C1 controls (U+0080 to
// U+009F) and every byte that is not part of a valid UTF-8 sequence become
// "\xNN" (lower-case hex); a backslash becomes "\\".  Valid UTF-8 stays as
// it is, so "é" or CJK names read normally.
std::string ShownText(std::string_view line);

// Length of the valid UTF-8 sequence at the start of `text` (not empty), 0
// when the bytes there are not one: a stray continuation byte, a truncated
// sequence, an overlong form, a surrogate or a value past U+10FFFF.
std::size_t Utf8Length(std::string_view text);

// Columns shown text takes: one per code point (an escape "\xNN" is four,
// "\\" two).  Wide characters count as one; good enough for a status line.
std::size_t ShownColumns(std::string_view shown);

// Shown text cut to at most `columns` columns, on a code-point boundary and
// never inside an escape.
std::string_view CutShown(std::string_view shown, std::size_t columns);

} // namespace zvxfer::cli
