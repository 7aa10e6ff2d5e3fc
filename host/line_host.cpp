// The C++ line host over the library's C line (ZvLineOpen), and the
// SIGPIPE-free write the host side's own relays use.
#include "line_host.h"

#include "../platform/posix/fd_io.h"

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

// The relays between processes write through the library's own code.
long WriteNoSignal(int fd, const void *data, std::size_t length, bool isSocket) {
    return plat::WriteNoSignal(fd, data, length, isSocket);
}

} // namespace zvxfer::host
