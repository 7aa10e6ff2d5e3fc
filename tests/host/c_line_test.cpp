// The C line host (ZvLineOpen and the ZvLine calls): a file each way
// between two threads through the C side in c_line.c, partial writes into
// a small pipe, a lost line seen from either direction, the descriptors'
// flags and closing, and the refusals of ZvLineOpen.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "c_line.h"
#include "link_files.h"
#include "temp_tree.h"

namespace zvxfer::test {
namespace {

struct Case {
    const char *name;
    int32_t protocol;
    int32_t sent;     // the send entry's result
    int32_t received; // the receive entry's result
    bool hostNamesFile;
};

void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

class CLineTransfer : public ::testing::TestWithParam<Case> {};

// One thread sends a file with each protocol, the other receives it, each
// with a line of its own on one end of a socket pair; the file arrives
// whole.  The size is a whole number of XMODEM blocks, so XMODEM's padding
// adds nothing.
TEST_P(CLineTransfer, FileGoesAcrossTwoThreads) {
    const Case c = GetParam();
    TempTree from, to;
    const FileBytes data = RandomBytes(48 * 1024, 17);
    const std::string path = from.File("data.bin", std::string(data.begin(), data.end()));
    char fileName[XFER_PATH_MAX] = "";
    if (c.hostNamesFile) snprintf(fileName, sizeof fileName, "%s", to.Path("data.bin").c_str());

    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    int32_t sent = 0, received = 0;
    std::thread sender([&] { sent = CLineSend(fds[0], c.protocol, path.c_str()); });
    std::thread receiver([&] {
        received = CLineReceive(fds[1], c.protocol, to.Folder().c_str(),
                                c.hostNamesFile ? fileName : nullptr);
    });
    sender.join();
    receiver.join();
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(sent, c.sent);
    EXPECT_EQ(received, c.received);
    EXPECT_TRUE(ReadFileBytes(to.Path("data.bin")) == data);
}

INSTANTIATE_TEST_SUITE_P(Protocols, CLineTransfer,
                         ::testing::Values(Case{"Xmodem", Xmodem, 1, 1, true},
                                           Case{"Xmodem1K", Xmodem1K, 1, 1, true},
                                           Case{"Ymodem", Ymodem, 1, 1, false},
                                           Case{"Zmodem", Zmodem, 1, 1, false},
                                           Case{"Kermit", Kermit, 0, 0, false}),
                         [](const auto &info) { return std::string(info.param.name); });

std::atomic<bool> gReaderGo{false};
void NoteRefusal() {
    gReaderGo = true;
}

// A pipe of one page that nobody reads until the line has refused a part
// of a block: the writer gets -9 with the count taken, offers the rest
// again when the thread's wait says there is room, and the reader gets
// every byte in order.
TEST(CLine, PartialWritesIntoASmallPipe) {
    int in[2], out[2];
    ASSERT_EQ(pipe(in) | pipe(out), 0);
    ASSERT_GT(fcntl(out[1], F_SETPIPE_SZ, 4096), 0);
    std::vector<uint8_t> data(256 * 1024);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 9));

    gReaderGo = false;
    std::vector<uint8_t> got;
    std::thread reader([&] {
        while (!gReaderGo) std::this_thread::yield();
        uint8_t buf[1000]; // short reads: the line stays nearly full
        for (ssize_t n = 1; got.size() < data.size() && n > 0;)
            if ((n = read(out[0], buf, sizeof buf)) > 0) got.insert(got.end(), buf, buf + n);
    });
    ZvLine *line = ZvLineOpen(in[0], out[1], nullptr);
    ASSERT_NE(line, nullptr);
    XferPort *port = ZvLinePort(line, "", XFER_EXISTING_OVERWRITE);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->PortUserData, reinterpret_cast<uintptr_t>(line));
    const long refusals =
        CLineWriteAll(port, data.data(), static_cast<uint32_t>(data.size()), &NoteRefusal);
    gReaderGo = true; // had nothing been refused
    EXPECT_GT(refusals, 0);
    EXPECT_EQ(ZvLineFlush(line, 10000), 1);
    EXPECT_EQ(ZvLineQueued(line), 0u);
    EXPECT_EQ(ZvLineBytesOut(line), data.size());
    EXPECT_EQ(ZvLineLost(line), 0);
    port->Ops.PortClose(port);
    ZvLineClose(line);
    close(out[1]); // the reader meets the end of what was written
    reader.join();
    EXPECT_TRUE(got == data) << got.size() << " of " << data.size() << " bytes came in order";
    for (int fd : {in[0], in[1], out[0]}) close(fd);
}

// The far end goes away.  Reading: the bytes it sent before still come,
// then the read fails and the line is lost.  Writing only (its reading
// side still open): the queue cannot go out, the line is lost, the next
// write fails; never through SIGPIPE, whose default would end the test.
TEST(CLine, HangUpShowsInLost) {
    struct sigaction dfl = {}, old = {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &dfl, &old);

    int s[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
    ZvLine *line = ZvLineOpen(s[0], s[0], nullptr);
    XferPort *port = ZvLinePort(line, "", XFER_EXISTING_OVERWRITE);
    ASSERT_EQ(write(s[1], "xy", 2), 2);
    close(s[1]);
    uint8_t buf[2] = {};
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 2), 0);
    EXPECT_EQ(std::string(buf, buf + 2), "xy");
    EXPECT_EQ(ZvLineLost(line), 0);
    EXPECT_EQ(port->Ops.ReadBuffer(port, buf, 1), PortGeneralError);
    EXPECT_EQ(ZvLineLost(line), 1);
    port->Ops.PortClose(port);
    ZvLineClose(line);
    close(s[0]);

    int in[2], out[2];
    ASSERT_EQ(pipe(in) | pipe(out), 0);
    line = ZvLineOpen(in[0], out[1], nullptr);
    port = ZvLinePort(line, "", XFER_EXISTING_OVERWRITE);
    close(out[0]);
    EXPECT_EQ(port->Ops.WriteChar(port, 'a'), 0); // queued
    EXPECT_EQ(ZvLineFlush(line, 0), 0);
    EXPECT_EQ(ZvLineLost(line), 1);
    EXPECT_EQ(port->Ops.WriteChar(port, 'b'), PortGeneralError);
    port->Ops.PortClose(port);
    ZvLineClose(line);
    for (int fd : {in[0], in[1], out[1]}) close(fd);
    sigaction(SIGPIPE, &old, nullptr);
}

// The descriptors are non-blocking while the line lives and get their own
// flags back when it closes (a descriptor that was non-blocking stays so);
// closeFds closes both of them, and only then.
TEST(CLine, FlagsRestoredAndCloseFdsHonoured) {
    for (const bool twoFds : {false, true}) {
        for (const bool wasNonBlocking : {false, true}) {
            for (const int closeFds : {0, 1}) {
                SCOPED_TRACE(std::to_string(twoFds) + std::to_string(wasNonBlocking) +
                             std::to_string(closeFds));
                int s[2], p[2];
                ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s) | pipe(p), 0);
                const int readFd = s[0], writeFd = twoFds ? p[1] : s[0];
                for (int fd : {readFd, writeFd})
                    if (wasNonBlocking) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
                const int readFlags = fcntl(readFd, F_GETFL), writeFlags = fcntl(writeFd, F_GETFL);
                ZvLineOptions options{};
                options.size = sizeof options;
                options.closeFds = closeFds;
                ZvLine *line = ZvLineOpen(readFd, writeFd, &options);
                ASSERT_NE(line, nullptr);
                EXPECT_NE(fcntl(readFd, F_GETFL) & fcntl(writeFd, F_GETFL) & O_NONBLOCK, 0);
                ZvLineClose(line);
                if (closeFds) {
                    EXPECT_EQ(fcntl(readFd, F_GETFL), -1);
                    EXPECT_EQ(fcntl(writeFd, F_GETFL), -1);
                } else {
                    EXPECT_EQ(fcntl(readFd, F_GETFL), readFlags);
                    EXPECT_EQ(fcntl(writeFd, F_GETFL), writeFlags);
                }
                for (int fd : {s[0], s[1], p[0], p[1]})
                    if (closeFds == 0 || (fd != readFd && fd != writeFd)) close(fd);
            }
        }
    }
}

// Only the fields an options block's size covers are read (a block from
// an older header): a closeFds past it is not seen.  ZV_LINE_NONE asks for
// no send queue, so a byte goes out at once; by default it waits queued.
TEST(CLine, OptionsAsSizedAndNone) {
    int s[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
    ZvLineOptions options{};
    options.size = offsetof(ZvLineOptions, closeFds);
    options.closeFds = 1;
    ZvLineClose(ZvLineOpen(s[0], s[0], &options));
    EXPECT_NE(fcntl(s[0], F_GETFL), -1) << "closed by a field past the block's size";

    for (const std::size_t sendQueue : {std::size_t{0}, ZV_LINE_NONE}) {
        options = ZvLineOptions{};
        options.size = sizeof options;
        options.sendQueue = sendQueue;
        ZvLine *line = ZvLineOpen(s[0], s[0], &options);
        XferPort *port = ZvLinePort(line, "", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port, nullptr);
        EXPECT_EQ(port->Ops.WriteChar(port, 'q'), 0);
        EXPECT_EQ(ZvLineQueued(line), sendQueue == 0 ? 1u : 0u);
        EXPECT_EQ(ZvLineBytesOut(line), sendQueue == 0 ? 0u : 1u);
        port->Ops.PortClose(port);
        ZvLineClose(line);
        char c = 0;
        EXPECT_EQ(read(s[1], &c, 1), 1);
        EXPECT_EQ(c, 'q');
    }
    close(s[0]);
    close(s[1]);
}

std::string gTrace;
void KeepTrace(const char *text) {
    gTrace += text;
}

// What ZvLineOpen refuses, with errno and a trace saying why; the
// descriptors stay open and as they were, whatever closeFds says.  A close
// on the wrong thread is traced.
TEST(CLine, OpenRefusals) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const int flags = fcntl(p[0], F_GETFL);
    ZvSetDebugOutput(&KeepTrace);
    gTrace.clear();
    ZvLineOptions unsized{};
    unsized.closeFds = 1;
    struct Refusal {
        int readFd, writeFd;
        const ZvLineOptions *options;
        int error;
    } const refusals[] = {
        {p[0], p[1], &unsized, EINVAL}, // the size was not set
        {p[1], p[1], nullptr, EBADF},   // a write-only descriptor to read
        {p[0], p[0], nullptr, EBADF},   // a read-only descriptor to write
        {-1, p[1], nullptr, EBADF},
    };
    for (const Refusal &r : refusals) {
        errno = 0;
        EXPECT_EQ(ZvLineOpen(r.readFd, r.writeFd, r.options), nullptr);
        EXPECT_EQ(errno, r.error);
    }
    EXPECT_NE(gTrace.find("sizeof(ZvLineOptions)"), std::string::npos) << gTrace;
    EXPECT_EQ(fcntl(p[0], F_GETFL), flags);
    EXPECT_NE(fcntl(p[1], F_GETFL), -1);
    EXPECT_EQ(ZvLinePort(nullptr, "", 0), nullptr);

    // A line closed on a thread that did not open it is closed, and said so.
    gTrace.clear();
    ZvLine *line = nullptr;
    std::thread([&] { line = ZvLineOpen(p[0], p[1], nullptr); }).join();
    ASSERT_NE(line, nullptr);
    ZvLineClose(line);
    EXPECT_NE(gTrace.find("did not open the line"), std::string::npos) << gTrace;
    EXPECT_EQ(fcntl(p[0], F_GETFL), flags);
    ZvSetDebugOutput(nullptr);
    close(p[0]);
    close(p[1]);
}

} // namespace
} // namespace zvxfer::test
