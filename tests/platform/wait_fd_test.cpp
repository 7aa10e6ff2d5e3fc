// Watched descriptors: a pipe written by another thread wakes the wait at
// once; events can be replaced; the table holds 64 per thread.  Wait-prepare
// callbacks run before a wait sleeps; the spin advice follows wait lengths.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include "platform/message.h"
#include "platform/posix/thread_queue.h"

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
};

TEST(WatchedFds, AWriteOnAnotherThreadWakesTheWait) {
    Pipe p;
    ASSERT_EQ(ZvWatchFd(p.fds[0], ZV_FD_READ), 0);
    EXPECT_FALSE(zvxfer::plat::WaitForInput(1)); // nothing yet

    const auto start = std::chrono::steady_clock::now();
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(write(p.fds[1], "x", 1), 1);
    });
    // Woken by the byte, long before the 10-second limit.
    EXPECT_TRUE(zvxfer::plat::WaitForInput(10000));
    writer.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    // Waking is not a message.
    ZvMsg m{};
    EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
    EXPECT_FALSE(zvxfer::plat::InputPending());

    ZvUnwatchFd(p.fds[0]);
    EXPECT_FALSE(zvxfer::plat::WaitForInput(1)); // the byte is still unread
}

TEST(WatchedFds, EventsAreReplacedAndTheTableIsBounded) {
    Pipe p;
    // The write end is always writable: watching it for writing wakes at once.
    ASSERT_EQ(ZvWatchFd(p.fds[1], ZV_FD_WRITE), 0);
    EXPECT_EQ(ZvWaitMessage(1000), 1);
    ASSERT_EQ(ZvWatchFd(p.fds[1], ZV_FD_READ), 0); // replaced, not added
    EXPECT_EQ(ZvWaitMessage(1), 0);

    std::vector<int> dups;
    for (int i = 0; i < 63; ++i) {
        dups.push_back(dup(p.fds[0]));
        ASSERT_EQ(ZvWatchFd(dups.back(), ZV_FD_READ), 0) << i;
    }
    const int extra = dup(p.fds[0]);
    EXPECT_EQ(ZvWatchFd(extra, ZV_FD_READ), -1);       // the 65th
    EXPECT_EQ(ZvWatchFd(dups.front(), ZV_FD_READ), 0); // replacing still works
    for (int fd : dups) {
        ZvUnwatchFd(fd);
        close(fd);
    }
    EXPECT_EQ(ZvWatchFd(extra, ZV_FD_READ), 0);
    ZvUnwatchFd(extra);
    ZvUnwatchFd(p.fds[1]);
    close(extra);
}

} // namespace

namespace {

intptr_t Ignore(ZvHwnd, uint32_t, uintptr_t, intptr_t) {
    return 0;
}

// A pause between wait rounds must sleep even when an idle hook leaves a
// message queued, and still wake for a message posted afterwards.
TEST(WaitForNewInput, QueuedMessagesDoNotCutThePauseShort) {
    ZvHwnd w = ZvCreateWindow(Ignore, nullptr);
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    EXPECT_TRUE(zvxfer::plat::WaitForInput(1000)); // any input: returns at once
    zvxfer::plat::WaitForNewInput(0);              // takes the old wake-up
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(zvxfer::plat::WaitForNewInput(30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));

    std::thread poster([w] { ZvPostMessage(w, ZV_WM_PAINT, 0, 0); });
    EXPECT_TRUE(zvxfer::plat::WaitForNewInput(10000));
    poster.join();
    ZvDestroyWindow(w);
}

struct Prepared {
    int calls = 0;
    bool waitInside = false;
    static void Count(void *context) {
        auto *self = static_cast<Prepared *>(context);
        ++self->calls;
        if (self->waitInside) zvxfer::plat::WaitForInput(0); // must not run us again
    }
};

TEST(WaitPrepare, RunsBeforeEverySleepAndNotWhenInputIsWaiting) {
    Prepared a, b;
    ASSERT_EQ(ZvAddWaitPrepare(Prepared::Count, &a), 0);
    EXPECT_EQ(ZvAddWaitPrepare(Prepared::Count, &a), -1); // already there
    ASSERT_EQ(ZvAddWaitPrepare(Prepared::Count, &b), 0);
    EXPECT_EQ(ZvAddWaitPrepare(nullptr, &b), -1);

    EXPECT_EQ(ZvWaitMessage(1), 0);
    EXPECT_EQ(a.calls, 1);
    EXPECT_EQ(b.calls, 1);

    // A queued message ends the wait before anything is put out.
    ZvHwnd w = ZvCreateWindow(Ignore, nullptr);
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    EXPECT_EQ(ZvWaitMessage(1000), 1);
    EXPECT_EQ(a.calls, 1);
    ZvMsg m{};
    EXPECT_EQ(ZvPeekMessage(&m, 1), 1);
    ZvDestroyWindow(w);

    // A callback that waits itself is not called again from inside.
    a.waitInside = true;
    ZvRemoveWaitPrepare(Prepared::Count, &b);
    EXPECT_EQ(ZvWaitMessage(1), 0);
    EXPECT_EQ(a.calls, 2);
    EXPECT_EQ(b.calls, 1); // removed
    ZvRemoveWaitPrepare(Prepared::Count, &a);

    // At most eight per thread.
    Prepared many[9];
    for (int i = 0; i < 8; ++i) EXPECT_EQ(ZvAddWaitPrepare(Prepared::Count, &many[i]), 0) << i;
    EXPECT_EQ(ZvAddWaitPrepare(Prepared::Count, &many[8]), -1);
    for (auto &p : many) ZvRemoveWaitPrepare(Prepared::Count, &p);
}

// A thread spins before sleeping only while its waits have been short; one
// long wait among short ones does not stop it, a run of them does.
TEST(SpinAdvisor, SpinsWhileWaitsAreShort) {
    using zvxfer::plat::detail::SpinAdvisor;
    SpinAdvisor advice;
    EXPECT_FALSE(advice.ShouldSpin()); // a new thread: as on a slow line
    int shortWaits = 0;
    while (!advice.ShouldSpin() && shortWaits < 100) {
        advice.Record(5'000);
        ++shortWaits;
    }
    EXPECT_LT(shortWaits, 20);
    advice.Record(100'000);
    for (int i = 0; i < 3; ++i) advice.Record(5'000);
    EXPECT_TRUE(advice.ShouldSpin());
    for (int i = 0; i < 3; ++i) advice.Record(5'000'000); // 5 ms rounds: an idle line
    EXPECT_FALSE(advice.ShouldSpin());
}

} // namespace
