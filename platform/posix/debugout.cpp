// Debugger output: the host's sink when one is installed, else the file
// named by ZVXFER_DEBUG ("stderr" for standard error), else nothing.  Each
// text goes out with a single write, so lines of several threads and
// processes never mix inside a line.
#include "platform/debugout.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "zvxfer.h"

namespace zvxfer::plat {

namespace {

using Sink = void (*)(const char *text);
std::atomic<Sink> gSink{nullptr};

// The file named by ZVXFER_DEBUG, opened once per distinct name.
class DebugFile {
  public:
    void Write(const char *text) {
        std::lock_guard lock(mutex_);
        const char *name = std::getenv("ZVXFER_DEBUG");
        if (name == nullptr || *name == '\0') return;
        if (name != openName_) Reopen(name);
        if (fd_ < 0) return;
        std::size_t length = std::strlen(text);
        // One write per text; a short write to a pipe or terminal is finished
        // so that nothing is lost.
        while (length > 0) {
            ssize_t n = ::write(fd_, text, length);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            text += n;
            length -= static_cast<std::size_t>(n);
        }
    }

  private:
    void Reopen(const char *name) {
        if (fd_ > 2) ::close(fd_);
        openName_ = name;
        if (openName_ == "stderr") {
            fd_ = STDERR_FILENO;
        } else {
            fd_ = ::open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        }
    }

    std::mutex mutex_;
    std::string openName_;
    int fd_ = -1;
};

DebugFile &File() {
    static DebugFile *file = new DebugFile; // outlives every static destructor
    return *file;
}

} // namespace

void OutputDebugString(const char *text) {
    if (text == nullptr) return;
    if (Sink sink = gSink.load(std::memory_order_acquire)) {
        sink(text);
        return;
    }
    File().Write(text);
}

bool DebugOutputWanted() {
    if (gSink.load(std::memory_order_acquire) != nullptr) return true;
    const char *name = std::getenv("ZVXFER_DEBUG");
    return name != nullptr && *name != '\0';
}

[[noreturn]] void FatalAppExit(const char *text) {
    std::string line = std::string(text != nullptr ? text : "") + "\n";
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    std::abort();
}

} // namespace zvxfer::plat

extern "C" ZVXFER_EXTERN void ZvSetDebugOutput(void (*sink)(const char *text)) ZVXFER_NOEXCEPT {
    zvxfer::plat::gSink.store(sink, std::memory_order_release);
}
