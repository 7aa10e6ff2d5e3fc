// Escaping line text for the terminal, and cutting the result to a width.
#include "shown_text.h"

#include <cstdint>

namespace zvxfer::cli {
namespace {

constexpr char kHex[] = "0123456789abcdef";

void Escape(std::string &out, uint8_t byte) {
    out += "\\x";
    out += kHex[byte >> 4];
    out += kHex[byte & 15];
}

bool Continuation(uint8_t byte) {
    return (byte & 0xC0) == 0x80;
}

} // namespace

std::size_t Utf8Length(std::string_view text) {
    const auto b0 = static_cast<uint8_t>(text[0]);
    std::size_t length;
    uint32_t value, least;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2, value = b0 & 0x1F, least = 0x80;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3, value = b0 & 0x0F, least = 0x800;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4, value = b0 & 0x07, least = 0x10000;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto b = static_cast<uint8_t>(text[i]);
        if (!Continuation(b)) return 0;
        value = value << 6 | (b & 0x3F);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    return length;
}

namespace {

// Columns and bytes of the unit of shown text at its start: an escape, a
// UTF-8 sequence or a single byte.
struct Unit {
    std::size_t bytes;
    std::size_t columns;
};

Unit UnitAt(std::string_view shown) {
    if (shown[0] == '\\' && shown.size() >= 2) {
        if (shown[1] == 'x' && shown.size() >= 4) return {4, 4};
        return {2, 2};
    }
    const std::size_t length = Utf8Length(shown);
    return {length == 0 ? 1 : length, 1};
}

} // namespace

std::string ShownText(std::string_view line) {
    std::string out;
    out.reserve(line.size());
    for (std::size_t i = 0; i < line.size();) {
        const auto byte = static_cast<uint8_t>(line[i]);
        if (byte == '\\') {
            out += "\\\\";
            ++i;
        } else if (byte < 0x20 || byte == 0x7F) {
            Escape(out, byte);
            ++i;
        } else if (byte < 0x80) {
            out += static_cast<char>(byte);
            ++i;
        } else if (const std::size_t length = Utf8Length(line.substr(i));
                   length == 0 || (byte == 0xC2 && static_cast<uint8_t>(line[i + 1]) < 0xA0)) {
            // Invalid, or a C1 control (U+0080-U+009F, encoded C2 80-C2 9F),
            // which a terminal may take for an escape sequence's start: the
            // first byte alone is escaped and the rest is looked at afresh.
            Escape(out, byte);
            ++i;
        } else {
            out.append(line.substr(i, length));
            i += length;
        }
    }
    return out;
}

std::size_t ShownColumns(std::string_view shown) {
    std::size_t columns = 0;
    for (std::size_t i = 0; i < shown.size();) {
        const Unit unit = UnitAt(shown.substr(i));
        i += unit.bytes;
        columns += unit.columns;
    }
    return columns;
}

std::string_view CutShown(std::string_view shown, std::size_t columns) {
    std::size_t used = 0, end = 0;
    while (end < shown.size()) {
        const Unit unit = UnitAt(shown.substr(end));
        if (used + unit.columns > columns) break;
        used += unit.columns;
        end += unit.bytes;
    }
    return shown.substr(0, end);
}

} // namespace zvxfer::cli
