// Taking messages and waiting for input on the calling thread: peek, get,
// the wait on the thread's eventfd plus its watched descriptors, and the
// registration of those descriptors.
#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <poll.h>

#include "platform/message.h"
#include "thread_queue.h"

using zvxfer::plat::detail::CurrentQueue;
using zvxfer::plat::detail::CurrentQueueIfAny;
using zvxfer::plat::detail::kMaxWatchedFds;
using zvxfer::plat::detail::ThreadQueue;

namespace {

constexpr uint32_t kInfinite = UINT32_MAX;

int64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

enum class Until { AnyInput, NewInput };

// Sleep on the wake-up descriptor (and, with `withWatched`, the watched
// ones) until input, or `timeoutMs` of real time has passed.  Sent messages
// are handled on the way and count as input.  With Until::NewInput,
// messages queued before the call do not count; a wake-up does.
bool Wait(ThreadQueue &q, uint32_t timeoutMs, bool withWatched, Until until = Until::AnyInput) {
    const int64_t deadline = timeoutMs == kInfinite ? 0 : NowMs() + timeoutMs;
    std::array<pollfd, kMaxWatchedFds + 1> fds{};
    for (;;) {
        if (q.HandleSends()) return true;
        if (until == Until::AnyInput && q.pending.load(std::memory_order_acquire) != 0) {
            return true;
        }
        int waitMs = -1;
        if (timeoutMs != kInfinite)
            waitMs = static_cast<int>(std::max<int64_t>(0, deadline - NowMs()));
        nfds_t count = 0;
        fds[count++] = pollfd{q.wakeFd, POLLIN, 0};
        if (withWatched) {
            for (const auto &w : q.watched) fds[count++] = pollfd{w.fd, w.events, 0};
        }
        const int n = poll(fds.data(), count, waitMs);
        if (n < 0 && errno != EINTR) return false;
        if (n == 0) return false;
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

bool WaitForInput(uint32_t timeoutMs) {
    return Wait(CurrentQueue(), timeoutMs, true);
}

bool WaitForNewInput(uint32_t timeoutMs) {
    return Wait(CurrentQueue(), timeoutMs, true, Until::NewInput);
}

} // namespace zvxfer::plat

extern "C" {

ZVXFER_EXTERN int ZvPeekMessage(ZvMsg *msg, int remove) {
    ZvMsg local{};
    if (!zvxfer::plat::PeekMessage(local, remove != 0)) return 0;
    if (msg != nullptr) *msg = local;
    return 1;
}

// Waits for messages only: a watched descriptor that stays ready would
// otherwise turn this loop into a spin.
ZVXFER_EXTERN int ZvGetMessage(ZvMsg *msg) {
    ThreadQueue &q = CurrentQueue();
    ZvMsg local{};
    while (!zvxfer::plat::PeekMessage(local, true)) Wait(q, kInfinite, false);
    if (msg != nullptr) *msg = local;
    return local.Message == ZV_WM_QUIT ? 0 : 1;
}

ZVXFER_EXTERN int ZvWaitMessage(uint32_t timeoutMs) {
    return zvxfer::plat::WaitForInput(timeoutMs) ? 1 : 0;
}

ZVXFER_EXTERN int ZvWatchFd(int fd, int events) {
    auto &watched = CurrentQueue().watched;
    auto it = std::find_if(watched.begin(), watched.end(), [fd](auto &w) { return w.fd == fd; });
    if (it != watched.end()) {
        it->events = static_cast<short>(events);
        return 0;
    }
    if (fd < 0 || watched.size() >= kMaxWatchedFds) return -1;
    watched.push_back({fd, static_cast<short>(events)});
    return 0;
}

ZVXFER_EXTERN void ZvUnwatchFd(int fd) {
    ThreadQueue *q = CurrentQueueIfAny();
    if (q == nullptr) return;
    std::erase_if(q->watched, [fd](auto &w) { return w.fd == fd; });
}

} // extern "C"
