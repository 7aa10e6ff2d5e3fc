// Pseudo-terminal pairs: a line with a real tty driver in between, used to
// run peer programs and to test the tty paths without a serial device.
#pragma once
#include <string>

namespace zvxfer::host {

struct PtyPair {
    int master = -1;
    int slave = -1;
};

// Open a pty pair with the slave side raw (8N1, no echo).  Returns false
// with a reason in `error` when no pty can be had.  The caller closes both.
bool OpenPty(PtyPair &pair, std::string *error = nullptr);

} // namespace zvxfer::host
