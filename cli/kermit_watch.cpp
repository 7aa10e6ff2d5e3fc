// Finding Kermit packets in the line's bytes and keeping the score of the
// exchange.  The packets read are judged the way the engine reads them: a
// packet whose block check fails is line noise and means nothing.
#include "kermit_watch.h"

#include <algorithm>
#include <cstring>

#include "i18n.h"
#include "shown_text.h"

namespace zvxfer::cli {
namespace {

constexpr uint8_t kMark = 0x01;

int Unchar(uint8_t c) {
    return static_cast<int>(c) - 32;
}

uint32_t Sum(const uint8_t *p, std::size_t n) {
    uint32_t s = 0;
    for (std::size_t i = 0; i < n; ++i) s += p[i];
    return s;
}

uint32_t Check1(const uint8_t *p, std::size_t n) {
    const uint32_t s = Sum(p, n);
    return (s + ((s & 192) >> 6)) & 63;
}

uint32_t Crc(const uint8_t *p, std::size_t n) {
    uint32_t crc = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const uint32_t c = p[i];
        uint32_t q = (crc ^ c) & 15;
        crc = (crc >> 4) ^ (q * 4225);
        q = (crc ^ (c >> 4)) & 15;
        crc = (crc >> 4) ^ (q * 4225);
    }
    return crc & 0xFFFF;
}

} // namespace

KermitWatch::KermitWatch(bool sending) : sending_(sending) {}

void KermitWatch::Written(const uint8_t *data, std::size_t length) {
    Feed(ours_, true, data, length);
}

void KermitWatch::Read(const uint8_t *data, std::size_t length) {
    Feed(theirs_, false, data, length);
}

// Bytes outside a packet are skipped up to the next MARK; once the length
// is known the rest of the packet is copied in one piece.  A header whose
// length cannot be a packet's is dropped, and the search for a MARK goes on
// with the characters after the one that started it.
void KermitWatch::Feed(Framer &f, bool ours, const uint8_t *data, std::size_t length) {
    while (length > 0) {
        if (f.count == 0) {
            const auto *mark = static_cast<const uint8_t *>(std::memchr(data, kMark, length));
            if (mark == nullptr) return;
            length -= static_cast<std::size_t>(mark - data) + 1;
            data = mark + 1;
            f.packet[0] = kMark;
            f.count = 1;
            f.total = 0;
            continue;
        }
        if (f.total == 0) {
            f.packet[f.count++] = *data++;
            --length;
            bool bad = false;
            if (f.count == 2) {
                const int len = Unchar(f.packet[1] & 0x7F);
                if (len >= 3)
                    f.total = static_cast<std::size_t>(len) + 2;
                else
                    bad = len != 0;
            } else if (f.count == 6) {
                const int x1 = Unchar(f.packet[4] & 0x7F), x2 = Unchar(f.packet[5] & 0x7F);
                if (x1 < 0 || x2 < 0)
                    bad = true;
                else
                    f.total = static_cast<std::size_t>(x1 * 95 + x2) + 7;
            }
            if (bad) {
                uint8_t rest[6];
                const std::size_t kept = f.count - 1;
                std::memcpy(rest, f.packet.data() + 1, kept);
                f.count = 0;
                Feed(f, ours, rest, kept);
                continue;
            }
        } else {
            // A D packet's data never changes the verdict: once its type
            // is stored, the rest is counted past.
            const std::size_t take = std::min(f.total - f.count, length);
            if (f.count < 4 || f.packet[3] != 'D')
                std::memcpy(f.packet.data() + f.count, data, take);
            f.count += take;
            data += take;
            length -= take;
        }
        if (f.total != 0 && f.count >= f.total) {
            Frame(f, ours);
            f.count = 0;
        }
    }
}

bool KermitWatch::CheckOk(const uint8_t *p, std::size_t checked, const uint8_t *check,
                          int type) const {
    switch (type) {
    case 1:
        return static_cast<uint32_t>(Unchar(check[0])) == Check1(p, checked);
    case 2:
        return static_cast<uint32_t>(Unchar(check[0]) * 64 + Unchar(check[1])) ==
               (Sum(p, checked) & 4095);
    default:
        return (static_cast<uint32_t>(Unchar(check[0]) * 4096 + Unchar(check[1]) * 64 +
                                      Unchar(check[2])) &
                0xFFFF) == Crc(p, checked);
    }
}

// The packets read are checked with the type the engine uses at that point
// (type 1 until the S has been acknowledged); the packets written cannot
// have been damaged, so any type that fits will do.  D packets are passed
// over unchecked: whole or damaged, they decide nothing here, and they are
// nearly all of the bytes.
void KermitWatch::Frame(const Framer &f, bool ours) {
    const uint8_t *p = f.packet.data();
    if (f.total < 5 || p[3] == 'D') return;
    const int len = Unchar(p[1] & 0x7F);
    std::size_t dataAt, field;
    if (len != 0) {
        dataAt = 4;
        field = static_cast<std::size_t>(len) - 2;
    } else {
        if (f.total < 7 || static_cast<uint32_t>(Unchar(p[6])) != Check1(p + 1, 5)) return;
        dataAt = 7;
        field = f.total - 7;
    }
    const int expected = initDone_ ? check_ : 1;
    const int order[3] = {expected, expected == 1 ? 3 : 1, expected == 2 ? 3 : 2};
    for (int i = 0; i < (ours ? 3 : 1); ++i) {
        const int type = order[i];
        if (field < static_cast<std::size_t>(type)) continue;
        const std::size_t length = field - static_cast<std::size_t>(type);
        if (!CheckOk(p + 1, dataAt + length - 1, p + dataAt + length, type)) continue;
        Packet(ours, static_cast<char>(p[3]), Unchar(p[2]), p + dataAt, length);
        return;
    }
}

void KermitWatch::Packet(bool ours, char type, int seq, const uint8_t *data, std::size_t length) {
    const bool fromSender = ours == sending_;
    // The check type both ends use after the S and its answer: the one the
    // S asked for when the answer names the same one, else type 1.
    if (type == 'S' && fromSender && !initDone_) {
        initCheck_ = length >= 8 ? static_cast<char>(data[7]) : '1';
    } else if (type == 'Y' && seq == 0 && !fromSender && initCheck_ && !initDone_) {
        const char answer = length >= 8 ? static_cast<char>(data[7]) : '1';
        check_ = (answer == *initCheck_ && answer >= '1' && answer <= '3') ? answer - '0' : 1;
        initDone_ = true;
    }
    if (type == 'E') {
        std::optional<std::string> &error = ours ? ourError_ : theirError_;
        if (!error) error.emplace(reinterpret_cast<const char *>(data), length);
        return;
    }
    if (fromSender) {
        switch (type) {
        case 'F': // a repeated F (its answer was lost) is the same file
            if (!file_ || file_->fileSeq != seq || file_->endSeq >= 0) {
                file_ = File{seq};
                ++started_;
            }
            break;
        case 'Z':
            if (file_ && !file_->done) {
                file_->endSeq = seq;
                file_->discard = length >= 1 && data[0] == 'D';
            }
            break;
        case 'B':
            batchSeq_ = seq;
            break;
        default:
            break;
        }
        return;
    }
    if (type != 'Y') return;
    if (file_ && !file_->done && file_->endSeq == seq) {
        file_->done = true;
        ++(file_->discard ? discarded_ : completed_);
    }
    if (batchSeq_ >= 0 && batchSeq_ == seq) batchEnded_ = true;
}

KermitWatch::Verdict KermitWatch::Judge(int names) const {
    Verdict v;
    v.files = completed_;
    if (theirError_) {
        v.why =
            fmt::format(F_("the other end stopped with the error: {}"), ShownText(*theirError_));
    } else if (ourError_) {
        v.why = fmt::format(F_("stopped with the error: {}"), ShownText(*ourError_));
    } else if (!batchEnded_) {
        v.why = _("the exchange ended before the end of the batch");
    } else if (discarded_ > 0) {
        v.why = fmt::format(P_("{} file discarded", "{} files discarded", discarded_), discarded_);
    } else if (completed_ < started_) {
        const int unfinished = started_ - completed_;
        v.why = fmt::format(P_("{} file not finished", "{} files not finished", unfinished),
                            unfinished);
    } else if (completed_ == 0) {
        v.why = sending_ ? _("no file was sent") : _("no file was received");
    } else if (sending_ && completed_ < names) {
        v.why = fmt::format(P_("{} of {} file sent: the others are not readable files",
                               "{} of {} files sent: the others are not readable files", names),
                            completed_, names);
    } else {
        v.ok = true;
    }
    return v;
}

} // namespace zvxfer::cli
