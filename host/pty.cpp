// Opening a raw pseudo-terminal pair.
#include "pty.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace zvxfer::host {

bool OpenPty(PtyPair &pair, std::string *error) {
    auto fail = [&](const char *what) {
        if (error != nullptr) *error = std::string(what) + ": " + std::strerror(errno);
        if (pair.master >= 0) close(pair.master);
        pair = {};
        return false;
    };
    pair.master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (pair.master < 0) return fail("posix_openpt");
    if (grantpt(pair.master) != 0 || unlockpt(pair.master) != 0) return fail("unlockpt");
    char name[128];
    if (ptsname_r(pair.master, name, sizeof name) != 0) return fail("ptsname");
    pair.slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (pair.slave < 0) return fail(name);
    termios t{};
    if (tcgetattr(pair.slave, &t) == 0) {
        cfmakeraw(&t);
        t.c_cc[VMIN] = 1;
        t.c_cc[VTIME] = 0;
        tcsetattr(pair.slave, TCSANOW, &t);
    }
    return true;
}

} // namespace zvxfer::host
