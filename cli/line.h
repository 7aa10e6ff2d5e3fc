// The line a zvxfer transfer runs on: standard input and output (how
// terminal programs start transfer commands), a serial device, or a TCP
// connection.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "line_host.h"

namespace zvxfer::cli {

struct LineChoice {
    std::string device; // --line
    uint32_t baud = 0;  // --baud (0: keep the device's speed)
    bool rtsCts = false;
    std::string tcp; // --tcp HOST:PORT
};

// Closing the line puts every terminal back as it was.  When the line is
// the program's own terminal (standard input is a tty: it was started from
// a shell at the far end of a terminal session), the shell reads that
// terminal next and would run whatever the far end still sends (a terminal
// program's closing bytes, a late resend, noise) as a command line.  So
// before giving the terminal back the destructor reads and discards until
// the line has been quiet for kQuietMs (kLimitMs at most when bytes never
// stop), then discards what the terminal still holds.
struct OpenedLine {
    static constexpr int kQuietMs = 3000;
    static constexpr int kLimitMs = 30000;

    std::unique_ptr<host::LineHost> host;
    int ownedFd = -1;         // closed by the destructor
    bool ownTerminal = false; // standard input, a tty, is the line
    ~OpenedLine();
};

// Open the chosen line and its host on the calling thread; nullptr with a
// reason in `error` when it cannot be opened.
std::unique_ptr<OpenedLine> OpenLine(const LineChoice &choice, const host::LineHostOptions &options,
                                     std::string &error);

} // namespace zvxfer::cli
