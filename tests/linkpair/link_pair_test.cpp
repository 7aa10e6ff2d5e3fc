// The simulated line and what runs on it: the line model in simulated time
// (rate, latency, bit errors, drops, stalls, the sender's limits, replay
// from a seed); two ends on two threads exchanging bytes through real ports
// (both ways at once, noise, hang-up, the deadline); the two-process relay.
#include <bit>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "link_pair.h"
#include "port/port.h"
#include "relay.h"
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
    received.clear();
    std::size_t sent = 0;
    for (int idle = 0; (sent < send.size() || received.size() < expect) && idle < 400;) {
        bool progress = false;
        if (sent < send.size()) {
            const auto len = static_cast<uint32_t>(std::min<std::size_t>(4096, send.size() - sent));
            const int32_t w = port->Ops.WriteBuffer(port, send.data() + sent, len);
            if (w != 0 && w != PortBufferFull) return w;
            sent += w == 0 ? len : port->Count;
            progress = w == 0 || port->Count != 0;
        }
        if (received.size() < expect) {
            uint8_t buf[4096];
            const int32_t r = port->Ops.ReadBuffer(port, buf, sizeof buf);
            if (r != 0 && r != PortBufferEmpty) return r;
            received.insert(received.end(), buf, buf + port->Count);
            progress = progress || port->Count != 0;
        }
        if (const int32_t stop = CallIdle(port); stop < 0) return stop;
        if (!progress) ZvWaitMessage(20);
        idle = progress ? 0 : idle + 1;
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
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.a, 0);
    EXPECT_EQ(result.b, 0);
    EXPECT_EQ(atB, fromA);
    EXPECT_EQ(atA, fromB);
    const auto ab = link.Counters(LinkPair::AtoB);
    EXPECT_EQ(ab.offered, fromA.size());
    EXPECT_EQ(ab.delivered, fromA.size());
    EXPECT_EQ(ab.flippedBits + ab.dropped, 0u);
}

// The same seed gives the same damage; the reader gets everything the line
// delivered, then the hang-up, after which writes fail too.
TEST(LinkPair, NoisyLineIsReproducibleAndHangsUpOnExit) {
    auto run = [](LineCounters &counters) {
        LinkConfig config;
        config.seed = 99;
        config.aToB.bitErrorRate = 1e-4;
        config.aToB.dropRate = 1e-3;
        config.deadlineMs = 20000;
        config.hangUpOnExit = true;
        LinkPair link(config);
        const Bytes data = Pattern(50'000, 4);
        Bytes got, none;
        int32_t write = 0;
        const LinkResult result =
            link.Run([&](XferPort *port) { return Exchange(port, data, 0, none); },
                     [&](XferPort *port) {
                         const int32_t r =
                             Exchange(port, {}, data.size(), got); // short by the drops
                         write = port->Ops.WriteChar(port, 'x');
                         return r;
                     });
        EXPECT_EQ(result.a, 0);
        EXPECT_EQ(result.b, PortGeneralError);
        EXPECT_EQ(write, PortGeneralError);
        counters = link.Counters(LinkPair::AtoB);
        EXPECT_EQ(got.size(), counters.delivered);
        return got;
    };
    LineCounters c1, c2;
    EXPECT_EQ(run(c1), run(c2));
    EXPECT_EQ(c1.flippedBits, c2.flippedBits);
    EXPECT_GT(c1.flippedBits, 0u);
    EXPECT_GT(c1.dropped, 0u);
    EXPECT_EQ(c1.delivered + c1.dropped, c1.offered);
}

TEST(LinkPair, DeadlineClosesEndsThatWaitForever) {
    LinkConfig config;
    config.deadlineMs = 100;
    LinkPair link(config);
    const LinkResult result = link.Run([](XferPort *port) { return ReadCharTimed(port, -1); },
                                       [](XferPort *port) { return IdleWait(port, 60'000); });
    EXPECT_TRUE(result.timedOut);
    EXPECT_LT(result.a, 0);
    EXPECT_LT(result.b, 0);
}

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

std::string ReadToEof(int fd) {
    std::string all;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        all.append(buf, static_cast<std::size_t>(n));
    return all;
}

TEST(Relay, CarriesBothWaysAndPassesTheHangUpOn) {
    int sa[2], toB[2], fromB[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sa), 0);
    ASSERT_EQ(pipe(toB), 0);
    ASSERT_EQ(pipe(fromB), 0);
    LineConfig line;
    line.bytesPerSecond = 2'000'000;
    line.latencyMs = 2;
    RelayResult result;
    std::thread relay([&] {
        result = RelayLines({sa[1], sa[1], fromB[0], toB[1]}, line, line, 5);
    });

    std::string data(30'000, 'r');
    for (std::size_t i = 0; i < data.size(); i += 7) data[i] = static_cast<char>(i >> 3);
    std::thread writer([&] {
        EXPECT_EQ(write(sa[0], data.data(), data.size()), static_cast<ssize_t>(data.size()));
        shutdown(sa[0], SHUT_WR);
        EXPECT_EQ(write(fromB[1], "back", 4), 4);
        close(fromB[1]);
    });
    EXPECT_EQ(ReadToEof(toB[0]), data); // EOF: the relay closed B's input
    EXPECT_EQ(ReadToEof(sa[0]), "back");
    writer.join();
    relay.join();
    EXPECT_EQ(result.aToB.delivered, data.size());
    EXPECT_EQ(result.bToA.delivered, 4u);
    for (int fd : {sa[0], sa[1], toB[0], fromB[0]}) close(fd);
}

} // namespace
} // namespace zvxfer::host
