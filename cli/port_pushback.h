// Bytes already read from a line, put back in front of it for the transfer
// that runs on it next.  The terminal session reads the line itself; when
// it recognises a transfer start, the start and the bytes that came after
// it are already out of the line, and the engine must see them first (a
// Kermit receiver must get the S packet; a ZMODEM sender must get the
// ZRINIT it answers).  The pushback is a window of the program's own put
// between the port and its host window: the first PORT_READ is answered
// with the put-back bytes, every other message goes on to the host.
// Engines that send the port message themselves (Kermit) see the bytes the
// same way.  A PortTap made after the pushback sees them as read bytes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::cli {

class PortPushback {
  public:
    // Create on the thread that runs the transfer.  Bytes the port still
    // holds from an earlier read are moved behind `bytes`.  Nothing to put
    // back: every message goes to the host.
    PortPushback(XferPort *port, std::vector<uint8_t> bytes);
    // The port's host window is given back.  Put-back bytes the engine was
    // handed but has not taken are dropped from the port's received block
    // (they live here); Untaken() tells the session what they were.
    ~PortPushback();
    PortPushback(const PortPushback &) = delete;
    PortPushback &operator=(const PortPushback &) = delete;

    bool Ok() const { return own_ != nullptr; }

    // The put-back bytes the engine has not taken yet: those not handed
    // over and those still waiting in the port's received block.
    std::vector<uint8_t> Untaken() const;

  private:
    static intptr_t Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam);
    // True when the port's received block points into `bytes_`.
    bool BlockIsOurs() const;

    XferPort *port_;
    ZvHwnd host_;
    ZvHwnd own_ = nullptr;
    std::vector<uint8_t> bytes_;
    bool handed_ = false;
};

} // namespace zvxfer::cli
