// The hooks a record starts with: the idle hook that keeps the thread's
// windows alive and hands close requests back to the host's own loop, and
// the file opener over the platform's exclusive opens.
#include <cstring>
#include <string>

#include "core/core.h"
#include "platform/file.h"
#include "platform/message.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// Requests that must reach the host's own message loop.
bool IsCloseRequest(const ZvMsg &msg) {
    return msg.Message == ZV_WM_QUIT || msg.Message == ZV_WM_CLOSE ||
           (msg.Message == ZV_WM_SYSCOMMAND && msg.WParam == ZV_SC_CLOSE);
}

} // namespace

// Called on every byte read: the pending check is one atomic load, and the
// queue is only touched when something is there.
int32_t DefaultIdle(XferPort *) {
    if (!plat::InputPending()) return 0;
    ZvMsg msg{};
    while (plat::PeekMessage(msg, true)) {
        if (IsCloseRequest(msg)) {
            plat::PostMessage(msg.Window, msg.Message, msg.WParam, msg.LParam);
            return -1;
        }
        plat::TranslateMessage(msg);
        plat::DispatchMessage(msg);
    }
    return 0;
}

namespace {

// A received file: below the receive folder for names from the line, in the
// host's folder for a name the host gave; no symlink followed on the way,
// and an old file replaced only once the new one is complete.
XferFile OpenForWriting(const XferRecord *record, const char *name) {
    std::string base, rest;
    if (!XferReceivePlace(record, name, base, rest)) return XFER_INVALID_FILE;
    return plat::FileCreateBeneath(base.c_str(), rest.c_str());
}

// A received file continued where it ends: the same place and the same
// rules as a new one, the old content kept.
XferFile OpenToContinue(const XferRecord *record, const char *name) {
    std::string base, rest;
    if (!XferReceivePlace(record, name, base, rest)) return XFER_INVALID_FILE;
    return plat::FileAppendBeneath(base.c_str(), rest.c_str());
}

} // namespace

XferFile DefaultFileOpen(XferRecord *record, const char *name, const char *mode) {
    if (name == nullptr || mode == nullptr) return XFER_INVALID_FILE;
    using plat::FileAccess;
    using plat::FileDisposition;
    if (std::strcmp(mode, "rb") == 0) {
        return plat::FileOpen(name, FileAccess::Read, FileDisposition::OpenExisting);
    }
    if (std::strcmp(mode, "ab") == 0) return OpenToContinue(record, name);
    if (std::strcmp(mode, "wb") == 0) return OpenForWriting(record, name);
    return XFER_INVALID_FILE;
}

} // namespace zvxfer
