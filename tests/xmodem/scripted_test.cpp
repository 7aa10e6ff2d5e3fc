// The XMODEM engine against a scripted peer: the peer's bytes are queued in a
// test host up front and everything our side puts on the line is compared
// byte for byte.  A scaled clock lets the multi-second waits pass quickly.
#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "fake_clock.h"
#include "status_log.h"
#include "temp_tree.h"
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

constexpr uint8_t ACK = 0x06, NAK = 0x15, EOT = 0x04, CAN = 0x18;

using test::CountStatus;
using test::StatusLines;
constexpr auto Status = &test::CollectStatus;

Bytes Pattern(std::size_t n, uint8_t seed = 1) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}

Bytes Block(uint8_t number, Bytes data, bool crc = true, std::size_t size = 128) {
    return test::WireBlock(number, std::move(data), crc, size);
}
using test::Cat;

Bytes ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

class XmodemScripted : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLines().clear();
        port_ = PortOpen(0, host_.Window(), folder_.c_str(), XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override { port_->Ops.PortClose(port_); }

    void Peer(const Bytes &bytes) { host_.Receive(bytes); }
    std::string Target() { return tree_.Path("in.bin"); }

    FakeClock clock_{FakeClock::Scaled{1000}};
    TempTree tree_;
    std::string folder_ = tree_.Folder();
    TestHost host_;
    XferPort *port_ = nullptr;
};

TEST_F(XmodemScripted, ReceiverAsksWithCAcknowledgesEachBlockAndKeepsPadding) {
    const Bytes data = Pattern(200);
    Peer(Cat({Block(1, Bytes(data.begin(), data.begin() + 128)),
              Block(2, Bytes(data.begin() + 128, data.end())),
              {EOT}}));
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), (Bytes{'C', ACK, ACK, ACK}));
    Bytes expected = data;
    expected.resize(256, 0); // XMODEM carries no size: the padding stays
    EXPECT_EQ(ReadFile(Target()), expected);
    EXPECT_EQ(CountStatus("End of file, cleaning up"), 1);
}

// A file the host opened so that every write fails.
XferFile OpenUnwritable(XferRecord *, const char *, const char *) {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST_F(XmodemScripted, DataTheFileCannotTakeEndsTheTransferBeforeItsEndIsAcknowledged) {
    SetXferFileOpenFunctionPtr(OpenUnwritable);
    Peer(Cat({Block(1, Pattern(128)), Block(2, Pattern(128)), {EOT}}));
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), XferErrFileIo);
    // Blocks are answered and gathered; the failed write comes to light
    // before the EOT is answered, so the sender is told with the cancel
    // string instead of seeing its file acknowledged.
    EXPECT_EQ(host_.Written(), Cat({{'C', ACK, ACK}, test::kCancelBytes}));
}

TEST_F(XmodemScripted, ReceiverStartCharacterFollowsOptions) {
    std::string name = Target();
    Peer(Cat({Block(1, Pattern(10), false), {EOT}}));
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 1008, 0), 1);
    EXPECT_EQ(host_.Written(), (Bytes{NAK, ACK, ACK}));

    // Streaming 1K: 'G', no answer per block, EOT still acknowledged.
    host_.ClearWritten();
    Peer(Cat({Block(1, Pattern(1024), true, 1024), Block(2, Pattern(5), true, 1024), {EOT}}));
    EXPECT_EQ(Xmodem1KReceiveWithOptions(port_, name.data(), Status, nullptr, 1011, 0), 1);
    EXPECT_EQ(host_.Written(), (Bytes{'G', ACK}));
    EXPECT_EQ(ReadFile(Target()).size(), 2048u);
}

TEST_F(XmodemScripted, ReceiverRejectsDamageAndDropsRepeats) {
    Bytes damaged = Block(1, Pattern(128));
    damaged[50] ^= 0x01;
    Peer(Cat(
        {damaged, Block(1, Pattern(128)), Block(1, Pattern(128)), Block(2, Pattern(3)), {EOT}}));
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), 1);
    // A damaged first block is answered with the start request again; then
    // good block: ACK; repeat: ACK and dropped; block 2; EOT.
    EXPECT_EQ(host_.Written(), (Bytes{'C', 'C', ACK, ACK, ACK, ACK}));
    EXPECT_EQ(ReadFile(Target()).size(), 256u);
    EXPECT_EQ(CountStatus("Duplicate block 2"), 1);
}

TEST_F(XmodemScripted, ReceiverFallsBackToChecksumThenGivesUp) {
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0),
              XferErrPacketTimeout);
    Bytes expected{'C', 'C', 'C'};
    expected.insert(expected.end(), 8, NAK); // from the third miss on: checksum mode
    expected.insert(expected.end(), test::kCancelBytes.begin(), test::kCancelBytes.end());
    EXPECT_EQ(host_.Written(), expected);
}

TEST_F(XmodemScripted, TwoCansEndTheTransferWithTheCancelString) {
    Peer({CAN, CAN});
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), XferErrRemoteAbort);
    // The first CAN is counted and answered; the second ends the transfer.
    EXPECT_EQ(host_.Written(), Cat({{'C', 'C'}, test::kCancelBytes}));
}

TEST_F(XmodemScripted, AFileEndedByTheSenderKeepsTheBlocksReceived) {
    const Bytes one = Pattern(128), two = Pattern(128);
    Peer(Cat({Block(1, one), Block(2, two), {CAN, CAN}}));
    std::string name = Target();
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), XferErrRemoteAbort);
    EXPECT_EQ(ReadFile(Target()), Cat({one, two}));
}

TEST_F(XmodemScripted, ReceiverWithSkipPolicyAcknowledgesButWritesNothing) {
    port_->ExistingFilePolicy = XFER_EXISTING_SKIP;
    const std::string existing = tree_.File("in.bin", "keep");
    Peer(Cat({Block(1, Pattern(128)), {EOT}}));
    std::string name = existing;
    EXPECT_EQ(XmodemReceiveWithOptions(port_, name.data(), Status, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), (Bytes{'C', ACK, ACK}));
    EXPECT_EQ(ReadFile(existing), (Bytes{'k', 'e', 'e', 'p'}));
}

TEST_F(XmodemScripted, SenderSendsBlocksAndEot) {
    const Bytes data = Pattern(200);
    std::ofstream(tree_.Path("out.bin"), std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    Peer({'C', ACK, ACK, ACK});
    std::string names = "\"" + tree_.Path("out.bin") + "\"";
    EXPECT_EQ(XmodemSendWithOptions(port_, names.data(), Status, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), Cat({Block(1, Bytes(data.begin(), data.begin() + 128)),
                                    Block(2, Bytes(data.begin() + 128, data.end())),
                                    {EOT}}));
    EXPECT_EQ(CountStatus("Sending block 1"), 1);
    EXPECT_EQ(CountStatus("Sending block 2"), 1);
    EXPECT_EQ(CountStatus("File transmission complete"), 1);
}

// A host's abort hook that answers with a positive value while a write
// waits for room stops the sender there: the value is the result, and no
// later write of the block is tried.
int32_t AbortWithNine(XferRecord *) {
    return 9;
}

TEST_F(XmodemScripted, APositiveAbortAnswerWhileAWriteWaitsEndsTheSend) {
    std::ofstream(tree_.Path("out.bin"), std::ios::binary).write("0123456789", 10);
    std::string names = "\"" + tree_.Path("out.bin") + "\"";
    Peer({'C'});
    host_.RefuseWrites(1000); // the first block meets a full port
    const XferAbortFn saved = port_->Hooks->AbortFunction;
    port_->Hooks->AbortFunction = AbortWithNine;
    const int32_t result = XmodemSendWithOptions(port_, names.data(), Status, nullptr, 0);
    port_->Hooks->AbortFunction = saved;
    EXPECT_EQ(result, 9);
    EXPECT_EQ(CountStatus("Transfer cancelled", 1), 1);
}

TEST_F(XmodemScripted, Sender1KUsesLongBlocksAndFallsBackOnNak) {
    const Bytes data = Pattern(1000);
    std::ofstream(tree_.Path("out.bin"), std::ios::binary)
        .write(reinterpret_cast<const char *>(data.data()), static_cast<long>(data.size()));
    std::string names = "\"" + tree_.Path("out.bin") + "\"";
    Peer({'C', ACK, ACK});
    EXPECT_EQ(Xmodem1KSendWithOptions(port_, names.data(), Status, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), Cat({Block(1, data, true, 1024), {EOT}}));

    // A receiver that asks with NAK gets checksum blocks.
    host_.ClearWritten();
    StatusLines().clear();
    names = "\"" + tree_.Path("out.bin") + "\"";
    Peer({NAK, ACK, ACK});
    EXPECT_EQ(Xmodem1KSendWithOptions(port_, names.data(), Status, nullptr, 0), 1);
    EXPECT_EQ(host_.Written(), Cat({Block(1, data, false, 1024), {EOT}}));
}

TEST_F(XmodemScripted, SenderRefusesEmptyFilesAndUnknownOptions) {
    tree_.File("empty.bin", "");
    std::string names = "\"" + tree_.Path("empty.bin") + "\"";
    Peer({'C'});
    EXPECT_EQ(XmodemSendWithOptions(port_, names.data(), Status, nullptr, 0), XferErrFileIo);
    EXPECT_EQ(host_.Written(), test::kCancelBytes);

    host_.ClearWritten();
    StatusLines().clear();
    names = "\"" + tree_.Path("empty.bin") + "\"";
    EXPECT_EQ(XmodemSendWithOptions(port_, names.data(), Status, nullptr, 1009, 0),
              PortInvalidParameter);
    EXPECT_TRUE(host_.Written().empty());
    EXPECT_TRUE(StatusLines().empty());
}

TEST_F(XmodemScripted, UnansweredEotIsRepeatedTenTimes) {
    tree_.File("out.bin", "abc");
    std::string names = "\"" + tree_.Path("out.bin") + "\"";
    Peer({'C', ACK});
    EXPECT_EQ(XmodemSendWithOptions(port_, names.data(), Status, nullptr, 1016, 2000, 0),
              XferErrTooManyErrors);
    EXPECT_EQ(CountStatus("File transmission complete"), 10);
    const Bytes written = host_.Written();
    const Bytes tail(written.end() - 30, written.end());
    EXPECT_EQ(tail, Cat({Bytes(10, EOT), test::kCancelBytes}));
}

} // namespace
} // namespace zvxfer
