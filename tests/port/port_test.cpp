// The port made by PortOpen: link operations through the host's window
// message, the timed helpers on the fake clock, the message pump, the hook
// record and the default hooks, and a host loop on another thread.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "core/results.h"
#include "fake_clock.h"
#include "platform/file.h"
#include "platform/heap.h"
#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

using test::FakeClock;
using test::TestHost;
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
    TestHost host;
    XferPort *port = Open();
    XferPortOps &o = port->Ops;
};

TEST_F(Port, OpenFillsTheFieldsAndFixedSlotsNeverAskTheHost) {
    EXPECT_EQ(port->PortUserData, 7u);
    EXPECT_EQ(port->HostWindow, host.Window());
    EXPECT_STREQ(port->ReceiveFolder, "/tmp/in/");
    EXPECT_EQ(port->ExistingFilePolicy, XFER_EXISTING_SKIP);
    EXPECT_EQ(o.Reserved2, nullptr);
    for (auto slot : {o.Reserved1, o.Reserved3, o.Reserved4, o.Reserved5}) {
        port->Status = 0;
        EXPECT_EQ(V({slot(port, 5), port->Status}), V({PortNotSupported, PortNotSupported}));
    }
    o.ClearError(port);
    EXPECT_EQ(V({port->Status, o.TxFree(port), o.RxFree(port), o.TxCount(port)}),
              V({0, 4096, 4096, 0}));
    EXPECT_EQ(host.Messages(), 0);
}

TEST_F(Port, ReadsServeTheHostsBlockAndAskOnlyWhenItIsEmpty) {
    host.Receive("AB");
    EXPECT_EQ(V({o.PeekChar(port), o.PeekChar(port), o.RxCount(port), o.ReadChar(port),
                 o.ReadChar(port), o.ReadChar(port), o.PeekChar(port), o.RxCount(port)}),
              V({'A', 'A', 2, 'A', 'B', PortBufferEmpty, PortBufferEmpty, 0}));
    EXPECT_EQ(host.ReadRequests(), 4);

    // A short read moves what there is and says -8; the next asks again.
    host.Receive("wxyz");
    uint8_t buffer[10] = {};
    EXPECT_EQ(V({o.ReadBuffer(port, buffer, 10), int32_t(port->Count)}), V({PortBufferEmpty, 4}));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 4), "wxyz");
    EXPECT_EQ(V({o.ReadBuffer(port, buffer, 10), int32_t(port->Count)}), V({PortBufferEmpty, 0}));
    // A null destination of length 0 only fetches the block; with a length it drops bytes.
    host.Receive("12345");
    host.SetChunkSize(3);
    EXPECT_EQ(V({o.ReadBuffer(port, nullptr, 0), int32_t(port->RxBlock.Length),
                 o.ReadBuffer(port, nullptr, 2), int32_t(port->Count), o.ReadChar(port),
                 o.ReadChar(port), o.ReadChar(port)}),
              V({0, 3, 0, 2, '3', '4', '5'}));
    EXPECT_EQ(host.ReadRequests(), 8);

    // A lost connection fails every read with -1 but leaves Status alone.
    host.SetReadError(true);
    port->Status = 0;
    EXPECT_EQ(V({o.ReadChar(port), o.PeekChar(port), o.ReadBuffer(port, buffer, 1), port->Status}),
              V({PortGeneralError, PortGeneralError, PortGeneralError, 0}));
}

TEST_F(Port, WritesStageTheBlockAndReportWhatTheHostTook) {
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(V({o.WriteBuffer(port, data, 5), int32_t(port->Count)}), V({0, 5}));
    host.SetWriteLimit(2);
    EXPECT_EQ(V({o.WriteBuffer(port, data, 5), int32_t(port->Count), port->Status}),
              V({PortBufferFull, 2, PortBufferFull}));
    EXPECT_EQ(host.Written(), (std::vector<uint8_t>{1, 2, 3, 4, 5, 1, 2}));
    host.SetWriteLimit(SIZE_MAX);
    const std::vector<uint8_t> big(5000, 0x5A); // longer than the staging buffer
    EXPECT_EQ(V({o.WriteBuffer(port, big.data(), 5000), int32_t(port->Count)}),
              V({PortBufferFull, 4096}));
    EXPECT_EQ(host.Written().size(), 7u + 4096u);

    // WriteChar offers again at once; a host that never takes gets -9, an
    // error ends it after one request.
    host.ClearWritten();
    host.RefuseWrites(3);
    int asked = host.WriteRequests();
    EXPECT_EQ(o.WriteChar(port, 'Q'), 0);
    EXPECT_EQ(host.WriteRequests() - asked, 4);
    EXPECT_EQ(host.WrittenString(), "Q");
    host.SetWriteLimit(0);
    EXPECT_EQ(o.WriteChar(port, 'R'), PortBufferFull);
    host.SetWriteError(true);
    asked = host.WriteRequests();
    EXPECT_EQ(V({o.WriteChar(port, 'S'), port->Status, o.WriteBuffer(port, data, 5)}),
              V({PortGeneralError, PortGeneralError, PortGeneralError}));
    EXPECT_EQ(host.WriteRequests() - asked, 2);
}

// Records the length asked for and the bytes moved by each ReadBuffer.
std::vector<std::pair<uint32_t, uint32_t>> g_reads;
decltype(XferPortOps::ReadBuffer) g_readBuffer = nullptr;

TEST_F(Port, ClearRxBufferReadsIn64ByteSteps) {
    host.Receive(std::string(150, 'z'));
    g_reads.clear();
    g_readBuffer = o.ReadBuffer;
    o.ReadBuffer = [](XferPort *p, uint8_t *to, uint32_t length) {
        const int32_t r = g_readBuffer(p, to, length);
        g_reads.emplace_back(length, p->Count);
        return r;
    };
    EXPECT_EQ(ClearRXBuffer(port), 0);
    EXPECT_EQ(g_reads,
              (std::vector<std::pair<uint32_t, uint32_t>>{{64, 64}, {64, 64}, {64, 22}, {64, 0}}));
    host.Receive("abc");
    host.SetReadError(true);
    EXPECT_EQ(ClearRXBuffer(port), PortGeneralError);
}

TEST_F(Port, ReadCharTimedReadsTheClockOnlyToWaitAndTimesOutOnTheTick) {
    FakeClock clock;
    host.Receive("hi");
    EXPECT_EQ(V({RxEmpty(port), ReadCharTimed(port, 1000), ReadCharTimed(port, 0), RxEmpty(port)}),
              V({0, 'h', 'i', 1}));
    EXPECT_EQ(clock.Reads(), 0u);
    clock.SetStepPerRead(40);
    g_idleCalls = 0;
    EXPECT_EQ(ReadCharTimed(port, 100), PortBufferEmpty);
    EXPECT_EQ(clock.Reads(), 4u) << "checks at +0, +40, +80 go on, +120 stops";
    EXPECT_EQ(g_idleCalls, 2 * 4) << "in ReadBuffer and in the loop, per round";
    g_idleCalls = 0;
    EXPECT_EQ(ReadCharTimed(port, 0), PortBufferEmpty);
    EXPECT_EQ(g_idleCalls, 2) << "time-out 0: one round";
    clock.Set(0xFFFFFFF0u);
    clock.SetStepPerRead(10);
    const uint64_t before = clock.Reads();
    EXPECT_EQ(ReadCharTimed(port, 50), PortBufferEmpty);
    EXPECT_EQ(clock.Reads() - before, 6u) << "0..50 in steps of 10 across the wrap";
}

TEST_F(Port, ReadCharTimedWithoutLimitWaitsForAByteOrAStop) {
    {
        FakeClock clock; // never moves: only a byte or a stop can end the wait
        host.OnRequest([](TestHost &h, uintptr_t request) {
            if (request == PORT_READ && h.ReadRequests() == 4) h.Receive("Z"); // the fifth ask
        });
        EXPECT_EQ(ReadCharTimed(port, -1), 'Z');
        EXPECT_EQ(host.ReadRequests(), 5);
        EXPECT_EQ(clock.Reads(), 0u);
        host.OnRequest(nullptr);
        g_idleCalls = 0;
        g_idle = [](int call) { return call >= 7 ? -3 : 0; }; // odd calls: ReadBuffer's, ignored
        port->Status = 0;
        EXPECT_EQ(V({ReadCharTimed(port, -1), port->Status}), V({-3, -3}));
    }
    FakeClock fast(FakeClock::Scaled{1000});
    g_idle = nullptr;
    host.SetReadError(true);
    EXPECT_EQ(ReadCharTimed(port, 2000), PortBufferEmpty) << "a lost line ends by time-out";
}

TEST_F(Port, WriteCharTimedAndIdleWait) {
    FakeClock clock;
    EXPECT_EQ(WriteCharTimed(port, 'a', 100), 0);
    EXPECT_EQ(clock.Reads(), 0u);
    // A host that takes nothing: -9 once the deadline passes, Status as before.
    host.SetWriteLimit(0);
    clock.SetStepPerRead(60);
    port->Status = PortNotSupported;
    EXPECT_EQ(V({WriteCharTimed(port, 'b', 100), port->Status}),
              V({PortBufferFull, PortNotSupported}));
    EXPECT_GE(g_idleCalls, 1);
    g_idle = [](int) { return -16; }; // the idle hook's stop ends the wait
    EXPECT_EQ(WriteCharTimed(port, 'c', -1), -16);
    host.SetWriteError(true); // a lost line ends it at once
    g_idle = nullptr;
    EXPECT_EQ(WriteCharTimed(port, 'd', -1), PortGeneralError);
    EXPECT_EQ(host.WrittenString(), "a");

    clock.SetStepPerRead(10);
    g_idleCalls = 0;
    EXPECT_EQ(IdleWait(port, 50), 0);
    EXPECT_GE(g_idleCalls, 2);
    EXPECT_LE(g_idleCalls, 5);
    g_idleCalls = 0;
    EXPECT_EQ(IdleWait(port, 0), 0);
    EXPECT_EQ(g_idleCalls, 0);
    g_idle = [](int call) { return call == 2 ? -7 : 0; };
    EXPECT_EQ(IdleWait(port, 100000), -7);
}

TEST(Pump, OneMessageACallAndCloseRequestsEndIt) {
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
    ZvMsg m{};
    for (uint32_t closing : {ZV_WM_CLOSE, ZV_WM_DESTROY, ZV_WM_NCDESTROY, ZV_WM_QUIT, 0u}) {
        ZvPostMessage(w, closing ? closing : ZV_WM_SYSCOMMAND, closing ? 0 : ZV_SC_CLOSE, 0);
        EXPECT_EQ(V({PumpMessages(5), ZvPeekMessage(&m, 0)}), V({0, 0})) << "removed: " << closing;
    }
    {
        FakeClock clock; // never moves: only the close request ends the delay
        ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
        ZvPostMessage(w, ZV_WM_CLOSE, 0, 0);
        PumpDelay(1000);
        EXPECT_EQ(painted, 2);
    }
    ZvDestroyWindow(w);
}

TEST(Hooks, SettersBeforeOpenAreKeptAndTheLastCloseRestoresDefaults) {
    ResetHooks();
    const auto abort = [](XferRecord *) -> int32_t { return -605; };
    const auto name = [](int32_t) -> const char * { return "named"; };
    const auto open = [](XferRecord *, const char *, const char *) { return XFER_INVALID_FILE; };
    SetAbortXferFunctionPtr(abort);
    SetUserErrorNameFunctionPtr(name);
    SetXferFileOpenFunctionPtr(open);
    SetAbortXferFunctionPtr(nullptr); // null is ignored
    SetPortIdleFunctionPtr(nullptr);

    TestHost host;
    XferPort *a = PortOpen(0, host.Window(), "", 0), *b = PortOpen(0, host.Window(), "", 0);
    ASSERT_TRUE(a && b && a->Hooks == b->Hooks);
    EXPECT_EQ(a->Hooks->PortRefs, 2);
    EXPECT_EQ(a->Hooks->AbortFunction, +abort);
    EXPECT_EQ(a->Hooks->UserErrorNameFunction, +name);
    EXPECT_EQ(a->Hooks->FileOpenFunction, +open);
    EXPECT_EQ(a->Hooks->IdleFunction, &DefaultIdle);
    ThreadHooks *seen = nullptr;
    std::thread([&] { seen = ThreadHooksFind(); }).join();
    EXPECT_EQ(seen, a->Hooks) << "another thread finds the same record";
    EXPECT_EQ(a->Ops.PortClose(a), 0);
    EXPECT_EQ(b->Hooks->PortRefs, 1);
    EXPECT_EQ(b->Hooks->AbortFunction, +abort);
    EXPECT_EQ(b->Ops.PortClose(b), 0);

    XferPort *c = PortOpen(0, host.Window(), "", 0);
    const ThreadHooks &h = *c->Hooks;
    EXPECT_EQ(h.PortRefs, 1);
    EXPECT_EQ(h.AbortFunction(nullptr), 0);
    EXPECT_EQ(h.UserErrorNameFunction, &XferErrorName);
    EXPECT_EQ(h.FileOpenFunction, &DefaultFileOpen);
    EXPECT_EQ(h.AbortKey, 27);
    EXPECT_EQ(c->Ops.PortClose(c), 0);

    // Out of memory for the port block or its buffer: the record stays, unheld.
    ThreadHooks *record = ThreadHooksFind();
    for (long allowed : {0L, 1L}) {
        plat::SetAllocFailAfter(allowed);
        EXPECT_EQ(PortOpen(0, nullptr, "", 0), nullptr);
        plat::SetAllocFailAfter(-1);
        EXPECT_EQ(ThreadHooksFind(), record);
        EXPECT_EQ(record->PortRefs, 0);
    }
}

TEST(Hooks, DefaultIdleDispatchesAndHandsCloseRequestsBack) {
    static std::vector<uint32_t> seen;
    ZvHwnd w = ZvCreateWindow(
        [](ZvHwnd, uint32_t m, uintptr_t, intptr_t) -> intptr_t { return seen.push_back(m), 0; },
        nullptr);
    EXPECT_EQ(DefaultIdle(nullptr), 0); // empty queue
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    ZvPostMessage(w, ZV_WM_SYSCOMMAND, 0xF020, 0); // minimise: not a close
    EXPECT_EQ(DefaultIdle(nullptr), 0);
    EXPECT_EQ(seen, (std::vector<uint32_t>{ZV_WM_PAINT, ZV_WM_SYSCOMMAND}));
    ZvMsg m{};
    const struct {
        ZvHwnd window;
        uint32_t message;
        uintptr_t wParam;
    } cases[] = {{w, ZV_WM_CLOSE, 0}, {w, ZV_WM_SYSCOMMAND, ZV_SC_CLOSE}, {nullptr, ZV_WM_QUIT, 4}};
    for (const auto &c : cases) {
        seen.clear();
        ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
        ZvPostMessage(c.window, c.message, c.wParam, 77);
        EXPECT_EQ(DefaultIdle(nullptr), -1) << c.message;
        EXPECT_EQ(seen, std::vector<uint32_t>{ZV_WM_PAINT});
        // The request is queued again, with its own parameters.
        ASSERT_EQ(ZvPeekMessage(&m, 1), 1);
        EXPECT_TRUE(m.Window == c.window && m.Message == c.message && m.WParam == c.wParam &&
                    m.LParam == 77);
        EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
    }
    ZvDestroyWindow(w);
}

TEST(Hooks, DefaultFileOpenModesAndExclusiveAccess) {
    const std::string path = "/tmp/zvxfer_hooks_" + std::to_string(getpid()) + ".bin";
    for (const char *mode : {"rb", "ab", "r+"})
        EXPECT_EQ(DefaultFileOpen(nullptr, path.c_str(), mode), XFER_INVALID_FILE) << mode;
    std::ofstream(path, std::ios::binary) << "old contents";
    XferFile reader = DefaultFileOpen(nullptr, path.c_str(), "rb");
    ASSERT_NE(reader, XFER_INVALID_FILE);
    // Exclusive: a second open fails while the first is open, and "wb" must
    // not truncate the file on its way to failing.
    EXPECT_EQ(DefaultFileOpen(nullptr, path.c_str(), "wb"), XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileStat(path.c_str()).size, 12);
    char buf[4] = {};
    EXPECT_EQ(
        V({int32_t(plat::FileRead(reader, buf, 3)), int32_t(plat::FileWrite(reader, "x", 1))}),
        V({3, -1}));
    EXPECT_STREQ(buf, "old");
    plat::FileClose(reader);
    XferFile writer = DefaultFileOpen(nullptr, path.c_str(), "wb");
    EXPECT_EQ(plat::FileStat(path.c_str()).size, 0);
    EXPECT_EQ(plat::FileWrite(writer, "new", 3), 3);
    plat::FileClose(writer);
    XferFile appender = DefaultFileOpen(nullptr, path.c_str(), "ab");
    ASSERT_NE(appender, XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileStat(path.c_str()).size, 3) << "opened, not truncated";
    plat::FileClose(appender);
    std::remove(path.c_str());
}

TEST(CrossThreadPort, HostLoopAndTransferThreadBothMakeProgress) {
    ResetHooks();
    std::string line;
    for (int i = 0; i < 3000; ++i) line.push_back(char(i * 7));
    std::promise<TestHost *> ready;
    int painted = 0;
    std::thread hostThread([&] {
        TestHost host;
        host.SetChunkSize(97);
        host.SetWriteLimit(3); // partial writes: the port retries
        host.Receive(line);
        ready.set_value(&host);
        for (ZvMsg msg{}; ZvGetMessage(&msg); ZvDispatchMessage(&msg))
            painted += msg.Message == ZV_WM_PAINT;
        EXPECT_EQ(host.WrittenString(), line);
    });
    TestHost *host = ready.get_future().get();
    XferPort *port = PortOpen(0, host->Window(), "", 0);
    for (int i = 0; i < 3000; ++i) {
        const int32_t c = ReadCharTimed(port, 5000);
        ASSERT_EQ(c, uint8_t(line[i])) << "at " << i;
        ASSERT_EQ(WriteCharTimed(port, uint8_t(c), 5000), 0);
        if (i % 300 == 0) ZvPostMessage(host->Window(), ZV_WM_PAINT, 0, 0); // the host's own
    }
    EXPECT_EQ(ReadCharTimed(port, 0), PortBufferEmpty);
    ZvPostMessage(host->Window(), ZV_WM_QUIT, 0, 0);
    hostThread.join();
    EXPECT_EQ(painted, 10);

    // A port whose host thread ended (its window left behind) does not hang.
    std::promise<ZvHwnd> made;
    std::thread([&] {
        made.set_value(ZvCreateWindow(
            [](ZvHwnd, uint32_t, uintptr_t, intptr_t) -> intptr_t { return 0; }, nullptr));
    }).join();
    ZvHwnd orphan = made.get_future().get();
    port->HostWindow = orphan;
    EXPECT_EQ(port->Ops.ReadChar(port), PortBufferEmpty);
    EXPECT_EQ(port->Ops.WriteBuffer(port, reinterpret_cast<const uint8_t *>("x"), 1), 0);
    EXPECT_EQ(port->Ops.PortClose(port), 0);
    ZvDestroyWindow(orphan);
}

} // namespace
} // namespace zvxfer
