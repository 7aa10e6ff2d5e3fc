// A simulated ZMODEM receiver for sender tests.  It lives in a TestHost's
// request hook: at every request it parses what our side has written since
// the last one (headers, data subpackets, stray bytes), answers like a
// receiver, and rebuilds the files from the data subpackets.
//
// ZACKs are held back until the sender shows that it is waiting (two read
// requests in a row with nothing written in between); the data bytes
// written between two such releases are recorded as "bursts", which shows
// how far the sender goes without confirmation.  All other answers are
// queued at once.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "test_host.h"
#include "xmodem/xmodem.h"
#include "zmodem/zmodem.h"
#include "zvxfer.h"

namespace zvxfer::test {

using Bytes = std::vector<uint8_t>;

// One thing found on the wire.
struct WireItem {
    enum Kind { Header, Subpacket, Noise } kind = Noise;
    char format = 0; // header: 'A', 'B' or 'C'
    int type = -1;   // header: frame type
    uint8_t data[4] = {0, 0, 0, 0};
    uint8_t end = 0; // subpacket: end character
    Bytes bytes;     // subpacket data, or the stray bytes
    bool checkOk = false;
    int32_t Pos() const { return ZmGetPosition(data); }
};

// Splits the bytes our sender wrote into headers, subpackets and noise,
// checking every CRC.  Fed the whole written record each time; parses only
// complete items past the last one.
class WireParser {
  public:
    std::vector<WireItem> Feed(const Bytes &wire) {
        std::vector<WireItem> out;
        WireItem item;
        while (ParseOne(wire, item)) out.push_back(std::move(item));
        return out;
    }

  private:
    // One value with the ZDLE escape undone; ends are 0x100 + character.
    static bool Unescape(const Bytes &w, std::size_t &i, int &value) {
        if (i >= w.size()) return false;
        if (w[i] != zm::ZDLE) {
            value = w[i++];
            return true;
        }
        if (i + 1 >= w.size()) return false;
        const uint8_t c = w[i + 1];
        i += 2;
        if (c >= zm::ZCRCE && c <= zm::ZCRCW)
            value = 0x100 | c;
        else if (c == zm::ZRUB0)
            value = 0x7F;
        else if (c == zm::ZRUB1)
            value = 0xFF;
        else
            value = c ^ 0x40;
        return true;
    }

    static int HexDigit(uint8_t c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -100;
    }

    bool ParseSubpacket(const Bytes &w, WireItem &item) {
        std::size_t j = pos_;
        Bytes data;
        int v = 0;
        for (;;) {
            if (!Unescape(w, j, v)) return false;
            if (v & 0x100) break;
            data.push_back(static_cast<uint8_t>(v));
        }
        const auto end = static_cast<uint8_t>(v);
        uint8_t check[4];
        const int checkBytes = crc32_ ? 4 : 2;
        for (int k = 0; k < checkBytes; ++k) {
            if (!Unescape(w, j, v)) return false;
            check[k] = static_cast<uint8_t>(v);
        }
        if (end == zm::ZCRCW) {
            if (j >= w.size()) return false;
            if (w[j] == zm::XON) ++j;
        }
        bool ok;
        if (crc32_) {
            uint32_t crc = Crc32Block(static_cast<uint32_t>(data.size()), 0xFFFFFFFFu, data.data());
            crc = Crc32Update(crc, end);
            for (uint8_t c : check) crc = Crc32Update(crc, c);
            ok = crc == zm::kCrc32Good;
        } else {
            uint16_t crc = Crc16Block(static_cast<uint32_t>(data.size()), 0, data.data());
            crc = Crc16Update(Crc16Update(Crc16Update(crc, end), check[0]), check[1]);
            ok = crc == 0;
        }
        item = WireItem{WireItem::Subpacket, 0, -1, {}, end, std::move(data), ok};
        if (end == zm::ZCRCE || end == zm::ZCRCW) inFrame_ = false;
        pos_ = j;
        return true;
    }

    bool ParseHeader(const Bytes &w, WireItem &item, std::size_t j, char format) {
        uint8_t body[9];
        const int count = format == 'C' ? 9 : 7;
        bool ok = true;
        if (format == 'B') {
            if (j + 14 + 2 > w.size()) return false;
            for (int k = 0; k < 7; ++k) {
                const int value = HexDigit(w[j]) * 16 + HexDigit(w[j + 1]);
                ok = ok && value >= 0;
                body[k] = static_cast<uint8_t>(value);
                j += 2;
            }
            ok = ok && w[j] == '\r' && w[j + 1] == '\n';
            j += 2;
            if (body[0] != zm::ZFIN && body[0] != zm::ZACK) {
                if (j >= w.size()) return false;
                ok = ok && w[j] == zm::XON;
                ++j;
            }
        } else {
            for (int k = 0; k < count; ++k) {
                int v = 0;
                if (!Unescape(w, j, v)) return false;
                ok = ok && v < 0x100;
                body[k] = static_cast<uint8_t>(v);
            }
        }
        if (format == 'C') {
            ok = ok && Crc32Block(9, 0xFFFFFFFFu, body) == zm::kCrc32Good;
        } else {
            ok = ok && Crc16Block(7, 0, body) == 0;
        }
        item = WireItem{
            WireItem::Header, format, body[0], {body[1], body[2], body[3], body[4]}, 0, {}, ok};
        if (item.type == zm::ZDATA || item.type == zm::ZFILE) {
            inFrame_ = true;
            crc32_ = format == 'C';
        }
        pos_ = j;
        return true;
    }

    // ZPAD ZDLE and a format character never occur inside subpacket data
    // (ZDLE is only followed by escaped values and ends there), so a frame
    // that a restart cut short ends where the next header begins.
    bool HeaderStartsAt(const Bytes &w, std::size_t j) const {
        if (j >= w.size() || w[j] != zm::ZPAD) return false;
        while (j < w.size() && w[j] == zm::ZPAD) ++j;
        return j + 1 < w.size() && w[j] == zm::ZDLE && w[j + 1] >= 'A' && w[j + 1] <= 'C';
    }

    bool ParseOne(const Bytes &w, WireItem &item) {
        if (pos_ >= w.size()) return false;
        if (inFrame_ && HeaderStartsAt(w, pos_)) inFrame_ = false;
        if (inFrame_) return ParseSubpacket(w, item);
        std::size_t j = pos_;
        if (w[j] == zm::ZPAD) {
            while (j < w.size() && w[j] == zm::ZPAD) ++j;
            if (j + 2 > w.size()) return false;
            const auto format = static_cast<char>(w[j + 1]);
            if (w[j] == zm::ZDLE && (format == 'A' || format == 'B' || format == 'C'))
                return ParseHeader(w, item, j + 2, format);
        }
        // Stray bytes up to the next ZPAD.
        std::size_t k = j;
        while (k < w.size() && (k == pos_ || w[k] != zm::ZPAD)) ++k;
        item =
            WireItem{WireItem::Noise, 0, -1, {}, 0, Bytes(w.begin() + pos_, w.begin() + k), true};
        pos_ = k;
        return true;
    }

    std::size_t pos_ = 0;
    bool inFrame_ = false;
    bool crc32_ = false;
};

struct ReceiverScript {
    uint8_t flags = zm::kOurRinitFlags; // ZF0 of ZRINIT
    uint16_t bufferLength = 0;          // ZP0/ZP1 of ZRINIT
    std::set<int> skip;                 // files (counted from 0) answered with ZSKIP
    int32_t restartFrom = -1;           // once this much has arrived, ask for...
    int32_t restartTo = -1;             // ...this position (one time)
    int garbage = 0;                    // stray 'x' sent after the first ZDATA header
    int32_t abortFrom = -1;             // once this much has arrived, send ZRINIT
    int32_t lastAckDelta = 0;           // added to the position of the file's last ZACK
    int zfileNaks = 0;                  // answer ZFILE with this many ZNAK headers instead
    bool startAtEnd = false;            // answer ZFILE (and the first ZDATA) with ZRPOS at the size
    std::function<void()> onStart;      // runs when ZRQINIT arrives
};

class SimReceiver {
  public:
    SimReceiver(TestHost &host, ReceiverScript script) : host_(host), script_(std::move(script)) {
        host_.OnRequest([this](TestHost &h, uintptr_t request) { OnRequest(h, request); });
    }
    ~SimReceiver() { host_.OnRequest(nullptr); }

    // Parse what was written after the last request, without answering.
    void Finish() {
        finished_ = true;
        Take(host_.Written());
        if (sinceRelease_ > 0) bursts.push_back(sinceRelease_);
        sinceRelease_ = 0;
    }

    static Bytes Hex(int type, int32_t position) {
        uint8_t data[4];
        ZmPutPosition(data, position);
        return HexData(type, data);
    }
    static Bytes HexData(int type, const uint8_t data[4]) {
        uint8_t out[32];
        return Bytes(out, out + ZmFormatHexHeader(out, type, data));
    }

    std::vector<WireItem> items;    // everything our side wrote, in order
    std::vector<std::string> texts; // ZFILE texts
    std::vector<Bytes> files;       // data received per offered file
    std::vector<int32_t> bursts;    // data bytes written between ZACK releases

  private:
    void OnRequest(TestHost &h, uintptr_t request) {
        const Bytes wire = h.Written();
        const bool fresh = wire.size() != seen_;
        seen_ = wire.size();
        Take(wire);
        if (request != PORT_READ) return;
        idleReads_ = fresh ? 0 : idleReads_ + 1;
        if (idleReads_ >= 2 && !pendingAcks_.empty()) {
            for (const Bytes &ack : pendingAcks_) h.Receive(ack);
            pendingAcks_.clear();
            bursts.push_back(sinceRelease_);
            sinceRelease_ = 0;
        }
    }

    void Take(const Bytes &wire) {
        for (WireItem &item : parser_.Feed(wire)) {
            if (!finished_) Handle(item);
            items.push_back(std::move(item));
        }
    }

    void Send(const Bytes &bytes) { host_.Receive(bytes); }

    void Handle(const WireItem &item) {
        if (item.kind == WireItem::Header) {
            HandleHeader(item);
        } else if (item.kind == WireItem::Subpacket) {
            if (expectName_) {
                HandleName(item);
            } else {
                HandleData(item);
            }
        }
    }

    void HandleHeader(const WireItem &item) {
        switch (item.type) {
        case zm::ZRQINIT: {
            if (script_.onStart) script_.onStart();
            const uint8_t data[4] = {static_cast<uint8_t>(script_.bufferLength),
                                     static_cast<uint8_t>(script_.bufferLength >> 8), 0,
                                     script_.flags};
            Send(HexData(zm::ZRINIT, data));
            break;
        }
        case zm::ZFILE:
            expectName_ = true;
            break;
        case zm::ZDATA:
            accepting_ = item.Pos() == rxPos_;
            if (script_.startAtEnd && !nudged_) {
                nudged_ = true; // a receiver that timed out asks once more
                Send(Hex(zm::ZRPOS, rxPos_));
            }
            if (script_.garbage > 0 && !garbageSent_) {
                garbageSent_ = true;
                Send(Bytes(static_cast<std::size_t>(script_.garbage), 'x'));
            }
            break;
        case zm::ZEOF:
            if (item.Pos() == rxPos_) Send(Hex(zm::ZRINIT, 0x27000000));
            break;
        case zm::ZFIN:
            Send(Hex(zm::ZFIN, 0));
            break;
        default:
            break;
        }
    }

    void HandleName(const WireItem &item) {
        expectName_ = false;
        texts.emplace_back(item.bytes.begin(), item.bytes.end());
        const std::string &text = texts.back();
        fileSize_ = std::atol(text.c_str() + std::min(text.size(), text.find('\0') + 1));
        files.emplace_back();
        rxPos_ = 0;
        if (script_.skip.count(static_cast<int>(files.size()) - 1)) {
            Send(Hex(zm::ZSKIP, 0));
        } else if (script_.zfileNaks > 0) {
            for (int i = 0; i < script_.zfileNaks; ++i) Send(Hex(6, 0));
        } else {
            if (script_.startAtEnd) rxPos_ = static_cast<int32_t>(fileSize_);
            Send(Hex(zm::ZRPOS, rxPos_));
        }
    }

    void HandleData(const WireItem &item) {
        sinceRelease_ += static_cast<int32_t>(item.bytes.size());
        if (!accepting_) return; // stale data after our ZRPOS
        Bytes &file = files.back();
        file.resize(static_cast<std::size_t>(rxPos_));
        file.insert(file.end(), item.bytes.begin(), item.bytes.end());
        rxPos_ += static_cast<int32_t>(item.bytes.size());

        if (script_.restartFrom >= 0 && rxPos_ >= script_.restartFrom && !restarted_) {
            restarted_ = true;
            pendingAcks_.clear();
            rxPos_ = script_.restartTo;
            accepting_ = false;
            Send(Hex(zm::ZRPOS, rxPos_));
            return;
        }
        if (script_.abortFrom >= 0 && rxPos_ >= script_.abortFrom) {
            accepting_ = false;
            Send(Hex(zm::ZRINIT, 0));
            return;
        }
        if (item.end == zm::ZCRCQ || item.end == zm::ZCRCW) {
            const int32_t delta = rxPos_ == fileSize_ ? script_.lastAckDelta : 0;
            pendingAcks_.push_back(Hex(zm::ZACK, rxPos_ + delta));
        } else if (item.end == zm::ZCRCE) {
            Send(Hex(zm::ZRPOS, rxPos_)); // the sender broke the frame off
        }
    }

    TestHost &host_;
    ReceiverScript script_;
    WireParser parser_;
    std::size_t seen_ = 0;
    int idleReads_ = 0;
    std::vector<Bytes> pendingAcks_;
    int32_t sinceRelease_ = 0;
    bool finished_ = false;
    bool expectName_ = false;
    bool accepting_ = false;
    bool garbageSent_ = false;
    bool restarted_ = false;
    bool nudged_ = false;
    int32_t rxPos_ = 0;
    long fileSize_ = -1;
};

} // namespace zvxfer::test
