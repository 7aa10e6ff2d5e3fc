// ZMODEM frames as a peer puts them on the line, a scripted peer that
// answers what our side writes, and the port on a scripted line that the
// engine tests share.
#pragma once
#include <algorithm>
#include <gtest/gtest.h>
#include <tuple>

#include "fake_clock.h"
#include "port/port.h"
#include "status_log.h"
#include "temp_tree.h"
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
// Bytes `from` to `n` of a pattern holding every value, the escaped ones often.
inline Bytes Pattern(std::size_t n, std::size_t from = 0) {
    Bytes data;
    for (std::size_t i = from; i < n; ++i) data.push_back(static_cast<uint8_t>(i * 7 + i / 256));
    return data;
}
inline Bytes Str(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

// A header whose four data bytes are `position` (ZP0 lowest; ZF0 is ZP3,
// ZF1 is ZP2); format 'A', 'B' (hex) or 'C'.
inline Bytes ZHeader(int type, int32_t position, char format) {
    uint8_t data[4], out[64];
    zm::ZmPutPosition(data, position);
    const std::size_t n = format == 'B' ? zm::ZmFormatHexHeader(out, type, data)
                                        : zm::ZmFormatBinHeader(out, type, data, format == 'C');
    return Bytes(out, out + n);
}
inline Bytes ZSubpacket(const Bytes &data, uint8_t end, bool crc32) {
    Bytes out(zm::kMaxSubpacketWire);
    out.resize(zm::ZmFormatSubpacket(out.data(), data, end, crc32));
    return out;
}
// Hex headers both sides use to answer.
inline Bytes Hex(int type, int32_t position = 0) {
    return ZHeader(type, position, 'B');
}

// Our receiver's ZRINIT, and the frames of a sender: ZFILE with ZF0 and ZF1,
// ZDATA with its subpackets, ZEOF.
inline const Bytes kRinit = Hex(zm::ZRINIT, 0x27000000);
inline Bytes ZFile(const std::string &name, std::size_t size, const char *time, int zf0 = 0,
                   int zf1 = 0) {
    const std::string info = name + '\0' + std::to_string(size) + " " + time + " 0";
    return Cat(ZHeader(zm::ZFILE, zf0 << 24 | zf1 << 16, 'C'),
               ZSubpacket(Str(info), zm::ZCRCW, true));
}
inline Bytes ZData(int32_t position, const std::vector<std::pair<Bytes, uint8_t>> &subpackets) {
    Bytes out = ZHeader(zm::ZDATA, position, 'C');
    for (const auto &[data, end] : subpackets) out = Cat(out, ZSubpacket(data, end, true));
    return out;
}
inline Bytes ZEof(int32_t position) {
    return ZHeader(zm::ZEOF, position, 'C');
}

// Plays the other side from a script: each step waits until our side has
// written its trigger (after what earlier steps matched) and, for an idle
// step, until it also waits (two reads with nothing written between), then
// puts its response on the line (at once, or a set time after it saw the
// trigger).  Runs inside the host's read requests.
class ScriptedPeer {
  public:
    explicit ScriptedPeer(TestHost &host) : host_(host) {
        host_.OnRequest([this](TestHost &h, uintptr_t request) { Advance(h, request); });
    }
    ~ScriptedPeer() { host_.OnRequest(nullptr); }

    void On(Bytes trigger, Bytes response, bool idle = false) {
        steps_.emplace_back(std::move(trigger), std::move(response), idle, 0);
    }
    // The response comes `delayMs` after the trigger was written.
    void OnAfter(uint32_t delayMs, Bytes trigger, Bytes response) {
        steps_.emplace_back(std::move(trigger), std::move(response), false, delayMs);
    }
    std::size_t Pending() const { return steps_.size() - next_; }
    std::vector<std::size_t> idleAt; // bytes written when each idle step answered

  private:
    void Advance(TestHost &h, uintptr_t request) {
        const Bytes written = h.Written();
        const bool fresh = written.size() != seen_;
        seen_ = written.size();
        if (request != PORT_READ) return;
        idleReads_ = fresh ? 0 : idleReads_ + 1;
        for (; next_ < steps_.size(); ++next_) {
            const auto &[trigger, response, idle, delayMs] = steps_[next_];
            const auto from = written.begin() + static_cast<long>(std::min(matched_, seen_));
            const auto at = std::search(from, written.end(), trigger.begin(), trigger.end());
            if ((at == written.end() && !trigger.empty()) || (idle && idleReads_ < 2)) return;
            if (idle) idleAt.push_back(seen_);
            matched_ = static_cast<std::size_t>(at - written.begin()) + trigger.size();
            if (delayMs == 0) h.Receive(response);
            if (delayMs != 0) h.ReceiveAt(h.Now() + delayMs, response);
        }
    }

    TestHost &host_;
    std::vector<std::tuple<Bytes, Bytes, bool, uint32_t>> steps_; // trigger, response, idle, delay
    std::size_t next_ = 0, matched_ = 0, seen_ = 0;
    int idleReads_ = 0;
};

// A port (existing files are overwritten) on a scripted line, a temporary
// folder, and a sleepless clock: the library's waits move it on instead of
// sleeping, and the host notes when each byte was written.
class ZmodemScripted : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        host_.UseClock([this] { return clock_.Now(); });
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

    FakeClock clock_{FakeClock::kSleepless};
    TempTree tree_;
    const std::string folder_ = tree_.Folder();
    TestHost host_;
    ScriptedPeer peer_{host_};
    XferPort *port_ = nullptr;
};

} // namespace zvxfer::test
