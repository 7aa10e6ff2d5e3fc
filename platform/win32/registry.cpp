// The system registry: keys opened for reading with RegOpenKeyExA and
// string values read with RegQueryValueExA.
#include "platform/win32/win.h"

#include "platform/registry.h"

#include <vector>

namespace zvxfer::plat {

namespace {

HKEY RootKey(RegRoot root) {
    switch (root) {
    case RegRoot::ClassesRoot:
        return HKEY_CLASSES_ROOT;
    case RegRoot::CurrentUser:
        return HKEY_CURRENT_USER;
    case RegRoot::LocalMachine:
        return HKEY_LOCAL_MACHINE;
    }
    return HKEY_CURRENT_USER;
}

HKEY ToHkey(RegKeyHandle key) {
    return reinterpret_cast<HKEY>(key);
}

} // namespace

int32_t RegOpenKey(RegRoot root, const char *path, RegKeyHandle &out) {
    out = nullptr;
    HKEY key = nullptr;
    const LONG result =
        ::RegOpenKeyExA(RootKey(root), path != nullptr ? path : "", 0, KEY_QUERY_VALUE, &key);
    if (result != ERROR_SUCCESS) return kErrorFileNotFound;
    out = reinterpret_cast<RegKeyHandle>(key);
    return kErrorSuccess;
}

int32_t RegQueryString(RegKeyHandle key, const char *name, char *buffer, std::size_t size) {
    if (buffer != nullptr && size > 0) buffer[0] = '\0';
    if (key == nullptr) return kErrorFileNotFound;
    // The value is read into a block of its own: the system does not
    // promise a terminating NUL, and a value too long for the caller must
    // leave the caller's buffer empty.
    DWORD type = 0;
    DWORD bytes = 0;
    LONG result = ::RegQueryValueExA(ToHkey(key), name, nullptr, &type, nullptr, &bytes);
    if (result != ERROR_SUCCESS) return kErrorFileNotFound;
    if (type != REG_SZ && type != REG_EXPAND_SZ) return kErrorFileNotFound;
    std::vector<char> data(static_cast<std::size_t>(bytes) + 1, '\0');
    result = ::RegQueryValueExA(ToHkey(key), name, nullptr, &type,
                                reinterpret_cast<BYTE *>(data.data()), &bytes);
    if (result == ERROR_MORE_DATA) return kErrorMoreData; // grew in between
    if (result != ERROR_SUCCESS) return kErrorFileNotFound;
    std::size_t length = bytes;
    while (length > 0 && data[length - 1] == '\0') --length;
    if (buffer == nullptr || length + 1 > size) return kErrorMoreData;
    for (std::size_t i = 0; i < length; ++i) buffer[i] = data[i];
    buffer[length] = '\0';
    return kErrorSuccess;
}

void RegCloseKey(RegKeyHandle key) {
    if (key != nullptr) ::RegCloseKey(ToHkey(key));
}

} // namespace zvxfer::plat
