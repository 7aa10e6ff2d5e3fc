// The fd line host over a pipe pair, a socket pair and a pty: bytes both
// ways through a real port, partial writes, hang-up, wake-ups, fd flags.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "line_host.h"
#include "port/port.h"
#include "pty.h"

namespace zvxfer::host {
namespace {

enum class Kind { Pipes, SocketPair, Pty };

const char *Name(Kind k) {
    switch (k) {
    case Kind::Pipes:
        return "pipes";
    case Kind::SocketPair:
        return "socketpair";
    case Kind::Pty:
        return "pty";
    }
    return "?";
}

// The host's fds and the far end's fds of one line.
struct Line {
    int hostRead = -1, hostWrite = -1, farRead = -1, farWrite = -1;

    explicit Line(Kind kind) {
        if (kind == Kind::Pipes) {
            int in[2], out[2];
            EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
            EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
            hostRead = in[0], farWrite = in[1], farRead = out[0], hostWrite = out[1];
        } else if (kind == Kind::SocketPair) {
            int sv[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
            hostRead = hostWrite = sv[0];
            farRead = farWrite = sv[1];
        } else {
            PtyPair pty;
            EXPECT_TRUE(OpenPty(pty));
            hostRead = hostWrite = pty.master;
            farRead = farWrite = pty.slave;
        }
    }
    ~Line() {
        for (int fd : {hostRead, hostWrite, farRead, farWrite}) CloseOnce(fd);
    }
    void CloseFar() {
        CloseOnce(farRead);
        CloseOnce(farWrite);
    }

  private:
    std::vector<int> closed_;
    void CloseOnce(int fd) {
        if (fd < 0 || std::find(closed_.begin(), closed_.end(), fd) != closed_.end()) return;
        close(fd);
        closed_.push_back(fd);
    }
};

// Read exactly n bytes from a blocking fd (the far end of a line).
std::string ReadFar(int fd, std::size_t n) {
    std::string got;
    char buf[4096];
    while (got.size() < n) {
        const ssize_t r = read(fd, buf, std::min(sizeof buf, n - got.size()));
        if (r <= 0) break;
        got.append(buf, static_cast<std::size_t>(r));
    }
    return got;
}

// Wait until the host side of a pty has `n` bytes to read: the tty layer
// passes written bytes on asynchronously.
void AwaitReadable(int fd, int n) {
    for (int i = 0; i < 2000; ++i) {
        int avail = 0;
        if (ioctl(fd, FIONREAD, &avail) == 0 && avail >= n) return;
        usleep(500);
    }
}

class LineHostKinds : public ::testing::TestWithParam<Kind> {};

TEST_P(LineHostKinds, BytesBothWaysThroughAPort) {
    Line line(GetParam());
    LineHost host(line.hostRead, line.hostWrite);
    ASSERT_TRUE(host.Ok());
    XferPort *port = host.OpenPort();
    ASSERT_NE(port, nullptr);

    // Far end -> library: timed reads see the bytes in order.
    ASSERT_EQ(write(line.farWrite, "hello", 5), 5);
    std::string got;
    for (int i = 0; i < 5; ++i) {
        const int32_t c = ReadCharTimed(port, 2000);
        ASSERT_GE(c, 0) << "byte " << i;
        got.push_back(static_cast<char>(c));
    }
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(ReadCharTimed(port, 20), PortBufferEmpty);

    // Library -> far end: every byte value survives, in one block.
    std::vector<uint8_t> all(256);
    std::iota(all.begin(), all.end(), 0);
    EXPECT_EQ(port->Ops.WriteBuffer(port, all.data(), 256), 0);
    EXPECT_TRUE(host.Flush(1000));
    const std::string far = ReadFar(line.farRead, 256);
    EXPECT_EQ(far, std::string(all.begin(), all.end()));
    EXPECT_EQ(port->Ops.WriteChar(port, 'Z'), 0);
    EXPECT_TRUE(host.Flush(1000));
    EXPECT_EQ(ReadFar(line.farRead, 1), "Z");

    // ClearRXBuffer throws away everything received so far.
    ASSERT_EQ(write(line.farWrite, std::string(150, 'x').data(), 150), 150);
    AwaitReadable(line.hostRead, 150);
    EXPECT_EQ(ClearRXBuffer(port), 0);
    ASSERT_EQ(write(line.farWrite, "!", 1), 1);
    EXPECT_EQ(ReadCharTimed(port, 2000), '!');

    EXPECT_EQ(host.BytesIn(), 5u + 150u + 1u);
    EXPECT_EQ(host.BytesOut(), 257u);
    EXPECT_FALSE(host.Lost());
    port->Ops.PortClose(port);
}

TEST_P(LineHostKinds, HangUpShowsInTheErrorFlag) {
    // A lost line must never end the program through SIGPIPE, whatever the
    // disposition: keep the default (terminate) for this test.
    struct sigaction dfl {
    }, old{};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, &old);

    Line line(GetParam());
    LineHost host(line.hostRead, line.hostWrite);
    XferPort *port = host.OpenPort();
    ASSERT_NE(port, nullptr);
    ASSERT_EQ(write(line.farWrite, "xy", 2), 2);
    AwaitReadable(line.hostRead, 2);
    line.CloseFar();

    // What arrived before the hang-up is still read, then the line is lost.
    uint8_t buf[8] = {};
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 2), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), 2), "xy");
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 1), PortGeneralError);
    EXPECT_EQ(port->RxBlock.Error, 1);
    EXPECT_TRUE(host.Lost());
    const uint8_t out[3] = {1, 2, 3};
    EXPECT_EQ(port->Ops.WriteBuffer(port, out, 3), PortGeneralError);
    EXPECT_EQ(port->Status, PortGeneralError);
    EXPECT_EQ(port->Ops.WriteChar(port, 'q'), PortGeneralError);
    port->Ops.PortClose(port);
    sigaction(SIGPIPE, &old, nullptr);
}

// Pipes and sockets refuse the queued bytes as soon as they are written
// when the far end is gone; every later request then reports the loss (a
// pty master takes them, and the next read finds the hang-up).
TEST(LineHost, WriteFirstAfterHangUp) {
    signal(SIGPIPE, SIG_DFL);
    for (Kind kind : {Kind::Pipes, Kind::SocketPair}) {
        Line line(kind);
        LineHost host(line.hostRead, line.hostWrite);
        XferPort *port = host.OpenPort();
        line.CloseFar();
        EXPECT_EQ(port->Ops.WriteChar(port, 'a'), 0) << Name(kind) << ": queued";
        EXPECT_FALSE(host.Flush(100)) << Name(kind);
        EXPECT_TRUE(host.Lost()) << Name(kind);
        EXPECT_EQ(host.Queued(), 0u) << Name(kind) << ": nothing can carry it any more";
        EXPECT_EQ(port->Ops.WriteChar(port, 'b'), PortGeneralError) << Name(kind);
        EXPECT_EQ(port->TxBlock.Error, 1) << Name(kind);
        EXPECT_EQ(port->Ops.ReadChar(port), PortGeneralError) << Name(kind);
        port->Ops.PortClose(port);
    }
}

// Bytes the far end can read right now, without blocking.
int Pending(int fd) {
    int avail = 0;
    return ioctl(fd, FIONREAD, &avail) == 0 ? avail : -1;
}

// The pieces an engine writes one by one stay queued while it streams (a
// look at the line between writes), and go out in one write when it reads
// with only a short answer queued, when it polls for an answer, when its
// thread is about to sleep in a wait, when the queue reaches flushAt, or
// when the host goes.
TEST(LineHost, QueuedWritesGoOutWhenTheEngineWaitsOrTheHostEnds) {
    Line line(Kind::SocketPair);
    LineHostOptions options;
    options.flushAt = 64;
    options.answerBytes = 8;
    auto host = std::make_unique<LineHost>(line.hostRead, line.hostWrite, options);
    XferPort *port = host->OpenPort();
    ASSERT_NE(port, nullptr);
    char buf[80];
    auto write = [&](const std::string &text) {
        return port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>(text.data()),
                                     static_cast<uint32_t>(text.size()));
    };

    for (char c : std::string("abc")) EXPECT_EQ(port->Ops.WriteChar(port, c), 0);
    EXPECT_EQ(Pending(line.farRead), 0);
    EXPECT_EQ(host->Queued(), 3u);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // an answer goes out before the read
    EXPECT_EQ(read(line.farRead, buf, sizeof buf), 3) << "one write carried all three";

    EXPECT_EQ(write("0123456789"), 0);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // a look between streamed pieces
    EXPECT_EQ(Pending(line.farRead), 0);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // a second look in vain: it polls
    EXPECT_EQ(read(line.farRead, buf, sizeof buf), 10);

    EXPECT_EQ(write("0123456789"), 0);
    EXPECT_EQ(ZvWaitMessage(1), 0); // the thread sleeps: the queue goes first
    EXPECT_EQ(read(line.farRead, buf, sizeof buf), 10);

    EXPECT_EQ(write(std::string(64, 'x')), 0);
    EXPECT_EQ(read(line.farRead, buf, sizeof buf), 64) << "a full unit goes at once";

    EXPECT_EQ(port->Ops.WriteChar(port, 'e'), 0);
    port->Ops.PortClose(port);
    host.reset();
    EXPECT_EQ(ReadFar(line.farRead, 1), "e");
}

// With no queue every PORT_WRITE goes to the fd at once.
TEST(LineHost, NoQueueWritesAtOnce) {
    Line line(Kind::Pipes);
    LineHostOptions options;
    options.sendQueue = 0;
    LineHost host(line.hostRead, line.hostWrite, options);
    XferPort *port = host.OpenPort();
    EXPECT_EQ(port->Ops.WriteChar(port, 'x'), 0);
    EXPECT_EQ(Pending(line.farRead), 1);
    EXPECT_EQ(host.BytesOut(), 1u);
    port->Ops.PortClose(port);
}

TEST_P(LineHostKinds, WatchedFdWakesTheThreadsWait) {
    Line line(GetParam());
    LineHost host(line.hostRead, line.hostWrite);
    EXPECT_EQ(ZvWaitMessage(10), 0); // nothing to read: the wait times out
    ASSERT_EQ(write(line.farWrite, "w", 1), 1);
    EXPECT_EQ(ZvWaitMessage(5000), 1); // woken by the fd, not by the time-out
}

INSTANTIATE_TEST_SUITE_P(Lines, LineHostKinds,
                         ::testing::Values(Kind::Pipes, Kind::SocketPair, Kind::Pty),
                         [](const auto &info) { return std::string(Name(info.param)); });

// A full pipe takes part of a block, then nothing; the port reports -9
// with the count taken, and once the far end drains, writes go on.  The
// host's byte count matches what the far end really gets.
TEST(LineHost, PartialWritesWhenTheFdIsFull) {
    Line line(Kind::Pipes);
    LineHost host(line.hostRead, line.hostWrite);
    XferPort *port = host.OpenPort();
    std::vector<uint8_t> block(4096, 0x5A);
    uint64_t accepted = 0;
    int32_t r = 0;
    int refused = 0;
    for (int i = 0; i < 10000 && refused == 0; ++i) {
        r = port->Ops.WriteBuffer(port, block.data(), 4096);
        if (r == 0) accepted += 4096;
        if (r == PortBufferFull) {
            accepted += port->Count;
            refused += port->Count == 0;
        }
    }
    EXPECT_EQ(r, PortBufferFull);
    EXPECT_EQ(port->Count, 0u);
    EXPECT_EQ(port->Status, PortBufferFull);
    const std::size_t queued = host.Queued();
    EXPECT_EQ(queued, LineHostOptions{}.sendQueue) << "refused only once the queue is full";
    EXPECT_EQ(host.BytesOut() + queued, accepted);
    EXPECT_GE(accepted, 4096u);

    // The far end drains everything the host took, byte for byte: what is
    // in the pipe, then the queue once there is room for it.
    EXPECT_EQ(ReadFar(line.farRead, accepted - queued).size(), accepted - queued);
    EXPECT_TRUE(host.Flush(1000));
    EXPECT_EQ(ReadFar(line.farRead, queued).size(), queued);
    EXPECT_EQ(host.BytesOut(), accepted);
    port->Ops.ClearError(port);
    EXPECT_EQ(port->Ops.WriteBuffer(port, block.data(), 100), 0);
    EXPECT_TRUE(host.Flush(1000));
    EXPECT_EQ(ReadFar(line.farRead, 100), std::string(100, 'Z'));
    EXPECT_FALSE(host.Lost());
    port->Ops.PortClose(port);
}

// The host leaves the fds as it found them.
TEST(LineHost, RestoresFdFlagsAndOptionallyCloses) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    {
        LineHost host(fds[0], fds[1]);
        EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(fds[1], F_GETFL) & O_NONBLOCK, 0);
    }
    EXPECT_EQ(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fds[1], F_GETFL) & O_NONBLOCK, 0);
    {
        LineHostOptions options;
        options.closeOnDestroy = true;
        LineHost host(fds[0], fds[1], options);
    }
    EXPECT_EQ(fcntl(fds[0], F_GETFL), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
} // namespace zvxfer::host
