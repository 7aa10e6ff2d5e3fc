// Numbered notices (level 1): the message text is copied out of the shared
// cache before it is used as a format, so another thread's lookup cannot
// reuse its slot while we format.
#pragma once
#include "core/core.h"
#include "locale/locale.h"

namespace zvxfer {

template <class... Args>
void XmNotice(XferRecord *record, int32_t number, Args... args) {
    char text[256];
    MessageTextCopy(number, text, sizeof text);
    if constexpr (sizeof...(args) == 0)
        XferStatus(record, 1, "%s", text);
    else
        XferStatus(record, 1, text, args...);
}

} // namespace zvxfer
