// Descriptor helpers of the fd line: SIGPIPE-free writes, lost-line tests.
#include "fd_io.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zvxfer::plat {

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

bool LineGone(int err) {
    return err != EAGAIN && err != EWOULDBLOCK && err != EINTR;
}

bool HungUp(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

} // namespace zvxfer::plat
