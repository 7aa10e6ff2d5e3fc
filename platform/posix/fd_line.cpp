// The line host over file descriptors (a tty, a socket, a pipe pair, a
// pty): a host window on the creating thread that answers the port message
// from a receive buffer filled by non-blocking reads and a send queue
// written without blocking, the lost-line test, the registration of the
// fds with the thread's waits and the exported ZvLine calls.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "fd_io.h"
#include "platform/debugout.h"
#include "thread_queue.h"
#include "zvxfer.h"

namespace {

using zvxfer::plat::HungUp;
using zvxfer::plat::LineGone;
using zvxfer::plat::WriteNoSignal;

constexpr std::size_t kDefaultReceiveBuffer = 64 * 1024;
constexpr std::size_t kDefaultSendQueue = 16 * 1024;
constexpr std::size_t kDefaultFlushAt = 8 * 1024;
constexpr std::size_t kDefaultAnswerBytes = 1024;
constexpr std::size_t kDefaultReadAhead = 4 * 1024 * 1024;

// Posted to the line's own window: put the queued bytes on the line.
constexpr uint32_t kFlushMessage = ZV_WM_USER + 1;
// How long the flush message waits for a full fd before it asks again.
constexpr int kFlushRetryMs = 5;
// How long ZvLineClose waits for the fd to take what is still queued.
constexpr int kFinalFlushMs = 2000;

// The settings a line runs with, every size resolved.
struct Settings {
    std::size_t receiveBuffer = kDefaultReceiveBuffer;
    std::size_t sendQueue = kDefaultSendQueue;
    std::size_t flushAt = kDefaultFlushAt;
    std::size_t answerBytes = kDefaultAnswerBytes;
    std::size_t readAhead = kDefaultReadAhead;
    bool closeFds = false;
};

int64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Wait up to `timeoutMs` for fd to take more bytes.
void AwaitWritable(int fd, int timeoutMs) {
    pollfd p{fd, POLLOUT, 0};
    while (poll(&p, 1, timeoutMs) < 0 && errno == EINTR) {
    }
}

bool IsSocket(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

void Trace(const char *format, ...) __attribute__((format(printf, 1, 2)));
void Trace(const char *format, ...) {
    if (!zvxfer::plat::DebugOutputWanted()) return;
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    zvxfer::plat::OutputDebugString(line);
}

} // namespace

// One line: the window, its buffers and the fds' saved flags.
struct ZvLine {
    ZvLine(int readFd, int writeFd, const Settings &settings)
        : readFd_(readFd), writeFd_(writeFd), settings_(settings) {}
    ~ZvLine();
    ZvLine(const ZvLine &) = delete;
    ZvLine &operator=(const ZvLine &) = delete;

    // 0, or the errno value that says why the line could not be set up.
    int Open();
    bool Flush(int timeoutMs);
    // Close the fds when the options asked for it (after the line is gone).
    bool ClosesFds() const { return settings_.closeFds; }
    int ReadFd() const { return readFd_; }
    // True on the thread that opened the line (whose waits watch its fd).
    bool OnOwnerThread() const { return owner_ == zvxfer::plat::detail::CurrentQueueIfAny(); }
    int WriteFd() const { return writeFd_; }

    ZvHwnd window = nullptr;
    std::vector<uint8_t> queue; // accepted by PORT_WRITE, not yet written
    bool lost = false;
    uint64_t bytesIn = 0;
    uint64_t bytesOut = 0;

  private:
    static intptr_t Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam);
    static void BeforeWait(void *context);
    void AnswerRead(PortBlock &block);
    void AnswerWrite(PortBlock &block);
    void FillBuffer();
    void ReadAhead();
    void NoteReadEnd(long n);
    std::size_t WriteSome(const uint8_t *data, std::size_t length);
    void WriteQueue();
    void PostFlush();
    void OnFlushMessage();
    void WatchWrite(bool on);
    void RestoreFlags();

    const int readFd_;
    const int writeFd_;
    const Settings settings_;
    const void *owner_ = nullptr; // the opening thread's message queue
    int readFlags_ = -1;
    int writeFlags_ = -1;
    bool writeIsSocket_ = false;
    bool readIsTty_ = false;
    bool watchingWrite_ = false;
    bool watchingRead_ = false;
    bool preparing_ = false; // the wait-prepare callback is registered
    std::vector<uint8_t> buffer_;
    std::size_t filled_ = 0;     // bytes of buffer_ read from the fd and handed over
    std::vector<uint8_t> ahead_; // read ahead while writes waited, from aheadAt_ on
    std::size_t aheadAt_ = 0;
    bool flushPosted_ = false; // a flush message waits in the thread's queue
    bool askedInVain_ = false; // the last PORT_READ found nothing
    bool wroteSinceRead_ = false;
};

// The fds go non-blocking (their flags are kept for the close), the window
// is made on this thread, the read fd joins this thread's waits and the
// flush before each sleep is registered.  A failure undoes every step.
int ZvLine::Open() {
    readFlags_ = fcntl(readFd_, F_GETFL);
    if (readFlags_ < 0) return errno;
    if (writeFd_ != readFd_) {
        writeFlags_ = fcntl(writeFd_, F_GETFL);
        if (writeFlags_ < 0) return errno;
    }
    // A descriptor open for the other direction only would fail every
    // read or write as a lost line.
    const int writeAccess = (writeFd_ == readFd_ ? readFlags_ : writeFlags_) & O_ACCMODE;
    if ((readFlags_ & O_ACCMODE) == O_WRONLY || writeAccess == O_RDONLY) {
        readFlags_ = writeFlags_ = -1;
        return EBADF;
    }
    buffer_.resize(std::max<std::size_t>(settings_.receiveBuffer, 1));
    if ((readFlags_ & O_NONBLOCK) == 0) fcntl(readFd_, F_SETFL, readFlags_ | O_NONBLOCK);
    if (writeFd_ != readFd_ && (writeFlags_ & O_NONBLOCK) == 0)
        fcntl(writeFd_, F_SETFL, writeFlags_ | O_NONBLOCK);
    writeIsSocket_ = IsSocket(writeFd_);
    readIsTty_ = isatty(readFd_) == 1;
    window = ZvCreateWindow(&ZvLine::Procedure, this);
    if (window == nullptr) return ENOMEM;
    owner_ = zvxfer::plat::detail::CurrentQueueIfAny();
    watchingRead_ = ZvWatchFd(readFd_, ZV_FD_READ) == 0;
    if (!watchingRead_) return EMFILE;
    preparing_ = ZvAddWaitPrepare(&ZvLine::BeforeWait, this) == 0;
    if (!preparing_) return EMFILE;
    return 0;
}

// Everything Open did, undone; the fds closed on request.  A line that was
// opened first puts out what is still queued (for a bounded time).
ZvLine::~ZvLine() {
    if (preparing_) Flush(kFinalFlushMs);
    if (preparing_) ZvRemoveWaitPrepare(&ZvLine::BeforeWait, this);
    if (watchingRead_) ZvUnwatchFd(readFd_);
    if (watchingWrite_ && writeFd_ != readFd_) ZvUnwatchFd(writeFd_);
    if (window != nullptr) ZvDestroyWindow(window);
    RestoreFlags();
}

void ZvLine::RestoreFlags() {
    if (readFlags_ >= 0) fcntl(readFd_, F_SETFL, readFlags_);
    if (writeFd_ != readFd_ && writeFlags_ >= 0) fcntl(writeFd_, F_SETFL, writeFlags_);
}

intptr_t ZvLine::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *self = static_cast<ZvLine *>(ZvGetWindowUserData(window));
    if (self == nullptr) return 0;
    if (message == kFlushMessage) {
        self->OnFlushMessage();
        return 0;
    }
    if (message != XferPortMessage || lParam == 0) return 0;
    auto &block = *reinterpret_cast<PortBlock *>(lParam);
    if (wParam == PORT_READ) self->AnswerRead(block);
    if (wParam == PORT_WRITE) self->AnswerWrite(block);
    return 0;
}

// The library asks again only when it has taken every byte it was given,
// so each PORT_READ may reuse the whole buffer.  A short queue is an answer
// and goes out before the read; so does any queue of an engine that asks
// twice in a row and found nothing the first time, without saying anything
// in between: it is waiting for an answer (its waits put the queue out
// too, before they sleep).  A longer queue between the looks of a
// streaming engine stays, to go out in larger writes.
void ZvLine::AnswerRead(PortBlock &block) {
    if (queue.size() < settings_.answerBytes || (askedInVain_ && !wroteSinceRead_)) WriteQueue();
    FillBuffer();
    askedInVain_ = filled_ == 0;
    wroteSinceRead_ = false;
    block.Data = buffer_.data();
    block.Length = static_cast<uint32_t>(filled_);
    block.Error = (lost && filled_ == 0) ? 1 : 0;
}

void ZvLine::FillBuffer() {
    filled_ = 0;
    if (aheadAt_ < ahead_.size()) {
        filled_ = std::min(buffer_.size(), ahead_.size() - aheadAt_);
        std::memcpy(buffer_.data(), ahead_.data() + aheadAt_, filled_);
        aheadAt_ += filled_;
        if (aheadAt_ == ahead_.size()) {
            ahead_.clear();
            aheadAt_ = 0;
        }
        return;
    }
    if (lost) return;
    for (;;) {
        const ssize_t n = read(readFd_, buffer_.data(), buffer_.size());
        if (n > 0) {
            filled_ = static_cast<std::size_t>(n);
            bytesIn += filled_;
            return;
        }
        if (n < 0 && errno == EINTR) continue;
        NoteReadEnd(n);
        return;
    }
}

// A read that brought nothing: 0 bytes or an error (not EINTR).  A tty in
// raw mode with VMIN 0 reads 0 bytes when nothing waits; only a hang-up
// means the line is gone.  Elsewhere 0 is EOF.
void ZvLine::NoteReadEnd(long n) {
    lost = n == 0 ? !readIsTty_ || HungUp(readFd_) : LineGone(errno);
}

// Take what the line holds now into the read-ahead store, up to its limit.
// An end of the line found here counts as in FillBuffer; the bytes before
// it are still handed over.
void ZvLine::ReadAhead() {
    uint8_t chunk[16 * 1024];
    while (!lost && ahead_.size() < settings_.readAhead) {
        const ssize_t n =
            read(readFd_, chunk, std::min(sizeof chunk, settings_.readAhead - ahead_.size()));
        if (n > 0) {
            ahead_.insert(ahead_.end(), chunk, chunk + n);
            bytesIn += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        NoteReadEnd(n);
        return;
    }
}

// Write what the fd takes now.  Returns the bytes written; a line that is
// gone sets `lost`.
std::size_t ZvLine::WriteSome(const uint8_t *data, std::size_t length) {
    std::size_t done = 0;
    while (done < length && !lost) {
        const long n = WriteNoSignal(writeFd_, data + done, length - done, writeIsSocket_);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            if (n < 0 && LineGone(errno)) lost = true;
            break;
        }
    }
    bytesOut += done;
    return done;
}

// Put as much of the queue on the line as the fd takes now.  A lost line
// drops the queue: nothing can carry it any more.
void ZvLine::WriteQueue() {
    if (!queue.empty()) {
        const std::size_t done = WriteSome(queue.data(), queue.size());
        queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(done));
        if (lost) queue.clear();
    }
    // While bytes wait for room, the thread's waits also wake when the fd
    // can take more, and the flush message stays posted, so whatever the
    // library waits in next puts them out as soon as they fit.
    if (queue.empty() == watchingWrite_) WatchWrite(!queue.empty());
    if (!queue.empty()) {
        ReadAhead();
        PostFlush();
    }
}

// PORT_WRITE takes the bytes into the queue (making room by writing first
// when they do not fit); a block larger than the whole queue goes straight
// to the fd.  Length drops to what was taken, 0 when the fd and the queue
// are full.
void ZvLine::AnswerWrite(PortBlock &block) {
    if (lost) {
        block.Error = 1;
        return;
    }
    const std::size_t capacity = settings_.sendQueue;
    if (queue.size() + block.Length > capacity) WriteQueue();
    std::size_t taken = 0;
    if (!lost && queue.empty() && block.Length > capacity) {
        taken = WriteSome(block.Data, block.Length);
        if (taken < block.Length) {
            if (!watchingWrite_) WatchWrite(true);
            ReadAhead();
        }
    } else if (!lost) {
        taken = std::min<std::size_t>(block.Length, capacity - queue.size());
        queue.insert(queue.end(), block.Data, block.Data + taken);
        if (queue.size() >= settings_.flushAt) WriteQueue();
    }
    wroteSinceRead_ = true;
    block.Error = lost ? 1 : 0;
    block.Length = static_cast<uint32_t>(taken);
}

// The thread is about to sleep in a wait: the queue goes out.
void ZvLine::BeforeWait(void *context) {
    static_cast<ZvLine *>(context)->WriteQueue();
}

void ZvLine::PostFlush() {
    if (!flushPosted_) flushPosted_ = ZvPostMessage(window, kFlushMessage, 0, 0) != 0;
}

// The thread is handling its messages (the library's idle hook does so in
// every wait): the queue goes out.  A full fd gets a short wait for room
// and then another message, so an idle-only wait cannot keep bytes back
// and does not spin while the far end reads nothing.
void ZvLine::OnFlushMessage() {
    flushPosted_ = false;
    WriteQueue();
    if (queue.empty()) return;
    AwaitWritable(writeFd_, kFlushRetryMs);
    WriteQueue();
}

bool ZvLine::Flush(int timeoutMs) {
    const int64_t deadline = NowMs() + std::max(timeoutMs, 0);
    for (;;) {
        WriteQueue();
        if (queue.empty() || lost) break;
        const int64_t left = deadline - NowMs();
        if (left <= 0) break;
        AwaitWritable(writeFd_, static_cast<int>(left));
    }
    return queue.empty() && !lost;
}

void ZvLine::WatchWrite(bool on) {
    watchingWrite_ = on;
    if (writeFd_ == readFd_) {
        ZvWatchFd(readFd_, ZV_FD_READ | (on ? ZV_FD_WRITE : 0));
    } else if (on) {
        ZvWatchFd(writeFd_, ZV_FD_WRITE);
    } else {
        ZvUnwatchFd(writeFd_);
    }
}

namespace {

// A size from the caller's options: 0 keeps the default, ZV_LINE_NONE asks
// for none.
void TakeSize(std::size_t given, std::size_t &setting) {
    if (given == ZV_LINE_NONE)
        setting = 0;
    else if (given != 0)
        setting = given;
}

// The caller's options over the defaults; the fields beyond the caller's
// `size` (a block from an older header) keep their defaults.  False for a
// block whose size was not set.
bool ReadOptions(const ZvLineOptions *options, Settings &settings) {
    if (options == nullptr) return true;
    if (options->size < offsetof(ZvLineOptions, receiveBuffer)) return false;
    ZvLineOptions given{};
    std::memcpy(&given, options, std::min(options->size, sizeof given));
    TakeSize(given.receiveBuffer, settings.receiveBuffer);
    TakeSize(given.sendQueue, settings.sendQueue);
    TakeSize(given.flushAt, settings.flushAt);
    TakeSize(given.answerBytes, settings.answerBytes);
    TakeSize(given.readAhead, settings.readAhead);
    settings.closeFds = given.closeFds != 0;
    return true;
}

} // namespace

extern "C" {

ZVXFER_EXTERN ZvLine *ZvLineOpen(int readFd, int writeFd,
                                 const ZvLineOptions *options) ZVXFER_NOEXCEPT try {
    Settings settings;
    if (!ReadOptions(options, settings)) {
        Trace("zvxfer: ZvLineOpen: options->size is %zu; set it to sizeof(ZvLineOptions)\n",
              options->size);
        errno = EINVAL;
        return nullptr;
    }
    if (readFd < 0 || writeFd < 0) {
        Trace("zvxfer: ZvLineOpen(%d, %d): not a descriptor\n", readFd, writeFd);
        errno = EBADF;
        return nullptr;
    }
    auto *line = new (std::nothrow) ZvLine(readFd, writeFd, settings);
    if (line == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const int reason = line->Open();
    if (reason != 0) {
        delete line;
        Trace("zvxfer: ZvLineOpen(%d, %d) failed: %s\n", readFd, writeFd, std::strerror(reason));
        errno = reason;
        return nullptr;
    }
    return line;
} catch (...) {
    errno = ENOMEM;
    return nullptr;
}

ZVXFER_EXTERN ZvHwnd ZvLineWindow(const ZvLine *line) ZVXFER_NOEXCEPT {
    return line != nullptr ? line->window : nullptr;
}

ZVXFER_EXTERN int ZvLineFlush(ZvLine *line, int timeoutMs) ZVXFER_NOEXCEPT try {
    return line != nullptr && line->Flush(timeoutMs) ? 1 : 0;
} catch (...) {
    return 0;
}

ZVXFER_EXTERN size_t ZvLineQueued(const ZvLine *line) ZVXFER_NOEXCEPT {
    return line != nullptr ? line->queue.size() : 0;
}

ZVXFER_EXTERN int ZvLineLost(const ZvLine *line) ZVXFER_NOEXCEPT {
    return line != nullptr && line->lost ? 1 : 0;
}

ZVXFER_EXTERN uint64_t ZvLineBytesIn(const ZvLine *line) ZVXFER_NOEXCEPT {
    return line != nullptr ? line->bytesIn : 0;
}

ZVXFER_EXTERN uint64_t ZvLineBytesOut(const ZvLine *line) ZVXFER_NOEXCEPT {
    return line != nullptr ? line->bytesOut : 0;
}

ZVXFER_EXTERN void ZvLineClose(ZvLine *line) ZVXFER_NOEXCEPT try {
    if (line == nullptr) return;
    // The watch and the wait-prepare callback are the opening thread's:
    // from here they would stay behind there.  Said, then closed anyway.
    if (!line->OnOwnerThread())
        Trace("zvxfer: ZvLineClose on a thread that did not open the line: close it on the "
              "thread that opened it\n");
    const int readFd = line->ReadFd(), writeFd = line->WriteFd();
    const bool closeFds = line->ClosesFds();
    delete line;
    if (closeFds) {
        close(readFd);
        if (writeFd != readFd) close(writeFd);
    }
} catch (...) {
}

// A port on a line host's window; the port's user data is the line, which
// the host's hooks may use to reach it (the field stays the host's).
ZVXFER_EXTERN XferPort *ZvLinePort(ZvLine *line, const char *receiveFolder,
                                   int32_t existingFilePolicy) ZVXFER_NOEXCEPT {
    const ZvHwnd window = ZvLineWindow(line);
    if (window == nullptr) return nullptr;
    return PortOpen(reinterpret_cast<uintptr_t>(line), window, receiveFolder, existingFilePolicy);
}

} // extern "C"
