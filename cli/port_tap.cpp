// Passing the port messages on to the host window and watching their bytes.
#include "port_tap.h"

namespace zvxfer::cli {

PortTap::PortTap(XferPort *port, Watch watch)
    : port_(port), host_(port->HostWindow), watch_(std::move(watch)) {
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
    if (portMessage && wParam == PORT_WRITE && block->Data != nullptr)
        self->watch_(true, block->Data, block->Length);
    const intptr_t result = ZvSendMessage(self->host_, message, wParam, lParam);
    if (portMessage && wParam == PORT_READ && block->Data != nullptr && block->Error == 0)
        self->watch_(false, block->Data, block->Length);
    return result;
}

} // namespace zvxfer::cli
