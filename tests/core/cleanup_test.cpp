// The end of a transfer over a port made by PortOpen: cancel string per
// protocol, settle and drain, releases, repeated clean-up, a lost line; the
// wait for a quiet line; and the patient writers against partial writes.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host_record.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer {
namespace {

using test::kCancelString;
using test::TestHost;

class Cleanup : public ::testing::Test, public test::HostRecord {
  protected:
    Cleanup() : HostRecord(50) {} // the one-second settle takes few rounds
};

TEST_F(Cleanup, XmodemFamilySendsTheCancelStringThenDrains) {
    for (int8_t protocol : {Xmodem, Ymodem, Xmodem1K}) {
        ASSERT_TRUE(Fresh(protocol));
        host.ClearWritten();
        record.Result = -608; // failed before any block went out
        host.SetChunkSize(7);
        host.Receive(std::string(100, 'g'));
        const uint32_t start = clock.Now();
        XferCleanup(&record);
        EXPECT_EQ(host.WrittenString(), kCancelString) << int(protocol);
        EXPECT_GE(clock.Now() - start, 1000u) << "one second to settle";
        EXPECT_EQ(host.Unread(), 0u) << "everything the host held was read and dropped";
        EXPECT_EQ(record.Buffer, nullptr);
        EXPECT_EQ(record.Result, -608);
    }
    // A second clean-up repeats the cancel string but releases nothing more.
    host.ClearWritten();
    XferCleanup(&record);
    EXPECT_EQ(host.WrittenString(), kCancelString);
}

std::vector<std::string> g_events;
int32_t RecordPurge(XferPort *) {
    g_events.push_back("purge");
    return 0;
}

TEST_F(Cleanup, ZmodemPurgesFirstUnlessTheRemoteAborted) {
    port->Ops.PurgeTx = &RecordPurge;
    host.OnRequest([](TestHost &, uintptr_t request) {
        if (request == PORT_WRITE) g_events.push_back("write");
    });
    g_events.clear();
    ASSERT_TRUE(Fresh(Zmodem));
    record.Result = -605;
    XferCleanup(&record);
    EXPECT_EQ(g_events, (std::vector<std::string>{"purge", "write"}));
    EXPECT_EQ(host.WrittenString(), kCancelString);

    ASSERT_TRUE(Fresh(Zmodem));
    g_events.clear();
    record.Result = -606;
    XferCleanup(&record);
    EXPECT_TRUE(g_events.empty());

    // The Buffer is gone after the first clean-up: a second sends nothing.
    ASSERT_TRUE(Fresh(Zmodem));
    record.Result = -610;
    XferCleanup(&record);
    g_events.clear();
    XferCleanup(&record);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(Cleanup, OtherProtocolsAndSuccessSendNothing) {
    for (int8_t protocol : {Kermit, CompuServeBPlus, Ascii, Xmodem1KG, YmodemG}) {
        ASSERT_TRUE(Fresh(protocol));
        record.Result = -608;
        XferCleanup(&record);
        EXPECT_TRUE(host.Written().empty()) << int(protocol);
    }
    ASSERT_TRUE(Fresh(Ymodem));
    host.Receive("left for the next transfer");
    const uint32_t start = clock.Now();
    XferCleanup(&record);
    EXPECT_TRUE(host.Written().empty());
    EXPECT_GT(host.Unread(), 0u) << "a successful transfer does not drain";
    EXPECT_LT(clock.Now() - start, 1000u);
}

TEST_F(Cleanup, LostLineKeepsTheFailureThatEndedTheTransfer) {
    ASSERT_TRUE(Fresh(Xmodem));
    host.SetWriteError(true);
    record.Result = -606;
    XferCleanup(&record);
    EXPECT_EQ(record.Result, -606) << "the failed cancel string must not hide the cause";
    EXPECT_EQ(test::CountStatus("Error -1 sending buffer"), 1);
}

TEST_F(Cleanup, ReleasesWhatTheTransferHeld) {
    // A ZMODEM receiver's name and the B+ state come from the heap.
    ASSERT_TRUE(Fresh(Zmodem, false));
    record.FileName = static_cast<char *>(plat::HeapAllocZero(32));
    XferCleanup(&record);
    EXPECT_EQ(record.FileName, nullptr);

    ASSERT_TRUE(Fresh(Zmodem, true));
    char name[] = "/kept/by/the/list";
    record.FileName = name;
    XferCleanup(&record);
    EXPECT_EQ(record.FileName, name) << "a sender's name belongs to its list";

    ASSERT_TRUE(Fresh(CompuServeBPlus));
    record.ProtocolParam = reinterpret_cast<intptr_t>(plat::HeapAllocZero(64));
    XferCleanup(&record);
    EXPECT_EQ(record.ProtocolParam, 0);

    // Option 1027: the hook record's work buffer goes too.
    ThreadHooks *hooks = ThreadHooksFind();
    ASSERT_EQ(hooks, port->Hooks);
    hooks->WorkBuffer = plat::HeapAllocZero(16);
    ASSERT_TRUE(Fresh(Ascii));
    XferCleanup(&record);
    EXPECT_NE(hooks->WorkBuffer, nullptr) << "kept without option 1027";
    ASSERT_TRUE(Fresh(Ascii));
    record.ReleaseHookBuffer = 1;
    XferCleanup(&record);
    EXPECT_EQ(hooks->WorkBuffer, nullptr);
}

// Bytes the line hands over once the clock has reached their time.
std::vector<std::pair<uint32_t, char>> g_arrivals;
void Arrive(test::FakeClock &clock, TestHost &host) {
    host.OnRequest([&clock](TestHost &h, uintptr_t request) {
        while (request == PORT_READ && !g_arrivals.empty() &&
               static_cast<int32_t>(clock.Now() - g_arrivals.front().first) >= 0) {
            h.Receive(std::string(1, g_arrivals.front().second));
            g_arrivals.erase(g_arrivals.begin());
        }
    });
}

TEST_F(Cleanup, WaitQuietEndsAfterASilentSecondOrANul) {
    ASSERT_TRUE(Fresh(Xmodem));
    Arrive(clock, host);
    host.Receive("noise");
    uint32_t t = clock.Now();
    g_arrivals = {{t + 400, 'x'}, {t + 900, 'y'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    EXPECT_TRUE(host.Unread() == 0 && g_arrivals.empty());
    EXPECT_GE(clock.Now() - t, 1900u) << "a full second after the last byte";

    t = clock.Now();
    g_arrivals = {{t + 300, 'x'}, {t + 600, '\0'}, {t + 700, 'z'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    const uint32_t waited = clock.Now() - t;
    EXPECT_GE(waited, 600u);
    EXPECT_LT(waited, 700u) << "the NUL ended the wait";
}

int32_t UserAbort(XferRecord *) {
    return -605;
}

TEST_F(Cleanup, WaitQuietStopsOnAbort) {
    ASSERT_TRUE(Fresh(Xmodem));
    host.ClearWritten();
    port->Hooks->AbortFunction = &UserAbort;
    EXPECT_EQ(XferWaitQuiet(&record), 0);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(host.WrittenString(), kCancelString) << "the abort cleaned up with the cancel string";
}

} // namespace
} // namespace zvxfer
