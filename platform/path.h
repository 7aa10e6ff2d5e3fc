// Paths as the library reads and writes them: '/' and '\' both separate
// folders, on every system.  A Windows path ("C:\dl\a.txt") and a POSIX one
// split the same way; the POSIX back end hands '\' to the system as '/'.
// Pure text functions: nothing here touches the file system.
#pragma once
#include <cstddef>
#include <string_view>

namespace zvxfer::plat {

constexpr bool IsPathSeparator(char c) {
    return c == '/' || c == '\\';
}

// Index of the last separator in `path`, or npos.
constexpr std::size_t LastSeparator(std::string_view path) {
    return path.find_last_of("/\\");
}

// The last separator of a NUL-ended path, or nullptr.
inline const char *LastSeparator(const char *path) {
    const char *last = nullptr;
    for (const char *p = path; p != nullptr && *p != '\0'; ++p)
        if (IsPathSeparator(*p)) last = p;
    return last;
}

inline char *LastSeparator(char *path) {
    return const_cast<char *>(LastSeparator(static_cast<const char *>(path)));
}

// Whether `path` starts with a drive ("C:"): a letter and a colon.  On
// Windows "C:name" is a name in drive C's current folder, wherever that is.
constexpr bool StartsWithDrive(std::string_view path) {
    return path.size() >= 2 && path[1] == ':' &&
           ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
}

// The separator a path already uses, to join more to it in the same style:
// its last one, or '/' when it has none.
inline char SeparatorOf(std::string_view path) {
    const std::size_t at = LastSeparator(path);
    return at == path.npos ? '/' : path[at];
}

} // namespace zvxfer::plat
