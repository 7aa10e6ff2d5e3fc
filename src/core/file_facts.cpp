// The file-announcing text both engines send before a file's data.
#include "core/file_facts.h"

#include <climits>
#include <cstdio>
#include <cstring>

namespace zvxfer {

uint32_t FormatFileFacts(std::span<uint8_t> out, const char *name, int32_t size, int32_t modTime) {
    std::memset(out.data(), 0, out.size());
    char facts[40];
    const int factsLength =
        std::snprintf(facts, sizeof facts, "%ld %lo 0", static_cast<long>(size),
                      static_cast<unsigned long>(static_cast<uint32_t>(modTime)));
    uint32_t used = 0;
    auto put = [&](const char *text, std::size_t length) {
        const std::size_t room = out.size() - used;
        const std::size_t n = length < room ? length : room;
        std::memcpy(out.data() + used, text, n);
        used += static_cast<uint32_t>(n);
    };
    put(name, std::strlen(name));
    put("", 1); // the name's terminator travels inside the text
    put(facts, static_cast<std::size_t>(factsLength));
    return used;
}

namespace {

// Next blank-delimited token of `text` (ends at a NUL or the end of `text`).
bool NextToken(std::span<const uint8_t> text, std::size_t &pos, char *token, std::size_t size) {
    while (pos < text.size() && text[pos] == ' ') ++pos;
    std::size_t n = 0;
    while (pos < text.size() && text[pos] != ' ' && text[pos] != 0) {
        if (n + 1 < size) token[n++] = static_cast<char>(text[pos]);
        ++pos;
    }
    token[n] = 0;
    return n > 0;
}

// True when `token` is one or more digits of `base` (10 or 8) and nothing else.
bool AllDigits(const char *token, int base) {
    if (*token == 0) return false;
    for (const char *p = token; *p != 0; ++p)
        if (*p < '0' || *p >= '0' + base) return false;
    return true;
}

// The value of a token of digits in `base` when it fits in 31 bits.
bool ParseWhole(const char *token, int base, int32_t &value) {
    if (!AllDigits(token, base)) return false;
    int64_t v = 0;
    for (const char *p = token; *p != 0; ++p) {
        v = v * base + (*p - '0');
        if (v > INT32_MAX) return false;
    }
    value = static_cast<int32_t>(v);
    return true;
}

} // namespace

FileFacts ParseFileFacts(std::span<const uint8_t> data) {
    FileFacts facts;
    const auto *nul = static_cast<const uint8_t *>(std::memchr(data.data(), 0, data.size()));
    if (!nul) return facts;
    const auto rest = data.subspan(static_cast<std::size_t>(nul - data.data()) + 1);
    std::size_t pos = 0;
    char token[1025]; // a whole ZFILE text fits: a long token is never cut down
    if (!NextToken(rest, pos, token, sizeof token)) return facts;
    // Sizes and times travel in 32-bit fields: a value that does not fit
    // is unknown, never cut down to its low bits.
    if (!ParseWhole(token, 10, facts.size)) {
        facts.size = 0;
        facts.sizeTooLarge = AllDigits(token, 10);
    }
    if (NextToken(rest, pos, token, sizeof token) && !ParseWhole(token, 8, facts.modTime))
        facts.modTime = -1;
    return facts;
}

} // namespace zvxfer
