// Directory search: first/next/close over one folder with the Windows
// wildcard rules ('*' any run, '?' one character, "*.*" every name, a
// trailing ".*" also matching names without a dot).
#pragma once
#include <cstdint>
#include <string>

namespace zvxfer::plat {

constexpr uint32_t kAttrDirectory = 0x10;
constexpr uint32_t kAttrNormal = 0x80;

struct FindData {
    std::string name;    // entry name without folder
    uint32_t attributes; // kAttrDirectory or kAttrNormal
};

struct FindSearch; // opaque
using FindHandle = FindSearch *;

// `pattern` is folder + name pattern; a pattern without '/' searches the
// current folder.  "." and ".." are reported like any entry.  Returns
// nullptr when nothing matches or the folder cannot be read.
FindHandle FindFirst(const char *pattern, FindData &out);
bool FindNext(FindHandle search, FindData &out);
void FindClose(FindHandle search);

// True when the Windows wildcard pattern matches the name.
bool WildcardMatch(const char *pattern, const char *name);

} // namespace zvxfer::plat
