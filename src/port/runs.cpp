// Reading a run of buffered bytes at once: the fast path of readers that
// scan for a few special bytes, with the same result as reading the run
// byte by byte while the idle hook has nothing to do.
#include "platform/message.h"
#include "port/port.h"
#include "port_internal.h"

namespace zvxfer {

std::span<const uint8_t> PeekRun(XferPort *port) {
    const bool own = port->Ops.ReadChar == port_ops::ReadChar;
    const XferIdleFn idle = port->Hooks ? LoadHook(port->Hooks->IdleFunction) : nullptr;
    const bool quietIdle = (idle == nullptr || idle == &DefaultIdle) && !plat::InputPending();
    if (!own || !quietIdle || port->RxBlock.Length == 0) return {};
    return {port->RxBlock.Data, port->RxBlock.Length};
}

void TakeRun(XferPort *port, uint32_t count) {
    PortBlock &rx = port->RxBlock;
    if (count > rx.Length) count = rx.Length;
    rx.Data += count;
    rx.Length -= count;
    port->Count = count;
}

} // namespace zvxfer
