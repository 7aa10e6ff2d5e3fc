// The fd line host over a pipe pair, a socket pair and a pty: bytes both
// ways through a real port, hang-up, wake-ups, fd flags, the flush policy,
// partial writes; raw tty set-up and restore; a TCP line over loopback.
#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "line_host.h"
#include "port/port.h"
#include "pty.h"
#include "tcp.h"
#include "tty.h"

namespace zvxfer::host {
namespace {

enum class Kind { Pipes, SocketPair, Pty };

const char *Name(Kind kind) {
    static const char *const kNames[] = {"Pipes", "SocketPair", "Pty"};
    return kNames[static_cast<int>(kind)];
}

void PrintTo(Kind kind, std::ostream *os) {
    *os << Name(kind);
}

// The host's fds and the far end's fds of one line; a socket or a pty is
// one fd for the host, as in use.
struct Line {
    int hostRead = -1, hostWrite = -1, farRead = -1, farWrite = -1;
    explicit Line(Kind kind) {
        int a[2], b[2];
        PtyPair pty;
        if (kind == Kind::Pipes) {
            EXPECT_EQ(pipe2(a, O_CLOEXEC) | pipe2(b, O_CLOEXEC), 0);
            hostRead = a[0], farWrite = a[1], farRead = b[0], hostWrite = b[1];
            return;
        }
        EXPECT_TRUE(kind == Kind::Pty ? OpenPty(pty) : socketpair(AF_UNIX, SOCK_STREAM, 0, a) == 0);
        hostRead = hostWrite = kind == Kind::Pty ? pty.master : a[0];
        farRead = kind == Kind::Pty ? pty.slave : a[1];
        farWrite = dup(farRead);
    }
    ~Line() {
        for (int fd : {hostRead, farRead, farWrite}) close(fd);
        if (hostWrite != hostRead) close(hostWrite);
    }
    void CloseFar() {
        close(farRead), close(farWrite);
        farRead = farWrite = -1;
    }
};

// Bytes ready on fd; waits up to a second for `n` (a pty passes bytes on later).
int Pending(int fd, int n = 0) {
    int avail = 0;
    for (int i = 0; i < 2000 && ioctl(fd, FIONREAD, &avail) == 0 && avail < n; ++i) usleep(500);
    return avail;
}

// Up to n bytes from the far end; a byte held back for a second ends it.
std::string ReadFar(int fd, std::size_t n) {
    std::string got;
    char buf[4096];
    for (ssize_t r = 1; got.size() < n && r > 0 && Pending(fd, 1) > 0;)
        if ((r = read(fd, buf, std::min(sizeof buf, n - got.size()))) > 0) got.append(buf, r);
    return got;
}

class LineHostKinds : public ::testing::TestWithParam<Kind> {};

// Bytes both ways and the wake-up; then the far end hangs up: what arrived
// before is still read, then the line is lost, never through SIGPIPE.  The
// fds are non-blocking while the host lives and as they were after.
TEST_P(LineHostKinds, BytesBothWaysThenHangUp) {
    struct sigaction dfl = {}, old = {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, &old);
    Line line(GetParam());
    auto host = std::make_unique<LineHost>(line.hostRead, line.hostWrite);
    EXPECT_NE(fcntl(line.hostRead, F_GETFL) & fcntl(line.hostWrite, F_GETFL) & O_NONBLOCK, 0);
    XferPort *port = host->OpenPort();
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ZvWaitMessage(10), 0); // nothing to read: the wait times out
    ASSERT_EQ(write(line.farWrite, "hello", 5), 5);
    EXPECT_EQ(ZvWaitMessage(5000), 1); // woken by the watched fd
    std::string got;
    for (int32_t c; got.size() < 5 && (c = ReadCharTimed(port, 2000)) >= 0;)
        got.push_back(static_cast<char>(c));
    EXPECT_EQ(got, "hello");
    EXPECT_EQ(ReadCharTimed(port, 20), PortBufferEmpty);
    std::string all(256, '\0'); // every byte value survives
    for (int i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
    EXPECT_EQ(port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>(all.data()), 256), 0);
    EXPECT_TRUE(host->Flush(1000));
    EXPECT_EQ(ReadFar(line.farRead, 256), all);
    EXPECT_TRUE(host->BytesIn() == 5 && host->BytesOut() == 256 && !host->Lost());

    ASSERT_EQ(write(line.farWrite, "xy", 2), 2);
    Pending(line.hostRead, 2);
    line.CloseFar();
    uint8_t buf[2] = {};
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 2), 0);
    EXPECT_EQ(std::string(buf, buf + 2), "xy");
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 1), PortGeneralError);
    EXPECT_TRUE(port->RxBlock.Error == 1 && host->Lost());
    EXPECT_EQ(port->Ops.WriteBuffer(port, buf, 2), PortGeneralError);
    EXPECT_EQ(port->Status, PortGeneralError);
    port->Ops.PortClose(port);
    host.reset();
    EXPECT_EQ((fcntl(line.hostRead, F_GETFL) | fcntl(line.hostWrite, F_GETFL)) & O_NONBLOCK, 0);
    sigaction(SIGPIPE, &old, nullptr);
}

std::string KindName(const ::testing::TestParamInfo<Kind> &info) {
    return Name(info.param);
}

INSTANTIATE_TEST_SUITE_P(Lines, LineHostKinds,
                         ::testing::Values(Kind::Pipes, Kind::SocketPair, Kind::Pty), KindName);

// Pieces an engine writes stay queued while it streams (a look at the line
// between writes) and go out in one write when it reads with only a short
// answer queued, when it polls, when its thread is about to sleep, when
// the queue reaches flushAt, or when the host goes; with no queue at once.
TEST(LineHost, FlushPolicy) {
    Line line(Kind::SocketPair);
    LineHostOptions options;
    options.flushAt = 64;
    options.answerBytes = 8;
    auto host = std::make_unique<LineHost>(line.hostRead, line.hostWrite, options);
    XferPort *port = host->OpenPort();
    auto write = [&](const std::string &text) {
        return port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>(text.data()),
                                     static_cast<uint32_t>(text.size()));
    };
    for (char c : std::string("abc")) EXPECT_EQ(port->Ops.WriteChar(port, c), 0);
    EXPECT_EQ(Pending(line.farRead), 0);
    EXPECT_EQ(host->Queued(), 3u);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // an answer goes out before the read
    EXPECT_EQ(ReadFar(line.farRead, 3), "abc");
    EXPECT_EQ(write("0123456789"), 0);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // a look between streamed pieces
    EXPECT_EQ(Pending(line.farRead), 0);
    EXPECT_EQ(port->Ops.RxCount(port), 0); // a second look in vain: it polls
    EXPECT_EQ(ReadFar(line.farRead, 10), "0123456789");
    EXPECT_EQ(write("0123456789"), 0);
    EXPECT_EQ(ZvWaitMessage(1), 0); // the thread sleeps: the queue goes first
    EXPECT_EQ(ReadFar(line.farRead, 10), "0123456789");
    EXPECT_EQ(write(std::string(64, 'x')), 0);
    EXPECT_EQ(ReadFar(line.farRead, 64), std::string(64, 'x')) << "a full unit goes at once";
    EXPECT_EQ(port->Ops.WriteChar(port, 'e'), 0);
    port->Ops.PortClose(port);
    host.reset();
    EXPECT_EQ(ReadFar(line.farRead, 1), "e");

    options.sendQueue = 0;
    LineHost direct(line.hostRead, line.hostWrite, options);
    port = direct.OpenPort();
    EXPECT_EQ(port->Ops.WriteChar(port, 'x'), 0);
    EXPECT_EQ(Pending(line.farRead), 1);
    port->Ops.PortClose(port);
}

// A full pipe takes part of a block, then nothing: the port reports -9 with
// the count taken, only once the queue is full; the far end then gets every
// byte the host took.
TEST(LineHost, PartialWritesWhenTheFdIsFull) {
    Line line(Kind::Pipes);
    LineHost host(line.hostRead, line.hostWrite);
    XferPort *port = host.OpenPort();
    std::vector<uint8_t> block(4096, 'Z');
    uint64_t accepted = 0;
    int32_t r = 0;
    for (int i = 0; i < 10000 && (r == 0 || port->Count != 0); ++i) {
        r = port->Ops.WriteBuffer(port, block.data(), 4096);
        accepted += r == 0 ? 4096 : port->Count;
    }
    EXPECT_EQ(r, PortBufferFull);
    const std::size_t queued = host.Queued();
    EXPECT_EQ(queued, LineHostOptions{}.sendQueue);
    EXPECT_EQ(host.BytesOut() + queued, accepted);
    EXPECT_EQ(ReadFar(line.farRead, accepted - queued).size(), accepted - queued);
    EXPECT_TRUE(host.Flush(1000));
    EXPECT_EQ(ReadFar(line.farRead, queued).size(), queued);
    port->Ops.PortClose(port);
}

// While the host's writes wait for a far end that does not read, what that
// far end sends is read ahead (up to the limit, the rest stays on the line)
// so its own writes go on; the reads then hand over every byte in order,
// the stored ones first.
TEST(LineHost, ReadsAheadWhileWritesWait) {
    for (const std::size_t limit : {std::size_t{3000}, std::size_t{1} << 20}) {
        SCOPED_TRACE(limit);
        Line line(Kind::Pipes);
        fcntl(line.farWrite, F_SETFL, fcntl(line.farWrite, F_GETFL) | O_NONBLOCK);
        LineHostOptions options;
        options.readAhead = limit;
        LineHost host(line.hostRead, line.hostWrite, options);
        XferPort *port = host.OpenPort();
        std::string sent;
        auto farSends = [&] { // until the line to the host is full
            char piece[1000];
            for (ssize_t n = 1; n > 0;) {
                for (std::size_t i = 0; i < sizeof piece; ++i)
                    piece[i] = static_cast<char>((sent.size() + i) * 7 + ((sent.size() + i) >> 8));
                if ((n = write(line.farWrite, piece, sizeof piece)) > 0) sent.append(piece, n);
            }
        };
        farSends();
        const std::size_t lineHolds = sent.size();
        std::vector<uint8_t> block(4096, 'Z');
        int32_t r = 0;
        for (int i = 0; i < 10000 && r == 0; ++i)
            r = port->Ops.WriteBuffer(port, block.data(), 4096);
        ASSERT_EQ(r, PortBufferFull);
        EXPECT_EQ(Pending(line.hostRead), static_cast<int>(lineHolds - std::min(limit, lineHolds)));
        farSends(); // room again for what was read ahead (a pipe frees whole pages)
        EXPECT_LE(sent.size(), lineHolds + std::min(limit, lineHolds));
        if (limit >= lineHolds) {
            EXPECT_EQ(sent.size(), 2 * lineHolds);
        }
        EXPECT_EQ(host.BytesIn(), std::min(limit, lineHolds));
        ReadFar(line.farRead, 1 << 20); // the far end reads at last
        EXPECT_TRUE(host.Flush(1000));
        std::string got;
        for (int32_t c; got.size() < sent.size() && (c = ReadCharTimed(port, 1000)) >= 0;)
            got.push_back(static_cast<char>(c));
        EXPECT_TRUE(got == sent) << got.size() << " of " << sent.size() << " bytes came in order";
        port->Ops.PortClose(port);
    }
}

// Raw 8N1 at the chosen speed and back to the saved settings (also through
// TtyRestoreAll, the signal path); what cannot be done is refused.
TEST(Tty, MakeRawRestoreAndRefusals) {
    PtyPair pty;
    ASSERT_TRUE(OpenPty(pty));
    termios cooked{}, raw{};
    ASSERT_EQ(tcgetattr(pty.slave, &cooked), 0);
    ASSERT_TRUE(TtyMakeRaw(pty.slave, {9600, true}));
    ASSERT_EQ(tcgetattr(pty.slave, &raw), 0);
    EXPECT_TRUE((raw.c_lflag & (ICANON | ECHO | ISIG)) == 0 && cfgetospeed(&raw) == B9600 &&
                (raw.c_cflag & (CSIZE | PARENB | CSTOPB)) == CS8);
    TtyRestoreAll();
    ASSERT_EQ(tcgetattr(pty.slave, &raw), 0);
    EXPECT_EQ(raw.c_lflag, cooked.c_lflag);

    std::string error;
    EXPECT_FALSE(TtyMakeRaw(pty.slave, {12345, false}, &error));
    EXPECT_NE(error.find("speed"), std::string::npos);
    const int notTty = open("/dev/null", O_RDONLY);
    EXPECT_FALSE(TtyMakeRaw(notTty, {}, &error));
    EXPECT_EQ(TtyOpen("/nonexistent/tty", {}, &error), -1);
    EXPECT_NE(error.find("/nonexistent/tty"), std::string::npos);
    for (int fd : {notTty, pty.slave, pty.master}) close(fd);
}

// A connection over loopback (bytes over a socket: see the socket pair),
// closed with the host on request; a malformed target or a port nobody
// listens on is refused.
TEST(Tcp, ConnectAndRefusals) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    auto *sa = reinterpret_cast<sockaddr *>(&addr);
    ASSERT_EQ(bind(listener, sa, len) | listen(listener, 1) | getsockname(listener, sa, &len), 0);
    const std::string target = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
    std::string error;
    const int fd = TcpConnect(target, &error);
    ASSERT_GE(fd, 0) << error;
    LineHostOptions options;
    options.closeOnDestroy = true;
    std::make_unique<LineHost>(fd, options).reset();
    EXPECT_EQ(fcntl(fd, F_GETFL), -1) << "closed with the host";
    close(listener);
    EXPECT_EQ(TcpConnect("no-port-here", &error), -1);
    EXPECT_NE(error.find("HOST:PORT"), std::string::npos);
    EXPECT_EQ(TcpConnect(target, &error), -1); // nobody listens any more
}

} // namespace
} // namespace zvxfer::host
