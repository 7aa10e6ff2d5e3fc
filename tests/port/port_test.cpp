// The port made by PortOpen: link operations through the host's window
// message, the timed helpers on the fake clock, the hook record and the
// default idle hook.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fake_clock.h"
#include "platform/heap.h"
#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

using V = std::vector<int32_t>;

// Tests share the process's one hook record: start each from the defaults
// (a port's close releases the record when it holds the last reference).
void ResetHooks() {
    XferPort *p = PortOpen(0, nullptr, "", 0);
    ASSERT_EQ(p->Hooks->PortRefs, 1) << "a port of another test is still open";
    p->Ops.PortClose(p);
}

// An idle hook the test scripts: counts calls, answers what `g_idle` says.
std::function<int32_t(int call)> g_idle;
int g_idleCalls = 0;

struct Port : ::testing::Test {
    XferPort *Open() {
        ResetHooks();
        g_idleCalls = 0;
        g_idle = nullptr;
        SetPortIdleFunctionPtr([](XferPort *) {
            ++g_idleCalls;
            return g_idle ? g_idle(g_idleCalls) : 0;
        });
        return PortOpen(7, host.Window(), "/tmp/in/", XFER_EXISTING_SKIP);
    }
    ~Port() override { EXPECT_EQ(o.PortClose(port), 0); } // hooks back to defaults
    test::TestHost host;
    XferPort *port = Open();
    XferPortOps &o = port->Ops;
};

TEST_F(Port, ReadsServeTheHostsBlockAndAskOnlyWhenItIsEmpty) {
    // A short read moves what there is and says -8; the next asks again.
    host.Receive("wxyz");
    uint8_t buffer[10] = {};
    EXPECT_EQ(V({o.ReadBuffer(port, buffer, 10), int32_t(port->Count), buffer[0], buffer[3],
                 o.ReadBuffer(port, buffer, 10), int32_t(port->Count)}),
              V({PortBufferEmpty, 4, 'w', 'z', PortBufferEmpty, 0}));
    // A null destination of length 0 only fetches the block.
    host.Receive("12345");
    host.SetChunkSize(3);
    EXPECT_EQ(V({o.ReadBuffer(port, nullptr, 0), int32_t(port->RxBlock.Length), o.PeekChar(port),
                 o.RxCount(port), o.ReadChar(port), o.ReadChar(port), o.ReadChar(port),
                 o.ReadChar(port), o.ReadChar(port), host.ReadRequests()}),
              V({0, 3, '1', 3, '1', '2', '3', '4', '5', 4}))
        << "the host is asked only when the block is empty";
    host.SetChunkSize(50);
    host.Receive(std::string(150, 'z'));
    EXPECT_EQ(V({ClearRXBuffer(port), int32_t(host.Unread()), o.RxCount(port)}), V({0, 0, 0}));
    // A lost connection fails every read with -1 but leaves Status alone.
    host.SetReadError(true);
    EXPECT_EQ(V({o.ReadChar(port), o.PeekChar(port), o.ReadBuffer(port, buffer, 1),
                 ClearRXBuffer(port), port->Status}),
              V({PortGeneralError, PortGeneralError, PortGeneralError, PortGeneralError, 0}));
}

TEST_F(Port, WritesStageTheBlockAndReportWhatTheHostTook) {
    const uint8_t data[] = {1, 2, 3, 4, 5};
    host.SetWriteLimit(2);
    EXPECT_EQ(V({o.WriteBuffer(port, data, 5), int32_t(port->Count), port->Status}),
              V({PortBufferFull, 2, PortBufferFull}));
    host.SetWriteLimit(SIZE_MAX);
    const std::vector<uint8_t> big(5000, 0x5A); // longer than the staging buffer
    EXPECT_EQ(V({o.WriteBuffer(port, big.data(), 5000), int32_t(port->Count),
                 int32_t(host.Written().size())}),
              V({PortBufferFull, 4096, 2 + 4096}));

    // WriteChar offers again at once; a host that never takes gets -9, an
    // error ends it after one request.
    host.ClearWritten();
    host.RefuseWrites(3);
    EXPECT_EQ(V({o.WriteChar(port, 'Q'), host.WriteRequests(), host.WrittenString() == "Q"}),
              V({0, 2 + 4, 1}));
    host.SetWriteLimit(0);
    EXPECT_EQ(o.WriteChar(port, 'R'), PortBufferFull);
    host.SetWriteError(true); // 1 + 1000 offers of R, one each for the error
    EXPECT_EQ(V({o.WriteChar(port, 'S'), port->Status, o.WriteBuffer(port, data, 5),
                 host.WriteRequests()}),
              V({PortGeneralError, PortGeneralError, PortGeneralError, 6 + 1001 + 2}));
}

TEST_F(Port, ReadCharTimedReadsTheClockOnlyToWaitAndTimesOutOnTheTick) {
    test::FakeClock clock;
    host.Receive("hi");
    EXPECT_EQ(V({RxEmpty(port), ReadCharTimed(port, 1000), ReadCharTimed(port, 0), RxEmpty(port),
                 int32_t(clock.Reads())}),
              V({0, 'h', 'i', 1, 0}));
    // Checks at +0, +40, +80 go on, +120 stops; the idle hook runs twice a round.
    clock.SetStepPerRead(40);
    g_idleCalls = 0;
    EXPECT_EQ(V({ReadCharTimed(port, 100), int32_t(clock.Reads()), g_idleCalls}), V({-8, 4, 8}));
    clock.Set(0xFFFFFFF0u); // 0..50 in steps of 10 across the wrap
    clock.SetStepPerRead(10);
    EXPECT_EQ(V({ReadCharTimed(port, 50), int32_t(clock.Reads())}), V({-8, 4 + 6}));
    host.SetReadError(true);
    EXPECT_EQ(ReadCharTimed(port, 2000), PortBufferEmpty) << "a lost line ends by time-out";
    g_idleCalls = 0;
    g_idle = [](int call) { return call >= 7 ? -3 : 0; }; // odd calls: ReadBuffer's, ignored
    EXPECT_EQ(V({ReadCharTimed(port, -1), port->Status}), V({-3, -3}));
}

TEST_F(Port, WriteCharTimedAndIdleWaitEndOnTheDeadlineOrTheIdleHooksStop) {
    test::FakeClock clock;
    clock.SetStepPerRead(60);
    // A host that takes nothing: -9 once the deadline passes, Status as before.
    host.SetWriteLimit(0);
    port->Status = PortNotSupported;
    g_idle = [](int call) { return call > 10 ? -16 : 0; };
    EXPECT_EQ(V({WriteCharTimed(port, 'b', 100), port->Status, g_idleCalls > 0,
                 WriteCharTimed(port, 'c', -1), IdleWait(port, 100000)}),
              V({PortBufferFull, PortNotSupported, 1, -16, -16}));
    host.SetWriteError(true); // a lost line ends it at once
    EXPECT_EQ(V({WriteCharTimed(port, 'd', -1), int32_t(host.Written().size())}),
              V({PortGeneralError, 0}));
}

TEST(Hooks, DefaultIdleHandsCloseRequestsBackAndTheRecordIsSharedAndReleased) {
    ZvHwnd w = ZvCreateWindow([](ZvHwnd, uint32_t, uintptr_t, intptr_t) -> intptr_t { return 0; },
                              nullptr);
    ZvMsg m{};
    // Other messages are dispatched; a close request is queued again, with
    // its own parameters, for the host's loop.
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    ZvPostMessage(w, ZV_WM_SYSCOMMAND, 0xF020, 0); // minimise: no close request
    ZvPostMessage(w, ZV_WM_SYSCOMMAND, ZV_SC_CLOSE, 77);
    EXPECT_EQ(V({DefaultIdle(nullptr), ZvPeekMessage(&m, 1), int32_t(m.LParam),
                 ZvPeekMessage(&m, 1), DefaultIdle(nullptr)}),
              V({-1, 1, 77, 0, 0}));
    ZvDestroyWindow(w);

    // Setters before the first open are kept; the last close restores the defaults.
    ResetHooks();
    const auto abort = [](XferRecord *) -> int32_t { return -605; };
    SetAbortXferFunctionPtr(abort);
    SetAbortXferFunctionPtr(nullptr); // null is ignored

    XferPort *a = PortOpen(0, nullptr, "", 0), *b = PortOpen(0, nullptr, "", 0);
    ThreadHooks *h = a->Hooks, *other = nullptr;
    std::thread([&] { other = ThreadHooksFind(); }).join();
    EXPECT_TRUE(h == b->Hooks && h == other) << "one record for every port and thread";
    EXPECT_TRUE(h->AbortFunction == +abort && h->IdleFunction == &DefaultIdle);
    EXPECT_EQ(V({h->PortRefs, a->Ops.PortClose(a), h->PortRefs, h->AbortFunction(nullptr),
                 b->Ops.PortClose(b)}),
              V({2, 0, 1, -605, 0}));
    XferPort *c = PortOpen(0, nullptr, "", 0);
    h = c->Hooks;
    EXPECT_EQ(V({h->PortRefs, h->AbortFunction(nullptr), h->AbortKey, c->Ops.PortClose(c)}),
              V({1, 0, 27, 0}));

    // Out of memory for the port block or its buffer: the record stays, unheld.
    ThreadHooks *record = ThreadHooksFind();
    for (long allowed : {0L, 1L}) {
        plat::SetAllocFailAfter(allowed);
        const XferPort *none = PortOpen(0, nullptr, "", 0);
        plat::SetAllocFailAfter(-1);
        EXPECT_TRUE(none == nullptr && ThreadHooksFind() == record && record->PortRefs == 0);
    }
}

} // namespace
} // namespace zvxfer
