#include "term_detect.h"

#include <algorithm>

namespace zvxfer::cli {
namespace {

constexpr uint8_t kSoh = 0x01;
constexpr uint8_t kEnq = 0x05;
constexpr uint8_t kDle = 0x10;
constexpr uint8_t kZdle = 0x18;

// '*' '*' ZDLE 'B', two digits of type, eight of data, four of CRC.
constexpr std::size_t kHexHeaderLength = 18;

// The bytes that can begin a start: everything else is shown at once.
bool MayBegin(uint8_t b) {
    return b == '*' || b == kSoh || b == kEnq || b == kDle;
}

int HexValue(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1; // ZMODEM writes lower case only, and its readers take nothing else
}

uint16_t Crc16(uint16_t crc, uint8_t byte) {
    crc = static_cast<uint16_t>(crc ^ (byte << 8));
    for (int bit = 0; bit < 8; ++bit)
        crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
    return crc;
}

enum class Match { No, Prefix, Whole };

// A ZRQINIT or ZRINIT hex header: `sender` and `receiver` say which of the
// two types may follow.  On Whole, `type` is the frame type read.
Match HexHeader(const std::vector<uint8_t> &h, bool sender, bool receiver, int &type) {
    static constexpr uint8_t kLead[] = {'*', '*', kZdle, 'B', '0'};
    const std::size_t n = std::min(h.size(), kHexHeaderLength);
    for (std::size_t i = 0; i < n; ++i) {
        if (i < sizeof kLead) {
            if (h[i] != kLead[i]) return Match::No;
        } else if (i == 5) {
            if (!((h[i] == '0' && sender) || (h[i] == '1' && receiver))) return Match::No;
        } else if (HexValue(h[i]) < 0) {
            return Match::No;
        }
    }
    if (h.size() < kHexHeaderLength) return Match::Prefix;
    if (h.size() > kHexHeaderLength) return Match::No; // a whole one ends here
    // Type, four data bytes and the two CRC bytes: the CRC over all seven is 0.
    uint16_t crc = 0;
    for (std::size_t i = 4; i < kHexHeaderLength; i += 2)
        crc = Crc16(crc, static_cast<uint8_t>(HexValue(h[i]) * 16 + HexValue(h[i + 1])));
    if (crc != 0) return Match::No;
    type = h[5] - '0';
    return Match::Whole;
}

// A Kermit send-init packet in the normal form with a right type-1 check.
Match KermitInit(const std::vector<uint8_t> &p) {
    auto printable = [](uint8_t c) { return c >= 0x20 && c <= 0x7E; };
    if (p[0] != kSoh) return Match::No;
    if (p.size() < 2) return Match::Prefix;
    // LEN counts SEQ, TYPE, data and the one check character: 3 at least; a
    // blank LEN (the long form) is not used for a send-init.
    if (p[1] < '#' || p[1] > '~') return Match::No;
    const std::size_t total = 2 + (p[1] - 32u);
    if (p.size() >= 3 && p[2] != ' ') return Match::No;
    if (p.size() >= 4 && p[3] != 'S') return Match::No;
    const std::size_t upto = std::min(p.size(), total);
    for (std::size_t i = 4; i < upto; ++i)
        if (!printable(p[i])) return Match::No;
    if (p.size() < total) return Match::Prefix;
    if (p.size() > total) return Match::No; // a whole one ends here
    unsigned sum = 0;
    for (std::size_t i = 1; i + 1 < total; ++i) sum += p[i];
    const unsigned check = (sum + ((sum & 192) >> 6)) & 63;
    return p[total - 1] == check + 32 ? Match::Whole : Match::No;
}

// What the held run `h` is: no start's beginning, a proper prefix of an
// enabled start, or a whole one (its kind in `kind`).
Match Classify(const std::vector<uint8_t> &h, StartSet enabled, StartKind &kind) {
    switch (h[0]) {
    case '*': {
        const bool sender = enabled.Has(StartKind::ZmodemSender);
        const bool receiver = enabled.Has(StartKind::ZmodemReceiver);
        if (!sender && !receiver) return Match::No;
        int type = 0;
        const Match m = HexHeader(h, sender, receiver, type);
        if (m == Match::Whole)
            kind = type == 0 ? StartKind::ZmodemSender : StartKind::ZmodemReceiver;
        return m;
    }
    case kSoh:
        if (!enabled.Has(StartKind::KermitSendInit)) return Match::No;
        kind = StartKind::KermitSendInit;
        return KermitInit(h);
    case kEnq:
        if (!enabled.Has(StartKind::BPlusEnquiry) || h.size() != 1) return Match::No;
        kind = StartKind::BPlusEnquiry;
        return Match::Whole;
    case kDle:
        if (!enabled.Has(StartKind::BPlusPacket)) return Match::No;
        if (h.size() == 1) return Match::Prefix;
        if (h.size() != 2 || h[1] != 'B') return Match::No;
        kind = StartKind::BPlusPacket;
        return Match::Whole;
    default:
        return Match::No;
    }
}

} // namespace

const char *StartKindName(StartKind kind) {
    switch (kind) {
    case StartKind::ZmodemSender:
        return "zmodem-sender";
    case StartKind::ZmodemReceiver:
        return "zmodem-receiver";
    case StartKind::KermitSendInit:
        return "kermit";
    case StartKind::BPlusEnquiry:
        return "bplus-enq";
    case StartKind::BPlusPacket:
        return "bplus";
    }
    return "?";
}

std::optional<StartKind> StartDetector::Settle(std::vector<uint8_t> &show) {
    while (!held_.empty()) {
        StartKind kind{};
        switch (Classify(held_, enabled_, kind)) {
        case Match::Prefix:
            return std::nullopt;
        case Match::Whole:
            return kind;
        case Match::No:
            // The first byte begins no start; a start may still begin at
            // one of the held bytes after it.
            show.push_back(held_.front());
            held_.erase(held_.begin());
            while (!held_.empty() && !MayBegin(held_.front())) {
                show.push_back(held_.front());
                held_.erase(held_.begin());
            }
            break;
        }
    }
    return std::nullopt;
}

StartDetector::Outcome StartDetector::Feed(const uint8_t *data, std::size_t length) {
    Outcome out;
    out.show.reserve(length + held_.size());
    std::size_t i = 0;
    while (i < length) {
        if (held_.empty()) {
            // Plain output runs straight through.
            const std::size_t from = i;
            while (i < length && !MayBegin(data[i])) ++i;
            out.show.insert(out.show.end(), data + from, data + i);
            if (i == length) break;
        }
        held_.push_back(data[i++]);
        if (auto kind = Settle(out.show)) {
            out.start = kind;
            out.startBytes.swap(held_);
            held_.clear();
            out.after.assign(data + i, data + length);
            break;
        }
    }
    return out;
}

std::vector<uint8_t> StartDetector::Flush() {
    std::vector<uint8_t> out;
    out.swap(held_);
    return out;
}

std::vector<uint8_t> StartDetector::SetEnabled(StartSet enabled) {
    enabled_ = enabled;
    // A held run is a proper prefix; fewer enabled starts may leave bytes
    // that no start can take now, and those are let go.  (A held run cannot
    // have become a whole start: whether it is one does not depend on the
    // other kinds, and it would have been reported when its last byte came.)
    std::vector<uint8_t> show;
    Settle(show);
    return show;
}

} // namespace zvxfer::cli
