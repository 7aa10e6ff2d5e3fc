// The line model in simulated time: byte rate, latency, bit errors, drops,
// stalls, the sender's limits, and replay from a seed.
#include <bit>
#include <gtest/gtest.h>
#include <vector>

#include "sim_line.h"

namespace zvxfer::host {
namespace {

using Bytes = std::vector<uint8_t>;

// A line on a clock that moves only when the test says so, set up by `set`
// from a line with no rate, queue or buffer limit.
struct TestLine {
    uint64_t now = 0;
    SimLine line;
    template <class Set>
    explicit TestLine(Set set, uint64_t seed = 7)
        : line(Config(set), seed, [this] { return now; }) {}
    template <class Set>
    static LineConfig Config(Set set) {
        LineConfig c;
        c.queueBytes = c.bufferBytes = 0;
        set(c);
        return c;
    }
    Bytes TakeAll() {
        Bytes all;
        uint8_t chunk[65536];
        while (std::size_t n = line.Take(chunk)) all.insert(all.end(), chunk, chunk + n);
        return all;
    }
};

Bytes Pattern(std::size_t n) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 31 + 7);
    return v;
}

TEST(SimLine, DeliversAtTheConfiguredRateAfterTheLatency) {
    for (uint64_t rate : {960u, 11520u, 250000u}) {
        SCOPED_TRACE(rate);
        TestLine t([&](LineConfig &c) {
            c.bytesPerSecond = rate;
            c.latencyMs = 40;
        });
        const std::size_t total = rate * 2; // two seconds of line time
        ASSERT_EQ(t.line.Offer(Pattern(total)), total);
        // Step through in 10 ms slices and note when bytes land.
        std::size_t got = 0;
        uint64_t firstUs = 0, lastUs = 0;
        for (; got < total && t.now < 10'000'000; t.now += 10'000) {
            const std::size_t n = t.TakeAll().size();
            if (n != 0 && got == 0) firstUs = t.now;
            got += n;
            lastUs = t.now;
        }
        ASSERT_EQ(got, total);
        EXPECT_GE(firstUs, 40'000u); // nothing before the latency
        EXPECT_NEAR(total / ((lastUs - 40'000) / 1e6), rate, rate * 0.10);
        EXPECT_EQ(t.line.Counters().delivered, total);
    }
}

// Bit errors at the rate, counted exactly; the same seed gives the same
// damage, another seed other damage.
TEST(SimLine, BitErrorsFollowTheRateAndTheSeed) {
    const Bytes data = Pattern(1'000'000);
    auto run = [&](uint64_t seed) {
        TestLine t([&](LineConfig &c) { c.bitErrorRate = 1e-3; }, seed);
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

TEST(SimLine, DroppedBytesFollowTheRateAndTheRestArriveInOrder) {
    TestLine t([&](LineConfig &c) { c.dropRate = 0.01; });
    Bytes data(100'000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 251);
    ASSERT_EQ(t.line.Offer(data), data.size());
    const Bytes got = t.TakeAll();
    const auto counters = t.line.Counters();
    EXPECT_EQ(counters.delivered, got.size());
    EXPECT_EQ(counters.dropped, data.size() - got.size());
    EXPECT_NEAR(static_cast<double>(counters.dropped), 1000.0, 100.0);
    std::size_t j = 0; // what arrives is a subsequence of what was sent
    for (uint8_t b : got) {
        while (j < data.size() && data[j] != b) ++j;
        ASSERT_LT(j++, data.size());
    }
}

TEST(SimLine, StallsHoldDeliveryBack) {
    // Every 100 bytes on the wire the line stops for 500 ms.
    TestLine t([&](LineConfig &c) {
        c.stallEveryBytes = 100;
        c.stallMs = 500;
    });
    ASSERT_EQ(t.line.Offer(Pattern(250)), 250u);
    EXPECT_EQ(t.TakeAll().size(), 100u);
    t.now = 499'999;
    EXPECT_EQ(t.TakeAll().size(), 0u);
    EXPECT_EQ(t.line.NextArrival(), 500'000u);
    t.now = 500'000;
    EXPECT_EQ(t.TakeAll().size(), 100u);
    t.now = 1'000'000;
    EXPECT_EQ(t.TakeAll().size(), 50u);
}

TEST(SimLine, SenderIsHeldBackByTheQueueAndTheBuffer) {
    // 1000 bytes/s with a 100-byte queue: after 50 ms, 50 bytes have left.
    TestLine t([&](LineConfig &c) {
        c.bytesPerSecond = 1000;
        c.queueBytes = 100;
        c.bufferBytes = 0;
    });
    EXPECT_EQ(t.line.Offer(Pattern(500)), 100u);
    EXPECT_EQ(t.line.Offer(Pattern(500)), 0u);
    t.now = 50'000;
    EXPECT_EQ(t.line.Offer(Pattern(500)), 50u);

    // An unlimited line with a 64-byte buffer: room comes back as the
    // receiver takes bytes.
    TestLine u([&](LineConfig &c) { c.bufferBytes = 64; });
    EXPECT_EQ(u.line.Offer(Pattern(100)), 64u);
    Bytes ten(10);
    EXPECT_EQ(u.line.Take(ten), 10u);
    EXPECT_EQ(u.line.Offer(Pattern(100)), 10u);
    EXPECT_EQ(u.line.Counters().offered, 74u);
}

} // namespace
} // namespace zvxfer::host
