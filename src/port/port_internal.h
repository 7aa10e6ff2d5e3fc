// What the port's files share among themselves: the link operations of a
// port made by PortOpen, callable directly on the per-byte path.
#pragma once
#include <cstdint>

#include "port/port.h"
#include "zvxfer.h"

namespace zvxfer::port_ops {

int32_t ReadBuffer(XferPort *port, uint8_t *destination, uint32_t length);
// ReadBuffer's steps after its idle-hook call.
int32_t ReadBufferAfterIdle(XferPort *port, uint8_t *destination, uint32_t length);
int32_t ReadChar(XferPort *port);
int32_t PeekChar(XferPort *port);
int32_t RxCount(XferPort *port);
int32_t WriteBuffer(XferPort *port, const uint8_t *data, uint32_t length);
int32_t WriteChar(XferPort *port, uint8_t byte);

// ReadChar, with the case of a byte already in the host's block inline.
inline int32_t ReadCharInline(XferPort *port) {
    CallIdle(port); // ReadBuffer's call; its answer is ignored
    PortBlock &rx = port->RxBlock;
    if (rx.Length != 0) {
        port->Count = 1;
        --rx.Length;
        return *rx.Data++;
    }
    uint8_t byte = 0;
    const int32_t r = ReadBufferAfterIdle(port, &byte, 1);
    return r != 0 ? r : byte;
}

// The 17-slot table of a port made by PortOpen (PortClose included).
void FillOperationTable(XferPortOps &ops);

} // namespace zvxfer::port_ops

namespace zvxfer {

// Take back a reference PortOpen added when the open fails later on: the
// record stays (with whatever hooks the host set), even at 0 references.
void ThreadHooksUndoAcquire(ThreadHooks *hooks);

} // namespace zvxfer
