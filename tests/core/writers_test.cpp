// The patient writers against a port that stays full, takes part of each
// write, loses the line, is blocked by handshaking, or is stopped by the idle
// hook or an abort.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "host_record.h"

namespace zvxfer {
namespace {

using test::CountStatus;
using test::StatusLines;

class PatientWrite : public ::testing::Test, public test::HostRecord {
  protected:
    PatientWrite() : HostRecord(97) { // ms per tick read: about 300 ms a retry round
        record.Protocol = Ascii;      // no cancel string if an abort cleans up
    }

    // The numbers of the countdown lines that carry `suffix`.
    static std::vector<int> Countdown(const char *suffix) {
        std::vector<int> seconds;
        for (const std::string &line : StatusLines()) {
            int n = 0;
            const std::size_t at = line.find(suffix);
            if (at == std::string::npos) continue;
            const std::size_t colon = line.rfind(": ", at);
            if (std::sscanf(line.c_str() + colon + 2, "%d", &n) == 1) seconds.push_back(n);
        }
        return seconds;
    }
};

TEST_F(PatientWrite, PartialWritesAreResentUntilAllIsTaken) {
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

TEST_F(PatientWrite, LostConnectionFailsTheWriteAtOnce) {
    host.SetWriteError(true);
    const uint8_t block[3] = {1, 2, 3};
    EXPECT_EQ(XferWriteBuffer(&record, block, 3), -1);
    EXPECT_EQ(record.Result, -612);
    EXPECT_EQ(CountStatus("Error -1 sending buffer"), 1);
    record.Result = 0;
    EXPECT_EQ(XferWriteChar(&record, 'C'), -1);
    EXPECT_EQ(record.Result, -615);
}

TEST_F(PatientWrite, GivesUpAfterThirtySecondsForACharAndSixtyForABuffer) {
    host.SetWriteLimit(0);
    uint32_t start = clock.Now();
    EXPECT_EQ(XferWriteChar(&record, 'A'), -9);
    uint32_t elapsed = clock.Now() - start;
    EXPECT_EQ(record.Result, -615);
    EXPECT_GE(elapsed, 30000u);
    EXPECT_LT(elapsed, 30400u);
    EXPECT_EQ(Countdown("sec left to WriteChar"), (std::vector<int>{25, 20, 15, 10, 5, 0}));
    ASSERT_FALSE(StatusLines().empty());
    EXPECT_EQ(StatusLines().back()[0], '1') << "notice 28295 ends it";
    EXPECT_EQ(CountStatus("", 1), 1);

    StatusLines().clear();
    record.Result = 0;
    const uint8_t bytes[5] = {1, 2, 3, 4, 5};
    start = clock.Now();
    EXPECT_EQ(XferWriteBuffer(&record, bytes, 5), -9);
    elapsed = clock.Now() - start;
    EXPECT_EQ(record.Result, -612);
    EXPECT_GE(elapsed, 60000u);
    EXPECT_LT(elapsed, 60400u);
    EXPECT_EQ(Countdown("sec to complete WriteBuffer"),
              (std::vector<int>{55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5, 0}));
    EXPECT_EQ(CountStatus("", 1), 1);
}

int g_handshakeCalls = 0;
std::string g_handshakeWritten;
int32_t BlockedThreeTimes(XferPort *port, uint8_t byte) {
    if (++g_handshakeCalls < 4) {
        port->Status = -36;
        return -36;
    }
    g_handshakeWritten += static_cast<char>(byte);
    return 0;
}

TEST_F(PatientWrite, HandshakeBlockIsRetriedLikeAFullPort) {
    port->Ops.WriteChar = &BlockedThreeTimes;
    port->Status = 0;
    EXPECT_EQ(XferWriteChar(&record, 'Z'), 0);
    EXPECT_EQ(g_handshakeCalls, 4);
    EXPECT_EQ(g_handshakeWritten, "Z");
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(port->Status, 0) << "a blocked port is no failure yet";
}

int32_t StopIdle(XferPort *) {
    return -77;
}

TEST_F(PatientWrite, NegativeIdleHookStopsBothWritersWithMinus615) {
    port->Hooks->IdleFunction = &StopIdle;
    host.SetWriteLimit(0);
    EXPECT_EQ(XferWriteChar(&record, 'A'), -77);
    EXPECT_EQ(record.Result, -615);

    record.Result = 0;
    const uint8_t byte = 1;
    EXPECT_EQ(XferWriteBuffer(&record, &byte, 1), -77);
    EXPECT_EQ(record.Result, -615);
}

int32_t UserAbort(XferRecord *) {
    return -605;
}

TEST_F(PatientWrite, AbortDuringTheWaitEndsIt) {
    port->Hooks->AbortFunction = &UserAbort;
    host.SetWriteLimit(0);
    EXPECT_EQ(XferWriteChar(&record, 'A'), -605);
    EXPECT_EQ(record.Result, -605);
    EXPECT_EQ(CountStatus("", 1), 1) << "notice 28263 from the abort check";
}

} // namespace
} // namespace zvxfer
