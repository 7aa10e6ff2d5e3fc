// The writability probe: VirtualQuery tells the protection of the page that
// holds the address, without touching it.
#include "platform/win32/win.h"

#include "platform/probe.h"

namespace zvxfer::plat {

bool ByteWritable(char *address) {
    if (address == nullptr) return true;
    MEMORY_BASIC_INFORMATION info{};
    if (::VirtualQuery(address, &info, sizeof info) != sizeof info) return true; // cannot tell
    if (info.State != MEM_COMMIT) return false;
    if ((info.Protect & (PAGE_GUARD | PAGE_NOACCESS)) != 0) return false;
    constexpr DWORD kWritable =
        PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    return (info.Protect & kWritable) != 0;
}

} // namespace zvxfer::plat
