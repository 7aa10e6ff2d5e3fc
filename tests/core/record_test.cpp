// Transfer-record operations over a PortOpen port: status lines, the abort
// check, XferInit, the clean-up and quiet wait, and the patient writers.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "host_record.h"
#include "locale/locale.h"
#include "platform/heap.h"
#include "port/port.h"

namespace zvxfer {
namespace {

using test::CountStatus;
using test::kCancelString;
using test::StatusLines;
using test::TestHost;
using Lines = std::vector<std::string>;

template <uint32_t StepMs>
struct Rec : ::testing::Test, test::HostRecord {
    Rec() : HostRecord(StepMs) {}
    void Abort(int32_t answer) {
        answer_ = answer;
        port->Hooks->AbortFunction = [](XferRecord *) { return ++calls_, answer_; };
    }
    static inline int32_t answer_ = 0;
    static inline int calls_ = 0;
    static inline const uint8_t data_[5] = {1, 2, 3, 4, 5};
};
using CoreRecord = Rec<100>;  // clean-ups settle in a few rounds
using Cleanup = Rec<50>;      // finer steps for the quiet-wait timings
using PatientWrite = Rec<97>; // about 300 ms a retry round

TEST_F(CoreRecord, StatusLinesShowTheBareNameAndAreCutNotOverflowed) {
    XferStatus(&record, 0, "Sending block %ld", 7L);
    record.FileName = const_cast<char *>("/tmp/dl/report.txt");
    XferStatus(&record, 1, "%s", "done");
    plat::SetAllocFailAfter(0); // without the heap the line still arrives
    XferStatus(&record, 1, "no heap %d", 1);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(StatusLines(), (Lines{"0 <\?\?\?> : Sending block 7", "1 report.txt : done",
                                    "1 report.txt : no heap 1"}));

    // A 249-character name leaves room for a 6-character format, 250 do not:
    // the texts of 28264 and 28263 stand in.  Messages are cut at 255
    // characters, lines at 341.
    StatusLines().clear();
    std::string name(249, 'n');
    for (int i = 0; i < 2; ++i, name += 'n') {
        record.FileName = name.data();
        XferStatus(&record, 0, "abc %d", 5);
    }
    record.FileName = nullptr;
    XferStatus(&record, 0, "%s", std::string(1000, 'x').c_str());
    std::string longName(400, 'y');
    record.FileName = longName.data();
    XferStatus(&record, 0, "x");
    char first[256], second[256];
    MessageTextCopy(28264, first, sizeof first);
    MessageTextCopy(28263, second, sizeof second);
    ASSERT_EQ(StatusLines().size(), 4u);
    EXPECT_EQ(StatusLines()[0], "0 " + std::string(249, 'n') + " : abc 5");
    EXPECT_EQ(StatusLines()[1],
              ("0 " + std::string(250, 'n') + " : " + first + ". " + second).substr(0, 343));
    EXPECT_EQ(StatusLines()[2], "0 <\?\?\?> : " + std::string(255, 'x'));
    EXPECT_EQ(StatusLines()[3].size(), 343u);

    record.StatusCallback = nullptr; // no callback: nothing happens
    XferStatus(&record, 0, "x");
    EXPECT_EQ(StatusLines().size(), 4u);
}

TEST_F(CoreRecord, AbortCheckAsksTheHookOnlyWhileRunning) {
    static int progress = 0;
    record.ProgressCallback = [](XferRecord *) { return ++progress; };
    Abort(-605);
    calls_ = 0;
    record.Result = -602;
    EXPECT_EQ(XferCheckAbort(&record), 0);
    record.Result = -605;
    EXPECT_EQ(XferCheckAbort(&record), 1);
    EXPECT_EQ(progress, 2);
    EXPECT_EQ(calls_, 0) << "a failed transfer never asks the host again";
    record.Result = answer_ = 0;
    EXPECT_EQ(XferCheckAbort(&record), 0);
    EXPECT_EQ(calls_, 1);
    EXPECT_TRUE(StatusLines().empty());

    // A verdict, positive too, stops: notice 28263 (not B+) and the
    // clean-up (not Kermit, not B+).
    const int32_t cases[][2] = {{Ascii, -605}, {Ymodem, 3}, {Kermit, -605}, {CompuServeBPlus, -8}};
    for (const auto &[protocol, answer] : cases) {
        SCOPED_TRACE(protocol);
        answer_ = 0;
        ASSERT_TRUE(Fresh(int8_t(protocol)));
        StatusLines().clear();
        answer_ = answer;
        EXPECT_EQ(XferCheckAbort(&record), 1);
        EXPECT_EQ(record.Result, answer);
        EXPECT_EQ(CountStatus("", 1), protocol == CompuServeBPlus ? 0 : 1);
        EXPECT_EQ(record.Buffer == nullptr, protocol == Ascii || protocol == Ymodem);
        answer_ = 0;
    }
}

TEST_F(CoreRecord, InitResetsOrFailsWithoutBufferOrOnAnAbort) {
    port->Status = -9;
    record.Protocol = CompuServeBPlus;
    ASSERT_EQ(XferInit(&record), 1);
    EXPECT_EQ(port->Status, 0);
    EXPECT_EQ(record.BlockSize, 1031);
    EXPECT_EQ(record.BlockNumber, 1);

    ASSERT_TRUE(Fresh(Ascii, false, false));
    plat::SetAllocFailAfter(0);
    const int ok = XferInit(&record);
    plat::SetAllocFailAfter(-1);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(record.Result, -601);
    EXPECT_EQ(CountStatus("Failed to allocate XFER buffer(s)"), 1);

    ASSERT_TRUE(Fresh(Ascii, false, false));
    Abort(-605);
    EXPECT_EQ(XferInit(&record), 0);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(record.Buffer, nullptr) << "the abort ran the clean-up";
}

TEST_F(Cleanup, FailureSendsTheCancelStringSettlesAndDrains) {
    const int8_t protocols[] = {Xmodem, Ymodem,    Xmodem1K, Kermit, CompuServeBPlus,
                                Ascii,  Xmodem1KG, YmodemG,  Zmodem, Ymodem};
    for (const int8_t &p : protocols) {
        const bool failed = &p != std::end(protocols) - 1; // the last succeeds
        SCOPED_TRACE(int(p));
        ASSERT_TRUE(Fresh(p));
        host.ClearWritten();
        record.Result = failed ? -606 : 0; // -606: the remote cancelled
        host.SetChunkSize(7);
        host.Receive(std::string(100, 'g'));
        const uint32_t start = clock.Now();
        XferCleanup(&record);
        EXPECT_EQ(host.WrittenString(),
                  failed && (p == Xmodem || p == Ymodem || p == Xmodem1K) ? kCancelString : "");
        EXPECT_EQ(clock.Now() - start >= 1000u, failed) << "one second to settle";
        EXPECT_EQ(host.Unread() == 0, failed);
        EXPECT_EQ(record.Buffer, nullptr);
        EXPECT_EQ(record.Result, failed ? -606 : 0);
    }
    // A repeated clean-up repeats the cancel string; a lost line keeps the
    // failure that ended the transfer.
    ASSERT_TRUE(Fresh(Xmodem));
    record.Result = -608;
    XferCleanup(&record);
    host.ClearWritten();
    XferCleanup(&record);
    EXPECT_EQ(host.WrittenString(), kCancelString);
    host.SetWriteError(true);
    XferCleanup(&record);
    EXPECT_EQ(record.Result, -608);
    EXPECT_EQ(CountStatus("Error -1 sending buffer"), 1);
}

TEST_F(Cleanup, ZmodemPurgesThenCancelsOnceUnlessTheRemoteAborted) {
    static Lines events;
    port->Ops.PurgeTx = [](XferPort *) { return events.push_back("purge"), 0; };
    host.OnRequest([](TestHost &, uintptr_t request) {
        if (request == PORT_WRITE) events.push_back("write");
    });
    ASSERT_TRUE(Fresh(Zmodem));
    events.clear();
    record.Result = -605;
    XferCleanup(&record);
    XferCleanup(&record); // the Buffer is gone: a second sends nothing
    EXPECT_EQ(events, (Lines{"purge", "write"}));
    EXPECT_EQ(host.WrittenString(), kCancelString);
}

TEST_F(Cleanup, ReleasesWhatTheTransferHeld) {
    ASSERT_TRUE(Fresh(Zmodem, false)); // a ZMODEM receiver's name is the heap's
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

    port->Hooks->WorkBuffer = plat::HeapAllocZero(16);
    for (int release : {0, 1}) { // option 1027
        ASSERT_TRUE(Fresh(Ascii));
        record.ReleaseHookBuffer = int8_t(release);
        XferCleanup(&record);
        EXPECT_EQ(port->Hooks->WorkBuffer == nullptr, release == 1);
    }
}

TEST_F(Cleanup, WaitQuietEndsAfterASilentSecondOrANulOrOnAbort) {
    // Bytes the line hands over once the clock has reached their time.
    static std::vector<std::pair<uint32_t, char>> arrivals;
    host.OnRequest([this](TestHost &h, uintptr_t request) {
        while (request == PORT_READ && !arrivals.empty() &&
               int32_t(clock.Now() - arrivals.front().first) >= 0) {
            h.Receive(std::string(1, arrivals.front().second));
            arrivals.erase(arrivals.begin());
        }
    });
    host.Receive("noise");
    uint32_t t = clock.Now();
    arrivals = {{t + 400, 'x'}, {t + 900, 'y'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    EXPECT_TRUE(host.Unread() == 0 && arrivals.empty());
    EXPECT_GE(clock.Now() - t, 1900u) << "a full second after the last byte";

    t = clock.Now();
    arrivals = {{t + 300, 'x'}, {t + 600, '\0'}, {t + 700, 'z'}};
    EXPECT_EQ(XferWaitQuiet(&record), 1);
    EXPECT_GE(clock.Now() - t, 600u);
    EXPECT_LT(clock.Now() - t, 700u) << "the NUL ended the wait";

    Abort(-605);
    EXPECT_EQ(XferWaitQuiet(&record), 0);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(host.WrittenString(), kCancelString) << "the abort cleaned up";
}

TEST_F(PatientWrite, PartialAndRefusedWritesAreResentUntilAllIsTaken) {
    host.SetWriteLimit(100);
    std::vector<uint8_t> data(300);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(255 - i);
    EXPECT_EQ(XferWriteBuffer(&record, data.data(), 300), 0);
    EXPECT_EQ(host.WriteRequests(), 3);
    EXPECT_EQ(host.Written(), data);
    EXPECT_EQ(port->Count, 300u);

    host.ClearWritten();
    host.RefuseWrites(3);
    EXPECT_EQ(XferWriteBuffer(&record, data.data(), 50), 0);
    EXPECT_EQ(host.Written(), std::vector<uint8_t>(data.begin(), data.begin() + 50));
    EXPECT_EQ(record.Result, 0);

    host.SetWriteError(true); // a lost line fails at once
    EXPECT_EQ(XferWriteBuffer(&record, data.data(), 3), -1);
    EXPECT_EQ(record.Result, -612);
    EXPECT_EQ(CountStatus("Error -1 sending buffer"), 1);
    record.Result = 0;
    EXPECT_EQ(XferWriteChar(&record, 'C'), -1);
    EXPECT_EQ(record.Result, -615);
}

TEST_F(PatientWrite, GivesUpAfterThirtySecondsForACharAndSixtyForABuffer) {
    host.SetWriteLimit(0);
    for (bool buffer : {false, true}) {
        SCOPED_TRACE(buffer);
        StatusLines().clear();
        record.Result = 0;
        const uint32_t start = clock.Now(), limit = buffer ? 60000 : 30000;
        EXPECT_EQ(buffer ? XferWriteBuffer(&record, data_, 5) : XferWriteChar(&record, 'A'), -9);
        EXPECT_GE(clock.Now() - start, limit);
        EXPECT_LT(clock.Now() - start, limit + 400);
        EXPECT_EQ(record.Result, buffer ? -612 : -615);
        // A countdown line every five seconds, then notice 28295.
        Lines expected;
        for (int s = int(limit / 1000) - 5; s >= 0; s -= 5)
            expected.push_back(
                "0 <\?\?\?> : " + std::to_string(s) +
                (buffer ? " sec to complete WriteBuffer" : " sec left to WriteChar"));
        ASSERT_EQ(StatusLines().size(), expected.size() + 1);
        EXPECT_EQ(Lines(StatusLines().begin(), StatusLines().end() - 1), expected);
        EXPECT_EQ(StatusLines().back()[0], '1');
    }
}

TEST_F(PatientWrite, HandshakeIsRetriedWhileIdleStopsAndAbortEndIt) {
    record.Protocol = Ascii; // no cancel string when an abort cleans up
    static int blocked = 0;
    auto *write = port->Ops.WriteChar;
    port->Ops.WriteChar = [](XferPort *p, uint8_t) { return ++blocked < 4 ? p->Status = -36 : 0; };
    port->Status = 0;
    EXPECT_EQ(XferWriteChar(&record, 'Z'), 0);
    EXPECT_EQ(blocked, 4);
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(port->Status, 0) << "a blocked port is no failure yet";
    port->Ops.WriteChar = write;

    host.SetWriteLimit(0);
    port->Hooks->IdleFunction = [](XferPort *) { return -77; };
    EXPECT_EQ(XferWriteChar(&record, 'A'), -77);
    EXPECT_EQ(record.Result, -615);
    record.Result = 0;
    EXPECT_EQ(XferWriteBuffer(&record, data_, 1), -77);
    EXPECT_EQ(record.Result, -615);

    record.Result = 0;
    StatusLines().clear();
    port->Hooks->IdleFunction = &DefaultIdle;
    Abort(-605);
    EXPECT_EQ(XferWriteChar(&record, 'A'), -605);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(CountStatus("", 1), 1) << "notice 28263 from the abort check";
}

} // namespace
} // namespace zvxfer
