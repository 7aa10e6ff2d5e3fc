// The fd line host: non-blocking reads into a receive buffer handed over on
// PORT_READ, non-blocking writes on PORT_WRITE, lost-line detection, and the
// registration of the fds with the owner thread's waits.
#include "line_host.h"

#include <cerrno>
#include <csignal>
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

bool Writable(int fd) {
    pollfd p{fd, POLLOUT, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & POLLOUT) != 0;
}

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
    if (window_ != nullptr && ZvWatchFd(readFd_, ZV_FD_READ) != 0) {
        ZvDestroyWindow(window_);
        window_ = nullptr;
    }
}

LineHost::~LineHost() {
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
    if (self == nullptr || message != XferPortMessage || lParam == 0) return 0;
    auto &block = *reinterpret_cast<PortBlock *>(lParam);
    if (wParam == PORT_READ) self->AnswerRead(block);
    if (wParam == PORT_WRITE) self->AnswerWrite(block);
    return 0;
}

// The library asks again only when it has taken every byte it was given, so
// each PORT_READ may reuse the whole buffer.
void LineHost::AnswerRead(PortBlock &block) {
    if (watchingWrite_ && Writable(writeFd_)) WatchWrite(false);
    FillBuffer();
    block.Data = buffer_.data();
    block.Length = static_cast<uint32_t>(filled_);
    block.Error = (lost_ && filled_ == 0) ? 1 : 0;
}

void LineHost::FillBuffer() {
    filled_ = 0;
    if (lost_) return;
    for (;;) {
        const ssize_t n = read(readFd_, buffer_.data(), buffer_.size());
        if (n > 0) {
            filled_ = static_cast<std::size_t>(n);
            bytesIn_ += filled_;
            return;
        }
        if (n < 0 && errno == EINTR) continue;
        // A tty in raw mode with VMIN 0 reads 0 bytes when nothing waits;
        // only a hang-up means the line is gone.  Elsewhere 0 is EOF.
        if (n == 0)
            lost_ = !readIsTty_ || HungUp(readFd_);
        else
            lost_ = LineGone(errno);
        return;
    }
}

void LineHost::AnswerWrite(PortBlock &block) {
    if (lost_) {
        block.Error = 1;
        return;
    }
    block.Error = 0;
    long n;
    do {
        n = WriteNoSignal(writeFd_, block.Data, block.Length, writeIsSocket_);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (LineGone(errno)) {
            lost_ = true;
            block.Error = 1;
            return;
        }
        n = 0;
    }
    bytesOut_ += static_cast<uint64_t>(n);
    const bool partial = static_cast<uint32_t>(n) < block.Length;
    block.Length = static_cast<uint32_t>(n);
    if (partial != watchingWrite_) WatchWrite(partial);
}

// While a write was only partly taken the thread's waits also wake when the
// fd can take more, so the library's retry comes as soon as it can succeed.
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
