// ZMODEM frames as a peer puts them on the line, and a scripted peer that
// answers what our side writes, for the engine tests.
#pragma once
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "test_host.h"
#include "zmodem/zmodem.h"

namespace zvxfer::test {

using Bytes = std::vector<uint8_t>;

template <typename... Parts>
Bytes Cat(const Parts &...parts) {
    Bytes out;
    (out.insert(out.end(), parts.begin(), parts.end()), ...);
    return out;
}

inline Bytes Str(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

// A header with four data bytes; format 'A', 'B' (hex) or 'C'.
inline Bytes ZHeader(int type, const uint8_t data[4], char format) {
    uint8_t out[64];
    const std::size_t n = format == 'B' ? ZmFormatHexHeader(out, type, data)
                                        : ZmFormatBinHeader(out, type, data, format == 'C');
    return Bytes(out, out + n);
}
inline Bytes ZHeader(int type, std::initializer_list<uint8_t> data, char format) {
    const uint8_t d[4] = {data.begin()[0], data.begin()[1], data.begin()[2], data.begin()[3]};
    return ZHeader(type, d, format);
}
// A header carrying a file position.
inline Bytes ZPosHeader(int type, int32_t position, char format) {
    uint8_t d[4];
    ZmPutPosition(d, position);
    return ZHeader(type, d, format);
}

inline Bytes ZSubpacket(const Bytes &data, uint8_t end, bool crc32) {
    Bytes out(zm::kMaxSubpacketWire);
    out.resize(ZmFormatSubpacket(out.data(), data, end, crc32));
    return out;
}

// Plays the other side from a script: each step waits until our side has
// written its trigger (after what earlier steps matched), then puts its
// response on the line.  Runs inside the host's read requests.
class ScriptedPeer {
  public:
    struct Step {
        Bytes trigger;
        Bytes response;
    };

    explicit ScriptedPeer(TestHost &host) : host_(host) {
        host_.OnRequest([this](TestHost &h, uintptr_t request) {
            if (request == PORT_READ) Advance(h);
        });
    }
    ~ScriptedPeer() { host_.OnRequest(nullptr); }

    void On(Bytes trigger, Bytes response) {
        steps_.push_back({std::move(trigger), std::move(response)});
    }
    // Steps whose trigger never came.
    std::size_t Pending() const { return steps_.size() - next_; }

  private:
    void Advance(TestHost &h) {
        while (next_ < steps_.size()) {
            const Bytes written = h.Written();
            const Step &step = steps_[next_];
            const auto from =
                written.begin() + static_cast<long>(std::min(matched_, written.size()));
            const auto at =
                std::search(from, written.end(), step.trigger.begin(), step.trigger.end());
            if (at == written.end() && !step.trigger.empty()) return;
            matched_ = static_cast<std::size_t>(at - written.begin()) + step.trigger.size();
            h.Receive(step.response);
            ++next_;
        }
    }

    TestHost &host_;
    std::vector<Step> steps_;
    std::size_t next_ = 0;
    std::size_t matched_ = 0;
};

} // namespace zvxfer::test
