#include "system_files.h"

#include <filesystem>
#include <system_error>

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#endif

namespace zvxfer::test {

#ifdef _WIN32

XferFile OpenNullDevice(bool forWriting) {
    HANDLE h = CreateFileA("NUL", forWriting ? GENERIC_WRITE : GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    return reinterpret_cast<XferFile>(h);
}

bool HandleIsOpen(XferFile file) {
    DWORD flags = 0;
    return GetHandleInformation(reinterpret_cast<HANDLE>(file), &flags) != 0;
}

bool SetModTime(const std::string &path, int64_t unixSeconds) {
    HANDLE h = CreateFileA(path.c_str(), FILE_WRITE_ATTRIBUTES,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    // 100-ns intervals since 1601-01-01.
    const uint64_t ticks = static_cast<uint64_t>(unixSeconds + 11644473600LL) * 10000000ULL;
    FILETIME time{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
    const bool ok = SetFileTime(h, nullptr, &time, &time) != 0;
    CloseHandle(h);
    return ok;
}

bool ModTime(const std::string &path, int64_t &unixSeconds) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return false;
    const uint64_t ticks = (static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32) |
                           data.ftLastWriteTime.dwLowDateTime;
    // Whole seconds, rounded down also before 1970.
    const int64_t since1601 = static_cast<int64_t>(ticks / 10000000ULL);
    unixSeconds = since1601 - 11644473600LL;
    return true;
}

#else

XferFile OpenNullDevice(bool forWriting) {
    return open("/dev/null", (forWriting ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
}

bool HandleIsOpen(XferFile file) {
    return fcntl(static_cast<int>(file), F_GETFD) != -1 || errno != EBADF;
}

bool SetModTime(const std::string &path, int64_t unixSeconds) {
    const struct timespec times[2] = {{static_cast<time_t>(unixSeconds), 0},
                                      {static_cast<time_t>(unixSeconds), 0}};
    return utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

bool ModTime(const std::string &path, int64_t &unixSeconds) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    unixSeconds = st.st_mtime;
    return true;
}

#endif

bool MakeSymlink(const std::string &target, const std::string &link) {
    std::error_code error;
    std::filesystem::create_symlink(target, link, error);
    return !error;
}

} // namespace zvxfer::test
