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

struct OpenedLine {
    std::unique_ptr<host::LineHost> host;
    int ownedFd = -1; // closed by the destructor
    ~OpenedLine();
};

// Open the chosen line and its host on the calling thread; nullptr with a
// reason in `error` when it cannot be opened.
std::unique_ptr<OpenedLine> OpenLine(const LineChoice &choice, const host::LineHostOptions &options,
                                     std::string &error);

} // namespace zvxfer::cli
