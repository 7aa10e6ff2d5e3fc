// Debugger output: the host's sink when one is installed, else the file
// named by ZVXFER_DEBUG ("stderr" for standard error), else the system
// debugger through OutputDebugStringA while one is attached.  Each text goes
// to the file with a single append, so lines of several threads never mix
// inside a line.
#include "platform/win32/win.h"

#include "platform/debugout.h"

#include <atomic>
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
    // False when no file is named.
    bool Write(const char *text) {
        std::lock_guard lock(mutex_);
        const char *name = std::getenv("ZVXFER_DEBUG");
        if (name == nullptr || *name == '\0') return false;
        if (name != openName_) Reopen(name);
        if (file_ == INVALID_HANDLE_VALUE) return true;
        std::size_t length = std::strlen(text);
        while (length > 0) {
            DWORD written = 0;
            const DWORD chunk = length > 0x10000000u ? 0x10000000u : static_cast<DWORD>(length);
            if (!::WriteFile(file_, text, chunk, &written, nullptr) || written == 0) break;
            text += written;
            length -= written;
        }
        return true;
    }

  private:
    void Reopen(const char *name) {
        if (ownsFile_) ::CloseHandle(file_);
        ownsFile_ = false;
        openName_ = name;
        if (openName_ == "stderr") {
            file_ = ::GetStdHandle(STD_ERROR_HANDLE);
            if (file_ == nullptr) file_ = INVALID_HANDLE_VALUE;
        } else {
            // FILE_APPEND_DATA alone: every write lands at the current end.
            file_ = ::CreateFileA(name, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            ownsFile_ = file_ != INVALID_HANDLE_VALUE;
        }
    }

    std::mutex mutex_;
    std::string openName_;
    HANDLE file_ = INVALID_HANDLE_VALUE;
    bool ownsFile_ = false;
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
    if (!File().Write(text) && ::IsDebuggerPresent()) ::OutputDebugStringA(text);
}

bool DebugOutputWanted() {
    if (gSink.load(std::memory_order_acquire) != nullptr) return true;
    const char *name = std::getenv("ZVXFER_DEBUG");
    return (name != nullptr && *name != '\0') || ::IsDebuggerPresent();
}

[[noreturn]] void FatalAppExit(const char *text) {
    std::string line = std::string(text != nullptr ? text : "") + "\n";
    const HANDLE err = ::GetStdHandle(STD_ERROR_HANDLE);
    DWORD written = 0;
    if (err != nullptr && err != INVALID_HANDLE_VALUE)
        ::WriteFile(err, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    if (::IsDebuggerPresent()) ::OutputDebugStringA(line.c_str());
    std::abort();
}

} // namespace zvxfer::plat

extern "C" void ZvSetDebugOutput(void (*sink)(const char *text)) ZVXFER_NOEXCEPT {
    zvxfer::plat::gSink.store(sink, std::memory_order_release);
}
