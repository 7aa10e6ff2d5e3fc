// The in-process link pair: one host window and port per end, each on its
// own thread, joined by two SimLines.  Bells (eventfds, or posted messages
// on Windows) wake an end's waits when bytes arrive for it or when a full
// line has room again.
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

#ifdef _WIN32
// The message that rings a bell: the end's procedure leaves it alone, and
// the library's waits end when it is posted.
constexpr uint32_t kBellMessage = ZV_WM_USER + 0x2A1;
#endif

} // namespace

#ifdef _WIN32
void LinkPair::Ring(Bell &bell, int listener) {
    if (bell.rung.exchange(true)) return; // a message is on its way already
    std::lock_guard lock(windowsMutex_);
    if (windows_[listener] != nullptr) ZvPostMessage(windows_[listener], kBellMessage, 0, 0);
}

void LinkPair::Quiet(Bell &bell) {
    bell.rung.store(false);
}

// A bell rung before the end had a window wakes it now.
void LinkPair::Listen(Bell &bell, int listener) {
    std::lock_guard lock(windowsMutex_);
    if (bell.rung.load() && windows_[listener] != nullptr)
        ZvPostMessage(windows_[listener], kBellMessage, 0, 0);
}

void LinkPair::StopListening(Bell &) {}
#else
void LinkPair::Ring(Bell &bell, int) {
    const uint64_t one = 1;
    [[maybe_unused]] const auto n = write(bell.fd, &one, sizeof one);
}

void LinkPair::Quiet(Bell &bell) {
    uint64_t value;
    [[maybe_unused]] const auto n = read(bell.fd, &value, sizeof value);
}

void LinkPair::Listen(Bell &bell, int) {
    ZvWatchFd(bell.fd, ZV_FD_READ);
}

void LinkPair::StopListening(Bell &bell) {
    ZvUnwatchFd(bell.fd);
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
        {
            std::lock_guard lock(pair_.windowsMutex_);
            pair_.windows_[index_] = window_;
        }
        pair_.Listen(pair_.dataBell_[1 - index_], index_);
    }
    ~LinkEnd() {
        {
            std::lock_guard lock(pair_.windowsMutex_);
            pair_.windows_[index_] = nullptr;
        }
        pair_.StopListening(pair_.dataBell_[1 - index_]);
        pair_.StopListening(pair_.spaceBell_[index_]);
        if (window_ != nullptr) ZvDestroyWindow(window_);
    }
    ZvHwnd Window() const { return window_; }

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
        std::size_t n;
        {
            // Quieted after taking and under the lock the writer rings
            // under: a ring never outlives the bytes it announced, so an
            // end that has read everything sleeps in its waits.
            std::lock_guard lock(pair_.dataMutex_[1 - index_]);
            n = in_.Take(rx_);
            pair_.Quiet(pair_.dataBell_[1 - index_]);
        }
        block.Data = rx_.data();
        block.Length = static_cast<uint32_t>(n);
        block.Error = (n == 0 && in_.ClosedAndDrained()) ? 1 : 0;
        const int from = 1 - index_; // the sender of what we just took
        if (n != 0 && pair_.senderWaiting_[from].load()) pair_.Ring(pair_.spaceBell_[from], from);
    }

    void AnswerWrite(PortBlock &block) {
        if (Cancelled(block)) return;
        // The peer's side has hung up: like a pipe whose reader is gone.
        block.Error = in_.Closed() ? 1 : 0;
        if (block.Error != 0) return;
        std::size_t n;
        {
            std::lock_guard lock(pair_.dataMutex_[index_]);
            n = out_.Offer({block.Data, block.Length});
            if (n != 0) pair_.Ring(pair_.dataBell_[index_], 1 - index_);
        }
        const bool full = n < block.Length;
        block.Length = static_cast<uint32_t>(n);
        if (full == waiting_) return;
        // While the line is full, wake when the receiver makes room.
        waiting_ = full;
        pair_.senderWaiting_[index_].store(full);
        if (full) {
            pair_.Listen(pair_.spaceBell_[index_], index_);
        } else {
            pair_.StopListening(pair_.spaceBell_[index_]);
            pair_.Quiet(pair_.spaceBell_[index_]);
        }
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
        dataBell_[d].fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        spaceBell_[d].fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
#endif
}

LinkPair::~LinkPair() {
#ifndef _WIN32
    for (int d = 0; d < 2; ++d) {
        if (dataBell_[d].fd >= 0) close(dataBell_[d].fd);
        if (spaceBell_[d].fd >= 0) close(spaceBell_[d].fd);
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
        Ring(dataBell_[index], 1 - index);
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
