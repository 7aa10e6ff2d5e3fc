// The line model in simulated time: byte rate, latency, bit errors, drops,
// stalls, the sender's limits, and replay from a seed.
#include <bit>
#include <gtest/gtest.h>
#include <vector>

#include "sim_line.h"

namespace zvxfer::host {
namespace {

// A line on a clock that moves only when the test says so.
struct TestLine {
    uint64_t now = 0;
    SimLine line;
    TestLine(LineConfig config, uint64_t seed = 7)
        : line(std::move(config), seed, [this] { return now; }) {}
    std::vector<uint8_t> TakeAll() {
        std::vector<uint8_t> all;
        uint8_t chunk[65536];
        while (std::size_t n = line.Take(chunk)) all.insert(all.end(), chunk, chunk + n);
        return all;
    }
};

LineConfig Unbounded() {
    LineConfig c;
    c.queueBytes = 0;
    c.bufferBytes = 0;
    return c;
}

std::vector<uint8_t> Pattern(std::size_t n) {
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 31 + 7);
    return v;
}

TEST(SimLine, DeliversAtTheConfiguredRateAfterTheLatency) {
    for (uint64_t rate : {960u, 11520u, 250000u}) {
        LineConfig c = Unbounded();
        c.bytesPerSecond = rate;
        c.latencyMs = 40;
        TestLine t(c);
        const std::size_t total = rate * 2; // two seconds of line time
        ASSERT_EQ(t.line.Offer(Pattern(total)), total);
        // Step through in 10 ms slices and note when the last byte lands.
        std::size_t got = 0;
        uint64_t firstUs = 0, lastUs = 0;
        while (got < total && t.now < 10'000'000) {
            const std::size_t n = t.TakeAll().size();
            if (n != 0 && got == 0) firstUs = t.now;
            got += n;
            if (got == total) lastUs = t.now;
            t.now += 10'000;
        }
        ASSERT_EQ(got, total) << rate;
        EXPECT_GE(firstUs, 40'000u) << rate; // nothing before the latency
        const double seconds = (lastUs - 40'000) / 1e6;
        EXPECT_NEAR(total / seconds, rate, rate * 0.10) << rate;
        EXPECT_EQ(t.line.Counters().delivered, total);
    }
}

TEST(SimLine, UnlimitedLineDeliversAtOnceAndKeepsOrder) {
    TestLine t(Unbounded());
    const auto data = Pattern(5000);
    ASSERT_EQ(t.line.Offer(data), data.size());
    EXPECT_EQ(t.TakeAll(), data);
    EXPECT_TRUE(t.line.Empty());
    EXPECT_FALSE(t.line.NextArrival().has_value());
}

TEST(SimLine, BitErrorsMatchTheRateAndTheCounter) {
    LineConfig c = Unbounded();
    c.bitErrorRate = 1e-3;
    TestLine t(c);
    const auto data = Pattern(1'000'000);
    ASSERT_EQ(t.line.Offer(data), data.size());
    const auto got = t.TakeAll();
    ASSERT_EQ(got.size(), data.size());
    uint64_t flipped = 0;
    for (std::size_t i = 0; i < data.size(); ++i)
        flipped += std::popcount<uint8_t>(data[i] ^ got[i]);
    EXPECT_EQ(flipped, t.line.Counters().flippedBits);
    const double expected = 8e6 * 1e-3; // 8000, standard deviation about 90
    EXPECT_NEAR(static_cast<double>(flipped), expected, expected * 0.05);
}

TEST(SimLine, DroppedBytesMatchTheRateAndTheRestArriveInOrder) {
    LineConfig c = Unbounded();
    c.dropRate = 0.01;
    TestLine t(c);
    std::vector<uint8_t> data(100'000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 251);
    ASSERT_EQ(t.line.Offer(data), data.size());
    const auto got = t.TakeAll();
    const auto counters = t.line.Counters();
    EXPECT_EQ(counters.offered, data.size());
    EXPECT_EQ(counters.delivered, got.size());
    EXPECT_EQ(counters.dropped, data.size() - got.size());
    EXPECT_NEAR(static_cast<double>(counters.dropped), 1000.0, 100.0);
    // What arrives is a subsequence of what was sent: walk both.
    std::size_t j = 0;
    for (uint8_t b : got) {
        while (j < data.size() && data[j] != b) ++j;
        ASSERT_LT(j, data.size());
        ++j;
    }
}

TEST(SimLine, SameSeedSameCorruptionOtherSeedOther) {
    LineConfig c = Unbounded();
    c.bitErrorRate = 1e-3;
    c.dropRate = 1e-3;
    const auto data = Pattern(50'000);
    auto run = [&](uint64_t seed) {
        TestLine t(c, seed);
        t.line.Offer(data);
        return t.TakeAll();
    };
    const auto first = run(42);
    EXPECT_EQ(run(42), first);
    EXPECT_NE(run(43), first);
    EXPECT_NE(first, data);
}

TEST(SimLine, StallsHoldDeliveryBack) {
    // Every 100 bytes on the wire the line stops for 500 ms.
    LineConfig c = Unbounded();
    c.stallEveryBytes = 100;
    c.stallMs = 500;
    TestLine t(c);
    ASSERT_EQ(t.line.Offer(Pattern(250)), 250u);
    EXPECT_EQ(t.TakeAll().size(), 100u);
    t.now = 499'999;
    EXPECT_EQ(t.TakeAll().size(), 0u);
    EXPECT_EQ(t.line.NextArrival(), 500'000u);
    t.now = 500'000;
    EXPECT_EQ(t.TakeAll().size(), 100u);
    t.now = 1'000'000;
    EXPECT_EQ(t.TakeAll().size(), 50u);

    // A scheduled stall from 1 ms to 3 ms holds a byte sent at 1.5 ms.
    LineConfig s = Unbounded();
    s.stalls = {{1000, 2000}};
    TestLine u(s);
    u.now = 1500;
    u.line.Offer(Pattern(1));
    EXPECT_EQ(u.line.NextArrival(), 3000u);
    u.now = 2999;
    EXPECT_TRUE(u.TakeAll().empty());
    u.now = 3000;
    EXPECT_EQ(u.TakeAll().size(), 1u);
}

TEST(SimLine, SenderIsHeldBackByTheQueueAndTheBuffer) {
    // 1000 bytes/s with a 100-byte queue: after 50 ms, 50 bytes have left.
    LineConfig q;
    q.bytesPerSecond = 1000;
    q.queueBytes = 100;
    q.bufferBytes = 0;
    TestLine t(q);
    EXPECT_EQ(t.line.Offer(Pattern(500)), 100u);
    EXPECT_EQ(t.line.Offer(Pattern(500)), 0u);
    t.now = 50'000;
    EXPECT_EQ(t.line.Offer(Pattern(500)), 50u);

    // An unlimited line with a 64-byte buffer: room comes back as the
    // receiver takes bytes.
    LineConfig b = Unbounded();
    b.bufferBytes = 64;
    TestLine u(b);
    EXPECT_EQ(u.line.Offer(Pattern(100)), 64u);
    std::vector<uint8_t> ten(10);
    EXPECT_EQ(u.line.Take(ten), 10u);
    EXPECT_EQ(u.line.Offer(Pattern(100)), 10u);
    EXPECT_EQ(u.line.Counters().offered, 74u);
}

} // namespace
} // namespace zvxfer::host
