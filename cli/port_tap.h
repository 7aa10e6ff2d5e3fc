// A window of the program's own put between a port and its host window:
// every message still reaches the host, and the bytes of each PORT_READ and
// PORT_WRITE are shown to a watcher on the way.  For engines that send the
// port message themselves (Kermit), this is where the program sees the
// line.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>

#include "zvxfer.h"

namespace zvxfer::cli {

class PortTap {
  public:
    // `written` true: bytes handed to the host to send; false: bytes the
    // host handed over as read.
    using Watch = std::function<void(bool written, const uint8_t *data, std::size_t length)>;

    // True once the line is to be taken as lost: from then on every read
    // and write reports the lost-connection flag without reaching the host.
    using Cut = std::function<bool()>;

    // Create on the thread that runs the transfer; the port's host window
    // is this window until the tap goes.
    PortTap(XferPort *port, Watch watch, Cut cut = {});
    ~PortTap();
    PortTap(const PortTap &) = delete;
    PortTap &operator=(const PortTap &) = delete;

    bool Ok() const { return own_ != nullptr; }

  private:
    static intptr_t Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam);

    XferPort *port_;
    ZvHwnd host_;
    ZvHwnd own_ = nullptr;
    Watch watch_;
    Cut cut_;
};

} // namespace zvxfer::cli
