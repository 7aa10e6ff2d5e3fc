// The local name a receiver writes to for a name from the other side.
#include <cstdio>

#include "core/core.h"
#include "platform/file.h"

namespace zvxfer {

void XferReceivedName(XferRecord *r, const char *received, char *out, const char *strippedLabel) {
    constexpr std::size_t kLimit = 256; // 255 characters and the terminator
    if (!r->StripPath) {
        std::snprintf(out, kLimit, "%s", received);
    } else {
        const char *folder = r->Port->ReceiveFolder ? r->Port->ReceiveFolder : "";
        // An empty folder is the current one.
        if (folder[0] == 0 || plat::FileStat(folder).isDirectory) {
            const char *bare = BareName(received);
            XferStatus(r, 0, "%s%s", strippedLabel, bare);
            std::snprintf(out, kLimit, "%s%s", folder, bare);
        } else {
            std::snprintf(out, kLimit, "%s", folder);
        }
    }
    XferStatus(r, 0, "Complete Path %s", out);
}

} // namespace zvxfer
