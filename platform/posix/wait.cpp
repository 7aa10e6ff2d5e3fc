// Taking messages and waiting for input on the calling thread: peek, get,
// the wait on the thread's eventfd plus its watched descriptors (with the
// hosts' prepare callbacks before it sleeps, and a short spin when waits
// have been short; or, under a test clock that passes time itself, a look
// at the messages without sleeping), and the registration of descriptors
// and callbacks.
#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sched.h>

#include "platform/message.h"
#include "platform/tick.h"
#include "thread_queue.h"

using zvxfer::plat::detail::CurrentQueue;
using zvxfer::plat::detail::CurrentQueueIfAny;
using zvxfer::plat::detail::kMaxWatchedFds;
using zvxfer::plat::detail::ThreadQueue;
using zvxfer::plat::detail::WaitPrepare;

namespace {

constexpr uint32_t kInfinite = UINT32_MAX;

int64_t NowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

int64_t NowMs() {
    return NowNs() / 1'000'000;
}

// Let the hosts put out what they gathered before the thread sleeps.  A
// callback that waits itself does not run the callbacks again.
void RunPrepares(ThreadQueue &q) {
    if (q.prepares.empty() || q.preparing) return;
    q.preparing = true;
    // A callback may add or remove registrations: call the ones there were.
    std::array<WaitPrepare, zvxfer::plat::detail::kMaxPrepares> now{};
    const std::size_t count = std::min(q.prepares.size(), now.size());
    std::copy_n(q.prepares.begin(), count, now.begin());
    for (std::size_t i = 0; i < count; ++i) now[i].fn(now[i].context);
    q.preparing = false;
}

// poll(2) that first polls without sleeping for up to SpinAdvisor::kSpinNs
// (handing the CPU to whatever else is runnable between looks) when the
// thread's recent waits were that short.
int PollAdvised(ThreadQueue &q, pollfd *fds, nfds_t count, int waitMs) {
    if (waitMs == 0) return poll(fds, count, 0);
    const int64_t start = NowNs();
    int n = 0;
    if (q.spin.ShouldSpin()) {
        while ((n = poll(fds, count, 0)) == 0 &&
               NowNs() - start < zvxfer::plat::detail::SpinAdvisor::kSpinNs)
            sched_yield();
    }
    if (n == 0) n = poll(fds, count, waitMs);
    q.spin.Record(NowNs() - start);
    return n;
}

enum class Until { AnyInput, NewInput };

// Sleep on the wake-up descriptor (and, with `withWatched`, the watched
// ones) until input, or `timeoutMs` of real time has passed.  Sent messages
// are handled on the way and count as input.  With Until::NewInput,
// messages queued before the call do not count; a wake-up does.  With a
// time passer installed, a limited wait only looks at the messages: when
// none is there it hands the whole time to the passer instead of sleeping.
bool Wait(ThreadQueue &q, uint32_t timeoutMs, bool withWatched, Until until = Until::AnyInput) {
    const zvxfer::plat::TimePasser passer =
        timeoutMs == kInfinite ? nullptr : zvxfer::plat::CurrentTimePasser();
    const int64_t deadline = timeoutMs == kInfinite || passer != nullptr ? 0 : NowMs() + timeoutMs;
    std::array<pollfd, kMaxWatchedFds + 1> fds{};
    for (;;) {
        if (q.HandleSends()) return true;
        if (until == Until::AnyInput && q.pending.load(std::memory_order_acquire) != 0) {
            return true;
        }
        RunPrepares(q);
        int waitMs = -1;
        if (timeoutMs != kInfinite && passer == nullptr)
            waitMs = static_cast<int>(std::max<int64_t>(0, deadline - NowMs()));
        nfds_t count = 0;
        fds[count++] = pollfd{q.wakeFd, POLLIN, 0};
        if (withWatched) {
            for (const auto &w : q.watched) fds[count++] = pollfd{w.fd, w.events, 0};
        }
        // Messages were looked at above.  With a passer the descriptors
        // are not looked at: the input of a test that passes time comes
        // from its own host, and a descriptor the caller leaves ready
        // would keep a wait from ever passing time.
        const int n = passer == nullptr ? PollAdvised(q, fds.data(), count, waitMs) : 0;
        if (n < 0 && errno != EINTR) return false;
        if (n == 0) {
            if (passer != nullptr) passer(timeoutMs);
            return false;
        }
        if (n < 0) continue;
        for (nfds_t i = 1; i < count; ++i) {
            if (fds[i].revents != 0) return true;
        }
        if (fds[0].revents != 0) {
            q.DrainWake();
            if (until == Until::NewInput && q.pending.load(std::memory_order_acquire) != 0) {
                return true;
            }
        }
        // Only the wake-up fired: look again at what arrived.
    }
}

} // namespace

namespace zvxfer::plat {

bool PeekMessage(ZvMsg &msg, bool remove) {
    ThreadQueue *q = CurrentQueueIfAny();
    if (q == nullptr || q->pending.load(std::memory_order_acquire) == 0) return false;
    q->HandleSends();
    return q->TakePosted(msg, remove);
}

bool WatchesAnyFd() {
    const ThreadQueue *q = CurrentQueueIfAny();
    return q != nullptr && !q->watched.empty();
}

bool WaitForInput(uint32_t timeoutMs) {
    return Wait(CurrentQueue(), timeoutMs, true);
}

bool WaitForNewInput(uint32_t timeoutMs) {
    return Wait(CurrentQueue(), timeoutMs, true, Until::NewInput);
}

} // namespace zvxfer::plat

extern "C" {

ZVXFER_EXTERN int ZvPeekMessage(ZvMsg *msg, int remove) ZVXFER_NOEXCEPT try {
    ZvMsg local{};
    if (!zvxfer::plat::PeekMessage(local, remove != 0)) return 0;
    if (msg != nullptr) *msg = local;
    return 1;
} catch (...) {
    return 0;
}

// Waits for messages only: a watched descriptor that stays ready would
// otherwise turn this loop into a spin.
ZVXFER_EXTERN int ZvGetMessage(ZvMsg *msg) ZVXFER_NOEXCEPT try {
    ThreadQueue &q = CurrentQueue();
    ZvMsg local{};
    while (!zvxfer::plat::PeekMessage(local, true)) Wait(q, kInfinite, false);
    if (msg != nullptr) *msg = local;
    return local.Message == ZV_WM_QUIT ? 0 : 1;
} catch (...) {
    return 0;
}

ZVXFER_EXTERN int ZvWaitMessage(uint32_t timeoutMs) ZVXFER_NOEXCEPT try {
    return zvxfer::plat::WaitForInput(timeoutMs) ? 1 : 0;
} catch (...) {
    return 0;
}

ZVXFER_EXTERN int ZvWatchFd(int fd, int events) ZVXFER_NOEXCEPT try {
    auto &watched = CurrentQueue().watched;
    auto it = std::find_if(watched.begin(), watched.end(), [fd](auto &w) { return w.fd == fd; });
    if (it != watched.end()) {
        it->events = static_cast<short>(events);
        return 0;
    }
    if (fd < 0 || watched.size() >= kMaxWatchedFds) return -1;
    watched.push_back({fd, static_cast<short>(events)});
    return 0;
} catch (...) {
    return -1;
}

ZVXFER_EXTERN void ZvUnwatchFd(int fd) ZVXFER_NOEXCEPT try {
    ThreadQueue *q = CurrentQueueIfAny();
    if (q == nullptr) return;
    std::erase_if(q->watched, [fd](auto &w) { return w.fd == fd; });
} catch (...) {
}

ZVXFER_EXTERN int ZvAddWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT try {
    auto &prepares = CurrentQueue().prepares;
    const bool known = std::any_of(prepares.begin(), prepares.end(),
                                   [&](auto &p) { return p.fn == fn && p.context == context; });
    if (fn == nullptr || known || prepares.size() >= zvxfer::plat::detail::kMaxPrepares) return -1;
    prepares.push_back({fn, context});
    return 0;
} catch (...) {
    return -1;
}

ZVXFER_EXTERN void ZvRemoveWaitPrepare(ZvPrepareFn fn, void *context) ZVXFER_NOEXCEPT try {
    ThreadQueue *q = CurrentQueueIfAny();
    if (q == nullptr) return;
    std::erase_if(q->prepares, [&](auto &p) { return p.fn == fn && p.context == context; });
} catch (...) {
}

} // extern "C"
