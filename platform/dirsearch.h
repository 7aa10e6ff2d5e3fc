// Directory search: first/next/close over one folder with the Windows
// wildcard rules ('*' any run, '?' one character, "*.*" every name, a
// trailing ".*" also matching names without a dot).  Matching follows the
// local file system: case-sensitive on POSIX systems, without regard to
// ASCII case on Windows.
#pragma once
#include <cstdint>
#include <string>

namespace zvxfer::plat {

constexpr uint32_t kAttrDirectory = 0x10;
constexpr uint32_t kAttrNormal = 0x80;

struct FindData {
    std::string name;        // entry name without folder
    uint32_t attributes = 0; // kAttrDirectory or kAttrNormal (links are followed)
};

struct FindSearch; // opaque
using FindHandle = FindSearch *;

// `pattern` is folder + name pattern; the folder part ends at the last '/'
// or '\' and a pattern without either searches the current folder.  "."
// and ".." are reported like any entry.  A name part without wildcards
// looks up that one entry.  Returns nullptr when nothing matches or the
// folder cannot be read (an empty name part matches nothing).
FindHandle FindFirst(const char *pattern, FindData &out);
// The next matching entry; false at the end (the handle stays valid until
// FindClose).
bool FindNext(FindHandle search, FindData &out);
// Close a search; nullptr is ignored.
void FindClose(FindHandle search);

// True when the Windows wildcard pattern matches the name.
bool WildcardMatch(const char *pattern, const char *name);

} // namespace zvxfer::plat
