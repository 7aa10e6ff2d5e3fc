// File services the tests need from the system itself rather than from the
// library: a handle on the null device, whether a handle is still open, and
// a file's modification time.  The one place of the tests' support that
// knows POSIX descriptors from Windows handles.
#pragma once
#include <cstdint>
#include <string>

#include "zvxfer.h"

namespace zvxfer::test {

// The null device opened for writing only or for reading only, as a library
// file handle: reads from the write-only one fail, and so do writes to the
// read-only one.
XferFile OpenNullDevice(bool forWriting);

// Whether `file` is an open handle of this process.
bool HandleIsOpen(XferFile file);

// Set the modification (and access) time of `path` to `unixSeconds`.
bool SetModTime(const std::string &path, int64_t unixSeconds);

// The modification time of `path` in seconds since 1970 (times before 1970
// included), or false when it cannot be read.
bool ModTime(const std::string &path, int64_t &unixSeconds);

// Make `link` a symbolic link to `target`; false where the system lets this
// process make none (Windows without the privilege, wine).
bool MakeSymlink(const std::string &target, const std::string &link);

} // namespace zvxfer::test
