// The per-thread message queue: posting, cross-thread send requests, the
// eventfd wake-up and the end of the owner thread.
#include "thread_queue.h"

#include "platform/message.h"

#include <cerrno>
#include <cstdlib>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zvxfer::plat::detail {

namespace {

// Keeps the calling thread's queue alive while the thread runs and tells
// it when the thread ends; windows and blocked senders hold their own
// references, so the record outlives whoever still needs it.
struct QueueHolder {
    std::shared_ptr<ThreadQueue> queue;
    ~QueueHolder();
};

thread_local QueueHolder tHolder;
// Plain pointer beside the holder: reading it needs no initialisation
// guard, so the per-byte idle check stays a load.
// Initial-exec: a direct offset from the thread pointer, no __tls_get_addr
// call (the library uses a few bytes of static TLS).
thread_local ThreadQueue *tQueue __attribute__((tls_model("initial-exec"))) = nullptr;

QueueHolder::~QueueHolder() {
    if (queue) queue->Shutdown();
    tQueue = nullptr;
}

int MakeEventFd() {
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    // Without a wake-up descriptor no wait can work; this happens only when
    // the process is out of descriptors.
    if (fd < 0) std::abort();
    return fd;
}

} // namespace

ThreadQueue::ThreadQueue() : wakeFd(MakeEventFd()) {}

ThreadQueue::~ThreadQueue() {
    close(wakeFd);
}

void ThreadQueue::Wake() {
    const uint64_t one = 1;
    // EAGAIN means the counter is already non-zero: the owner wakes anyway.
    while (write(wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void ThreadQueue::DrainWake() {
    uint64_t value;
    while (read(wakeFd, &value, sizeof value) < 0 && errno == EINTR) {
    }
}

bool ThreadQueue::Post(const ZvMsg &msg) {
    {
        std::lock_guard lock(mutex_);
        if (dead_) return false;
        posted_.push_back(msg);
        pending.fetch_add(1, std::memory_order_release);
    }
    // The owner posting to itself is awake, and the waits that count queued
    // messages look at the queue before they sleep: a wake-up would only
    // cost it two system calls and one empty round.
    if (tQueue != this) Wake();
    return true;
}

bool ThreadQueue::QueueSend(const std::shared_ptr<SendRequest> &request) {
    {
        std::lock_guard lock(mutex_);
        if (dead_) return false;
        sends_.push_back(request);
        pending.fetch_add(1, std::memory_order_release);
    }
    Wake();
    return true;
}

// One request at a time: a procedure may destroy a window that a later
// request names, and Forget then removes that request from the queue.
bool ThreadQueue::HandleSends() {
    bool any = false;
    for (;;) {
        std::shared_ptr<SendRequest> request;
        {
            std::lock_guard lock(mutex_);
            if (sends_.empty()) break;
            request = std::move(sends_.front());
            sends_.pop_front();
            pending.fetch_sub(1, std::memory_order_relaxed);
        }
        const ZvMsg &m = request->msg;
        CompleteSend(*request, m.Window->proc(m.Window, m.Message, m.WParam, m.LParam));
        any = true;
    }
    return any;
}

bool ThreadQueue::TakePosted(ZvMsg &out, bool remove) {
    std::lock_guard lock(mutex_);
    if (posted_.empty()) return false;
    out = posted_.front();
    if (remove) {
        posted_.pop_front();
        pending.fetch_sub(1, std::memory_order_relaxed);
    }
    return true;
}

void ThreadQueue::Forget(ZvHwnd window) {
    std::deque<std::shared_ptr<SendRequest>> dropped;
    {
        std::lock_guard lock(mutex_);
        const auto before = posted_.size() + sends_.size();
        std::erase_if(posted_, [window](const ZvMsg &m) { return m.Window == window; });
        for (auto it = sends_.begin(); it != sends_.end();) {
            if ((*it)->msg.Window == window) {
                dropped.push_back(std::move(*it));
                it = sends_.erase(it);
            } else {
                ++it;
            }
        }
        const auto removed = before - posted_.size() - sends_.size();
        pending.fetch_sub(static_cast<uint32_t>(removed), std::memory_order_relaxed);
    }
    for (auto &request : dropped) CompleteSend(*request, 0);
}

void ThreadQueue::Shutdown() {
    std::deque<std::shared_ptr<SendRequest>> dropped;
    {
        std::lock_guard lock(mutex_);
        dead_ = true;
        dropped.swap(sends_);
        posted_.clear();
        pending.store(0, std::memory_order_relaxed);
    }
    for (auto &request : dropped) CompleteSend(*request, 0);
}

void CompleteSend(SendRequest &request, intptr_t result) {
    request.result = result;
    request.done.store(true, std::memory_order_release);
    request.replyTo->Wake();
}

ThreadQueue &CurrentQueue() {
    if (tQueue == nullptr) {
        tHolder.queue = std::make_shared<ThreadQueue>();
        tQueue = tHolder.queue.get();
    }
    return *tQueue;
}

std::shared_ptr<ThreadQueue> CurrentQueueShared() {
    CurrentQueue();
    return tHolder.queue;
}

ThreadQueue *CurrentQueueIfAny() {
    return tQueue;
}

} // namespace zvxfer::plat::detail

// Beside tQueue so that the per-byte check is a leaf: two loads.
bool zvxfer::plat::InputPending() {
    using zvxfer::plat::detail::tQueue;
    return tQueue != nullptr && tQueue->pending.load(std::memory_order_relaxed) != 0;
}
