// Host windows and thread queues (posted and sent messages, within and across
// threads), timed waits, watched descriptors, wait-prepare callbacks and the
// spin advice.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/message.h"
#include "platform/posix/thread_queue.h"

namespace {

using namespace zvxfer::plat;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Records the messages it saw and the thread it ran on; answers wParam + 1.
struct Recorder {
    std::vector<uint32_t> seen;
    std::thread::id thread;
    static intptr_t Proc(ZvHwnd w, uint32_t message, uintptr_t wParam, intptr_t) {
        auto *self = static_cast<Recorder *>(ZvGetWindowUserData(w));
        self->seen.push_back(message);
        self->thread = std::this_thread::get_id();
        return static_cast<intptr_t>(wParam) + 1;
    }
};

TEST(Messages, PostedInOrderSentDirectlyDroppedWithTheirWindow) {
    Recorder rec;
    ZvHwnd w = ZvCreateWindow(Recorder::Proc, &rec);
    EXPECT_FALSE(InputPending());
    EXPECT_TRUE(ZvPostMessage(w, ZV_WM_PAINT, 1, 2) == 1 &&
                ZvPostMessage(w, ZV_WM_USER, 3, 4) == 1);
    EXPECT_TRUE(InputPending());
    ZvMsg m{};
    ASSERT_TRUE(ZvPeekMessage(&m, 0) == 1 && ZvPeekMessage(&m, 1) == 1); // look, then take
    EXPECT_TRUE(m.Window == w && m.Message == ZV_WM_PAINT && m.WParam == 1 && m.LParam == 2);
    EXPECT_EQ(ZvDispatchMessage(&m), 2);
    ASSERT_EQ(ZvPeekMessage(&m, 1), 1);
    EXPECT_TRUE(m.Message == ZV_WM_USER && ZvPeekMessage(&m, 1) == 0 && !InputPending());
    EXPECT_EQ(ZvSendMessage(w, 99, 41, 0), 42); // same thread: a direct call
    EXPECT_EQ(rec.seen, (std::vector<uint32_t>{ZV_WM_PAINT, 99}));
    // Destroying a window drops what was queued for it, nothing else.
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    ZvPostQuitMessage(3);
    ZvDestroyWindow(w);
    ASSERT_EQ(ZvGetMessage(&m), 0); // the quit message
    EXPECT_TRUE(m.Window == nullptr && m.WParam == 3 && ZvPeekMessage(&m, 1) == 0);
}

TEST(Messages, WaitsEndOnTimeOutOrOnASendOrPostFromAnotherThread) {
    Recorder rec;
    ZvHwnd w = ZvCreateWindow(Recorder::Proc, &rec);
    auto start = Clock::now();
    EXPECT_EQ(ZvWaitMessage(30), 0);
    EXPECT_GE(Clock::now() - start, milliseconds(25));
    // A send runs on the owner inside its wait; nothing is posted.
    std::atomic<intptr_t> result{0};
    std::thread sender([&] { result = ZvSendMessage(w, 77, 9, 0); });
    while (rec.seen.empty()) ZvWaitMessage(1000);
    sender.join();
    EXPECT_TRUE(result == 10 && rec.thread == std::this_thread::get_id() && !InputPending());
    // A pause between wait rounds sleeps even when a message stays queued (an
    // idle hook may leave one), and still wakes for a message posted afterwards.
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    EXPECT_TRUE(WaitForInput(1000)); // any input: returns at once
    WaitForNewInput(0);              // takes a wake-up left by the send above
    start = Clock::now();
    EXPECT_FALSE(WaitForNewInput(30));
    EXPECT_GE(Clock::now() - start, milliseconds(25));
    std::thread poster([w] { ZvPostMessage(w, ZV_WM_PAINT, 0, 0); });
    EXPECT_TRUE(WaitForNewInput(UINT32_MAX));
    poster.join();
    ZvDestroyWindow(w);
}

// The other thread's procedure sends back to this thread's window while this
// thread is blocked in its own send: a sender must answer sends while it waits.
TEST(Messages, TwoThreadsSendingToEachOtherDoNotDeadlock) {
    Recorder rec;
    ZvHwnd mine = ZvCreateWindow(Recorder::Proc, &rec);
    std::atomic<ZvHwnd> theirs{nullptr};
    std::atomic<bool> stop{false};
    std::thread other([&] {
        auto back = [](ZvHwnd w, uint32_t, uintptr_t wParam, intptr_t) -> intptr_t {
            return 10 + ZvSendMessage(static_cast<ZvHwnd>(ZvGetWindowUserData(w)), 5, wParam, 0);
        };
        theirs = ZvCreateWindow(back, mine);
        while (!stop) ZvWaitMessage(5);
        ZvDestroyWindow(theirs);
    });
    while (theirs.load() == nullptr) std::this_thread::yield();
    EXPECT_EQ(ZvSendMessage(theirs, ZV_WM_USER, 1, 0), 12); // answered on this thread meanwhile
    stop = true;
    other.join();
    ZvDestroyWindow(mine);
}

TEST(Messages, SendAndPostToAnEndedThreadFailWithoutHanging) {
    Recorder rec;
    ZvHwnd orphan = nullptr, late = nullptr;
    std::thread([&] { orphan = ZvCreateWindow(Recorder::Proc, &rec); }).join();
    EXPECT_EQ(ZvSendMessage(orphan, ZV_WM_USER, 1, 0), 0);
    EXPECT_EQ(ZvPostMessage(orphan, ZV_WM_USER, 1, 0), 0);
    // A sender blocked when the owner ends (or sending just after) is released with 0.
    std::atomic<intptr_t> result{-1};
    std::thread sender;
    std::thread([&] {
        late = ZvCreateWindow(Recorder::Proc, &rec);
        sender = std::thread([&] { result = ZvSendMessage(late, ZV_WM_USER, 5, 0); });
        std::this_thread::sleep_for(milliseconds(20));
    }).join();
    sender.join(); // hangs (the test times out) when the sender is never released
    EXPECT_TRUE(result == 0 && rec.seen.empty());
    ZvDestroyWindow(orphan);
    ZvDestroyWindow(late);
}

TEST(WatchedFds, AWriteOnAnotherThreadWakesTheWait) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(ZvWatchFd(fds[0], ZV_FD_READ), 0);
    EXPECT_FALSE(WaitForInput(1));
    std::thread writer([&] {
        std::this_thread::sleep_for(milliseconds(20));
        EXPECT_EQ(write(fds[1], "x", 1), 1);
    });
    EXPECT_TRUE(WaitForInput(10000));
    writer.join();
    EXPECT_FALSE(InputPending()); // waking is not a message
    ZvUnwatchFd(fds[0]);
    EXPECT_FALSE(WaitForInput(1)); // the byte is still unread
    // Watching again replaces the events; the table holds 64 per thread.
    ASSERT_EQ(ZvWatchFd(fds[1], ZV_FD_WRITE), 0); // a pipe's write end is writable
    EXPECT_EQ(ZvWaitMessage(1000), 1);
    ASSERT_EQ(ZvWatchFd(fds[1], ZV_FD_READ), 0);
    EXPECT_EQ(ZvWaitMessage(1), 0);
    std::vector<int> dups(64);
    for (int &fd : dups) fd = dup(fds[0]);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(ZvWatchFd(dups[i], ZV_FD_READ), i < 63 ? 0 : -1) << i;
    EXPECT_EQ(ZvWatchFd(dups[0], ZV_FD_READ), 0); // replacing still works
    dups.insert(dups.end(), fds, fds + 2);
    for (int fd : dups) ZvUnwatchFd(fd);
    for (int fd : dups) close(fd);
}

struct Prepared {
    int calls = 0;
    bool waitInside = false;
    static void Count(void *context) {
        auto *self = static_cast<Prepared *>(context);
        ++self->calls;
        if (self->waitInside) WaitForInput(0); // must not run the callbacks again
    }
};

TEST(WaitPrepare, RunsBeforeEverySleepAndNotWhenInputIsWaiting) {
    Prepared a, b;
    ASSERT_EQ(ZvAddWaitPrepare(Prepared::Count, &a), 0);
    EXPECT_EQ(ZvAddWaitPrepare(Prepared::Count, &a), -1); // already there
    ASSERT_EQ(ZvAddWaitPrepare(Prepared::Count, &b), 0);
    EXPECT_EQ(ZvWaitMessage(1), 0);
    EXPECT_TRUE(a.calls == 1 && b.calls == 1);
    ZvPostMessage(nullptr, ZV_WM_PAINT, 0, 0); // a queued message: no sleep, no call
    EXPECT_EQ(ZvWaitMessage(1000), 1);
    EXPECT_TRUE(ZvPeekMessage(nullptr, 1) == 1 && a.calls == 1);
    a.waitInside = true;
    ZvRemoveWaitPrepare(Prepared::Count, &b);
    EXPECT_EQ(ZvWaitMessage(1), 0);
    EXPECT_TRUE(a.calls == 2 && b.calls == 1);
    ZvRemoveWaitPrepare(Prepared::Count, &a);
}

// A thread spins before sleeping only while its waits have been short; one
// long wait among short ones does not stop it, a run of them does.
TEST(SpinAdvisor, SpinsWhileWaitsAreShort) {
    detail::SpinAdvisor advice;
    EXPECT_FALSE(advice.ShouldSpin()); // a new thread: as on a slow line
    for (int i = 0; i < 20; ++i) advice.Record(5'000);
    EXPECT_TRUE(advice.ShouldSpin());
    advice.Record(100'000);
    EXPECT_TRUE(advice.ShouldSpin());
    for (int i = 0; i < 3; ++i) advice.Record(5'000'000); // 5 ms rounds: an idle line
    EXPECT_FALSE(advice.ShouldSpin());
}

} // namespace
