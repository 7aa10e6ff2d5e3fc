// The two-process relay: a poll loop that moves bytes fd -> SimLine -> fd
// in both directions.
#include "relay.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "line_host.h"

namespace zvxfer::host {

namespace {

// One direction: bytes read but not yet on the line, the line, and bytes
// arrived but not yet written out.
struct Direction {
    int from, to;
    SimLine line;
    bool toIsSocket;
    std::vector<uint8_t> pendingIn, pendingOut;
    bool inputEnded = false;
    bool done = false;
    bool closedTo = false; // `to` was closed here (not a socket): its flags are gone
    bool mayClose = true;  // `to` is not also the other direction's input

    Direction(int f, int t, const LineConfig &config, uint64_t seed)
        : from(f), to(t), line(config, seed) {
        struct stat st {};
        toIsSocket = fstat(t, &st) == 0 && S_ISSOCK(st.st_mode);
    }

    bool WantsInput() const { return !inputEnded && pendingIn.empty(); }

    void ReadInput() {
        uint8_t buf[4096];
        const ssize_t n = read(from, buf, sizeof buf);
        if (n > 0)
            pendingIn.assign(buf, buf + n);
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            inputEnded = true;
    }

    // Offer what was read, take what arrived, write what can be written.
    void Move() {
        if (!pendingIn.empty()) {
            const std::size_t n = line.Offer(pendingIn);
            pendingIn.erase(pendingIn.begin(), pendingIn.begin() + static_cast<long>(n));
        }
        uint8_t buf[4096];
        if (pendingOut.empty()) pendingOut.assign(buf, buf + line.Take(buf));
        if (!pendingOut.empty()) {
            const long n = WriteNoSignal(to, pendingOut.data(), pendingOut.size(), toIsSocket);
            if (n > 0)
                pendingOut.erase(pendingOut.begin(), pendingOut.begin() + n);
            else if (n < 0 && errno != EAGAIN && errno != EINTR)
                pendingOut.clear();
        }
        if (inputEnded && pendingIn.empty() && pendingOut.empty() && line.Empty() && !done) {
            done = true;
            if (toIsSocket)
                shutdown(to, SHUT_WR);
            else
                closedTo = close(to) == 0;
        }
    }

    // Milliseconds until the next byte arrives (-1: nothing on the way).
    int WaitMs() const {
        const auto next = line.NextArrival();
        if (!next) return -1;
        const uint64_t now = line.Now();
        return *next <= now ? 0 : static_cast<int>((*next - now + 999) / 1000);
    }
};

} // namespace

RelayResult RelayLines(const RelayFds &fds, const LineConfig &aToB, const LineConfig &bToA,
                       uint64_t seed, const std::atomic<bool> *stop) {
    // Every fd is non-blocking while the relay runs: poll's "writable" only
    // means some room, and a write larger than that room would otherwise
    // hold the whole loop until that side reads.  A side that reads nothing
    // while it talks must only stop its own incoming direction, as on a real
    // line; the other direction keeps moving.
    const int all[4] = {fds.aRead, fds.aWrite, fds.bRead, fds.bWrite};
    int flags[4];
    for (int i = 0; i < 4; ++i) {
        flags[i] = -1;
        if (std::find(all, all + i, all[i]) != all + i) continue; // set once per fd
        flags[i] = fcntl(all[i], F_GETFL);
        if (flags[i] >= 0) fcntl(all[i], F_SETFL, flags[i] | O_NONBLOCK);
    }
    Direction dirs[2] = {{fds.aRead, fds.bWrite, aToB, seed},
                         {fds.bRead, fds.aWrite, bToA, seed ^ 0x9E3779B97F4A7C15ull}};
    dirs[0].mayClose = fds.bWrite != fds.bRead;
    dirs[1].mayClose = fds.aWrite != fds.aRead;
    while (!(dirs[0].done && dirs[1].done) && !(stop != nullptr && stop->load())) {
        pollfd p[4];
        int count = 0, timeout = 100;
        int readSlot[2] = {-1, -1};
        for (int d = 0; d < 2; ++d) {
            Direction &dir = dirs[d];
            if (dir.WantsInput()) {
                readSlot[d] = count;
                p[count++] = pollfd{dir.from, POLLIN, 0};
            }
            if (!dir.pendingOut.empty()) p[count++] = pollfd{dir.to, POLLOUT, 0};
            if (const int w = dir.WaitMs(); w >= 0) timeout = std::min(timeout, w);
            if (!dir.pendingIn.empty()) timeout = std::min(timeout, 1); // line was full
        }
        poll(p, static_cast<nfds_t>(count), timeout);
        for (int d = 0; d < 2; ++d) {
            if (readSlot[d] >= 0 && p[readSlot[d]].revents != 0) dirs[d].ReadInput();
            dirs[d].Move();
        }
    }
    for (int i = 0; i < 4; ++i)
        if (flags[i] >= 0 && !(dirs[0].closedTo && all[i] == dirs[0].to) &&
            !(dirs[1].closedTo && all[i] == dirs[1].to))
            fcntl(all[i], F_SETFL, flags[i]);
    return {dirs[0].line.Counters(), dirs[1].line.Counters()};
}

} // namespace zvxfer::host
