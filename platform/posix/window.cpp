// Host windows: creation, user data, synchronous send (direct on the owner
// thread, queued and awaited from any other), post and dispatch.
#include <cerrno>
#include <new>
#include <poll.h>

#include "thread_queue.h"

using zvxfer::plat::detail::CurrentQueue;
using zvxfer::plat::detail::CurrentQueueIfAny;
using zvxfer::plat::detail::CurrentQueueShared;
using zvxfer::plat::detail::SendRequest;
using zvxfer::plat::detail::ThreadQueue;

namespace {

// Send to a window of another thread: queue the request, then wait for the
// owner's answer while still answering requests addressed to this thread,
// so two threads that send to each other cannot deadlock.
intptr_t SendAcrossThreads(ZvWindow *window, const ZvMsg &msg) {
    std::shared_ptr<ThreadQueue> self = CurrentQueueShared();
    auto request = std::make_shared<SendRequest>();
    request->msg = msg;
    request->replyTo = self;
    if (!window->owner->QueueSend(request)) return 0; // owner thread has ended
    while (!request->done.load(std::memory_order_acquire)) {
        self->HandleSends();
        if (request->done.load(std::memory_order_acquire)) break;
        pollfd p{self->wakeFd, POLLIN, 0};
        if (poll(&p, 1, -1) < 0 && errno != EINTR) break;
        self->DrainWake();
    }
    return request->done.load(std::memory_order_acquire) ? request->result : 0;
}

} // namespace

extern "C" {

ZVXFER_EXTERN ZvHwnd ZvCreateWindow(ZvWndProc proc, void *user) ZVXFER_NOEXCEPT try {
    if (proc == nullptr) return nullptr;
    return new (std::nothrow) ZvWindow{proc, user, CurrentQueueShared()};
} catch (...) {
    return nullptr;
}

ZVXFER_EXTERN void ZvDestroyWindow(ZvHwnd window) ZVXFER_NOEXCEPT try {
    if (window == nullptr) return;
    window->owner->Forget(window);
    delete window;
} catch (...) {
}

ZVXFER_EXTERN void *ZvGetWindowUserData(ZvHwnd window) ZVXFER_NOEXCEPT {
    return window != nullptr ? window->user : nullptr;
}

ZVXFER_EXTERN intptr_t ZvSendMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                                     intptr_t lParam) ZVXFER_NOEXCEPT try {
    if (window == nullptr) return 0;
    if (window->owner.get() == CurrentQueueIfAny()) {
        return window->proc(window, message, wParam, lParam);
    }
    return SendAcrossThreads(window, ZvMsg{window, message, wParam, lParam});
} catch (...) {
    return 0;
}

// A NULL window posts a thread message to the calling thread.
ZVXFER_EXTERN int ZvPostMessage(ZvHwnd window, uint32_t message, uintptr_t wParam,
                                intptr_t lParam) ZVXFER_NOEXCEPT try {
    ThreadQueue &queue = window != nullptr ? *window->owner : CurrentQueue();
    return queue.Post(ZvMsg{window, message, wParam, lParam}) ? 1 : 0;
} catch (...) {
    return 0;
}

ZVXFER_EXTERN void ZvPostQuitMessage(int exitCode) ZVXFER_NOEXCEPT try {
    CurrentQueue().Post(ZvMsg{nullptr, ZV_WM_QUIT, static_cast<uintptr_t>(exitCode), 0});
} catch (...) {
}

ZVXFER_EXTERN intptr_t ZvDispatchMessage(const ZvMsg *msg) ZVXFER_NOEXCEPT try {
    if (msg == nullptr || msg->Window == nullptr) return 0;
    return msg->Window->proc(msg->Window, msg->Message, msg->WParam, msg->LParam);
} catch (...) {
    return 0;
}

} // extern "C"
