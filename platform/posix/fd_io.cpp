// Descriptor helpers of the fd line: SIGPIPE-free writes, lost-line tests.
#include "fd_io.h"

#include <cerrno>
#include <poll.h>

namespace zvxfer::plat {

bool LineGone(int err) {
    return err != EAGAIN && err != EWOULDBLOCK && err != EINTR;
}

bool HungUp(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

} // namespace zvxfer::plat
