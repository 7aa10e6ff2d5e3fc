// The loop of a `zvxfer term` session: the user's terminal raw, typed bytes
// to the line, the line's bytes to the screen unchanged, the window size
// passed on to a command's pty, and the escape menu's actions.
#pragma once
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace zvxfer::cli {

struct SessionLine {
    int fd = -1;         // read and written; non-blocking while the session runs
    bool serial = false; // a break can be sent
    pid_t child = -1;    // the command on the pty, -1: none
    // The pty's slave side, kept open by the session so that the master
    // never reads as hung up before the command has opened it; the end of
    // the command is its exit.  -1: none.
    int slave = -1;
};

struct SessionSettings {
    uint8_t escape = 0x1d;
    std::string folder = ".";
    int32_t policy = 0;
};

struct SessionEnd {
    // The command's exit status (128+N for a death by signal N), otherwise
    // 0 (1 when the user's terminal went away).
    int status = 0;
    bool lineClosed = false; // the far end closed the line (not a quit)
};

// Run until the line closes, the command exits or the user quits.
SessionEnd RunSession(const SessionLine &line, const SessionSettings &settings);

} // namespace zvxfer::cli
