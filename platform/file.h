// Files as the library uses them: handles are file descriptors, -1 invalid.
#pragma once
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::plat {

enum class FileAccess { Read, Write, ReadWrite };
enum class FileDisposition {
    OpenExisting, // fail when missing
    CreateAlways, // create or truncate
    OpenAlways,   // open, creating when missing
};

// Open with exclusive access (an advisory lock, taken before any truncation).
XferFile FileOpen(const char *path, FileAccess access, FileDisposition disposition);
// Bytes read (0 at end of file) or -1.
long FileRead(XferFile file, void *buffer, std::size_t count);
// Bytes written or -1; writes everything unless an error occurs.
long FileWrite(XferFile file, const void *data, std::size_t count);
// whence: 0 start, 1 current, 2 end.  New position or -1.
int64_t FileSeek(XferFile file, int64_t offset, int whence);
bool FileFlush(XferFile file);
// Set access and modification time (there is no creation time to set).
bool FileSetTimes(XferFile file, int64_t unixSeconds);
bool FileClose(XferFile file);

struct FileFacts {
    bool exists = false;
    bool isDirectory = false;
    int64_t size = 0;
    int64_t modTime = 0; // seconds since 1970 UTC
};
// Status of a path (follows links).
FileFacts FileStat(const char *path);

// The error number of the last failed platform call of this thread.
int LastError();

} // namespace zvxfer::plat
