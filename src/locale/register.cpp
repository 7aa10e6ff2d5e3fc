// Registration of the message catalogue: find the product's folder through
// the component key and load the catalogue there in the user's language.
#include <cstring>

#include "locale/locale.h"
#include "locale/message_library.h"
#include "platform/path.h"
#include "platform/registry.h"
#include "zvxfer.h"

namespace zvxfer {

namespace {

constexpr std::size_t kPathSize = 260;
constexpr const char *kCatalogueName = "ZVUI32.nls";

// The default value of the component key under the classes root.
bool ReadComponentPath(char *path, std::size_t size) {
    plat::RegKeyHandle key = nullptr;
    if (plat::RegOpenKey(plat::RegRoot::ClassesRoot, kComponentKey, key) != plat::kErrorSuccess)
        return false;
    int32_t result = plat::RegQueryString(key, "", path, size);
    plat::RegCloseKey(key);
    return result == plat::kErrorSuccess;
}

// The catalogue's path: the registered file's folder plus the unlocalised
// name.  The folder ends at the last '\' or '/' and keeps it, so the name
// joins with the separator the registered path uses ("C:\zv\x.dll" gives
// "C:\zv\ZVUI32.nls"); a registered name without a folder leaves the bare
// name.
bool CataloguePath(char *path, std::size_t size) {
    char *slash = plat::LastSeparator(path);
    std::size_t folder = slash != nullptr ? static_cast<std::size_t>(slash - path) + 1 : 0;
    std::size_t name = std::strlen(kCatalogueName);
    if (folder + name >= size) return false;
    std::memcpy(path + folder, kCatalogueName, name + 1);
    return true;
}

} // namespace

} // namespace zvxfer

extern "C" ZVXFER_EXTERN int32_t RegisterXferDLL(void) ZVXFER_NOEXCEPT try {
    using namespace zvxfer;
    if (HasMessageLibrary()) return 0;
    char path[kPathSize];
    if (!ReadComponentPath(path, sizeof path)) return 0;
    if (!CataloguePath(path, sizeof path)) return 1;
    plat::ModuleHandle module = LoadLocalizedLibrary(path);
    if (module == nullptr) return 1;
    SetMessageLibrary(module);
    return 0;
} catch (...) {
    return 1;
}

extern "C" ZVXFER_EXTERN void UnregisterXferDLL(void) ZVXFER_NOEXCEPT try {
    zvxfer::plat::FreeModule(zvxfer::TakeMessageLibrary());
} catch (...) {
}
