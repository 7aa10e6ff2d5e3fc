// Files over POSIX descriptors: exclusive opens (an advisory lock taken
// before any truncation), whole reads and writes, seeking, flushing, times
// and status.
#include "platform/file.h"
#include "platform/posix/file_internal.h"
#include "platform/posix/native_path.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zvxfer::plat {

thread_local int tLastError = 0;

namespace {

int OpenFlags(FileAccess access, FileDisposition disposition) {
    int flags = O_CLOEXEC;
    switch (access) {
    case FileAccess::Read:
        flags |= O_RDONLY;
        break;
    case FileAccess::Write:
        flags |= O_WRONLY;
        break;
    case FileAccess::ReadWrite:
        flags |= O_RDWR;
        break;
    }
    // Truncation waits until the lock is held, so a file in use elsewhere
    // is never emptied.
    if (disposition != FileDisposition::OpenExisting) flags |= O_CREAT;
    return flags;
}

} // namespace

XferFile FileOpen(const char *path, FileAccess access, FileDisposition disposition) {
    if (path == nullptr) {
        errno = EINVAL;
        return Fail(XFER_INVALID_FILE);
    }
    const int fd = open(NativePath(path).c_str(), OpenFlags(access, disposition), 0666);
    if (fd < 0) return Fail(XFER_INVALID_FILE);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 ||
        (disposition == FileDisposition::CreateAlways && ftruncate(fd, 0) != 0)) {
        tLastError = errno;
        close(fd);
        return XFER_INVALID_FILE;
    }
    return fd;
}

XferFile FileOpenShared(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return Fail(XFER_INVALID_FILE);
    }
    const int fd = open(NativePath(path).c_str(), O_RDONLY | O_CLOEXEC);
    return fd < 0 ? Fail(XFER_INVALID_FILE) : fd;
}

long FileRead(XferFile file, void *buffer, std::size_t count) {
    for (;;) {
        const ssize_t n = read(static_cast<int>(file), buffer, count);
        if (n >= 0) return static_cast<long>(n);
        if (errno != EINTR) return Fail(-1L);
    }
}

long FileWrite(XferFile file, const void *data, std::size_t count) {
    const auto *bytes = static_cast<const char *>(data);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = write(static_cast<int>(file), bytes + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return Fail(-1L);
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long>(done);
}

int64_t FileSeek(XferFile file, int64_t offset, int whence) {
    static constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (whence < 0 || whence > 2) {
        errno = EINVAL;
        return Fail(int64_t{-1});
    }
    const off_t at = lseek(static_cast<int>(file), static_cast<off_t>(offset), kWhence[whence]);
    return at < 0 ? Fail(int64_t{-1}) : static_cast<int64_t>(at);
}

bool FileFlush(XferFile file) {
    return fsync(static_cast<int>(file)) == 0 || Fail(false);
}

bool FileSetTimes(XferFile file, int64_t unixSeconds) {
    const timespec t{static_cast<time_t>(unixSeconds), 0};
    const timespec times[2] = {t, t};
    return futimens(static_cast<int>(file), times) == 0 || Fail(false);
}

bool FileClose(XferFile file) {
    if (file < 0) {
        errno = EBADF;
        return Fail(false);
    }
    DropReplacement(static_cast<int>(file));
    return close(static_cast<int>(file)) == 0 || Fail(false);
}

FileFacts FileStat(const char *path) {
    FileFacts facts;
    struct stat st {};
    if (path == nullptr || stat(NativePath(path).c_str(), &st) != 0) {
        if (path != nullptr) tLastError = errno;
        return facts;
    }
    facts.exists = true;
    facts.isDirectory = S_ISDIR(st.st_mode);
    facts.isRegular = S_ISREG(st.st_mode);
    facts.size = static_cast<int64_t>(st.st_size);
    facts.modTime = static_cast<int64_t>(st.st_mtime);
    return facts;
}

bool FileAccessible(const char *path, FileAccess access) {
    if (path == nullptr) {
        errno = EINVAL;
        return Fail(false);
    }
    const int mode = access == FileAccess::Read    ? R_OK
                     : access == FileAccess::Write ? W_OK
                                                   : R_OK | W_OK;
    return ::access(NativePath(path).c_str(), mode) == 0 || Fail(false);
}

bool FileRemove(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return Fail(false);
    }
    return unlink(NativePath(path).c_str()) == 0 || Fail(false);
}

bool FileRename(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) {
        errno = EINVAL;
        return Fail(false);
    }
    return rename(NativePath(from).c_str(), NativePath(to).c_str()) == 0 || Fail(false);
}

int LastError() {
    return tLastError;
}

} // namespace zvxfer::plat
