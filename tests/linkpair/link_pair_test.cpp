// The simulated line and what runs on it: the line model in simulated time
// (rate, latency, bit errors, drops, the sender's limits, replay from a
// seed); two ends on two threads exchanging bytes through real ports
// (both ways at once, noise, hang-up, the deadline).  The two-process
// relay: relay_test.cpp.
#include <atomic>
#include <bit>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "link_pair.h"
#include "port/port.h"
#include "sim_line.h"

namespace zvxfer::host {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(std::size_t n, uint8_t salt = 7) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 13 + salt + (i >> 8));
    return v;
}

// Send `send` and receive `expect` bytes at the same time: each round offers
// the next block (the line may take part) and takes what arrived; a round
// without progress waits in the thread's message wait, which the end wakes
// when bytes arrive or the full line has room again.  Ends on a lost line,
// a stop from the idle hook, or many idle rounds.
int32_t Exchange(XferPort *port, const Bytes &send, std::size_t expect, Bytes &received) {
    std::size_t sent = 0;
    for (int idle = 0; (sent < send.size() || received.size() < expect) && idle < 400;) {
        std::size_t moved = 0;
        if (const auto len =
                static_cast<uint32_t>(std::min<std::size_t>(4096, send.size() - sent))) {
            const int32_t w = port->Ops.WriteBuffer(port, send.data() + sent, len);
            if (w != 0 && w != PortBufferFull) return w;
            sent += moved = w == 0 ? len : port->Count;
        }
        uint8_t buf[4096];
        if (received.size() < expect) {
            const int32_t r = port->Ops.ReadBuffer(port, buf, sizeof buf);
            if (r != 0 && r != PortBufferEmpty) return r;
            received.insert(received.end(), buf, buf + port->Count);
            moved += port->Count;
        }
        if (const int32_t stop = CallIdle(port); stop < 0) return stop;
        if (moved == 0) ZvWaitMessage(20);
        idle = moved ? 0 : idle + 1;
    }
    return sent == send.size() && received.size() == expect ? 0 : PortBufferEmpty;
}

TEST(LinkPair, BothEndsExchangeDataAtTheSameTime) {
    LinkConfig config;
    config.aToB.bufferBytes = config.bToA.bufferBytes = 8192; // forces waits for room
    config.deadlineMs = 20000;
    LinkPair link(config);
    const Bytes fromA = Pattern(200'000, 1), fromB = Pattern(150'000, 2);
    Bytes atA, atB;
    const LinkResult result =
        link.Run([&](XferPort *port) { return Exchange(port, fromA, fromB.size(), atA); },
                 [&](XferPort *port) { return Exchange(port, fromB, fromA.size(), atB); });
    EXPECT_TRUE(!result.timedOut && result.a == 0 && result.b == 0);
    EXPECT_EQ(atB, fromA);
    EXPECT_EQ(atA, fromB);
}

// The same seed gives the same damage; the reader gets everything the line
// delivered, then the hang-up, after which writes fail too.
TEST(LinkPair, NoisyLineIsReproducibleAndHangsUpOnExit) {
    LinkConfig config;
    config.seed = 99;
    config.aToB.bitErrorRate = 1e-4;
    config.aToB.dropRate = 1e-3;
    config.deadlineMs = 20000;
    config.hangUpOnExit = true;
    const Bytes data = Pattern(50'000, 4);
    Bytes got[2], none;
    LineCounters c[2];
    for (int i : {0, 1}) {
        LinkPair link(config);
        int32_t write = 0;
        const LinkResult result =
            link.Run([&](XferPort *port) { return Exchange(port, data, 0, none); },
                     [&](XferPort *port) {
                         const int32_t r =
                             Exchange(port, {}, data.size(), got[i]); // short by drops
                         write = port->Ops.WriteChar(port, 'x');
                         return r;
                     });
        EXPECT_TRUE(result.a == 0 && result.b == PortGeneralError && write == PortGeneralError);
        c[i] = link.Counters(LinkPair::AtoB);
        EXPECT_EQ(got[i].size(), c[i].delivered);
    }
    EXPECT_EQ(got[0], got[1]);
    EXPECT_TRUE(c[0].flippedBits > 0 && c[0].dropped > 0);
    EXPECT_EQ(c[0].delivered + c[0].dropped, c[0].offered);
}

TEST(LinkPair, DeadlineClosesEndsThatWaitForever) {
    LinkConfig config;
    config.deadlineMs = 100;
    LinkPair link(config);
    const LinkResult result = link.Run([](XferPort *port) { return ReadCharTimed(port, -1); },
                                       [](XferPort *port) { return IdleWait(port, 60'000); });
    EXPECT_TRUE(result.timedOut && result.a < 0 && result.b < 0);
}

// A line on a clock that moves only when the test says so.
struct TestLine {
    uint64_t now = 0;
    SimLine line;
    explicit TestLine(const LineConfig &config, uint64_t seed = 7)
        : line(config, seed, [this] { return now; }) {}
    Bytes TakeAll() {
        Bytes all;
        uint8_t chunk[65536];
        while (std::size_t n = line.Take(chunk)) all.insert(all.end(), chunk, chunk + n);
        return all;
    }
};

// Byte i arrives (i + 1) / rate seconds after the latency.
TEST(SimLine, DeliversAtTheConfiguredRateAfterTheLatency) {
    for (uint64_t rate : {960u, 250000u}) {
        SCOPED_TRACE(rate);
        TestLine t({.bytesPerSecond = rate,
                    .latencyMs = 40,
                    .stalls = {},
                    .queueBytes = 0,
                    .bufferBytes = 0});
        ASSERT_EQ(t.line.Offer(Pattern(rate)), rate); // one second of line time
        t.now = 40'000;
        EXPECT_EQ(t.TakeAll().size(), 0u);
        t.now = 540'000;
        EXPECT_NEAR(static_cast<double>(t.TakeAll().size()), rate / 2.0, 1.0);
        t.now = 1'040'001;
        t.TakeAll();
        EXPECT_EQ(t.line.Counters().delivered, rate);
    }
}

// Bit errors at the rate, counted exactly; the same seed gives the same
// damage, another seed other damage.
TEST(SimLine, BitErrorsFollowTheRateAndTheSeed) {
    const Bytes data = Pattern(1'000'000);
    auto run = [&](uint64_t seed) {
        TestLine t({.bitErrorRate = 1e-3, .stalls = {}, .queueBytes = 0, .bufferBytes = 0}, seed);
        EXPECT_EQ(t.line.Offer(data), data.size());
        Bytes got = t.TakeAll();
        EXPECT_EQ(got.size(), data.size());
        uint64_t flipped = 0;
        for (std::size_t i = 0; i < got.size(); ++i)
            flipped += std::popcount<uint8_t>(data[i] ^ got[i]);
        EXPECT_EQ(flipped, t.line.Counters().flippedBits);
        EXPECT_NEAR(static_cast<double>(flipped), 8000.0, 400.0); // deviation about 90
        return got;
    };
    const Bytes first = run(42);
    EXPECT_EQ(run(42), first);
    EXPECT_NE(run(43), first);
}

// The queue and the buffer hold the sender back.
TEST(SimLine, SenderIsHeldBackByTheQueueAndTheBuffer) {
    // 1000 bytes/s with a 100-byte queue: after 50 ms, 50 bytes have left.
    TestLine t({.bytesPerSecond = 1000, .stalls = {}, .queueBytes = 100, .bufferBytes = 0});
    EXPECT_EQ(t.line.Offer(Pattern(500)), 100u);
    EXPECT_EQ(t.line.Offer(Pattern(500)), 0u);
    t.now = 50'000;
    EXPECT_EQ(t.line.Offer(Pattern(500)), 50u);

    // An unlimited line with a 64-byte buffer: room comes back as the
    // receiver takes bytes.
    TestLine u({.stalls = {}, .queueBytes = 0, .bufferBytes = 64});
    EXPECT_EQ(u.line.Offer(Pattern(100)), 64u);
    Bytes ten(10);
    EXPECT_EQ(u.line.Take(ten), 10u);
    EXPECT_EQ(u.line.Offer(Pattern(100)), 10u);
    EXPECT_EQ(u.line.Counters().offered, 74u);
}

} // namespace
} // namespace zvxfer::host
