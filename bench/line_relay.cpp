// zvxfer-line-relay: run two programs joined by the simulated line, so a
// peer pair and our engines can be measured on exactly the same line.
//
//   zvxfer-line-relay --ber 1e-4 --seed 3 -- sz -q f.bin -- zvxfer receive -p zmodem
//
// Each program gets one end of a socket pair as its standard input and
// output; the relay moves bytes between them through a SimLine per
// direction.  At the end it prints both exit statuses and what each
// direction carried, on one line of standard error, and exits 0 when both
// programs did.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "relay.h"

namespace {

pid_t Spawn(const std::vector<std::string> &argv, int fd, int other) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    dup2(fd, STDIN_FILENO);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    close(other);
    std::signal(SIGPIPE, SIG_IGN); // as a terminal program starts its commands
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    fmt::print(stderr, "zvxfer-line-relay: cannot run {}\n", argv[0]);
    _exit(127);
}

std::string Describe(int status) {
    if (WIFEXITED(status)) return std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "?";
}

} // namespace

int main(int argc, char **argv) {
    using zvxfer::host::LineConfig;
    CLI::App app{"run two programs joined by a simulated line"};
    uint64_t baud = 0, seed = 1;
    uint32_t latency = 0, timeoutS = 600, graceS = 20;
    double ber = 0, drop = 0;
    std::vector<std::string> rest;
    app.add_option("--baud", baud, "line speed in bit/s, 8N1 (default: unlimited)");
    app.add_option("--latency", latency, "one-way latency in milliseconds");
    app.add_option("--ber", ber, "bit-error rate")->check(CLI::Range(0.0, 0.01));
    app.add_option("--drop", drop, "rate of lost bytes")->check(CLI::Range(0.0, 0.01));
    app.add_option("--seed", seed, "seed of the line's errors");
    app.add_option("--timeout", timeoutS, "kill both programs after this many seconds");
    app.add_option("--grace", graceS,
                   "kill a program this many seconds after the other one has ended");
    app.add_option("programs", rest, "-- A ... -- B ...")->required();
    app.allow_extras(false);
    app.prefix_command(false);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    // The two command lines, split at the "--" between them.
    std::vector<std::string> a, b;
    auto split = std::find(rest.begin(), rest.end(), "--");
    a.assign(rest.begin(), split);
    if (split != rest.end()) b.assign(split + 1, rest.end());
    if (a.empty() || b.empty()) {
        fmt::print(stderr, "zvxfer-line-relay: give two programs: -- A ... -- B ...\n");
        return 2;
    }

    LineConfig line;
    line.bytesPerSecond = baud / 10;
    line.latencyMs = latency;
    line.bitErrorRate = ber;
    line.dropRate = drop;
    std::signal(SIGPIPE, SIG_IGN);
    // Close-on-exec: each program keeps only its own end (as its standard
    // input and output, which dup2 leaves open).  An inherited copy of the
    // other pair's ends would hide that program's hang-up from the relay.
    int sa[2], sb[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sa) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sb) != 0)
        return 1;
    // Small socket buffers, as a serial port's: a program cannot run far
    // ahead of the line, so what is in flight after an error is about what
    // a real line holds.
    for (int fd : {sa[0], sa[1], sb[0], sb[1]}) {
        const int size = 4096;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    const pid_t pa = Spawn(a, sa[0], sa[1]);
    const pid_t pb = Spawn(b, sb[0], sb[1]);
    close(sa[0]);
    close(sb[0]);

    // Both programs are waited for (and killed at the time limit, or when
    // one outlives the other by the grace time: some programs never notice
    // the hang-up) while the relay runs; it ends when both sides have hung up.
    std::atomic<bool> stop{false};
    int statusA = 0, statusB = 0;
    std::thread reaper([&] {
        using Clock = std::chrono::steady_clock;
        auto deadline = Clock::now() + std::chrono::seconds(timeoutS);
        bool doneA = false, doneB = false;
        while (!(doneA && doneB)) {
            const bool before = doneA || doneB;
            if (!doneA && waitpid(pa, &statusA, WNOHANG) == pa) doneA = true;
            if (!doneB && waitpid(pb, &statusB, WNOHANG) == pb) doneB = true;
            if (!before && (doneA || doneB))
                deadline = std::min(deadline, Clock::now() + std::chrono::seconds(graceS));
            if (Clock::now() > deadline) {
                kill(pa, SIGKILL);
                kill(pb, SIGKILL);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        stop = true;
    });
    const auto result =
        zvxfer::host::RelayLines({sa[1], sa[1], sb[1], sb[1]}, line, line, seed, &stop);
    reaper.join();
    fmt::print(stderr,
               "relay: a={} b={} a->b offered={} flipped={} dropped={} b->a offered={} "
               "flipped={} dropped={}\n",
               Describe(statusA), Describe(statusB), result.aToB.offered, result.aToB.flippedBits,
               result.aToB.dropped, result.bToA.offered, result.bToA.flippedBits,
               result.bToA.dropped);
    const bool ok = WIFEXITED(statusA) && WEXITSTATUS(statusA) == 0 && WIFEXITED(statusB) &&
                    WEXITSTATUS(statusB) == 0;
    return ok ? 0 : 1;
}
