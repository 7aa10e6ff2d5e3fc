// Relay between two processes through the line model: what arrives on one
// side's fd goes through a SimLine (rate, latency, errors, drops, stalls)
// to the other side's fd, in both directions, so a peer program can run
// over exactly the line the in-process link pair gives our engines.
#pragma once
#include <atomic>
#include <cstdint>

#include "sim_line.h"

namespace zvxfer::host {

struct RelayFds {
    int aRead = -1, aWrite = -1; // side A: what it sends / where it receives
    int bRead = -1, bWrite = -1; // side B
};

struct RelayResult {
    LineCounters aToB;
    LineCounters bToA;
};

// Run until both directions are done or `stop` becomes true.  A direction
// is done when its reading fd reached EOF (or failed) and everything on the
// line has been written out; its writing fd is then shut (closed), so the
// other side sees the hang-up.  Writes never raise SIGPIPE.  Blocks the
// calling thread; uses the real clock.
RelayResult RelayLines(const RelayFds &fds, const LineConfig &aToB, const LineConfig &bToA,
                       uint64_t seed, const std::atomic<bool> *stop = nullptr);

} // namespace zvxfer::host
