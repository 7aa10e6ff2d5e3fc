// The user's interface language as the system reports it.
#include "platform/win32/win.h"

#include "platform/uilang.h"

namespace zvxfer::plat {

uint16_t GetUserDefaultUILanguage() {
    return static_cast<uint16_t>(::GetUserDefaultLangID());
}

} // namespace zvxfer::plat
