// Serial devices and terminals as lines: raw 8N1 at a chosen speed with
// optional RTS/CTS, the original settings saved and restored on close, on
// normal exit and from the program's signal handling.
#pragma once
#include <cstdint>
#include <string>

namespace zvxfer::host {

struct TtySettings {
    uint32_t baud = 0;   // 0: keep the current speed
    bool rtsCts = false; // hardware flow control
};

// Put an open tty into raw 8N1 mode, saving its settings first so that
// TtyRestore (or TtyRestoreAll) can bring them back.  Returns false with a
// reason in `error` when fd is no tty, the speed is unknown or the settings
// cannot be applied.  At most 8 ttys are saved at a time.
bool TtyMakeRaw(int fd, const TtySettings &settings, std::string *error = nullptr);

// Open a serial device read/write (no controlling tty) and make it raw.
// Returns the fd, or -1 with a reason in `error`.
int TtyOpen(const char *path, const TtySettings &settings, std::string *error = nullptr);

// Put back the settings TtyMakeRaw saved for fd and forget them.  What the
// tty still holds unread is discarded first: bytes the far end sent for the
// protocol must not reach whoever reads the tty next (a shell would run
// them as a command line).
void TtyRestore(int fd);

// Put back every saved tty, discarding their unread input.
// Async-signal-safe: call it from a signal handler before the program ends.
void TtyRestoreAll();

// Read and discard what arrives on fd until it has been quiet for
// `quietMs` (bytes keep coming: at most `limitMs` in all), or until the
// line is gone.  Works on blocking and non-blocking fds alike.  Returns the
// number of bytes discarded.
uint64_t TtyDrain(int fd, int quietMs, int limitMs);

// Install handlers for SIGINT, SIGTERM, SIGHUP and SIGQUIT that restore the
// saved ttys and then end the process with the same signal, and an atexit
// hook that restores them on a normal exit.  Signals the process ignores
// stay ignored.
void TtyRestoreOnExit();

// The termios speed constant for a baud rate, or 0 when there is none.
uint32_t TtySpeedConstant(uint32_t baud);

} // namespace zvxfer::host
