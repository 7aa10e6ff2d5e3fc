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
// Open an existing file for reading only, sharing it with every other
// reader and writer, as the C runtime's streams do (no lock).
XferFile FileOpenShared(const char *path);
// Bytes read (0 at end of file) or -1.
long FileRead(XferFile file, void *buffer, std::size_t count);
// Bytes written or -1; writes everything unless an error occurs.
long FileWrite(XferFile file, const void *data, std::size_t count);
// whence: 0 start, 1 current, 2 end.  New position or -1.
int64_t FileSeek(XferFile file, int64_t offset, int whence);
bool FileFlush(XferFile file);
// Set access and modification time (there is no creation time to set).
bool FileSetTimes(XferFile file, int64_t unixSeconds);
// Close; a replacement not committed is removed first.
bool FileClose(XferFile file);

struct FileFacts {
    bool exists = false;
    bool isDirectory = false;
    bool isRegular = false; // a plain file (not a folder, device or pipe)
    int64_t size = 0;
    int64_t modTime = 0; // seconds since 1970 UTC
};
// Status of a path (follows links).
FileFacts FileStat(const char *path);

// What a directory entry is, the entry itself (a symlink is not followed).
enum class EntryKind { Missing, Directory, Symlink, Other };
EntryKind FileEntryKind(const char *path);

// Create `relative` (components separated by '/' or '\') for writing
// beneath the folder `base` ("" is the current folder; `base` itself may be
// a link):
//   - no symlink below `base` is followed; missing subfolders are created
//     and each one must be a real folder;
//   - a missing file is created exclusively (O_EXCL);
//   - an existing regular file is left as it is: the handle writes to a new
//     temporary file ".<name>.zvxfer-XXXXXX" in the same folder, which
//     FileCommit renames over the old file.  An old file that another
//     exclusive open holds, or that this process could not write, is
//     refused;
//   - anything else in the way (a symlink, a folder, a device) is refused.
// `relative` must not be empty, absolute or hold "", "." or ".."
// components.  The handle has exclusive access like FileOpen's.
XferFile FileCreateBeneath(const char *base, const char *relative);
// Open `relative` beneath `base` to continue it, with the same rules for the
// folders on the way: a regular file is opened for reading and writing at
// its end (the old content stays), a missing one is created; a symlink or
// anything else in the way is refused.  Exclusive access like FileOpen's.
XferFile FileAppendBeneath(const char *base, const char *relative);
// Finish a file from FileCreateBeneath that is complete: a pending
// replacement is renamed over the old file (which then has the old file's
// permissions).  True when there was nothing to do or the rename worked.
// A pending replacement that is closed without this is removed, and the old
// file stays as it was.
bool FileCommit(XferFile file);

// Whether this process may read (Read) or write (Write) the entry at
// `path`, following links; ReadWrite asks for both.
bool FileAccessible(const char *path, FileAccess access);
// Remove the entry at `path` (a symlink itself, never what it points to).
bool FileRemove(const char *path);
// Rename the entry at `from` (a symlink itself) to `to` in the same file
// system.
bool FileRename(const char *from, const char *to);

// The error number of the last failed platform call of this thread.
int LastError();

} // namespace zvxfer::plat
