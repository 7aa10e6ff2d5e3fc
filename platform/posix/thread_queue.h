// The per-thread message queue behind host windows: posted messages,
// cross-thread send requests, an eventfd that wakes the owner, and the file
// descriptors the owner asked its waits to watch.
#pragma once
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "zvxfer.h"

struct pollfd;

namespace zvxfer::plat::detail {

struct ThreadQueue;

// A message sent to a window of another thread.  The sender blocks until
// `done`; the owner (or the owner's exit) fills `result` and wakes the
// sender through `replyTo`.
struct SendRequest {
    ZvMsg msg{};
    intptr_t result = 0;
    std::atomic<bool> done{false};
    std::shared_ptr<ThreadQueue> replyTo;
};

struct WatchedFd {
    int fd;
    short events;
};

constexpr std::size_t kMaxWatchedFds = 64;

struct WaitPrepare {
    ZvPrepareFn fn;
    void *context;
};

constexpr std::size_t kMaxPrepares = 8;

// Whether a wait should poll without sleeping for a moment before it
// sleeps: yes while the thread's recent waits ended within that moment.
// A fast local peer (another process on a socket pair) answers within
// microseconds, where falling asleep and being woken costs tens of them;
// on a slow line (a serial port) waits are long and the spinning stops.
class SpinAdvisor {
  public:
    static constexpr int64_t kSpinNs = 50'000;

    bool ShouldSpin() const { return averageNs_ < kSpinNs; }
    // How long a wait took until input came (or until it gave up).
    void Record(int64_t waitedNs) { averageNs_ += (waitedNs - averageNs_) / 4; }

  private:
    int64_t averageNs_ = 1'000'000; // a new thread starts as if on a slow line
};

struct ThreadQueue {
    ThreadQueue();
    ~ThreadQueue();
    ThreadQueue(const ThreadQueue &) = delete;
    ThreadQueue &operator=(const ThreadQueue &) = delete;

    // Wake the owner: any thread.
    void Wake();
    // Reset the wake-up counter: owner only.
    void DrainWake();

    // Queue a posted message and wake the owner (unless it is the caller);
    // false when the owner thread has exited.
    bool Post(const ZvMsg &msg);
    // Queue a send request; false when the owner thread has exited.
    bool QueueSend(const std::shared_ptr<SendRequest> &request);
    // Handle every queued send request (owner only); true when any was handled.
    bool HandleSends();
    // Take (or look at) the first posted message; owner only.
    bool TakePosted(ZvMsg &out, bool remove);
    // Drop posted messages and send requests for `window` (owner only).
    void Forget(ZvHwnd window);
    // The owner thread is ending: refuse new input, release blocked senders.
    void Shutdown();

    const int wakeFd;
    // Posted messages plus send requests: read without a lock by the
    // per-byte idle check.
    std::atomic<uint32_t> pending{0};
    std::vector<WatchedFd> watched;    // owner only
    std::vector<WaitPrepare> prepares; // owner only
    bool preparing = false;            // owner only: a prepare callback runs
    SpinAdvisor spin;                  // owner only

  private:
    std::mutex mutex_;
    std::deque<ZvMsg> posted_;
    std::deque<std::shared_ptr<SendRequest>> sends_;
    bool dead_ = false;
};

// The calling thread's queue, created on first use.
ThreadQueue &CurrentQueue();
std::shared_ptr<ThreadQueue> CurrentQueueShared();
// The calling thread's queue, or nullptr when it never made one (no
// allocation, no lock).
ThreadQueue *CurrentQueueIfAny();

// Complete a send request with `result` and wake its sender.
void CompleteSend(SendRequest &request, intptr_t result);

} // namespace zvxfer::plat::detail

// The host window record behind ZvHwnd.
struct ZvWindow {
    ZvWndProc proc;
    void *user;
    std::shared_ptr<zvxfer::plat::detail::ThreadQueue> owner;
};
