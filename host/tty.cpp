// Raw tty set-up with saved settings that come back on close, exit and
// fatal signals.
#include "tty.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace zvxfer::host {

namespace {

// Saved settings live in a fixed table so that a signal handler can walk
// it without locks or allocation.  `fd` is published last (release) and
// cleared first, so a handler sees either a whole entry or none.
struct SavedTty {
    std::atomic<int> fd{-1};
    termios settings{};
};
std::array<SavedTty, 8> g_saved;

struct SpeedEntry {
    uint32_t baud;
    speed_t constant;
};
constexpr SpeedEntry kSpeeds[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},
    {150, B150},         {200, B200},         {300, B300},         {600, B600},
    {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
    {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
    {1500000, B1500000}, {2000000, B2000000}, {3000000, B3000000}, {4000000, B4000000},
};

void SetError(std::string *error, const char *what) {
    if (error != nullptr) *error = std::string(what) + ": " + std::strerror(errno);
}

bool Save(int fd, const termios &settings) {
    for (auto &slot : g_saved) {
        if (slot.fd.load() == fd) return true; // keep the first, original settings
    }
    for (auto &slot : g_saved) {
        if (slot.fd.load() != -1) continue;
        slot.settings = settings;
        slot.fd.store(fd, std::memory_order_release);
        return true;
    }
    return false;
}

void RestoreAndReraise(int sig) {
    TtyRestoreAll();
    signal(sig, SIG_DFL);
    raise(sig);
}

} // namespace

uint32_t TtySpeedConstant(uint32_t baud) {
    for (const auto &s : kSpeeds) {
        if (s.baud == baud) return static_cast<uint32_t>(s.constant);
    }
    return 0;
}

bool TtyMakeRaw(int fd, const TtySettings &settings, std::string *error) {
    termios original{};
    if (tcgetattr(fd, &original) != 0) {
        SetError(error, "not a terminal");
        return false;
    }
    termios raw = original;
    cfmakeraw(&raw);
    raw.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    raw.c_cflag |= CS8 | CLOCAL | CREAD | (settings.rtsCts ? CRTSCTS : 0);
    // VMIN 1: a non-blocking read with nothing to read fails with EAGAIN
    // instead of returning 0, which the line host would take for EOF.
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    if (settings.baud != 0) {
        const auto speed = static_cast<speed_t>(TtySpeedConstant(settings.baud));
        if (speed == 0) {
            errno = EINVAL;
            SetError(error, "unsupported speed");
            return false;
        }
        cfsetispeed(&raw, speed);
        cfsetospeed(&raw, speed);
    }
    if (!Save(fd, original)) {
        errno = ENOSPC;
        SetError(error, "too many saved terminals");
        return false;
    }
    if (tcsetattr(fd, TCSANOW, &raw) != 0) {
        SetError(error, "cannot set terminal");
        TtyRestore(fd);
        return false;
    }
    return true;
}

int TtyOpen(const char *path, const TtySettings &settings, std::string *error) {
    const int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        SetError(error, path);
        return -1;
    }
    // O_NONBLOCK only kept open() from waiting for carrier; the line host
    // sets it again itself while it runs.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    if (!TtyMakeRaw(fd, settings, error)) {
        close(fd);
        return -1;
    }
    return fd;
}

void TtyRestore(int fd) {
    for (auto &slot : g_saved) {
        if (slot.fd.load(std::memory_order_acquire) != fd) continue;
        tcflush(fd, TCIFLUSH);
        tcsetattr(fd, TCSADRAIN, &slot.settings);
        slot.fd.store(-1);
    }
}

void TtyRestoreAll() {
    for (auto &slot : g_saved) {
        const int fd = slot.fd.load(std::memory_order_acquire);
        if (fd < 0) continue;
        tcflush(fd, TCIFLUSH);
        tcsetattr(fd, TCSANOW, &slot.settings);
    }
}

uint64_t TtyDrain(int fd, int quietMs, int limitMs) {
    using Clock = std::chrono::steady_clock;
    const auto begun = Clock::now();
    const auto limit = begun + std::chrono::milliseconds(limitMs);
    auto quietUntil = begun + std::chrono::milliseconds(quietMs);
    uint64_t discarded = 0;
    char buffer[4096];
    for (;;) {
        const auto now = Clock::now();
        const auto end = quietUntil < limit ? quietUntil : limit;
        if (now >= end) return discarded;
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(end - now);
        pollfd p{fd, POLLIN, 0};
        const int ready = poll(&p, 1, static_cast<int>(wait.count()) + 1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return discarded;
        }
        if (ready == 0) continue; // the clock decides whether the wait is over
        if ((p.revents & POLLIN) == 0) return discarded; // hang-up or error only
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) {
            discarded += static_cast<uint64_t>(n);
            quietUntil = Clock::now() + std::chrono::milliseconds(quietMs);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            return discarded; // the line is gone
        }
    }
}

void TtyRestoreOnExit() {
    static std::atomic<bool> installed{false};
    if (installed.exchange(true)) return;
    std::atexit(TtyRestoreAll);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction current {};
        sigaction(sig, nullptr, &current);
        if (current.sa_handler == SIG_IGN) continue;
        struct sigaction action {};
        action.sa_handler = RestoreAndReraise;
        sigemptyset(&action.sa_mask);
        sigaction(sig, &action, nullptr);
    }
}

} // namespace zvxfer::host
