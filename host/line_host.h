// LineHost: the library's line host (ZvLineOpen) for C++ users, one line
// carried by file descriptors (a tty, a socket, a pipe pair, a pty).  It
// owns a host window that answers the port message: PORT_READ hands over
// the bytes it has read from the line, PORT_WRITE queues the bytes to send,
// which go out together without blocking.  A lost line shows in the Error
// flag.
#pragma once
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::host {

struct LineHostOptions {
    std::size_t receiveBuffer = 64 * 1024; // bytes read from the fd at most per PORT_READ
    std::size_t sendQueue = 16 * 1024;     // bytes PORT_WRITE may queue before they go out
    // Once this many bytes are queued they go out without waiting for the
    // thread to wait: a streaming engine (ZMODEM without a window) keeps
    // the line busy with writes this large instead of one per subpacket.
    std::size_t flushAt = 8 * 1024;
    // A queue smaller than this when the engine reads is an answer (an
    // acknowledgement, a position request) that the far end may be waiting
    // for: it goes out before the read.
    std::size_t answerBytes = 1024;
    // While bytes wait for room on the line, what arrives is read ahead
    // into a store of up to this many bytes, which the next PORT_READs hand
    // over first, as a terminal's own receive buffer would hold it.  A far
    // end that answers while we send (ZMODEM's ZACKs under a large window)
    // is never held in its own writes by us; it could otherwise stop
    // reading in turn, and both ends would wait on each other's writes.
    std::size_t readAhead = 4 * 1024 * 1024;
    bool closeOnDestroy = false; // close the fds when the host goes
};

// Create the LineHost on the thread that will run the transfers: the window
// belongs to that thread (so the port message is a direct call) and the
// read fd is registered with that thread's waits.  The fds are set
// non-blocking for the host's lifetime; their original flags come back in
// the destructor.  readFd and writeFd may be the same descriptor.
//
// Writes are queued so that the pieces an engine hands over one by one (a
// block's header, number, data and check; a run of streamed subpackets)
// reach the line in few writes and the far end wakes once per block.  The
// queue goes out when it reaches flushAt or is full, before a PORT_READ
// when it holds less than answerBytes, whenever the thread is about to
// sleep in a wait (a wait-prepare callback: an engine that waits for an
// answer has said everything first), on a second PORT_READ in a row that
// finds nothing with no PORT_WRITE in between (an engine polling for an
// answer without sleeping), on Flush() and in the destructor.
class LineHost {
  public:
    LineHost(int readFd, int writeFd, LineHostOptions options = {});
    explicit LineHost(int fd, LineHostOptions options = {}) : LineHost(fd, fd, options) {}
    ~LineHost() { ZvLineClose(line_); }
    LineHost(const LineHost &) = delete;
    LineHost &operator=(const LineHost &) = delete;

    // False when the window could not be created or the fd not watched.
    bool Ok() const { return line_ != nullptr; }
    ZvHwnd Window() const { return ZvLineWindow(line_); }
    // The C line underneath (nullptr when !Ok()).
    ZvLine *Line() const { return line_; }

    // A port on this host's window (close it with port->Ops.PortClose).
    XferPort *OpenPort(const char *receiveFolder = "", int32_t policy = XFER_EXISTING_OVERWRITE) {
        return ZvLinePort(line_, receiveFolder, policy);
    }

    // Put the queued bytes on the line now, waiting up to `timeoutMs` for
    // the fd to take them; true when all went out (false when some are
    // still queued or the line is lost).
    bool Flush(int timeoutMs = 0) { return ZvLineFlush(line_, timeoutMs) != 0; }
    std::size_t Queued() const { return ZvLineQueued(line_); }

    // True once a read or write found the line gone (EOF, hang-up, EPIPE, EIO).
    bool Lost() const { return ZvLineLost(line_) != 0; }
    uint64_t BytesIn() const { return ZvLineBytesIn(line_); }
    uint64_t BytesOut() const { return ZvLineBytesOut(line_); }

  private:
    ZvLine *line_ = nullptr;
};

// Write to a descriptor without ever raising SIGPIPE in the process: a
// socket gets MSG_NOSIGNAL, anything else is written with SIGPIPE blocked
// in the calling thread and a SIGPIPE the write caused is taken back.
// Returns what write(2) returns, with errno set the same way.
long WriteNoSignal(int fd, const void *data, std::size_t length, bool isSocket);

} // namespace zvxfer::host
