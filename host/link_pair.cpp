// The in-process link pair: one host window and port per end, each on its
// own thread, joined by two SimLines.  An end's waits wake when bytes arrive
// for it or when a full line has room again: on POSIX through eventfds the
// end's thread watches, on Windows through a message posted to the end's
// window (the library's waits wake on messages there).
#include "link_pair.h"

#include <chrono>
#include <condition_variable>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <sys/eventfd.h>
#include <unistd.h>
#endif

namespace zvxfer::host {

namespace {

#ifndef _WIN32
void Signal(int fd) {
    const uint64_t one = 1;
    [[maybe_unused]] const auto n = write(fd, &one, sizeof one);
}

void Drain(int fd) {
    uint64_t value;
    [[maybe_unused]] const auto n = read(fd, &value, sizeof value);
}
#else
// Posted to an end's window to end its wait; its window procedure ignores it.
constexpr uint32_t kWakeMessage = ZV_WM_USER + 1;
#endif

} // namespace

#ifndef _WIN32
void LinkPair::WakeReader(int direction) {
    Signal(dataEvent_[direction]);
}
void LinkPair::WakeSender(int direction) {
    Signal(spaceEvent_[direction]);
}
void LinkPair::DataTaken(int direction) {
    Drain(dataEvent_[direction]);
}
void LinkPair::Looking(int) {}
#else
// One wake message at a time per end: the flag is cleared when the end
// looks at the line again (before it reads or writes), so a busy writer
// does not fill the reader's queue and no change after the look goes
// unannounced.
void LinkPair::Wake(int end) {
    std::lock_guard lock(windowsMutex_);
    if (windows_[end] == nullptr || wakePosted_[end].exchange(true)) return;
    ZvPostMessage(windows_[end], kWakeMessage, 0, 0);
}
void LinkPair::WakeReader(int direction) {
    Wake(1 - direction);
}
void LinkPair::WakeSender(int direction) {
    Wake(direction);
}
void LinkPair::DataTaken(int) {}
void LinkPair::Looking(int end) {
    wakePosted_[end].store(false);
}
#endif

// One end of the link: lives on its thread, answers the port message from
// the two lines.  Bytes handed over stay in rx_ until the next PORT_READ.
class LinkEnd {
  public:
    LinkEnd(LinkPair &pair, int index)
        : pair_(pair), index_(index), out_(*pair.lines_[index]), in_(*pair.lines_[1 - index]),
          rx_(64 * 1024) {
        window_ = ZvCreateWindow(&LinkEnd::Procedure, this);
#ifndef _WIN32
        ZvWatchFd(pair_.dataEvent_[1 - index_], ZV_FD_READ);
#endif
        {
            std::lock_guard lock(pair_.windowsMutex_);
            pair_.windows_[index_] = window_;
        }
        pair_.Looking(index_); // a wake left from an earlier run went with its window
    }
    ~LinkEnd() {
        {
            std::lock_guard lock(pair_.windowsMutex_);
            pair_.windows_[index_] = nullptr;
        }
#ifndef _WIN32
        ZvUnwatchFd(pair_.dataEvent_[1 - index_]);
        ZvUnwatchFd(pair_.spaceEvent_[index_]);
#endif
        if (window_ != nullptr) ZvDestroyWindow(window_);
    }
    ZvHwnd Window() const {
        return window_;
    }

  private:
    static intptr_t Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
        auto *self = static_cast<LinkEnd *>(ZvGetWindowUserData(window));
        if (message != XferPortMessage || lParam == 0) return 0;
        auto &block = *reinterpret_cast<PortBlock *>(lParam);
        if (wParam == PORT_READ) self->AnswerRead(block);
        if (wParam == PORT_WRITE) self->AnswerWrite(block);
        return 0;
    }

    // After Cancel the line is gone and every request also posts a close
    // request to the window: the library's short message pump after a
    // failed read may take one, and the idle hook must still see one.
    bool Cancelled(PortBlock &block) {
        if (!pair_.cancelled_.load()) return false;
        block.Error = 1;
        ZvPostMessage(window_, ZV_WM_CLOSE, 0, 0);
        return true;
    }

    void AnswerRead(PortBlock &block) {
        block.Length = 0;
        if (Cancelled(block)) return;
        pair_.Looking(index_);
        std::size_t n;
        {
            // Drained after taking and under the lock the writer signals
            // under: a signal never outlives the bytes it announced, so an
            // end that has read everything sleeps in its waits.
            std::lock_guard lock(pair_.dataMutex_[1 - index_]);
            n = in_.Take(rx_);
            pair_.DataTaken(1 - index_);
        }
        block.Data = rx_.data();
        block.Length = static_cast<uint32_t>(n);
        block.Error = (n == 0 && in_.ClosedAndDrained()) ? 1 : 0;
        const int from = 1 - index_; // the sender of what we just took
        if (n != 0 && pair_.senderWaiting_[from].load()) pair_.WakeSender(from);
    }

    void AnswerWrite(PortBlock &block) {
        if (Cancelled(block)) return;
        pair_.Looking(index_);
        // The peer's side has hung up: like a pipe whose reader is gone.
        block.Error = in_.Closed() ? 1 : 0;
        if (block.Error != 0) return;
        std::size_t n;
        {
            std::lock_guard lock(pair_.dataMutex_[index_]);
            n = out_.Offer({block.Data, block.Length});
            if (n != 0) pair_.WakeReader(index_);
        }
        const bool full = n < block.Length;
        block.Length = static_cast<uint32_t>(n);
        if (full == waiting_) return;
        // While the line is full, wake when the receiver makes room.
        waiting_ = full;
        pair_.senderWaiting_[index_].store(full);
#ifndef _WIN32
        if (full) {
            ZvWatchFd(pair_.spaceEvent_[index_], ZV_FD_READ);
        } else {
            ZvUnwatchFd(pair_.spaceEvent_[index_]);
            Drain(pair_.spaceEvent_[index_]);
        }
#endif
    }

    LinkPair &pair_;
    int index_;
    SimLine &out_;
    SimLine &in_;
    std::vector<uint8_t> rx_;
    ZvHwnd window_ = nullptr;
    bool waiting_ = false;
};

LinkPair::LinkPair(LinkConfig config) : config_(std::move(config)) {
    lines_[AtoB] = std::make_unique<SimLine>(config_.aToB, config_.seed, config_.clock);
    lines_[BtoA] = std::make_unique<SimLine>(config_.bToA, config_.seed ^ 0x9E3779B97F4A7C15ull,
                                             config_.clock);
#ifndef _WIN32
    for (int d = 0; d < 2; ++d) {
        dataEvent_[d] = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        spaceEvent_[d] = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
#endif
}

LinkPair::~LinkPair() {
#ifndef _WIN32
    for (int d = 0; d < 2; ++d) {
        if (dataEvent_[d] >= 0) close(dataEvent_[d]);
        if (spaceEvent_[d] >= 0) close(spaceEvent_[d]);
    }
#endif
}

int32_t LinkPair::RunEnd(int index, const EndFunction &function) {
    const LinkEndConfig &cfg = index == 0 ? config_.a : config_.b;
    if (config_.onEnd) config_.onEnd(index, true);
    int32_t result = PortGeneralError;
    {
        LinkEnd end(*this, index);
        XferPort *port = end.Window() == nullptr
                             ? nullptr
                             : PortOpen(0, end.Window(), cfg.receiveFolder.c_str(), cfg.policy);
        if (port != nullptr) {
            result = function(port);
            port->Ops.PortClose(port);
        }
    }
    if (config_.hangUpOnExit) {
        lines_[index]->Close();
        WakeReader(index);
    }
    if (config_.onEnd) config_.onEnd(index, false);
    return result;
}

void LinkPair::Cancel() {
    cancelled_.store(true);
    std::lock_guard lock(windowsMutex_);
    for (ZvHwnd w : windows_) {
        if (w != nullptr) ZvPostMessage(w, ZV_WM_CLOSE, 0, 0);
    }
}

LinkResult LinkPair::Run(EndFunction a, EndFunction b) {
    LinkResult result;
    std::mutex doneMutex;
    std::condition_variable doneChanged;
    int done = 0;
    auto runOne = [&](int index, const EndFunction &f, int32_t &out) {
        out = RunEnd(index, f);
        std::lock_guard lock(doneMutex);
        ++done;
        doneChanged.notify_all();
    };
    std::thread endA(runOne, 0, std::cref(a), std::ref(result.a));
    std::thread endB(runOne, 1, std::cref(b), std::ref(result.b));
    if (config_.deadlineMs != 0) {
        std::unique_lock lock(doneMutex);
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(config_.deadlineMs);
        if (!doneChanged.wait_until(lock, until, [&] { return done == 2; })) {
            result.timedOut = true;
            // Keep asking: an end busy outside the library's waits (or
            // one whose pump took the close request) gets another.
            do {
                lock.unlock();
                Cancel();
                lock.lock();
            } while (!doneChanged.wait_for(lock, std::chrono::milliseconds(100),
                                           [&] { return done == 2; }));
        }
    }
    endA.join();
    endB.join();
    return result;
}

} // namespace zvxfer::host
