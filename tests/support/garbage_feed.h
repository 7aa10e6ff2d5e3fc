// A far end that sends bytes which never make a valid frame, for tests of
// how long the engines take to give up.  Once the host has handed over
// everything queued before (a scripted start), every read request of our
// side gets more garbage, never holding the bytes in `never`.
//
// Flood: 97 bytes on every read request.  OnePerSecond: one byte each time
// the clock has passed another second since the garbage began; `prefix`
// goes first in one piece (a block header that then trickles in, say).
// Every read request also moves the clock on by kRequestMs, the time a wait
// round sleeps: waits that poll the line without reading the clock see the
// garbage arrive too.  The feed stops after kFeedLimitMs of simulated time,
// so an engine that does not give up still ends (at its silence limits) and
// the test fails on the time it took instead of hanging.
#pragma once
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "fake_clock.h"
#include "temp_tree.h"
#include "test_host.h"

namespace zvxfer::test {

// A port (existing files are overwritten) into a temporary folder on a
// scripted line, with a clock that moves 100 ms on every tick read.
struct SteppedPort : ::testing::Test {
    SteppedPort() { clock.SetStepPerRead(100); }
    ~SteppedPort() override { port->Ops.PortClose(port); }

    FakeClock clock;
    TempTree tree;
    TestHost host;
    const std::string folder = tree.Folder(); // the port keeps a pointer to it
    XferPort *port = PortOpen(0, host.Window(), folder.c_str(), XFER_EXISTING_OVERWRITE);
};

class GarbageFeed {
  public:
    enum Rate { Flood, OnePerSecond };
    static constexpr uint32_t kFeedLimitMs = 600000;
    static constexpr uint32_t kRequestMs = 5;

    GarbageFeed(TestHost &host, FakeClock &clock, Rate rate, std::set<uint8_t> never,
                std::vector<uint8_t> prefix = {})
        : host_(host), clock_(clock), rate_(rate), never_(std::move(never)),
          prefix_(std::move(prefix)) {
        host_.OnRequest([this](TestHost &h, uintptr_t request) {
            if (request == PORT_READ) Feed(h);
        });
    }
    ~GarbageFeed() { host_.OnRequest(nullptr); }
    GarbageFeed(const GarbageFeed &) = delete;
    GarbageFeed &operator=(const GarbageFeed &) = delete;

    bool Began() const { return began_; }
    uint32_t Started() const { return start_; } // the tick the garbage began
    std::size_t Sent() const { return sent_; }

  private:
    uint8_t Next() {
        uint8_t b;
        do b = static_cast<uint8_t>(random_());
        while (never_.count(b) != 0);
        return b;
    }
    void Feed(TestHost &h) {
        clock_.Advance(kRequestMs);
        const uint32_t now = clock_.Now();
        if (!began_) {
            if (h.Unread() != 0) return; // the scripted start is still being read
            began_ = true;
            start_ = next_ = now;
            h.Receive(prefix_);
            sent_ += prefix_.size();
        }
        if (now - start_ > kFeedLimitMs) return;
        std::vector<uint8_t> bytes;
        if (rate_ == Flood) {
            for (int i = 0; i < 97; ++i) bytes.push_back(Next());
        } else if (static_cast<int32_t>(now - next_) >= 0) {
            bytes.push_back(Next());
            next_ = now + 1000;
        }
        h.Receive(bytes);
        sent_ += bytes.size();
    }

    TestHost &host_;
    FakeClock &clock_;
    Rate rate_;
    std::set<uint8_t> never_;
    std::vector<uint8_t> prefix_;
    std::mt19937 random_{20240601};
    bool began_ = false;
    uint32_t start_ = 0, next_ = 0;
    std::size_t sent_ = 0;
};

} // namespace zvxfer::test
