// The timed helpers on a PortOpen port, with the fake clock: time-outs,
// idle stops, the lazy deadline and the tick wrap.
#include <gtest/gtest.h>

#include <functional>

#include "fake_clock.h"
#include "hook_reset.h"
#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

using test::FakeClock;
using test::TestHost;

// An idle hook the test scripts: counts calls, answers what `answer` says.
std::function<int32_t(int call)> gIdleAnswer;
int gIdleCalls = 0;
int32_t ScriptedIdle(XferPort *) {
    ++gIdleCalls;
    return gIdleAnswer ? gIdleAnswer(gIdleCalls) : 0;
}

struct TimedFixture : ::testing::Test {
    TimedFixture() {
        test::ResetHooks();
        gIdleCalls = 0;
        gIdleAnswer = nullptr;
        SetPortIdleFunctionPtr(ScriptedIdle);
        port = PortOpen(0, host.Window(), "", 0);
    }
    ~TimedFixture() override {
        port->Ops.PortClose(port); // the last reference: hooks back to defaults
    }
    TestHost host;
    XferPort *port = nullptr;
};

TEST_F(TimedFixture, ReadCharTimedServesBufferedBytesWithoutReadingTheClock) {
    FakeClock clock;
    host.Receive("hi");
    EXPECT_EQ(RxEmpty(port), 0);
    EXPECT_EQ(ReadCharTimed(port, 1000), 'h');
    EXPECT_EQ(ReadCharTimed(port, 0), 'i');
    EXPECT_EQ(clock.Reads(), 0u);
    EXPECT_EQ(RxEmpty(port), 1);
}

TEST_F(TimedFixture, ReadCharTimedTimesOutOnTheTick) {
    FakeClock clock;
    clock.SetStepPerRead(40); // each check moves time on 40 ms
    EXPECT_EQ(ReadCharTimed(port, 100), PortBufferEmpty);
    // Deadline at start + 100: checks at +0, +40, +80 go on, +120 stops.
    EXPECT_EQ(clock.Reads(), 4u);
    EXPECT_EQ(gIdleCalls, 2 * 4); // in ReadBuffer and in the loop, per round

    // Timeout 0 gives up after one round.
    gIdleCalls = 0;
    EXPECT_EQ(ReadCharTimed(port, 0), PortBufferEmpty);
    EXPECT_EQ(gIdleCalls, 2);
}

TEST_F(TimedFixture, ReadCharTimedSurvivesTheTickWrap) {
    FakeClock clock;
    clock.Set(0xFFFFFFF0u);
    clock.SetStepPerRead(10);
    EXPECT_EQ(ReadCharTimed(port, 50), PortBufferEmpty);
    EXPECT_EQ(clock.Reads(), 6u); // 0..50 in steps of 10 across the wrap
}

TEST_F(TimedFixture, ReadCharTimedWithoutLimitWaitsForAByteOrAStop) {
    FakeClock clock; // never moves: only a byte or a stop can end the wait
    host.OnRequest([](TestHost &h, uintptr_t request) {
        if (request == PORT_READ && h.ReadRequests() == 4) h.Receive("Z"); // the fifth ask
    });
    EXPECT_EQ(ReadCharTimed(port, -1), 'Z');
    EXPECT_EQ(host.ReadRequests(), 5);
    EXPECT_EQ(clock.Reads(), 0u);

    host.OnRequest(nullptr);
    gIdleCalls = 0;
    // Odd calls come from ReadBuffer, which ignores the answer.
    gIdleAnswer = [](int call) { return call >= 7 ? -3 : 0; };
    port->Status = 0;
    EXPECT_EQ(ReadCharTimed(port, -1), -3);
    EXPECT_EQ(port->Status, -3);
}

TEST_F(TimedFixture, ReadCharTimedOnALostLineEndsByTimeOut) {
    FakeClock clock(FakeClock::Scaled{1000});
    host.SetReadError(true);
    EXPECT_EQ(ReadCharTimed(port, 2000), PortBufferEmpty);
}

TEST_F(TimedFixture, WriteCharTimed) {
    FakeClock clock;
    EXPECT_EQ(WriteCharTimed(port, 'a', 100), 0);
    EXPECT_EQ(host.WrittenString(), "a");
    EXPECT_EQ(clock.Reads(), 0u);

    // A host that takes nothing: -9 once the deadline passes; Status is
    // left as it was before the call.
    host.SetWriteLimit(0);
    clock.SetStepPerRead(60);
    port->Status = PortNotSupported;
    EXPECT_EQ(WriteCharTimed(port, 'b', 100), PortBufferFull);
    EXPECT_EQ(port->Status, PortNotSupported);
    EXPECT_GE(gIdleCalls, 1);

    // The idle hook's stop ends the wait with its value.
    gIdleAnswer = [](int) { return -16; };
    EXPECT_EQ(WriteCharTimed(port, 'c', -1), -16);

    // A lost line ends it at once.
    gIdleAnswer = nullptr;
    host.SetWriteError(true);
    EXPECT_EQ(WriteCharTimed(port, 'd', -1), PortGeneralError);
    EXPECT_EQ(host.WrittenString(), "a");
}

TEST_F(TimedFixture, IdleWaitCallsTheHookUntilTimeIsUp) {
    {
        FakeClock clock;
        clock.SetStepPerRead(10);
        EXPECT_EQ(IdleWait(port, 50), 0);
        EXPECT_GE(gIdleCalls, 2);
        EXPECT_LE(gIdleCalls, 5);
        gIdleCalls = 0;
        EXPECT_EQ(IdleWait(port, 0), 0);
        EXPECT_EQ(gIdleCalls, 0);
        gIdleAnswer = [](int call) { return call == 2 ? -7 : 0; };
        EXPECT_EQ(IdleWait(port, 100000), -7);
    }
    // A long wait on the scaled clock sleeps through in real milliseconds.
    FakeClock fast(FakeClock::Scaled{1000});
    gIdleAnswer = nullptr;
    gIdleCalls = 0;
    EXPECT_EQ(IdleWait(port, 30000), 0);
    EXPECT_GE(gIdleCalls, 1);
}

TEST_F(TimedFixture, PumpMessagesAndPumpDelay) {
    int painted = 0;
    ZvHwnd w = ZvCreateWindow(
        [](ZvHwnd win, uint32_t m, uintptr_t, intptr_t) -> intptr_t {
            if (m == ZV_WM_PAINT) ++*static_cast<int *>(ZvGetWindowUserData(win));
            return 0;
        },
        &painted);
    EXPECT_EQ(PumpMessages(0), 1); // nothing there
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    EXPECT_EQ(PumpMessages(5), 1);
    EXPECT_EQ(painted, 1);
    for (uint32_t closing : {ZV_WM_CLOSE, ZV_WM_DESTROY, ZV_WM_NCDESTROY, ZV_WM_QUIT}) {
        ZvPostMessage(w, closing, 0, 0);
        EXPECT_EQ(PumpMessages(5), 0) << closing;
        ZvMsg m{};
        EXPECT_EQ(ZvPeekMessage(&m, 0), 0) << "removed";
    }
    ZvPostMessage(w, ZV_WM_SYSCOMMAND, ZV_SC_CLOSE, 0);
    EXPECT_EQ(PumpMessages(5), 0);

    {
        // The clock never moves: only the close request ends the delay.
        FakeClock clock;
        ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
        ZvPostMessage(w, ZV_WM_CLOSE, 0, 0);
        PumpDelay(1000);
        EXPECT_EQ(painted, 2);
    }
    FakeClock fast(FakeClock::Scaled{1000});
    PumpDelay(20000); // 20 ms of real time
    ZvDestroyWindow(w);
}

} // namespace
} // namespace zvxfer
