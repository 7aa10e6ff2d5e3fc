// Raw tty set-up and restore on a pty; a TCP line over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include "line_host.h"
#include "port/port.h"
#include "pty.h"
#include "tcp.h"
#include "tty.h"

namespace zvxfer::host {
namespace {

// Raw 8N1 at the chosen speed; a restore brings back the first saved settings,
// also through TtyRestoreAll (the signal path); what cannot be done is refused.
TEST(Tty, MakeRawRestoreAndRefusals) {
    PtyPair pty;
    ASSERT_TRUE(OpenPty(pty));
    termios cooked{}, raw{}, back{};
    ASSERT_EQ(tcgetattr(pty.slave, &cooked), 0);
    cooked.c_lflag |= ICANON | ECHO;
    cooked.c_iflag |= ICRNL | IXON;
    ASSERT_EQ(tcsetattr(pty.slave, TCSANOW, &cooked), 0);
    tcgetattr(pty.slave, &cooked);
    ASSERT_TRUE(TtyMakeRaw(pty.slave, {9600, true}));
    ASSERT_EQ(tcgetattr(pty.slave, &raw), 0);
    EXPECT_EQ(raw.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(raw.c_iflag & (ICRNL | IXON | ISTRIP), 0u);
    EXPECT_EQ(raw.c_cflag & (CSIZE | PARENB | CSTOPB), static_cast<tcflag_t>(CS8));
    EXPECT_EQ(cfgetospeed(&raw), static_cast<speed_t>(B9600));
    ASSERT_TRUE(TtyMakeRaw(pty.slave, {0, false})); // keeps the first saved settings
    TtyRestore(pty.slave);
    ASSERT_EQ(tcgetattr(pty.slave, &back), 0);
    EXPECT_EQ(back.c_lflag, cooked.c_lflag);
    EXPECT_EQ(back.c_iflag, cooked.c_iflag);
    ASSERT_TRUE(TtyMakeRaw(pty.slave, {19200, false}));
    TtyRestoreAll();
    ASSERT_EQ(tcgetattr(pty.slave, &back), 0);
    EXPECT_EQ(back.c_lflag, cooked.c_lflag);
    TtyRestore(pty.slave);

    std::string error;
    EXPECT_FALSE(TtyMakeRaw(pty.slave, {12345, false}, &error));
    EXPECT_NE(error.find("speed"), std::string::npos);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_FALSE(TtyMakeRaw(fds[0], {}, &error)); // not a tty
    EXPECT_EQ(TtyOpen("/nonexistent/tty", {}, &error), -1);
    EXPECT_NE(error.find("/nonexistent/tty"), std::string::npos);
    for (int fd : {fds[0], fds[1], pty.slave, pty.master}) close(fd);
}

TEST(Tcp, LineOverLoopback) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    socklen_t len = sizeof addr;
    getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len);
    const std::string target = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));

    std::string error;
    const int fd = TcpConnect(target, &error);
    ASSERT_GE(fd, 0) << error;
    const int far = accept(listener, nullptr, nullptr);
    ASSERT_GE(far, 0);
    {
        LineHost host(fd);
        XferPort *port = host.OpenPort();
        EXPECT_EQ(port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>("ping"), 4), 0);
        ASSERT_TRUE(host.Flush(1000));
        char buf[4];
        ASSERT_EQ(read(far, buf, 4), 4);
        EXPECT_EQ(std::string(buf, 4), "ping");
        ASSERT_EQ(write(far, "k", 1), 1);
        EXPECT_EQ(ReadCharTimed(port, 2000), 'k');
        port->Ops.PortClose(port);
    }
    for (int f : {far, fd}) close(f);
    close(listener);

    EXPECT_EQ(TcpConnect("no-port-here", &error), -1);
    EXPECT_NE(error.find("HOST:PORT"), std::string::npos);
    EXPECT_EQ(TcpConnect(target, &error), -1); // nobody listens any more
}

} // namespace
} // namespace zvxfer::host
