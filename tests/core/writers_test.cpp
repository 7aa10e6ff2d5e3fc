// The patient writers against a port that stays full, takes part of each
// write, fails, or is stopped by the idle hook.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "core/core.h"
#include "fake_port.h"

namespace zvxfer {
namespace {

using test::FakePort;
using test::StatusLog;

class PatientWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        StatusLog::lines.clear();
        record.Port = &fake.port;
        record.StatusCallback = &StatusLog::Callback;
        record.Protocol = Ascii; // no cancel string if an abort cleans up
        record.File = XFER_INVALID_FILE;
    }

    // The numbers of the countdown lines that carry `suffix`.
    static std::vector<int> Countdown(const char *suffix) {
        std::vector<int> seconds;
        for (const auto &line : StatusLog::lines) {
            int n = 0;
            const std::size_t at = line.second.find(suffix);
            if (at == std::string::npos) continue;
            const std::size_t colon = line.second.rfind(": ", at);
            if (std::sscanf(line.second.c_str() + colon + 2, "%d", &n) == 1) seconds.push_back(n);
        }
        return seconds;
    }

    test::SteppingClock clock{97}; // ms per tick read: about 300 ms a retry round
    FakePort fake;
    XferRecord record{};
};

TEST_F(PatientWrite, CharGivesUpAfterThirtySeconds) {
    fake.writeCharRule = [] { return -9; };
    const uint32_t start = test::SteppingClock::Now();
    EXPECT_EQ(XferWriteChar(&record, 'A'), -9);
    const uint32_t elapsed = test::SteppingClock::Now() - start;
    EXPECT_EQ(record.Result, -615);
    EXPECT_GE(elapsed, 30000u);
    EXPECT_LT(elapsed, 30400u);
    EXPECT_EQ(Countdown("sec left to WriteChar"), (std::vector<int>{25, 20, 15, 10, 5, 0}));
    ASSERT_FALSE(StatusLog::lines.empty());
    EXPECT_EQ(StatusLog::lines.back().first, 1) << "notice 28295 ends it";
    EXPECT_EQ(StatusLog::Count(1), 1);
}

TEST_F(PatientWrite, BufferGivesUpAfterSixtySeconds) {
    fake.writeRule = [](uint32_t, uint32_t &taken) {
        taken = 0;
        return -9;
    };
    const uint8_t bytes[5] = {1, 2, 3, 4, 5};
    const uint32_t start = test::SteppingClock::Now();
    EXPECT_EQ(XferWriteBuffer(&record, bytes, 5), -9);
    const uint32_t elapsed = test::SteppingClock::Now() - start;
    EXPECT_EQ(record.Result, -612);
    EXPECT_GE(elapsed, 60000u);
    EXPECT_LT(elapsed, 60400u);
    EXPECT_EQ(Countdown("sec to complete WriteBuffer"),
              (std::vector<int>{55, 50, 45, 40, 35, 30, 25, 20, 15, 10, 5, 0}));
    EXPECT_EQ(StatusLog::Count(1), 1);
}

TEST_F(PatientWrite, HandshakeBlockIsRetriedLikeAFullPort) {
    int calls = 0;
    fake.writeCharRule = [&calls] { return ++calls < 4 ? -36 : 0; };
    EXPECT_EQ(XferWriteChar(&record, 'Z'), 0);
    EXPECT_EQ(record.Result, 0);
    EXPECT_EQ(fake.written, std::vector<uint8_t>{'Z'});
}

int32_t StopIdle(XferPort *) {
    return -77;
}

TEST_F(PatientWrite, NegativeIdleHookStopsBothWritersWithMinus615) {
    fake.hooks.IdleFunction = &StopIdle;
    fake.writeCharRule = [] { return -9; };
    EXPECT_EQ(XferWriteChar(&record, 'A'), -77);
    EXPECT_EQ(record.Result, -615);

    record.Result = 0;
    fake.writeRule = [](uint32_t, uint32_t &taken) {
        taken = 0;
        return -9;
    };
    const uint8_t byte = 1;
    EXPECT_EQ(XferWriteBuffer(&record, &byte, 1), -77);
    EXPECT_EQ(record.Result, -615);
}

int32_t UserAbort(XferRecord *) {
    return -605;
}

TEST_F(PatientWrite, AbortDuringTheWaitEndsIt) {
    fake.hooks.AbortFunction = &UserAbort;
    fake.writeCharRule = [] { return -9; };
    EXPECT_EQ(XferWriteChar(&record, 'A'), -605);
    EXPECT_EQ(record.Result, -605);
    EXPECT_TRUE(StatusLog::Count(1) == 1) << "notice 28263 from the abort check";
}

} // namespace
} // namespace zvxfer
