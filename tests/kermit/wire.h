// Kermit packets as the line carries them, framed and taken apart here on
// their own so that the tests check the wire and not the engine's packet
// layer against itself; and the debug lines a test can look for.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::wire {

inline char ToChar(int x) {
    return static_cast<char>(x + 32);
}
inline int Unchar(char c) {
    return static_cast<unsigned char>(c) - 32;
}
inline unsigned Sum(std::string_view s) {
    unsigned sum = 0;
    for (unsigned char c : s) sum += c;
    return sum;
}
inline char Chk1(std::string_view s) {
    const unsigned sum = Sum(s);
    return ToChar(static_cast<int>((sum + ((sum & 192) >> 6)) & 63));
}
// The Kermit CRC one bit at a time (reflected 0x1021, initial 0).
inline unsigned BitCrc(std::string_view s) {
    unsigned crc = 0;
    for (unsigned char c : s) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0x8408 : crc >> 1;
    }
    return crc;
}
inline std::string CheckChars(std::string_view s, int type) {
    if (type == 1) return std::string(1, Chk1(s));
    if (type == 2) {
        const int v = static_cast<int>(Sum(s) & 0xFFF);
        return {ToChar(v >> 6), ToChar(v & 63)};
    }
    const int v = static_cast<int>(BitCrc(s));
    return {ToChar(v >> 12), ToChar((v >> 6) & 63), ToChar(v & 63)};
}

// MARK through CR; the long form whenever the length does not fit LEN.
inline std::string Frame(char type, int seq, std::string_view data, int check = 1,
                         bool longForm = false) {
    const int n = static_cast<int>(data.size()) + check;
    std::string body;
    if (!longForm && n + 2 < 95) {
        body = {ToChar(n + 2), ToChar(seq), type};
    } else {
        body = {' ', ToChar(seq), type, ToChar(n / 95), ToChar(n % 95)};
        body += Chk1(body);
    }
    body += data;
    return "\x01" + body + CheckChars(body, check) + "\r";
}

struct Packet {
    char type;
    int seq;
    std::string data;
    bool checked; // the block check of type `check` was right
};

// The next whole packet in `line` from `at` on, read with block check
// `check`; false when no whole packet is there yet.
inline bool NextPacket(std::string_view line, std::size_t &at, int check, Packet &out) {
    const std::size_t mark = line.find('\x01', at);
    if (mark == std::string_view::npos || mark + 2 > line.size()) return false;
    const int len = Unchar(line[mark + 1]);
    if (len == 0 && mark + 7 > line.size()) return false;
    const std::size_t head = len == 0 ? 7 : 4;
    const std::size_t total =
        len == 0
            ? head + static_cast<std::size_t>(Unchar(line[mark + 4]) * 95 + Unchar(line[mark + 5]))
            : 2 + static_cast<std::size_t>(len);
    if (mark + total + 1 > line.size()) return false;
    const std::size_t dataLength = total - head - static_cast<std::size_t>(check);
    const std::string_view checked = line.substr(mark + 1, head - 1 + dataLength);
    out = {line[mark + 3], Unchar(line[mark + 2]),
           std::string(line.substr(mark + head, dataLength)),
           line.substr(mark + head + dataLength, static_cast<std::size_t>(check)) ==
                   CheckChars(checked, check) &&
               line[mark + total] == '\r'};
    at = mark + total + 1;
    return true;
}

// The type letters of every packet in `line` (block check type 1).
inline std::string Types(std::string_view line) {
    std::string types;
    Packet p;
    for (std::size_t at = 0; NextPacket(line, at, 1, p);) types += p.type;
    return types;
}

// Collects the library's debug lines, without their time stamps, while it
// lives.
class Traces {
  public:
    Traces() {
        Lines().clear();
        ZvSetDebugOutput([](const char *text) {
            const std::string line(text);
            Lines().push_back(line.size() > 13 ? line.substr(13) : line);
        });
    }
    ~Traces() { ZvSetDebugOutput(nullptr); }
    Traces(const Traces &) = delete;
    Traces &operator=(const Traces &) = delete;
    static std::vector<std::string> &Lines() {
        static std::vector<std::string> lines;
        return lines;
    }
    static bool Has(std::string_view line) {
        return std::find(Lines().begin(), Lines().end(), line) != Lines().end();
    }
    static bool HasPrefix(std::string_view prefix) {
        return std::any_of(Lines().begin(), Lines().end(),
                           [&](const std::string &l) { return l.starts_with(prefix); });
    }
    static void Clear() { Lines().clear(); }
};

} // namespace zvxfer::wire
