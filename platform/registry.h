// A small file-backed registry.  Per-user values live in
// $XDG_CONFIG_HOME/zvxfer/registry (default ~/.config/zvxfer/registry);
// machine-wide values in <library folder>/../etc/zvxfer/registry (written
// when the library is installed), in the registry of the prefix the library
// was configured for (<sysconfdir>/zvxfer/registry, found by programs linked
// with the static library wherever they live) and in /etc/zvxfer/registry.
// ZVXFER_REGISTRY_DIR=<dir> replaces all of them by
// <dir>/user and <dir>/machine.  HKCU is read from the per-user file, HKLM
// from the machine-wide ones (the library's own first), HKCR from both with
// per-user classes first.  Key paths and value names are compared without
// regard to ASCII case; a key also opens when only keys below it are named.
// A file holds lines
//     ROOT<TAB>key path<TAB>value name<TAB>data
// with ROOT one of HKCR, HKCU, HKLM and an empty value name for the key's
// default value; '#' starts a comment line.
#pragma once
#include <cstddef>
#include <cstdint>

namespace zvxfer::plat {

enum class RegRoot { ClassesRoot, CurrentUser, LocalMachine };

constexpr int32_t kErrorSuccess = 0;
constexpr int32_t kErrorFileNotFound = 2;
constexpr int32_t kErrorMoreData = 234;

struct RegKey; // opaque
using RegKeyHandle = RegKey *;

// Open a key for querying: 0 and a handle, or kErrorFileNotFound.
int32_t RegOpenKey(RegRoot root, const char *path, RegKeyHandle &out);
// Read a string value ("" or nullptr name = the default value) into
// `buffer` (NUL-terminated).  0, kErrorFileNotFound or kErrorMoreData.
int32_t RegQueryString(RegKeyHandle key, const char *name, char *buffer, std::size_t size);
void RegCloseKey(RegKeyHandle key);

} // namespace zvxfer::plat
