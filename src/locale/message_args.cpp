// Checking a message text's printf conversions against the arguments its
// users pass.
#include "locale/message_args.h"

#include <algorithm>
#include <cctype>

namespace zvxfer {

namespace {

constexpr std::string_view kFlags = "-+ #0'";
constexpr std::string_view kLengths = "hlLqjzt";
constexpr std::string_view kLetters = "diouxXeEfFgGaAcsp";

} // namespace

const std::string_view *ExpectedConversions(int32_t number) {
    auto it = std::find_if(kMessageArguments.begin(), kMessageArguments.end(),
                           [number](const MessageArguments &m) { return m.number == number; });
    return it == kMessageArguments.end() ? nullptr : &it->conversions;
}

std::string FormatConversions(std::string_view format) {
    std::string out;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        if (++i < format.size() && format[i] == '%') continue;
        while (i < format.size() && kFlags.find(format[i]) != std::string_view::npos) ++i;
        bool unsupported = false;
        // Width and precision: digits are fine; '*' takes an argument and a
        // digit string ended by '$' is a positional argument.
        while (i < format.size() && (std::isdigit(static_cast<unsigned char>(format[i])) ||
                                     format[i] == '.' || format[i] == '*' || format[i] == '$')) {
            unsupported |= format[i] == '*' || format[i] == '$';
            ++i;
        }
        std::size_t start = i;
        while (i < format.size() && kLengths.find(format[i]) != std::string_view::npos) ++i;
        if (i >= format.size() || kLetters.find(format[i]) == std::string_view::npos)
            unsupported = true;
        out += unsupported ? std::string("?") : std::string(format.substr(start, i - start + 1));
    }
    return out;
}

bool TextFitsArguments(int32_t number, std::string_view text) {
    const std::string_view *expected = ExpectedConversions(number);
    return FormatConversions(text) == (expected != nullptr ? *expected : std::string_view{});
}

} // namespace zvxfer
