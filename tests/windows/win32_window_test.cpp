// The host windows and message waits of the Windows back end: real
// windows whose procedure sees only the host's and the library's messages,
// sends across threads answered inside the owner's waits, posted messages
// dropped with their window, waits for new input that sleep past messages
// already queued, and the calls that have no meaning on Windows refused.
#include <gtest/gtest.h>

#include "platform/win32/win.h" // <windows.h> without the renaming macros

#include <atomic>
#include <thread>
#include <vector>

#include "platform/message.h"
#include "zvxfer.h"

namespace {

constexpr uint32_t kTestMessage = ZV_WM_USER + 7;

struct Seen {
    std::vector<UINT> messages;
    DWORD thread = 0;
    uintptr_t wParam = 0;
    intptr_t lParam = 0;
};

intptr_t RecordingProc(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *seen = static_cast<Seen *>(ZvGetWindowUserData(window));
    seen->messages.push_back(message);
    seen->thread = GetCurrentThreadId();
    seen->wParam = wParam;
    seen->lParam = lParam;
    return static_cast<intptr_t>(wParam) * 2 + 1;
}

// Take every message queued for the calling thread.
void DrainQueue() {
    ZvMsg msg{};
    while (ZvPeekMessage(&msg, 1)) {
    }
}

TEST(Win32Window, IsARealWindowWhoseProcedureSeesOnlyHostMessages) {
    Seen seen;
    ZvHwnd window = ZvCreateWindow(&RecordingProc, &seen);
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(IsWindow(reinterpret_cast<HWND>(window)));
    EXPECT_EQ(ZvGetWindowUserData(window), &seen);
    // Creation went by without the host procedure.
    EXPECT_TRUE(seen.messages.empty());

    EXPECT_EQ(ZvSendMessage(window, kTestMessage, 20, -5), 41);
    ASSERT_EQ(seen.messages.size(), 1u);
    EXPECT_EQ(seen.lParam, -5);

    ZvDestroyWindow(window);
    EXPECT_FALSE(IsWindow(reinterpret_cast<HWND>(window)));
    // Nor did destruction reach it.
    EXPECT_EQ(seen.messages.size(), 1u);
}

TEST(Win32Window, PostedMessagesArePeekedAndDispatched) {
    DrainQueue();
    Seen seen;
    ZvHwnd window = ZvCreateWindow(&RecordingProc, &seen);
    ASSERT_NE(window, nullptr);
    ASSERT_EQ(ZvPostMessage(window, kTestMessage, 3, 9), 1);
    EXPECT_TRUE(zvxfer::plat::InputPending());

    ZvMsg msg{};
    ASSERT_EQ(ZvPeekMessage(&msg, 0), 1); // looked at, left queued
    ASSERT_EQ(ZvPeekMessage(&msg, 1), 1);
    EXPECT_EQ(msg.Window, window);
    EXPECT_EQ(msg.Message, kTestMessage);
    EXPECT_EQ(msg.WParam, 3u);
    EXPECT_EQ(msg.LParam, 9);
    EXPECT_EQ(ZvDispatchMessage(&msg), 7);
    EXPECT_EQ(seen.messages, std::vector<UINT>{kTestMessage});
    EXPECT_EQ(ZvPeekMessage(&msg, 1), 0);
    EXPECT_FALSE(zvxfer::plat::InputPending());
    ZvDestroyWindow(window);
}

// Timer numbers carry a function in lParam for DispatchMessageA to call; a
// host's own message with that number must reach the host's procedure.
TEST(Win32Window, TimerNumberedMessagesGoToTheProcedure) {
    Seen seen;
    ZvHwnd window = ZvCreateWindow(&RecordingProc, &seen);
    ASSERT_NE(window, nullptr);
    for (uint32_t number : {0x0113u, 0x0118u}) {
        const ZvMsg msg{window, number, 4, 0x10};
        EXPECT_EQ(ZvDispatchMessage(&msg), 9) << number;
        EXPECT_EQ(seen.lParam, 0x10) << number;
    }
    EXPECT_EQ(seen.messages.size(), 2u);
    ZvDestroyWindow(window);
}

TEST(Win32Window, DestroyDropsTheWindowsPostedMessagesOnly) {
    DrainQueue();
    Seen a, b;
    ZvHwnd first = ZvCreateWindow(&RecordingProc, &a);
    ZvHwnd second = ZvCreateWindow(&RecordingProc, &b);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ZvPostMessage(first, kTestMessage, 1, 0);
    ZvPostMessage(second, kTestMessage, 2, 0);
    ZvPostMessage(first, kTestMessage, 3, 0);
    ZvDestroyWindow(first);

    std::vector<uintptr_t> left;
    ZvMsg msg{};
    while (ZvPeekMessage(&msg, 1)) {
        EXPECT_EQ(msg.Window, second);
        left.push_back(msg.WParam);
    }
    EXPECT_EQ(left, std::vector<uintptr_t>{2});
    EXPECT_TRUE(a.messages.empty());
    ZvDestroyWindow(second);
}

// A message sent from another thread runs on the owner thread, inside the
// owner's wait, and its result goes back to the sender.
TEST(Win32Window, SendFromAnotherThreadIsAnsweredInsideTheOwnersWait) {
    DrainQueue();
    Seen seen;
    ZvHwnd window = ZvCreateWindow(&RecordingProc, &seen);
    ASSERT_NE(window, nullptr);
    std::atomic<intptr_t> answer{-1};
    std::thread sender([&] { answer = ZvSendMessage(window, kTestMessage, 50, 0); });
    // Limited waits: the sender stores the answer after its send returned,
    // which is after this thread's wait has ended.
    while (answer.load() == -1) zvxfer::plat::WaitForInput(50);
    sender.join();
    EXPECT_EQ(answer.load(), 101);
    EXPECT_EQ(seen.thread, GetCurrentThreadId());
    ZvDestroyWindow(window);
}

// Two threads that send to each other's windows at the same time both get
// their answers: a sender handles what is sent to it while it waits.
TEST(Win32Window, CrossedSendsDoNotDeadlock) {
    Seen mine, theirs;
    ZvHwnd own = ZvCreateWindow(&RecordingProc, &mine);
    ASSERT_NE(own, nullptr);
    std::atomic<ZvHwnd> other{nullptr};
    std::atomic<bool> done{false};
    std::atomic<intptr_t> theirAnswer{-1};
    std::thread peer([&] {
        ZvHwnd w = ZvCreateWindow(&RecordingProc, &theirs);
        other = w;
        theirAnswer = ZvSendMessage(own, kTestMessage, 5, 0);
        while (!done.load()) zvxfer::plat::WaitForInput(50);
        ZvDestroyWindow(w);
    });
    while (other.load() == nullptr) std::this_thread::yield();
    const intptr_t myAnswer = ZvSendMessage(other.load(), kTestMessage, 6, 0);
    while (theirAnswer.load() == -1) zvxfer::plat::WaitForInput(50);
    done = true;
    peer.join();
    EXPECT_EQ(myAnswer, 13);
    EXPECT_EQ(theirAnswer.load(), 11);
    ZvDestroyWindow(own);
}

TEST(Win32Window, WaitForNewInputSleepsPastQueuedMessages) {
    DrainQueue();
    ZvPostMessage(nullptr, kTestMessage, 0, 0);
    // New input only: a message queued before the call does not end the
    // wait, so the limit runs out.
    EXPECT_FALSE(zvxfer::plat::WaitForNewInput(30));
    // Any input: the same message ends the wait at once.
    EXPECT_TRUE(zvxfer::plat::WaitForInput(UINT32_MAX));
    // A message posted by another thread during the wait ends it (posted
    // until the wait has ended, so that one surely comes after its start).
    const DWORD self = GetCurrentThreadId();
    std::atomic<bool> ended{false};
    std::thread poster([&] {
        while (!ended.load()) {
            PostThreadMessageA(self, kTestMessage, 2, 0);
            Sleep(20);
        }
    });
    EXPECT_TRUE(zvxfer::plat::WaitForNewInput(UINT32_MAX));
    ended = true;
    poster.join();
    DrainQueue();
}

TEST(Win32Window, WaitsTimeOutWithoutInput) {
    DrainQueue();
    EXPECT_FALSE(zvxfer::plat::WaitForInput(10));
    EXPECT_EQ(ZvWaitMessage(10), 0);
}

int gPrepared = 0;
void CountPrepare(void *) {
    ++gPrepared;
}

TEST(Win32Window, WaitPreparesRunBeforeSleeping) {
    DrainQueue();
    gPrepared = 0;
    ASSERT_EQ(ZvAddWaitPrepare(&CountPrepare, nullptr), 0);
    EXPECT_EQ(ZvAddWaitPrepare(&CountPrepare, nullptr), -1); // already there
    zvxfer::plat::WaitForInput(1);
    EXPECT_EQ(gPrepared, 1);
    ZvRemoveWaitPrepare(&CountPrepare, nullptr);
    zvxfer::plat::WaitForInput(1);
    EXPECT_EQ(gPrepared, 1);
}

TEST(Win32Window, QuitEndsGetMessage) {
    DrainQueue();
    ZvPostMessage(nullptr, kTestMessage, 0, 0);
    ZvPostQuitMessage(3);
    ZvMsg msg{};
    EXPECT_EQ(ZvGetMessage(&msg), 1);
    EXPECT_EQ(msg.Message, kTestMessage);
    EXPECT_EQ(ZvGetMessage(&msg), 0);
    EXPECT_EQ(msg.WParam, 3u);
}

// Descriptors mean nothing to a Windows wait: watching one is refused.
TEST(Win32Window, WatchingDescriptorsIsRefused) {
    EXPECT_EQ(ZvWatchFd(0, ZV_FD_READ), -1);
    EXPECT_EQ(ZvCreateWindow(nullptr, nullptr), nullptr);
}

} // namespace
