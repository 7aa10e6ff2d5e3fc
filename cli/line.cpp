// Opening the zvxfer program's line.  Terminal settings that are changed
// are restored on every exit (host/tty keeps them).
#include "line.h"

#include <unistd.h>

#include "i18n.h"
#include "tcp.h"
#include "tty.h"

namespace zvxfer::cli {

OpenedLine::~OpenedLine() {
    host.reset(); // what the library wrote goes out first
    if (ownTerminal) {
        host::TtyDrain(STDIN_FILENO, kQuietMs, kLimitMs);
        host::TtyRestore(STDIN_FILENO);
    }
    if (ownedFd >= 0) {
        host::TtyRestore(ownedFd);
        close(ownedFd);
    }
}

std::unique_ptr<OpenedLine> OpenLine(const LineChoice &choice, const host::LineHostOptions &options,
                                     std::string &error) {
    auto line = std::make_unique<OpenedLine>();
    int readFd = STDIN_FILENO, writeFd = STDOUT_FILENO;
    if (!choice.device.empty()) {
        line->ownedFd = host::TtyOpen(choice.device.c_str(), {choice.baud, choice.rtsCts}, &error);
        if (line->ownedFd < 0) return nullptr;
        readFd = writeFd = line->ownedFd;
    } else if (!choice.tcp.empty()) {
        line->ownedFd = host::TcpConnect(choice.tcp, &error);
        if (line->ownedFd < 0) return nullptr;
        readFd = writeFd = line->ownedFd;
    } else if (isatty(STDIN_FILENO)) {
        // Run from a terminal by hand: the protocol needs the raw bytes.
        if (!host::TtyMakeRaw(STDIN_FILENO, {}, &error)) return nullptr;
        line->ownTerminal = true;
    }
    line->host = std::make_unique<host::LineHost>(readFd, writeFd, options);
    if (!line->host->Ok()) {
        error = _("cannot watch the line");
        return nullptr;
    }
    return line;
}

} // namespace zvxfer::cli
