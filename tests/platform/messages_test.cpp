// Host windows and thread queues: post, peek, dispatch, sends within and
// across threads, and the fate of messages whose window or thread is gone.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/message.h"

namespace {

// A window procedure that records what it saw and answers wParam + 1.
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

TEST(Messages, PostPeekDispatchInOrder) {
    Recorder rec;
    ZvHwnd w = ZvCreateWindow(Recorder::Proc, &rec);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(ZvCreateWindow(nullptr, nullptr), nullptr);
    EXPECT_FALSE(zvxfer::plat::InputPending());

    EXPECT_EQ(ZvPostMessage(w, ZV_WM_PAINT, 1, 2), 1);
    EXPECT_EQ(ZvPostMessage(w, ZV_WM_USER, 3, 4), 1);
    EXPECT_TRUE(zvxfer::plat::InputPending());
    ZvMsg m{};
    ASSERT_EQ(ZvPeekMessage(&m, 0), 1); // look, do not take
    EXPECT_EQ(m.Message, ZV_WM_PAINT);
    ASSERT_EQ(ZvPeekMessage(&m, 1), 1);
    EXPECT_EQ(m.Window, w);
    EXPECT_EQ(m.WParam, 1u);
    EXPECT_EQ(m.LParam, 2);
    EXPECT_EQ(ZvDispatchMessage(&m), 2);
    ASSERT_EQ(ZvPeekMessage(&m, 1), 1);
    EXPECT_EQ(m.Message, ZV_WM_USER);
    EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
    EXPECT_FALSE(zvxfer::plat::InputPending());
    EXPECT_EQ(rec.seen, std::vector<uint32_t>{ZV_WM_PAINT});

    // Same-thread send is a direct call.
    EXPECT_EQ(ZvSendMessage(w, 99, 41, 0), 42);
    EXPECT_EQ(ZvSendMessage(nullptr, 99, 41, 0), 0);

    // Destroying a window drops what was queued for it, nothing else.
    ZvPostMessage(w, ZV_WM_PAINT, 0, 0);
    ZvPostQuitMessage(3);
    ZvDestroyWindow(w);
    ASSERT_EQ(ZvGetMessage(&m), 0); // WM_QUIT
    EXPECT_EQ(m.Window, nullptr);
    EXPECT_EQ(m.WParam, 3u);
    EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
}

TEST(Messages, WaitTimesOutAndWakesOnPost) {
    EXPECT_EQ(ZvWaitMessage(0), 0);
    EXPECT_EQ(ZvWaitMessage(2), 0);
    Recorder rec;
    ZvHwnd w = ZvCreateWindow(Recorder::Proc, &rec);
    std::thread poster([w] { ZvPostMessage(w, ZV_WM_USER, 0, 0); });
    EXPECT_EQ(ZvWaitMessage(UINT32_MAX), 1);
    poster.join();
    ZvMsg m{};
    EXPECT_EQ(ZvPeekMessage(&m, 1), 1);
    ZvDestroyWindow(w);
}

TEST(Messages, CrossThreadSendRunsOnOwnerAndReturnsResult) {
    Recorder rec;
    ZvHwnd w = ZvCreateWindow(Recorder::Proc, &rec);
    std::atomic<intptr_t> result{0};
    std::thread sender([&] { result = ZvSendMessage(w, 77, 9, 0); });
    // The owner handles the send inside its wait; nothing is posted.
    while (rec.seen.empty()) ZvWaitMessage(1000);
    sender.join();
    EXPECT_EQ(result.load(), 10);
    EXPECT_EQ(rec.seen, std::vector<uint32_t>{77});
    EXPECT_EQ(rec.thread, std::this_thread::get_id());
    ZvMsg m{};
    EXPECT_EQ(ZvPeekMessage(&m, 1), 0);
    ZvDestroyWindow(w);
}

// Each thread's procedure sends to the other thread's window: without
// answering sends while blocked, both would wait forever.
struct PingPong {
    ZvHwnd peer = nullptr;
    int depth = 0;
    static intptr_t Proc(ZvHwnd w, uint32_t, uintptr_t wParam, intptr_t) {
        auto *self = static_cast<PingPong *>(ZvGetWindowUserData(w));
        ++self->depth;
        if (wParam == 0) return 100;
        return 1 + ZvSendMessage(self->peer, ZV_WM_USER, wParam - 1, 0);
    }
};

TEST(Messages, TwoThreadsSendingToEachOtherDoNotDeadlock) {
    PingPong a, b;
    std::atomic<ZvHwnd> bWindow{nullptr};
    std::atomic<bool> stop{false};
    ZvHwnd aWindow = ZvCreateWindow(PingPong::Proc, &a);
    std::thread other([&] {
        bWindow = ZvCreateWindow(PingPong::Proc, &b);
        b.peer = aWindow;
        while (!stop) ZvWaitMessage(5);
        ZvDestroyWindow(bWindow);
    });
    while (bWindow.load() == nullptr) std::this_thread::yield();
    a.peer = bWindow;
    // a -> b -> a -> b ... six hops, alternating threads.
    EXPECT_EQ(ZvSendMessage(bWindow, ZV_WM_USER, 6, 0), 106);
    // And both threads start a send at the same moment.
    std::atomic<intptr_t> fromB{0};
    ZvPostMessage(bWindow, 1, 0, 0); // nudge; not needed for correctness
    std::thread third([&] { fromB = ZvSendMessage(aWindow, ZV_WM_USER, 3, 0); });
    while (fromB.load() == 0) ZvWaitMessage(5);
    third.join();
    EXPECT_EQ(fromB.load(), 103);
    stop = true;
    other.join();
    EXPECT_EQ(a.depth + b.depth, 7 + 4);
    ZvDestroyWindow(aWindow);
}

TEST(Messages, SendAndPostToAnEndedThreadFailWithoutHanging) {
    Recorder rec;
    ZvHwnd orphan = nullptr;
    std::thread owner([&] { orphan = ZvCreateWindow(Recorder::Proc, &rec); });
    owner.join();
    ASSERT_NE(orphan, nullptr);
    EXPECT_EQ(ZvSendMessage(orphan, ZV_WM_USER, 1, 0), 0);
    EXPECT_EQ(ZvPostMessage(orphan, ZV_WM_USER, 1, 0), 0);
    EXPECT_TRUE(rec.seen.empty());

    // A sender already blocked when the owner ends is released with 0.
    std::atomic<bool> queued{false};
    std::atomic<intptr_t> result{-1};
    ZvHwnd late = nullptr;
    std::thread sender;
    std::thread owner2([&] {
        late = ZvCreateWindow(Recorder::Proc, &rec);
        sender = std::thread([&] {
            queued = true;
            result = ZvSendMessage(late, ZV_WM_USER, 5, 0);
        });
        while (!queued) std::this_thread::yield();
        // End without ever handling the request (it may or may not be
        // queued yet: both ways the sender must come back with 0).
    });
    owner2.join();
    sender.join(); // hangs (and the test times out) if the sender is never released
    EXPECT_EQ(result.load(), 0);
    ZvDestroyWindow(orphan);
    ZvDestroyWindow(late);
}

} // namespace
