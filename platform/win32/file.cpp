// Files over Windows handles (CreateFileA and friends): exclusive opens (a
// lock taken before any truncation), whole reads and writes, seeking,
// flushing, times and status.
#include "platform/win32/file_internal.h"

#include "platform/file.h"

namespace zvxfer::plat {

thread_local int tLastError = 0;

namespace {

// Windows counts file times in 100 ns steps from 1601; Unix seconds start
// 11644473600 seconds later.
constexpr int64_t kEpochDifference = 11644473600LL;
constexpr int64_t kTicksPerSecond = 10000000LL;

FILETIME FileTimeOf(int64_t unixSeconds) {
    const uint64_t ticks =
        static_cast<uint64_t>((unixSeconds + kEpochDifference) * kTicksPerSecond);
    FILETIME time{};
    time.dwLowDateTime = static_cast<DWORD>(ticks);
    time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return time;
}

int64_t UnixSecondsOf(const FILETIME &time) {
    const uint64_t ticks = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return static_cast<int64_t>(ticks / kTicksPerSecond) - kEpochDifference;
}

DWORD AccessRights(FileAccess access) {
    switch (access) {
    case FileAccess::Read:
        return GENERIC_READ;
    case FileAccess::Write:
        return GENERIC_WRITE;
    case FileAccess::ReadWrite:
        return GENERIC_READ | GENERIC_WRITE;
    }
    return GENERIC_READ;
}

// Truncation waits until the lock is held, so a file in use elsewhere is
// never emptied: CreateAlways opens like OpenAlways and cuts afterwards.
DWORD Creation(FileDisposition disposition) {
    return disposition == FileDisposition::OpenExisting ? OPEN_EXISTING : OPEN_ALWAYS;
}

bool BadHandle(XferFile file) {
    return file == XFER_INVALID_FILE || file == 0;
}

} // namespace

bool LockExclusive(HANDLE file) {
    OVERLAPPED at{};
    at.Offset = 0xFFFFFFFEu;
    at.OffsetHigh = 0x7FFFFFFFu;
    return ::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &at) !=
           0;
}

XferFile FileOpen(const char *path, FileAccess access, FileDisposition disposition) {
    if (path == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(XFER_INVALID_FILE);
    }
    const HANDLE file = ::CreateFileA(path, AccessRights(access), kShareAll, nullptr,
                                      Creation(disposition), FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return Fail(XFER_INVALID_FILE);
    if (!LockExclusive(file) ||
        (disposition == FileDisposition::CreateAlways && !::SetEndOfFile(file))) {
        tLastError = static_cast<int>(::GetLastError());
        ::CloseHandle(file);
        return XFER_INVALID_FILE;
    }
    return ToFile(file);
}

XferFile FileOpenShared(const char *path) {
    if (path == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(XFER_INVALID_FILE);
    }
    const HANDLE file = ::CreateFileA(path, GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    return file == INVALID_HANDLE_VALUE ? Fail(XFER_INVALID_FILE) : ToFile(file);
}

long FileRead(XferFile file, void *buffer, std::size_t count) {
    // One call reads at most what a long can report.
    const DWORD wanted = count > 0x7FFFFFFFu ? 0x7FFFFFFFu : static_cast<DWORD>(count);
    DWORD got = 0;
    if (!::ReadFile(ToHandle(file), buffer, wanted, &got, nullptr)) {
        // The write end of a pipe closed: the end of the data.
        if (::GetLastError() == ERROR_BROKEN_PIPE) return 0;
        return Fail(-1L);
    }
    return static_cast<long>(got);
}

long FileWrite(XferFile file, const void *data, std::size_t count) {
    const auto *bytes = static_cast<const char *>(data);
    std::size_t done = 0;
    while (done < count) {
        const std::size_t rest = count - done;
        const DWORD chunk = rest > 0x40000000u ? 0x40000000u : static_cast<DWORD>(rest);
        DWORD written = 0;
        if (!::WriteFile(ToHandle(file), bytes + done, chunk, &written, nullptr)) return Fail(-1L);
        if (written == 0) {
            ::SetLastError(ERROR_WRITE_FAULT);
            return Fail(-1L);
        }
        done += written;
    }
    return static_cast<long>(done);
}

int64_t FileSeek(XferFile file, int64_t offset, int whence) {
    static constexpr DWORD kMethod[] = {FILE_BEGIN, FILE_CURRENT, FILE_END};
    if (whence < 0 || whence > 2) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(int64_t{-1});
    }
    LARGE_INTEGER distance{};
    distance.QuadPart = offset;
    LARGE_INTEGER at{};
    if (!::SetFilePointerEx(ToHandle(file), distance, &at, kMethod[whence]))
        return Fail(int64_t{-1});
    return static_cast<int64_t>(at.QuadPart);
}

bool FileFlush(XferFile file) {
    return ::FlushFileBuffers(ToHandle(file)) != 0 || Fail(false);
}

bool FileSetTimes(XferFile file, int64_t unixSeconds) {
    const FILETIME time = FileTimeOf(unixSeconds);
    return ::SetFileTime(ToHandle(file), nullptr, &time, &time) != 0 || Fail(false);
}

bool FileClose(XferFile file) {
    if (BadHandle(file)) {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return Fail(false);
    }
    DropReplacement(ToHandle(file));
    return ::CloseHandle(ToHandle(file)) != 0 || Fail(false);
}

FileFacts FileStat(const char *path) {
    FileFacts facts;
    if (path == nullptr) return facts;
    // Opened without access rights, following links; backup semantics let
    // a folder open too.
    const HANDLE file = ::CreateFileA(path, 0, kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return Fail(facts);
    BY_HANDLE_FILE_INFORMATION info{};
    const bool known = ::GetFileInformationByHandle(file, &info) != 0;
    const DWORD type = ::GetFileType(file);
    if (!known) tLastError = static_cast<int>(::GetLastError());
    ::CloseHandle(file);
    facts.exists = true;
    if (!known) return facts; // a device: it exists, and is nothing else
    facts.isDirectory = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    facts.isRegular = !facts.isDirectory && type == FILE_TYPE_DISK;
    facts.size =
        static_cast<int64_t>((static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow);
    facts.modTime = UnixSecondsOf(info.ftLastWriteTime);
    return facts;
}

bool FileAccessible(const char *path, FileAccess access) {
    if (path == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(false);
    }
    const HANDLE file = ::CreateFileA(path, AccessRights(access), kShareAll, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return Fail(false);
    ::CloseHandle(file);
    return true;
}

bool FileRemove(const char *path) {
    if (path == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(false);
    }
    if (::DeleteFileA(path)) return true;
    const DWORD error = ::GetLastError();
    // A link to a folder is removed as a folder; a real folder never is.
    const DWORD attributes = ::GetFileAttributesA(path);
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
        (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return ::RemoveDirectoryA(path) != 0 || Fail(false);
    ::SetLastError(error);
    return Fail(false);
}

bool FileRename(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return Fail(false);
    }
    return ::MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING) != 0 || Fail(false);
}

int LastError() {
    return tLastError;
}

} // namespace zvxfer::plat
