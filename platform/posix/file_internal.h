// What the POSIX file sources share: the thread's last error and the table
// of pending replacements that a close must clear.
#pragma once
#include <cerrno>

namespace zvxfer::plat {

extern thread_local int tLastError;

// Record errno for LastError and pass a failure value through.
template <typename T>
T Fail(T value) {
    tLastError = errno;
    return value;
}

// Remove the temporary file of a replacement that was never committed (the
// old file stays); nothing for any other handle.
void DropReplacement(int fd);

} // namespace zvxfer::plat
