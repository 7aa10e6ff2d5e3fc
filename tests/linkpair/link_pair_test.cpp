// Two ends on two threads exchanging bytes through real ports over the
// simulated line: clean exchange both ways at once, noise from
// a seed, hang-up on exit, and the run deadline.
#include <gtest/gtest.h>
#include <vector>

#include "link_pair.h"
#include "port/port.h"

namespace zvxfer::host {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(std::size_t n, uint8_t salt) {
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

} // namespace
} // namespace zvxfer::host
