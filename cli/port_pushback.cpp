// Answering the first read with bytes the session already read.
#include "port_pushback.h"

#include <utility>

namespace zvxfer::cli {

PortPushback::PortPushback(XferPort *port, std::vector<uint8_t> bytes)
    : port_(port), host_(port->HostWindow), bytes_(std::move(bytes)) {
    // Bytes of an earlier read still in the port's received block came
    // after the put-back ones on the line: they follow them here, so the
    // order holds (and an engine that reads through a block of its own
    // sees them too).
    PortBlock &rx = port_->RxBlock;
    if (rx.Length != 0 && rx.Data != nullptr)
        bytes_.insert(bytes_.end(), rx.Data, rx.Data + rx.Length);
    rx.Length = 0;
    own_ = ZvCreateWindow(&PortPushback::Procedure, this);
    if (own_ != nullptr) port_->HostWindow = own_;
}

PortPushback::~PortPushback() {
    if (own_ == nullptr) return;
    // The library keeps a pointer to what it was handed and has not taken;
    // it must not outlive the bytes.
    if (BlockIsOurs()) {
        port_->RxBlock.Data = nullptr;
        port_->RxBlock.Length = 0;
    }
    port_->HostWindow = host_;
    ZvDestroyWindow(own_);
}

bool PortPushback::BlockIsOurs() const {
    const uint8_t *at = port_->RxBlock.Data;
    return handed_ && port_->RxBlock.Length != 0 && at >= bytes_.data() &&
           at < bytes_.data() + bytes_.size();
}

std::vector<uint8_t> PortPushback::Untaken() const {
    if (!handed_) return bytes_;
    if (!BlockIsOurs()) return {};
    return std::vector<uint8_t>(port_->RxBlock.Data, port_->RxBlock.Data + port_->RxBlock.Length);
}

// The library asks again only once it has taken everything it was handed,
// so the put-back bytes are handed over once, whole, and the reads after
// them go to the host.
intptr_t PortPushback::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam,
                                 intptr_t lParam) {
    auto *self = static_cast<PortPushback *>(ZvGetWindowUserData(window));
    if (self == nullptr) return 0;
    auto *block = reinterpret_cast<PortBlock *>(lParam);
    if (message == XferPortMessage && wParam == PORT_READ && block != nullptr && !self->handed_ &&
        !self->bytes_.empty()) {
        self->handed_ = true;
        block->Data = self->bytes_.data();
        block->Length = static_cast<uint32_t>(self->bytes_.size());
        block->Error = 0;
        return 0;
    }
    return ZvSendMessage(self->host_, message, wParam, lParam);
}

} // namespace zvxfer::cli
