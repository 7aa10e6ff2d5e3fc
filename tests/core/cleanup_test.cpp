// The end of a transfer: cancel string per protocol, settle and drain,
// releases, repeated clean-up; and the wait for a quiet line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/core.h"
#include "fake_port.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer {
namespace {

using test::FakePort;

const std::vector<uint8_t> kCancel = {0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18,
                                      0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08};

class Cleanup : public ::testing::Test {
  protected:
    void TearDown() override { XferCleanup(&record); }

    void Start(int8_t protocol, bool sending = false) {
        XferCleanup(&record);
        record = XferRecord{};
        record.Port = &fake.port;
        record.File = XFER_INVALID_FILE;
        record.FileTime = -1;
        record.Protocol = protocol;
        record.Sending = sending ? 1 : 0;
        ASSERT_EQ(XferInit(&record), 1);
        fake.written.clear();
        fake.events.clear();
    }
    void Queue(const std::string &bytes) {
        for (char c : bytes) fake.rx.push_back(static_cast<uint8_t>(c));
    }

    test::SteppingClock clock{50}; // the one-second settle takes few rounds
    FakePort fake;
    XferRecord record = test::BlankRecord(&fake.port);
};

TEST_F(Cleanup, XmodemFamilySendsTheCancelStringThenDrains) {
    for (int8_t protocol : {Xmodem, Ymodem, Xmodem1K}) {
        Start(protocol);
        record.Result = -608; // failed before any block went out
        Queue("garbage");
        const uint32_t start = test::SteppingClock::Now();
        XferCleanup(&record);
        EXPECT_EQ(fake.written, kCancel) << int(protocol);
        EXPECT_GE(test::SteppingClock::Now() - start, 1000u) << "one second to settle";
        EXPECT_TRUE(fake.rx.empty()) << "drained";
        EXPECT_EQ(record.Buffer, nullptr);
        EXPECT_EQ(record.Result, -608);
    }
    // A second clean-up repeats the cancel string but releases nothing more.
    fake.written.clear();
    XferCleanup(&record);
    EXPECT_EQ(fake.written, kCancel);
}

TEST_F(Cleanup, ZmodemPurgesFirstUnlessTheRemoteAborted) {
    Start(Zmodem);
    record.Result = -605;
    XferCleanup(&record);
    EXPECT_EQ(fake.events, (std::vector<std::string>{"purge", "write:20"}));
    EXPECT_EQ(fake.written, kCancel);

    Start(Zmodem);
    record.Result = -606;
    XferCleanup(&record);
    EXPECT_TRUE(fake.events.empty());

    // The Buffer is gone after the first clean-up: a second sends nothing.
    Start(Zmodem);
    record.Result = -610;
    XferCleanup(&record);
    fake.events.clear();
    XferCleanup(&record);
    EXPECT_TRUE(fake.events.empty());
}

TEST_F(Cleanup, OtherProtocolsAndSuccessSendNothing) {
    for (int8_t protocol : {Kermit, CompuServeBPlus, Ascii, Xmodem1KG, YmodemG}) {
        Start(protocol);
        record.Result = -608;
        XferCleanup(&record);
        EXPECT_TRUE(fake.written.empty()) << int(protocol);
    }
    Start(Ymodem);
    Queue("left for the next transfer");
    const uint32_t start = test::SteppingClock::Now();
    XferCleanup(&record);
    EXPECT_TRUE(fake.written.empty());
    EXPECT_FALSE(fake.rx.empty()) << "a successful transfer does not drain";
    EXPECT_LT(test::SteppingClock::Now() - start, 1000u);
}

TEST_F(Cleanup, ReleasesWhatTheTransferHeld) {
    // A ZMODEM receiver's name and the B+ state come from the heap.
    Start(Zmodem, false);
    record.FileName = static_cast<char *>(plat::HeapAllocZero(32));
    XferCleanup(&record);
    EXPECT_EQ(record.FileName, nullptr);

    Start(Zmodem, true);
    char name[] = "/kept/by/the/list";
    record.FileName = name;
    XferCleanup(&record);
    EXPECT_EQ(record.FileName, name) << "a sender's name belongs to its list";

    Start(CompuServeBPlus);
    record.ProtocolParam = reinterpret_cast<intptr_t>(plat::HeapAllocZero(64));
    XferCleanup(&record);
    EXPECT_EQ(record.ProtocolParam, 0);

    // Option 1027: the hook record's work buffer goes too.
    ThreadHooks *hooks = ThreadHooksFind();
    ASSERT_NE(hooks, nullptr);
    hooks->WorkBuffer = plat::HeapAllocZero(16);
    Start(Ascii);
    XferCleanup(&record);
    EXPECT_NE(hooks->WorkBuffer, nullptr) << "kept without option 1027";
    Start(Ascii);
    record.ReleaseHookBuffer = 1;
    XferCleanup(&record);
    EXPECT_EQ(hooks->WorkBuffer, nullptr);
}

TEST_F(Cleanup, WaitQuietEndsAfterASilentSecondOrANul) {
    Start(Xmodem);
    Queue("noise");
    uint32_t t = test::SteppingClock::Now();
    fake.arrivals = {{t + 400, 'x'}, {t + 900, 'y'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    EXPECT_TRUE(fake.rx.empty() && fake.arrivals.empty());
    EXPECT_GE(test::SteppingClock::Now() - t, 1900u) << "a full second after the last byte";

    t = test::SteppingClock::Now();
    fake.arrivals = {{t + 300, 'x'}, {t + 600, 0}, {t + 700, 'z'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    const uint32_t waited = test::SteppingClock::Now() - t;
    EXPECT_GE(waited, 600u);
    EXPECT_LT(waited, 700u) << "the NUL ended the wait";
}

int32_t UserAbort(XferRecord *) {
    return -605;
}

TEST_F(Cleanup, WaitQuietStopsOnAbort) {
    Start(Xmodem);
    fake.hooks.AbortFunction = &UserAbort;
    EXPECT_EQ(XferWaitQuiet(&record), 0);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(fake.written, kCancel) << "the abort cleaned up with the cancel string";
}

} // namespace
} // namespace zvxfer
