// Descriptor helpers of the fd line: writes that never raise SIGPIPE and
// the tests that tell a lost line from one with nothing to say.
#pragma once
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zvxfer::plat {

// Write to a descriptor without ever raising SIGPIPE in the process: a
// socket gets MSG_NOSIGNAL, anything else is written with SIGPIPE blocked
// in the calling thread and a SIGPIPE the write caused is taken back.
// Returns what write(2) returns, with errno set the same way.  Inline, so
// that host code outside the library writes through the same code.
inline long WriteNoSignal(int fd, const void *data, std::size_t length, bool isSocket) {
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

// Errors that mean the other end is gone rather than "try again".
bool LineGone(int err);

// True when poll reports a hang-up or an error on fd right now.
bool HungUp(int fd);

} // namespace zvxfer::plat
