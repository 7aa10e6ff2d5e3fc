// The core over a port made by PortOpen and a scripted host window: partial
// writes, a lost connection, refusals, and the clean-up's cancel string and
// drain, as an engine would see them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "fake_port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

class RealPort : public ::testing::Test {
  protected:
    void SetUp() override {
        port = PortOpen(0, host.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
        ASSERT_NE(port, nullptr);
        record = test::BlankRecord(port);
        record.Protocol = Xmodem;
        record.StatusCallback = &test::StatusLog::Callback;
        test::StatusLog::lines.clear();
        ASSERT_EQ(XferInit(&record), 1);
    }
    void TearDown() override {
        XferCleanup(&record);
        if (port != nullptr) port->Ops.PortClose(port);
    }

    test::SteppingClock clock{100};
    test::TestHost host;
    XferPort *port = nullptr;
    XferRecord record{};
};

TEST_F(RealPort, PartialWritesAreResentUntilAllIsTaken) {
    host.SetWriteLimit(100);
    std::vector<uint8_t> data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(255 - i);
    EXPECT_EQ(XferWriteBuffer(&record, data.data(), 300), 0);
    EXPECT_EQ(host.WriteRequests(), 3);
    EXPECT_EQ(host.Written(), data);
    EXPECT_EQ(port->Count, 300u);

    host.ClearWritten();
    host.RefuseWrites(3);
    EXPECT_EQ(XferWriteBuffer(&record, data.data(), 50), 0);
    EXPECT_EQ(host.Written(), std::vector<uint8_t>(data.begin(), data.begin() + 50));
    EXPECT_EQ(record.Result, 0);
}

TEST_F(RealPort, LostConnectionFailsTheWriteAtOnce) {
    host.SetWriteError(true);
    const uint8_t block[3] = {1, 2, 3};
    EXPECT_EQ(XferWriteBuffer(&record, block, 3), -1);
    EXPECT_EQ(record.Result, -612);
    EXPECT_TRUE(test::StatusLog::Has("Error -1 sending buffer"));
    record.Result = 0;
    EXPECT_EQ(XferWriteChar(&record, 'C'), -1);
    EXPECT_EQ(record.Result, -615);
}

TEST_F(RealPort, FailedXmodemCleanupCancelsAndDrains) {
    host.SetChunkSize(7);
    host.Receive(std::string(100, 'g'));
    record.Result = -608;
    XferCleanup(&record);
    EXPECT_EQ(host.WrittenString(), std::string(10, '\x18') + std::string(10, '\x08'));
    EXPECT_EQ(host.Unread(), 0u) << "everything the host held was read and dropped";
    EXPECT_EQ(record.Buffer, nullptr);
    EXPECT_EQ(record.Result, -608);
}

TEST_F(RealPort, CleanupOnALostLineKeepsTheFailureThatEndedTheTransfer) {
    host.SetWriteError(true);
    record.Result = -606;
    XferCleanup(&record);
    EXPECT_EQ(record.Result, -606) << "the failed cancel string must not hide the cause";
    EXPECT_TRUE(test::StatusLog::Has("Error -1 sending buffer"));
}

} // namespace
} // namespace zvxfer
