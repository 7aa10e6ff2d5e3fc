// The C++ line host over the library's C line (ZvLineOpen), and the
// SIGPIPE-free write the host side's own relays use.
#include "line_host.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zvxfer::host {

namespace {

// The C options for the C++ ones: the C block keeps a default for 0, so a
// size the C++ caller set to 0 is asked for as none.
std::size_t Size(std::size_t value) {
    return value == 0 ? ZV_LINE_NONE : value;
}

} // namespace

LineHost::LineHost(int readFd, int writeFd, LineHostOptions options) {
    ZvLineOptions c{};
    c.size = sizeof c;
    c.receiveBuffer = Size(options.receiveBuffer);
    c.sendQueue = Size(options.sendQueue);
    c.flushAt = Size(options.flushAt);
    c.answerBytes = Size(options.answerBytes);
    c.readAhead = Size(options.readAhead);
    c.closeFds = options.closeOnDestroy ? 1 : 0;
    line_ = ZvLineOpen(readFd, writeFd, &c);
}

// The library keeps its own copy for the line; the relays between
// processes write through this one.
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

} // namespace zvxfer::host
