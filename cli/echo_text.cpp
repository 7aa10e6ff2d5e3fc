// Escaping the far end's echo for the terminal.
#include "echo_text.h"

#include <string_view>

#include "shown_text.h"

namespace zvxfer::cli {
namespace {

bool KeepsMeaning(char c) {
    return c == '\r' || c == '\n' || c == '\t';
}

// Bytes at the end of `text` that start a UTF-8 sequence not yet complete:
// a lead byte followed by fewer continuation bytes than it announces.
std::size_t OpenSequence(std::string_view text) {
    const std::size_t look = text.size() < 3 ? text.size() : 3;
    for (std::size_t back = 1; back <= look; ++back) {
        const auto byte = static_cast<uint8_t>(text[text.size() - back]);
        if ((byte & 0xC0) == 0x80) continue; // a continuation byte: look further back
        std::size_t length = 0;
        if (byte >= 0xC2 && byte <= 0xDF)
            length = 2;
        else if (byte >= 0xE0 && byte <= 0xEF)
            length = 3;
        else if (byte >= 0xF0 && byte <= 0xF4)
            length = 4;
        return length > back ? back : 0;
    }
    return 0;
}

} // namespace

std::string ShownEcho(const std::string &bytes) {
    std::string out;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= bytes.size(); ++i) {
        if (i < bytes.size() && !KeepsMeaning(bytes[i])) continue;
        out += ShownText(std::string_view(bytes).substr(start, i - start));
        if (i < bytes.size()) out += bytes[i];
        start = i + 1;
    }
    return out;
}

std::string EchoText::Take(bool final) {
    const std::size_t held = final ? 0 : OpenSequence(pending_);
    const std::string ready = pending_.substr(0, pending_.size() - held);
    pending_.erase(0, pending_.size() - held);
    return ShownEcho(ready);
}

} // namespace zvxfer::cli
