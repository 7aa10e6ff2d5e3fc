// The protocol table: every protocol the library knows, by number.
#include "ascii/protocol.h"
#include "bplus/protocol.h"
#include "core/protocol.h"
#include "kermit/protocol.h"
#include "xmodem/protocol.h"
#include "zmodem/protocol.h"

namespace zvxfer {

namespace {

constexpr const ProtocolInfo *kProtocols[] = {
    &xm::kXmodemProtocol,    &xm::kYmodemProtocol,   &kermit::kKermitProtocol,
    &zm::kZmodemProtocol,    &xm::kXmodem1KProtocol, &bplus::kBPlusProtocol,
    &xm::kXmodem1KGProtocol, &xm::kYmodemGProtocol,  &ascii::kAsciiProtocol,
};

} // namespace

const ProtocolInfo kUnknownProtocol{
    .number = -1,
    .name = "unknown",
};

const ProtocolInfo *FindProtocol(int32_t number) {
    for (const ProtocolInfo *info : kProtocols)
        if (info->number == number) return info;
    return nullptr;
}

std::span<const ProtocolInfo *const> Protocols() {
    return kProtocols;
}

} // namespace zvxfer
