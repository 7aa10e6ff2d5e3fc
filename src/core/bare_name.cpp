// BareName: the last component of a name, whatever its origin's separator.
#include <cstring>

#include "core/core.h"
#include "platform/path.h"

namespace zvxfer {

const char *BareName(const char *name) {
    if (name == nullptr) return nullptr;
    const char *cut = plat::LastSeparator(name);
    if (cut == nullptr) cut = std::strrchr(name, ':');
    return cut != nullptr ? cut + 1 : name;
}

char *BareName(char *name) {
    return const_cast<char *>(BareName(static_cast<const char *>(name)));
}

} // namespace zvxfer
