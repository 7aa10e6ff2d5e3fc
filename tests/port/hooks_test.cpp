// The hook record: defaults, setters before and after ports, reference
// counting by PortOpen/PortClose, and the default idle and file-open hooks.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "core/results.h"
#include "hook_reset.h"
#include "platform/file.h"
#include "platform/heap.h"
#include "port/port.h"
#include "test_host.h"

namespace zvxfer {
namespace {

int32_t AbortMinus605(XferRecord *) {
    return -605;
}
int gIdleCalls = 0;
int32_t CountingIdle(XferPort *) {
    return ++gIdleCalls, 0;
}
const char *NameEverything(int32_t) {
    return "named";
}
XferFile OpenNothing(XferRecord *, const char *, const char *) {
    return XFER_INVALID_FILE;
}

using test::ResetHooks;

void ExpectDefaults(const ThreadHooks &h) {
    EXPECT_EQ(h.IdleFunction, &DefaultIdle);
    EXPECT_EQ(h.FileOpenFunction, &DefaultFileOpen);
    ASSERT_NE(h.AbortFunction, nullptr);
    EXPECT_EQ(h.AbortFunction(nullptr), 0);
    EXPECT_EQ(h.UserErrorNameFunction, &XferErrorName);
    EXPECT_EQ(h.AbortKey, 27);
    EXPECT_EQ(h.WorkBuffer, nullptr);
}

TEST(Hooks, SettersBeforeOpenAreKeptAndLastCloseRestoresDefaults) {
    ResetHooks();
    SetAbortXferFunctionPtr(AbortMinus605);
    SetPortIdleFunctionPtr(CountingIdle);
    SetUserErrorNameFunctionPtr(NameEverything);
    SetXferFileOpenFunctionPtr(OpenNothing);
    // Null is ignored.
    SetAbortXferFunctionPtr(nullptr);
    SetPortIdleFunctionPtr(nullptr);
    SetUserErrorNameFunctionPtr(nullptr);
    SetXferFileOpenFunctionPtr(nullptr);

    test::TestHost host;
    XferPort *a = PortOpen(0, host.Window(), "", 0);
    XferPort *b = PortOpen(0, host.Window(), "", 0);
    ASSERT_TRUE(a && b);
    ASSERT_EQ(a->Hooks, b->Hooks);
    EXPECT_EQ(a->Hooks->PortRefs, 2);
    EXPECT_EQ(a->Hooks->AbortFunction, &AbortMinus605);
    EXPECT_EQ(a->Hooks->UserErrorNameFunction, &NameEverything);
    EXPECT_EQ(a->Hooks->FileOpenFunction, &OpenNothing);
    gIdleCalls = 0;
    a->Ops.ReadChar(a); // every ReadBuffer calls the idle hook
    EXPECT_EQ(gIdleCalls, 1);

    // Another thread finds the same record.
    ThreadHooks *seen = nullptr;
    std::thread([&] { seen = ThreadHooksFind(); }).join();
    EXPECT_EQ(seen, a->Hooks);

    EXPECT_EQ(a->Ops.PortClose(a), 0);
    EXPECT_EQ(b->Hooks->PortRefs, 1);
    EXPECT_EQ(b->Hooks->AbortFunction, &AbortMinus605);
    EXPECT_EQ(b->Ops.PortClose(b), 0);

    XferPort *c = PortOpen(0, host.Window(), "", 0);
    ASSERT_NE(c, nullptr);
    ExpectDefaults(*c->Hooks);
    EXPECT_EQ(c->Hooks->PortRefs, 1);
    EXPECT_EQ(c->Ops.PortClose(c), 0);
}

TEST(Hooks, PortOpenOutOfMemoryHoldsNothing) {
    ResetHooks();
    ThreadHooks *record = ThreadHooksFind(); // exists now, no port holds it
    ASSERT_NE(record, nullptr);
    for (long allowed : {0L, 1L}) {
        plat::SetAllocFailAfter(allowed); // port block fails / TxBuffer fails
        EXPECT_EQ(PortOpen(0, nullptr, "", 0), nullptr);
        plat::SetAllocFailAfter(-1);
        EXPECT_EQ(ThreadHooksFind(), record);
        EXPECT_EQ(record->PortRefs, 0);
    }
    ResetHooks();
    // No record and no memory for one: no port either.
    plat::SetAllocFailAfter(1);
    EXPECT_EQ(PortOpen(0, nullptr, "", 0), nullptr);
    plat::SetAllocFailAfter(-1);
}

// --- DefaultIdle ---

struct Painter {
    int painted = 0;
    std::vector<uint32_t> other;
    static intptr_t Proc(ZvHwnd w, uint32_t m, uintptr_t, intptr_t) {
        auto *self = static_cast<Painter *>(ZvGetWindowUserData(w));
        if (m == ZV_WM_PAINT)
            ++self->painted;
        else
            self->other.push_back(m);
        return 0;
    }
};

TEST(DefaultIdleHook, DispatchesEverythingAndHandsBackCloseRequests) {
    Painter p;
    ZvHwnd w = ZvCreateWindow(Painter::Proc, &p);
    EXPECT_EQ(DefaultIdle(nullptr), 0); // empty queue

    for (int i = 0; i < 3; ++i) ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    ZvPostMessage(w, ZV_WM_SYSCOMMAND, 0xF020, 0); // minimise: not a close
    EXPECT_EQ(DefaultIdle(nullptr), 0);
    EXPECT_EQ(p.painted, 3);
    EXPECT_EQ(p.other, std::vector<uint32_t>{ZV_WM_SYSCOMMAND});
    ZvMsg m{};
    EXPECT_EQ(ZvPeekMessage(&m, 0), 0);

    struct Case {
        ZvHwnd window;
        uint32_t message;
        uintptr_t wParam;
    };
    for (const Case &c : {Case{w, ZV_WM_CLOSE, 0}, Case{w, ZV_WM_SYSCOMMAND, ZV_SC_CLOSE},
                          Case{nullptr, ZV_WM_QUIT, 4}}) {
        p.painted = 0;
        ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
        ZvPostMessage(c.window, c.message, c.wParam, 77);
        EXPECT_EQ(DefaultIdle(nullptr), -1) << c.message;
        EXPECT_EQ(p.painted, 1);
        // The request is queued again, with its own parameters.
        ASSERT_EQ(ZvPeekMessage(&m, 1), 1);
        EXPECT_EQ(m.Window, c.window);
        EXPECT_EQ(m.Message, c.message);
        EXPECT_EQ(m.WParam, c.wParam);
        EXPECT_EQ(m.LParam, 77);
        EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
    }
    ZvDestroyWindow(w);
}

// --- DefaultFileOpen ---

struct TempFile {
    std::string path = "/tmp/zvxfer_hooks_" + std::to_string(getpid()) + ".bin";
    ~TempFile() { std::remove(path.c_str()); }
    void Write(const std::string &text) { std::ofstream(path, std::ios::binary) << text; }
};

TEST(DefaultFileOpenHook, ModesAndExclusiveAccess) {
    TempFile f;
    EXPECT_EQ(DefaultFileOpen(nullptr, f.path.c_str(), "rb"), XFER_INVALID_FILE);
    EXPECT_EQ(DefaultFileOpen(nullptr, f.path.c_str(), "ab"), XFER_INVALID_FILE);
    EXPECT_EQ(DefaultFileOpen(nullptr, f.path.c_str(), "r+"), XFER_INVALID_FILE);

    f.Write("old contents");
    XferFile reader = DefaultFileOpen(nullptr, f.path.c_str(), "rb");
    ASSERT_NE(reader, XFER_INVALID_FILE);
    // Exclusive: a second open fails while the first is open, and "wb"
    // must not have truncated the file on its way to failing.
    EXPECT_EQ(DefaultFileOpen(nullptr, f.path.c_str(), "wb"), XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileStat(f.path.c_str()).size, 12);
    char buf[4] = {};
    EXPECT_EQ(plat::FileRead(reader, buf, 3), 3);
    EXPECT_EQ(std::string(buf), "old");
    EXPECT_EQ(plat::FileWrite(reader, "x", 1), -1); // read only
    plat::FileClose(reader);

    XferFile writer = DefaultFileOpen(nullptr, f.path.c_str(), "wb");
    ASSERT_NE(writer, XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileStat(f.path.c_str()).size, 0);
    EXPECT_EQ(plat::FileWrite(writer, "new", 3), 3);
    plat::FileClose(writer);

    XferFile appender = DefaultFileOpen(nullptr, f.path.c_str(), "ab");
    ASSERT_NE(appender, XFER_INVALID_FILE);
    EXPECT_EQ(plat::FileStat(f.path.c_str()).size, 3); // opened, not truncated
    plat::FileClose(appender);
}

} // namespace
} // namespace zvxfer
