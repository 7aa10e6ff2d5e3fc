// The fd line host: non-blocking reads into a receive buffer handed over on
// PORT_READ, a send queue filled by PORT_WRITE and written without blocking,
// lost-line detection, and the registration of the fds with the owner
// thread's waits.
#include "line_host.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zvxfer::host {

namespace {

// Set O_NONBLOCK and return the flags to restore (-1 when fcntl failed).
int MakeNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    return flags;
}

bool IsSocket(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

// Errors that mean the other end is gone rather than "try again".
bool LineGone(int err) {
    return err != EAGAIN && err != EWOULDBLOCK && err != EINTR;
}

// True when poll reports a hang-up or an error on fd right now.
bool HungUp(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Wait up to `timeoutMs` for fd to take more bytes.
void AwaitWritable(int fd, int timeoutMs) {
    pollfd p{fd, POLLOUT, 0};
    while (poll(&p, 1, timeoutMs) < 0 && errno == EINTR) {
    }
}

int64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Posted to the host's own window: put the queued bytes on the line.
constexpr uint32_t kFlushMessage = ZV_WM_USER + 1;
// How long the flush message waits for a full fd before it asks again.
constexpr int kFlushRetryMs = 5;
// How long the destructor waits for the fd to take what is still queued.
constexpr int kFinalFlushMs = 2000;

} // namespace

long WriteNoSignal(int fd, const void *data, std::size_t length, bool isSocket) {
    if (isSocket) return send(fd, data, length, MSG_NOSIGNAL);
    // Block SIGPIPE in this thread for the write; if the write raised one
    // (EPIPE and none was pending before), take it back before unblocking,
    // so the process never sees it whatever its disposition.
    sigset_t pipeSet, old, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
    const long n = write(fd, data, length);
    const int err = errno;
    if (n < 0 && err == EPIPE && !wasPending) {
        const timespec zero{};
        while (sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return n;
}

LineHost::LineHost(int readFd, int writeFd, LineHostOptions options)
    : readFd_(readFd), writeFd_(writeFd), options_(options) {
    buffer_.resize(options_.receiveBuffer == 0 ? 1 : options_.receiveBuffer);
    readFlags_ = MakeNonBlocking(readFd_);
    if (writeFd_ != readFd_) writeFlags_ = MakeNonBlocking(writeFd_);
    writeIsSocket_ = IsSocket(writeFd_);
    readIsTty_ = isatty(readFd_) == 1;
    window_ = ZvCreateWindow(&LineHost::Procedure, this);
    if (window_ != nullptr && (ZvWatchFd(readFd_, ZV_FD_READ) != 0 ||
                               ZvAddWaitPrepare(&LineHost::BeforeWait, this) != 0)) {
        ZvUnwatchFd(readFd_);
        ZvDestroyWindow(window_);
        window_ = nullptr;
    }
}

LineHost::~LineHost() {
    Flush(kFinalFlushMs);
    ZvRemoveWaitPrepare(&LineHost::BeforeWait, this);
    ZvUnwatchFd(readFd_);
    if (writeFd_ != readFd_) ZvUnwatchFd(writeFd_);
    if (window_ != nullptr) ZvDestroyWindow(window_);
    if (readFlags_ >= 0) fcntl(readFd_, F_SETFL, readFlags_);
    if (writeFd_ != readFd_ && writeFlags_ >= 0) fcntl(writeFd_, F_SETFL, writeFlags_);
    if (options_.closeOnDestroy) {
        close(readFd_);
        if (writeFd_ != readFd_) close(writeFd_);
    }
}

XferPort *LineHost::OpenPort(const char *receiveFolder, int32_t policy) {
    if (window_ == nullptr) return nullptr;
    return PortOpen(0, window_, receiveFolder, policy);
}

intptr_t LineHost::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *self = static_cast<LineHost *>(ZvGetWindowUserData(window));
    if (self == nullptr) return 0;
    if (message == kFlushMessage) {
        self->OnFlushMessage();
        return 0;
    }
    if (message != XferPortMessage || lParam == 0) return 0;
    auto &block = *reinterpret_cast<PortBlock *>(lParam);
    if (wParam == PORT_READ) self->AnswerRead(block);
    if (wParam == PORT_WRITE) self->AnswerWrite(block);
    return 0;
}

// The library asks again only when it has taken every byte it was given,
// so each PORT_READ may reuse the whole buffer.  A short queue is an answer
// and goes out before the read; so does any queue of an engine that asks
// twice in a row and found nothing the first time, without saying anything
// in between: it is waiting for an answer (its waits put the queue out
// too, before they sleep).  A longer queue between the looks of a
// streaming engine stays, to go out in larger writes.
void LineHost::AnswerRead(PortBlock &block) {
    if (queue_.size() < options_.answerBytes || (askedInVain_ && !wroteSinceRead_)) WriteQueue();
    FillBuffer();
    askedInVain_ = filled_ == 0;
    wroteSinceRead_ = false;
    block.Data = buffer_.data();
    block.Length = static_cast<uint32_t>(filled_);
    block.Error = (lost_ && filled_ == 0) ? 1 : 0;
}

void LineHost::FillBuffer() {
    filled_ = 0;
    if (aheadAt_ < ahead_.size()) {
        filled_ = std::min(buffer_.size(), ahead_.size() - aheadAt_);
        std::memcpy(buffer_.data(), ahead_.data() + aheadAt_, filled_);
        aheadAt_ += filled_;
        if (aheadAt_ == ahead_.size()) {
            ahead_.clear();
            aheadAt_ = 0;
        }
        return;
    }
    if (lost_) return;
    for (;;) {
        const ssize_t n = read(readFd_, buffer_.data(), buffer_.size());
        if (n > 0) {
            filled_ = static_cast<std::size_t>(n);
            bytesIn_ += filled_;
            return;
        }
        if (n < 0 && errno == EINTR) continue;
        NoteReadEnd(n);
        return;
    }
}

// A read that brought nothing: 0 bytes or an error (not EINTR).  A tty in
// raw mode with VMIN 0 reads 0 bytes when nothing waits; only a hang-up
// means the line is gone.  Elsewhere 0 is EOF.
void LineHost::NoteReadEnd(long n) {
    lost_ = n == 0 ? !readIsTty_ || HungUp(readFd_) : LineGone(errno);
}

// Take what the line holds now into the read-ahead store, up to its limit.
// An end of the line found here counts as in FillBuffer; the bytes before
// it are still handed over.
void LineHost::ReadAhead() {
    uint8_t chunk[16 * 1024];
    while (!lost_ && ahead_.size() < options_.readAhead) {
        const ssize_t n =
            read(readFd_, chunk, std::min(sizeof chunk, options_.readAhead - ahead_.size()));
        if (n > 0) {
            ahead_.insert(ahead_.end(), chunk, chunk + n);
            bytesIn_ += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        NoteReadEnd(n);
        return;
    }
}

// Write what the fd takes now.  Returns the bytes written; a line that is
// gone sets lost_.
std::size_t LineHost::WriteSome(const uint8_t *data, std::size_t length) {
    std::size_t done = 0;
    while (done < length && !lost_) {
        const long n = WriteNoSignal(writeFd_, data + done, length - done, writeIsSocket_);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            if (n < 0 && LineGone(errno)) lost_ = true;
            break;
        }
    }
    bytesOut_ += done;
    return done;
}

// Put as much of the queue on the line as the fd takes now.  A lost line
// drops the queue: nothing can carry it any more.
void LineHost::WriteQueue() {
    if (!queue_.empty()) {
        const std::size_t done = WriteSome(queue_.data(), queue_.size());
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(done));
        if (lost_) queue_.clear();
    }
    // While bytes wait for room, the thread's waits also wake when the fd
    // can take more, and the flush message stays posted, so whatever the
    // library waits in next puts them out as soon as they fit.
    if (queue_.empty() == watchingWrite_) WatchWrite(!queue_.empty());
    if (!queue_.empty()) {
        ReadAhead();
        PostFlush();
    }
}

// PORT_WRITE takes the bytes into the queue (making room by writing first
// when they do not fit); a block larger than the whole queue goes straight
// to the fd.  Length drops to what was taken, 0 when the fd and the queue
// are full.
void LineHost::AnswerWrite(PortBlock &block) {
    if (lost_) {
        block.Error = 1;
        return;
    }
    const std::size_t capacity = options_.sendQueue;
    if (queue_.size() + block.Length > capacity) WriteQueue();
    std::size_t taken = 0;
    if (!lost_ && queue_.empty() && block.Length > capacity) {
        taken = WriteSome(block.Data, block.Length);
        if (taken < block.Length) {
            if (!watchingWrite_) WatchWrite(true);
            ReadAhead();
        }
    } else if (!lost_) {
        taken = std::min<std::size_t>(block.Length, capacity - queue_.size());
        queue_.insert(queue_.end(), block.Data, block.Data + taken);
        if (queue_.size() >= options_.flushAt) WriteQueue();
    }
    wroteSinceRead_ = true;
    block.Error = lost_ ? 1 : 0;
    block.Length = static_cast<uint32_t>(taken);
}

// The thread is about to sleep in a wait: the queue goes out.
void LineHost::BeforeWait(void *context) {
    static_cast<LineHost *>(context)->WriteQueue();
}

void LineHost::PostFlush() {
    if (!flushPosted_) flushPosted_ = ZvPostMessage(window_, kFlushMessage, 0, 0) != 0;
}

// The thread is handling its messages (the library's idle hook does so in
// every wait): the queue goes out.  A full fd gets a short wait for room
// and then another message, so an idle-only wait cannot keep bytes back
// and does not spin while the far end reads nothing.
void LineHost::OnFlushMessage() {
    flushPosted_ = false;
    WriteQueue();
    if (queue_.empty()) return;
    AwaitWritable(writeFd_, kFlushRetryMs);
    WriteQueue();
}

bool LineHost::Flush(int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        WriteQueue();
        if (queue_.empty() || lost_) break;
        const int64_t left = deadline - NowMs();
        if (left <= 0) break;
        AwaitWritable(writeFd_, static_cast<int>(left));
    }
    return queue_.empty() && !lost_;
}

void LineHost::WatchWrite(bool on) {
    watchingWrite_ = on;
    if (writeFd_ == readFd_) {
        ZvWatchFd(readFd_, ZV_FD_READ | (on ? ZV_FD_WRITE : 0));
    } else if (on) {
        ZvWatchFd(writeFd_, ZV_FD_WRITE);
    } else {
        ZvUnwatchFd(writeFd_);
    }
}

} // namespace zvxfer::host
