// YMODEM batches against a scripted peer: block 0 on the wire, receive-side
// naming in the port's folder, exact sizes and file times.
#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "temp_tree.h"
#include "fake_clock.h"
#include "test_host.h"
#include "wire_blocks.h"
#include "xmodem/xmodem.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

using test::Bytes;
using test::FakeClock;
using test::TempTree;
using test::TestHost;

constexpr uint8_t ACK = 0x06, EOT = 0x04;

Bytes Block(uint8_t number, Bytes data, std::size_t size) {
    return test::WireBlock(number, std::move(data), true, size);
}

Bytes Block0(const std::string &text) {
    return Block(0, Bytes(text.begin(), text.end()), 128);
}

void Append(Bytes &to, const Bytes &from) {
    to.insert(to.end(), from.begin(), from.end());
}

Bytes Data(std::size_t n) {
    Bytes d(n);
    for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(i * 13 + 5);
    return d;
}

class YmodemScripted : public ::testing::Test {
  protected:
    void Open(const std::string &folder) {
        folder_ = folder;
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override {
        if (port_) port_->Ops.PortClose(port_);
    }

    FakeClock clock_{FakeClock::Scaled{1000}};
    TempTree tree_;
    std::string folder_;
    TestHost host_;
    XferPort *port_ = nullptr;
};

TEST_F(YmodemScripted, ReceiverNamesSizesAndStampsEachFile) {
    Open(tree_.Folder());
    const Bytes data = Data(1000);
    Bytes peer = Block0(std::string("dir\\sub/report.txt") + '\0' + "1000 13727410000 0");
    Append(peer, Block(1, data, 1024));
    peer.push_back(EOT);
    Append(peer, Block0(""));
    host_.Receive(peer);

    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, 0), 1);
    // Start, block 0 acknowledged, start of the data, block, EOT, end of batch.
    EXPECT_EQ(host_.Written(), (Bytes{'C', ACK, 'C', ACK, ACK, 'C', ACK}));
    const std::string path = tree_.Path("report.txt");
    ASSERT_EQ(std::filesystem::file_size(path), 1000u) << "cut to the announced size";
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1600000000);
}

TEST_F(YmodemScripted, FolderWithoutSlashIsANamePrefix) {
    const std::string prefix = tree_.Path("in");
    std::filesystem::create_directories(prefix);
    Open(prefix); // names the folder but does not end in '/'
    Bytes peer = Block0(std::string("file.bin") + '\0' + "3");
    Append(peer, Block(1, Data(3), 128));
    peer.push_back(EOT);
    Append(peer, Block0(""));
    host_.Receive(peer);
    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, 0), 1);
    EXPECT_TRUE(std::filesystem::exists(tree_.Path("infile.bin")));
    EXPECT_EQ(std::filesystem::file_size(tree_.Path("infile.bin")), 3u);
}

TEST_F(YmodemScripted, StreamingSenderThatHangsUpAfterTheLastBlock0LeavesAGoodBatch) {
    Open(tree_.Folder());
    Bytes peer = Block0(std::string("g.bin") + '\0' + "5");
    Append(peer, Block(1, Data(5), 128));
    peer.push_back(EOT);
    Append(peer, Block0(""));
    host_.Receive(peer);
    // Writes: 'G', ACK (block 0), 'G', ACK (EOT), 'G'; the line is gone for
    // the answer to the batch-ending block 0.
    int writes = 0;
    host_.OnRequest([&writes](TestHost &h, uintptr_t request) {
        if (request == PORT_WRITE && ++writes == 6) h.SetWriteError(true);
    });
    EXPECT_EQ(YmodemReceiveWithOptions(port_, nullptr, nullptr, 1011, 0), 1);
    EXPECT_EQ(std::filesystem::file_size(tree_.Path("g.bin")), 5u);
}

TEST_F(YmodemScripted, SenderPutsBlock0BeforeEachFileAndEndsWithAnEmptyOne) {
    Open(tree_.Folder());
    const Bytes data = Data(1000);
    const std::string path = tree_.Path("report.txt");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    struct timespec times[2] = {{1600000000, 0}, {1600000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);

    host_.Receive(Bytes{'C', ACK, 'C', ACK, ACK, 'C', ACK});
    std::string names = "\"" + path + "\"";
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 1);

    Bytes expected = Block0(std::string("report.txt") + '\0' + "1000 13727410000 0");
    Append(expected, Block(1, data, 1024));
    expected.push_back(EOT);
    Append(expected, Block0(""));
    EXPECT_EQ(host_.Written(), expected);
}

TEST_F(YmodemScripted, SilentReceiverAfterTheLastBlock0CountsAsDone) {
    Open(tree_.Folder());
    host_.Receive(Bytes{'C'}); // the receiver never answers the empty block 0
    std::string names = "\"" + tree_.Path("nothing*") + "\"";
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 0);
    EXPECT_EQ(host_.Written(), Block0(""));
}

// The host's abort hook in the zvxfer program turns a lost line into a
// failure; this one does the same once the test has hung the line up.
std::atomic<bool> g_hungUp{false};
int32_t LostLineIsAFailure(XferRecord *) {
    return g_hungUp ? XferErrLostCarrier : 0;
}

TEST_F(YmodemScripted, ReceiverThatHangsUpAfterTheLastBlock0LeavesAGoodBatch) {
    Open(tree_.Folder());
    const Bytes data = Data(1000);
    const std::string path = tree_.Path("report.txt");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    // Every file is acknowledged; once the sender has taken the last 'C' and
    // looks for the answer to the batch-ending block 0, the line is gone
    // (reads report the loss; writes still go out, as to a pty whose other
    // end has closed).
    host_.Receive(Bytes{'C', ACK, 'C', ACK, ACK, 'C'});
    g_hungUp = false;
    host_.OnRequest([](TestHost &h, uintptr_t request) {
        if (request == PORT_READ && h.Unread() == 0) {
            h.SetReadError(true);
            g_hungUp = true;
        }
    });
    SetAbortXferFunctionPtr(LostLineIsAFailure);
    std::string names = "\"" + path + "\"";
    EXPECT_EQ(YmodemSendWithOptions(port_, names.data(), nullptr, nullptr, 0), 1);
    EXPECT_TRUE(g_hungUp);
    const Bytes written = host_.Written();
    const Bytes end = Block0("");
    ASSERT_GE(written.size(), end.size());
    EXPECT_TRUE(std::equal(end.begin(), end.end(), written.end() - static_cast<long>(end.size())))
        << "the batch-ending block 0 is the last thing written: no cancel string";
}

} // namespace
} // namespace zvxfer
