// Message pumping while the library waits: one message per call, and a
// delay that keeps pumping until its time is up or a close request comes.
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// Messages that mean the application or the window is going away.
bool IsClosing(const ZvMsg &msg) {
    switch (msg.Message) {
    case ZV_WM_QUIT:
    case ZV_WM_DESTROY:
    case ZV_WM_NCDESTROY:
    case ZV_WM_CLOSE:
        return true;
    case ZV_WM_SYSCOMMAND:
        return msg.WParam == ZV_SC_CLOSE;
    default:
        return false;
    }
}

} // namespace

// The wait also ends when a watched descriptor becomes ready, so a host
// that registered its line wakes a reading transfer at once.
int32_t PumpMessages(uint32_t milliseconds) {
    ZvMsg msg{};
    if (!plat::PeekMessage(msg, true)) {
        if (!plat::WaitForInput(milliseconds) || !plat::PeekMessage(msg, true)) return 1;
    }
    if (IsClosing(msg)) return 0; // removed, not dispatched
    plat::TranslateMessage(msg);
    plat::DispatchMessage(msg);
    return 1;
}

void PumpDelay(uint32_t milliseconds) {
    const uint32_t deadline = plat::GetTickCount() + milliseconds;
    while (plat::GetTickCount() <= deadline && PumpMessages(5) == 1) {
    }
}

} // namespace zvxfer
