// The link operations of a port made by PortOpen, driven through a scripted
// host on the same thread.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

using test::TestHost;

struct PortFixture : ::testing::Test {
    TestHost host;
    XferPort *port = PortOpen(7, host.Window(), "/tmp/in/", XFER_EXISTING_SKIP);
    ~PortFixture() override {
        if (port != nullptr) {
            EXPECT_EQ(port->Ops.PortClose(port), 0);
        }
    }
};

TEST_F(PortFixture, OpenFillsFieldsAndTable) {
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->Status, 0);
    EXPECT_EQ(port->Count, 0u);
    EXPECT_EQ(port->HostWindow, host.Window());
    EXPECT_EQ(port->PortUserData, 7u);
    EXPECT_STREQ(port->ReceiveFolder, "/tmp/in/");
    EXPECT_EQ(port->ExistingFilePolicy, XFER_EXISTING_SKIP);
    ASSERT_NE(port->TxBuffer, nullptr);
    ASSERT_NE(port->Hooks, nullptr);
    EXPECT_GE(port->Hooks->PortRefs, 1);

    EXPECT_EQ(port->Ops.Reserved2, nullptr);
    for (auto slot :
         {port->Ops.Reserved1, port->Ops.Reserved3, port->Ops.Reserved4, port->Ops.Reserved5}) {
        port->Status = 0;
        EXPECT_EQ(slot(port, 5), PortNotSupported);
        EXPECT_EQ(port->Status, PortNotSupported);
    }
    port->Ops.ClearError(port);
    EXPECT_EQ(port->Status, 0);
    EXPECT_EQ(port->Ops.TxFree(port), 4096);
    EXPECT_EQ(port->Ops.RxFree(port), 4096);
    EXPECT_EQ(port->Ops.TxCount(port), 0);
    EXPECT_EQ(port->Ops.PurgeTx(port), 0);
    EXPECT_EQ(host.Messages(), 0); // none of these talks to the host
}

TEST_F(PortFixture, PeekAsksOnceAndReadTakesTheSameByte) {
    host.Receive("AB");
    EXPECT_EQ(port->Ops.PeekChar(port), 'A');
    EXPECT_EQ(port->Ops.PeekChar(port), 'A');
    EXPECT_EQ(host.ReadRequests(), 1);
    EXPECT_EQ(port->Ops.RxCount(port), 2);
    EXPECT_EQ(port->Ops.ReadChar(port), 'A');
    EXPECT_EQ(port->Ops.ReadChar(port), 'B');
    EXPECT_EQ(host.ReadRequests(), 1);
    // Empty: ReadChar and PeekChar pass -8 on, RxCount answers 0.
    EXPECT_EQ(port->Ops.ReadChar(port), PortBufferEmpty);
    EXPECT_EQ(port->Ops.PeekChar(port), PortBufferEmpty);
    EXPECT_EQ(port->Ops.RxCount(port), 0);
    EXPECT_EQ(port->Status, 0); // reads never touch Status
}

TEST_F(PortFixture, ReadBufferShortAndNullDestination) {
    host.Receive("wxyz");
    uint8_t buffer[10] = {};
    EXPECT_EQ(port->Ops.ReadBuffer(port, buffer, 10), PortBufferEmpty);
    EXPECT_EQ(port->Count, 4u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 4), "wxyz");
    EXPECT_EQ(port->RxBlock.Length, 0u);
    EXPECT_EQ(host.ReadRequests(), 1);

    // The next call asks again; with nothing there it reports 0 moved.
    EXPECT_EQ(port->Ops.ReadBuffer(port, buffer, 10), PortBufferEmpty);
    EXPECT_EQ(port->Count, 0u);
    EXPECT_EQ(host.ReadRequests(), 2);

    // A null destination of length 0 only fetches the host's block.
    host.Receive("12345");
    host.SetChunkSize(3);
    EXPECT_EQ(port->Ops.ReadBuffer(port, nullptr, 0), 0);
    EXPECT_EQ(port->RxBlock.Length, 3u);
    EXPECT_EQ(port->Count, 0u);
    // A null destination with a length drops bytes.
    EXPECT_EQ(port->Ops.ReadBuffer(port, nullptr, 2), 0);
    EXPECT_EQ(port->Count, 2u);
    EXPECT_EQ(port->Ops.ReadChar(port), '3');
    EXPECT_EQ(port->Ops.ReadChar(port), '4'); // second chunk
    EXPECT_EQ(host.ReadRequests(), 4);
}

TEST_F(PortFixture, LostConnectionOnRead) {
    host.SetReadError(true);
    port->Status = 0;
    EXPECT_EQ(port->Ops.ReadChar(port), PortGeneralError);
    EXPECT_EQ(port->Ops.PeekChar(port), PortGeneralError);
    uint8_t b;
    EXPECT_EQ(port->Ops.ReadBuffer(port, &b, 1), PortGeneralError);
    EXPECT_EQ(port->Status, 0);
    EXPECT_EQ(host.ReadRequests(), 3);
    // Bytes the host had already handed over are still served.
    host.SetReadError(false);
    host.Receive("x");
    EXPECT_EQ(port->Ops.PeekChar(port), 'x');
    host.SetReadError(true);
    EXPECT_EQ(port->Ops.ReadChar(port), 'x');
}

TEST_F(PortFixture, WriteBufferWholePartAndError) {
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(port->Ops.WriteBuffer(port, data, 5), 0);
    EXPECT_EQ(port->Count, 5u);
    EXPECT_EQ(port->TxBlock.Data, port->TxBuffer);
    EXPECT_EQ(host.Written(), std::vector<uint8_t>({1, 2, 3, 4, 5}));

    host.ClearWritten();
    host.SetWriteLimit(2);
    EXPECT_EQ(port->Ops.WriteBuffer(port, data, 5), PortBufferFull);
    EXPECT_EQ(port->Count, 2u);
    EXPECT_EQ(port->Status, PortBufferFull);
    EXPECT_EQ(host.Written(), std::vector<uint8_t>({1, 2}));

    host.SetWriteError(true);
    EXPECT_EQ(port->Ops.WriteBuffer(port, data, 5), PortGeneralError);
    EXPECT_EQ(port->Status, PortGeneralError);
}

TEST_F(PortFixture, WriteCharRetriesRefusalsAndStopsOnError) {
    host.RefuseWrites(3);
    EXPECT_EQ(port->Ops.WriteChar(port, 'Q'), 0);
    EXPECT_EQ(host.WriteRequests(), 4);
    EXPECT_EQ(host.WrittenString(), "Q");

    // A host that never takes the byte: the retries end with -9.
    host.SetWriteLimit(0);
    EXPECT_EQ(port->Ops.WriteChar(port, 'R'), PortBufferFull);

    // An error ends the retry loop at once.
    const int before = host.WriteRequests();
    host.SetWriteError(true);
    EXPECT_EQ(port->Ops.WriteChar(port, 'S'), PortGeneralError);
    EXPECT_EQ(host.WriteRequests(), before + 1);
    EXPECT_EQ(port->Status, PortGeneralError);
}

TEST_F(PortFixture, WriteLongerThanStagingBufferGoesOutInPart) {
    std::vector<uint8_t> big(5000, 0x5A);
    EXPECT_EQ(port->Ops.WriteBuffer(port, big.data(), 5000), PortBufferFull);
    EXPECT_EQ(port->Count, 4096u);
    EXPECT_EQ(host.Written().size(), 4096u);
}

// Records the length asked for and the bytes moved by every ReadBuffer
// that goes through the operation table.
struct ReadSpy {
    static inline decltype(XferPortOps::ReadBuffer) original = nullptr;
    static inline std::vector<std::pair<uint32_t, uint32_t>> calls;
    static int32_t Read(XferPort *port, uint8_t *destination, uint32_t length) {
        const int32_t r = original(port, destination, length);
        calls.emplace_back(length, port->Count);
        return r;
    }
};

TEST_F(PortFixture, ClearRxBufferReadsIn64ByteSteps) {
    host.Receive(std::string(150, 'z'));
    ReadSpy::original = port->Ops.ReadBuffer;
    ReadSpy::calls.clear();
    port->Ops.ReadBuffer = ReadSpy::Read;
    EXPECT_EQ(ClearRXBuffer(port), 0);
    using Call = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(ReadSpy::calls, (std::vector<Call>{{64, 64}, {64, 64}, {64, 22}, {64, 0}}));
    EXPECT_EQ(host.Unread(), 0u);

    host.Receive("abc");
    host.SetReadError(true);
    EXPECT_EQ(ClearRXBuffer(port), PortGeneralError);
}

} // namespace
} // namespace zvxfer
