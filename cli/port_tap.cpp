// Passing the port messages on to the host window and watching their bytes.
#include "port_tap.h"

#include <utility>

namespace zvxfer::cli {

PortTap::PortTap(XferPort *port, Watch watch, Cut cut)
    : port_(port), host_(port->HostWindow), watch_(std::move(watch)), cut_(std::move(cut)) {
    own_ = ZvCreateWindow(&PortTap::Procedure, this);
    if (own_ != nullptr) port_->HostWindow = own_;
}

PortTap::~PortTap() {
    if (own_ == nullptr) return;
    port_->HostWindow = host_;
    ZvDestroyWindow(own_);
}

// Bytes to send are watched before the host takes them (they are on their
// way out once it has); bytes read once the host has filled the block.
intptr_t PortTap::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *self = static_cast<PortTap *>(ZvGetWindowUserData(window));
    if (self == nullptr) return 0;
    auto *block = reinterpret_cast<PortBlock *>(lParam);
    const bool portMessage = message == XferPortMessage && block != nullptr;
    if (portMessage && (wParam == PORT_READ || wParam == PORT_WRITE) && self->cut_ &&
        self->cut_()) {
        block->Length = 0;
        block->Error = 1;
        return 0;
    }
    if (portMessage && wParam == PORT_WRITE && block->Data != nullptr)
        self->watch_(true, block->Data, block->Length);
    const intptr_t result = ZvSendMessage(self->host_, message, wParam, lParam);
    if (portMessage && wParam == PORT_READ && block->Data != nullptr && block->Error == 0)
        self->watch_(false, block->Data, block->Length);
    return result;
}

} // namespace zvxfer::cli
