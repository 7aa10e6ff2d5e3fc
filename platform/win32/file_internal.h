// What the Windows file sources share: the thread's last error, the
// conversion between XferFile and HANDLE, the advisory lock and the table
// of pending replacements that a close must clear.
#pragma once
#include "platform/win32/win.h"

#include "zvxfer.h"

namespace zvxfer::plat {

extern thread_local int tLastError;

// Record GetLastError for LastError and pass a failure value through.
template <typename T>
T Fail(T value) {
    tLastError = static_cast<int>(::GetLastError());
    return value;
}

inline HANDLE ToHandle(XferFile file) {
    return reinterpret_cast<HANDLE>(file);
}

inline XferFile ToFile(HANDLE handle) {
    return reinterpret_cast<XferFile>(handle);
}

// Every open of the library shares the file with everyone (as POSIX opens
// do); exclusive access is a lock instead, see LockExclusive.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The advisory exclusive lock: one byte locked far beyond any real file
// end.  Windows locks are mandatory, but only for the bytes they cover, so
// readers and writers of the content never meet it; a second exclusive
// open of the same file fails to take it.  Released when the handle closes.
bool LockExclusive(HANDLE file);

// Remove the temporary file of a replacement that was never committed (the
// old file stays); nothing for any other handle.
void DropReplacement(HANDLE file);

} // namespace zvxfer::plat
