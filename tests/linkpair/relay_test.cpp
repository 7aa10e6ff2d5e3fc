// The two-process relay over sockets and pipes: bytes both ways through
// rated lines, end of input passed on, one full direction never stopping
// the other.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "relay.h"
#include "sim_line.h"

namespace zvxfer::host {
namespace {

// The two-process relay over a socket pair on one side and pipes on the
// other: bytes both ways through rated lines, end of input passed on (the
// peer benchmarks and tests rely on it to end their runs).
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

    std::string data(30'000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + (i >> 9));
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

// A side that never reads while the other side answers fills its own
// incoming direction; the relay must still carry everything the other way
// (as a line does), not stop both directions in a write to the full side.
TEST(Relay, AFullDirectionDoesNotStopTheOther) {
    int sa[2], sb[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sa), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sb), 0);
    for (int fd : {sa[0], sa[1], sb[0], sb[1]}) {
        const int size = 4096;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    std::atomic<bool> stop{false};
    RelayResult result;
    std::thread relay([&] { result = RelayLines({sa[1], sa[1], sb[1], sb[1]}, {}, {}, 9, &stop); });

    // A sends 1 MB and reads nothing; B reads it all and answers each
    // piece, as a receiver acknowledges, with more than the way back (the
    // line's queue and buffer, the sockets) holds in total.  The loop only
    // gives up on a relay that has hung.
    const std::string answer(1024, 'k');
    std::string data(1 << 20, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 13 + (i >> 11));
    std::string got;
    std::size_t sent = 0;
    bool backFull = false;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (got.size() < data.size() && std::chrono::steady_clock::now() < giveUp) {
        pollfd p[2] = {{sa[0], static_cast<short>(sent < data.size() ? POLLOUT : 0), 0},
                       {sb[0], POLLIN, 0}};
        poll(p, 2, 50);
        if (sent < data.size()) {
            const ssize_t n = send(sa[0], data.data() + sent,
                                   std::min<std::size_t>(4096, data.size() - sent), MSG_DONTWAIT);
            if (n > 0) sent += static_cast<std::size_t>(n);
        }
        char buf[4096];
        const ssize_t n = recv(sb[0], buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            got.append(buf, static_cast<std::size_t>(n));
            if (send(sb[0], answer.data(), answer.size(), MSG_DONTWAIT) < 0 && errno == EAGAIN)
                backFull = true;
        }
    }
    stop = true;
    close(sa[0]); // frees a relay that is stuck writing to A
    close(sb[0]);
    relay.join();
    EXPECT_TRUE(backFull) << "the way back never filled up";
    EXPECT_EQ(got.size(), data.size());
    EXPECT_TRUE(got == data);
    close(sa[1]);
    close(sb[1]);
}

} // namespace
} // namespace zvxfer::host
