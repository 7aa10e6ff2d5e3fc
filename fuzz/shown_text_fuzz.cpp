// Fuzz target: the program's escaping of line text for the terminal, and
// the cut of escaped text to a width.
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "shown_text.h"

using zvxfer::cli::CutShown;
using zvxfer::cli::ShownColumns;
using zvxfer::cli::ShownText;

namespace {

// Length of the well-formed UTF-8 sequence at `s` by the table of allowed
// byte ranges (first byte, then the range of the second), 0 when there is
// none.
std::size_t WellFormed(std::string_view s) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto in = [](unsigned char b, unsigned lo, unsigned hi) { return b >= lo && b <= hi; };
    const unsigned char b0 = at(0);
    std::size_t n = 0;
    unsigned lo = 0x80, hi = 0xBF;
    if (in(b0, 0xC2, 0xDF))
        n = 2;
    else if (b0 == 0xE0)
        n = 3, lo = 0xA0;
    else if (in(b0, 0xE1, 0xEC) || in(b0, 0xEE, 0xEF))
        n = 3;
    else if (b0 == 0xED)
        n = 3, hi = 0x9F;
    else if (b0 == 0xF0)
        n = 4, lo = 0x90;
    else if (in(b0, 0xF1, 0xF3))
        n = 4;
    else if (b0 == 0xF4)
        n = 4, hi = 0x8F;
    if (n == 0 || s.size() < n || !in(at(1), lo, hi)) return 0;
    for (std::size_t i = 2; i < n; ++i)
        if (!in(at(i), 0x80, 0xBF)) return 0;
    return n;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Shown text back to the line text it came from; false when the text holds
// a broken escape (a cut inside one).
bool Unescape(std::string_view shown, std::string &line) {
    for (std::size_t i = 0; i < shown.size(); ++i) {
        if (shown[i] != '\\') {
            line += shown[i];
            continue;
        }
        if (i + 1 < shown.size() && shown[i + 1] == '\\') {
            line += '\\';
            ++i;
            continue;
        }
        if (i + 3 >= shown.size() || shown[i + 1] != 'x') return false;
        const int high = HexValue(shown[i + 2]), low = HexValue(shown[i + 3]);
        if (high < 0 || low < 0) return false;
        line += static_cast<char>(high * 16 + low);
        i += 3;
    }
    return true;
}

// Nothing a terminal acts on: printable ASCII and well-formed UTF-8 with
// no C1 control.
void CheckHarmless(std::string_view shown) {
    for (std::size_t i = 0; i < shown.size();) {
        const auto b = static_cast<unsigned char>(shown[i]);
        if (b < 0x80) {
            ZVXFER_FUZZ_CHECK(b >= 0x20 && b != 0x7F);
            ++i;
            continue;
        }
        const std::size_t n = WellFormed(shown.substr(i));
        ZVXFER_FUZZ_CHECK(n != 0);
        ZVXFER_FUZZ_CHECK(!(b == 0xC2 && static_cast<unsigned char>(shown[i + 1]) < 0xA0));
        i += n;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char *>(data), size);
    const std::string shown = ShownText(line);
    CheckHarmless(shown);
    // Nothing is lost: the escapes say exactly which bytes came.
    std::string back;
    ZVXFER_FUZZ_CHECK(Unescape(shown, back) && back == line);

    const std::size_t columns = ShownColumns(shown);
    ZVXFER_FUZZ_CHECK(CutShown(shown, columns) == shown);
    for (std::size_t width = 0; width < columns && width < 64; ++width) {
        const std::string_view cut = CutShown(shown, width);
        ZVXFER_FUZZ_CHECK(shown.starts_with(cut));
        const std::size_t used = ShownColumns(cut);
        // Within the width, and short of it by less than the widest unit.
        ZVXFER_FUZZ_CHECK(used <= width && used + 4 > width);
        CheckHarmless(cut);
        std::string prefix;
        ZVXFER_FUZZ_CHECK(Unescape(cut, prefix) && line.starts_with(prefix));
    }
    return 0;
}
