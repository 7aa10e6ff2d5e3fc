// Paths handed to the system: the library reads '\' as a folder separator
// on every system (platform/path.h), and the kernel knows only '/', so
// every path goes to it with each '\' made '/'.  A file whose name holds a
// '\' cannot be named through the library.
#pragma once
#include <string>

#include "platform/path.h"

namespace zvxfer::plat {

inline std::string NativePath(const char *path) {
    std::string native(path);
    for (char &c : native)
        if (IsPathSeparator(c)) c = '/';
    return native;
}

} // namespace zvxfer::plat
