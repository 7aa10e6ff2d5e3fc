// The two-process relay over a socket pair on one side and pipes on the
// other: bytes both ways through rated lines, end of input passed on (the
// peer benchmarks and tests rely on it to end their runs).
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "relay.h"

namespace zvxfer::host {
namespace {

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

} // namespace
} // namespace zvxfer::host
