// Two ends on two threads exchanging bytes through real ports over the
// simulated line: clean exchange both ways at once, a rated line, a full
// line that wakes its sender, hang-up on exit, and the run deadline.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "link_pair.h"
#include "port/port.h"

namespace zvxfer::host {
namespace {

std::vector<uint8_t> Pattern(std::size_t n, uint8_t salt) {
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 13 + salt + (i >> 8));
    return v;
}

// Send `send` and receive `expect` bytes at the same time: each round
// offers the next block (the line may take part) and takes what arrived;
// a round without progress waits in the thread's message wait, which the
// end wakes when bytes arrive or the full line has room again.  Ends on a
// lost line, a stop from the idle hook, or many idle rounds.
int32_t Exchange(XferPort *port, const std::vector<uint8_t> &send, std::size_t expect,
                 std::vector<uint8_t> &received) {
    received.assign(expect, 0);
    std::size_t sent = 0, got = 0;
    for (int idle = 0; (sent < send.size() || got < expect) && idle < 400;) {
        bool progress = false;
        if (sent < send.size()) {
            const auto len = static_cast<uint32_t>(std::min<std::size_t>(4096, send.size() - sent));
            const int32_t w = port->Ops.WriteBuffer(port, send.data() + sent, len);
            if (w != 0 && w != PortBufferFull) {
                received.resize(got);
                return w;
            }
            sent += w == 0 ? len : port->Count;
            progress = w == 0 || port->Count != 0;
        }
        if (got < expect) {
            const int32_t r = port->Ops.ReadBuffer(port, received.data() + got,
                                                   static_cast<uint32_t>(expect - got));
            if (r != 0 && r != PortBufferEmpty) {
                received.resize(got);
                return r;
            }
            got += port->Count;
            progress = progress || port->Count != 0;
        }
        if (const int32_t stop = CallIdle(port); stop < 0) return stop;
        if (!progress) ZvWaitMessage(20);
        idle = progress ? 0 : idle + 1;
    }
    received.resize(got);
    return sent == send.size() && got == expect ? 0 : PortBufferEmpty;
}

int32_t WriteAll(XferPort *port, const std::vector<uint8_t> &data) {
    std::vector<uint8_t> none;
    return Exchange(port, data, 0, none);
}

int32_t ReadAll(XferPort *port, std::size_t n, std::vector<uint8_t> &out) {
    return Exchange(port, {}, n, out);
}

TEST(LinkPair, BothEndsExchangeDataAtTheSameTime) {
    LinkConfig config;
    config.aToB.bufferBytes = config.bToA.bufferBytes = 8192; // forces waits for room
    config.deadlineMs = 20000;
    LinkPair link(config);
    const auto fromA = Pattern(200'000, 1), fromB = Pattern(150'000, 2);
    std::vector<uint8_t> atA, atB;
    auto end = [](const std::vector<uint8_t> &send, std::size_t expect,
                  std::vector<uint8_t> &received) {
        return [&send, expect, &received](XferPort *port) {
            return Exchange(port, send, expect, received);
        };
    };
    const LinkResult result =
        link.Run(end(fromA, fromB.size(), atA), end(fromB, fromA.size(), atB));
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

TEST(LinkPair, TimedReadsAcrossARatedLineWithLatency) {
    LinkConfig config;
    config.aToB.bytesPerSecond = config.bToA.bytesPerSecond = 200'000;
    config.aToB.latencyMs = config.bToA.latencyMs = 5;
    config.deadlineMs = 20000;
    LinkPair link(config);
    const auto data = Pattern(20'000, 3);
    std::vector<uint8_t> got;
    const LinkResult result = link.Run(
        [&](XferPort *port) {
            const int32_t w = WriteAll(port, data);
            // Wait for the receiver's one-byte answer.
            const int32_t c = ReadCharTimed(port, 10000);
            return w != 0 ? w : c;
        },
        [&](XferPort *port) {
            const int32_t r = ReadAll(port, data.size(), got);
            const uint8_t ack = 0x06;
            return r != 0 ? r : port->Ops.WriteBuffer(port, &ack, 1);
        });
    EXPECT_EQ(result.a, 0x06);
    EXPECT_EQ(result.b, 0);
    EXPECT_EQ(got, data);
}

TEST(LinkPair, NoisyLineCorruptsAndCountsReproducibly) {
    auto run = [](uint64_t seed, LineCounters &counters) {
        LinkConfig config;
        config.seed = seed;
        config.aToB.bitErrorRate = 1e-4;
        config.aToB.dropRate = 1e-3;
        config.deadlineMs = 20000;
        config.hangUpOnExit = true;
        LinkPair link(config);
        const auto data = Pattern(50'000, 4);
        std::vector<uint8_t> got;
        const LinkResult result = link.Run([&](XferPort *port) { return WriteAll(port, data); },
                                           [&](XferPort *port) {
                                               // Short by the dropped bytes: reads until the
                                               // hang-up.
                                               return ReadAll(port, data.size(), got);
                                           });
        EXPECT_EQ(result.a, 0);
        EXPECT_EQ(result.b, PortGeneralError);
        counters = link.Counters(LinkPair::AtoB);
        EXPECT_EQ(got.size(), counters.delivered);
        return got;
    };
    LineCounters c1, c2;
    const auto first = run(99, c1);
    const auto again = run(99, c2);
    EXPECT_EQ(first, again);
    EXPECT_EQ(c1.flippedBits, c2.flippedBits);
    EXPECT_GT(c1.flippedBits, 0u);
    EXPECT_GT(c1.dropped, 0u);
    EXPECT_EQ(c1.delivered + c1.dropped, c1.offered);
}

TEST(LinkPair, HangUpOnExitEndsThePeersLine) {
    LinkConfig config;
    config.hangUpOnExit = true;
    config.deadlineMs = 20000;
    LinkPair link(config);
    std::string got;
    int32_t readEnd = 0, writeEnd = 0;
    link.Run(
        [](XferPort *port) {
            return port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>("bye"), 3);
        },
        [&](XferPort *port) {
            uint8_t b;
            for (int i = 0; i < 4000; ++i) {
                readEnd = port->Ops.ReadBuffer(port, &b, 1);
                if (readEnd == 0) got.push_back(static_cast<char>(b));
                if (readEnd != 0 && readEnd != PortBufferEmpty) break;
            }
            writeEnd = port->Ops.WriteChar(port, 'x');
            return 0;
        });
    EXPECT_EQ(got, "bye"); // everything sent before the hang-up arrives
    EXPECT_EQ(readEnd, PortGeneralError);
    EXPECT_EQ(writeEnd, PortGeneralError);
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
