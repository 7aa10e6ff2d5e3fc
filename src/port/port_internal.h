// What the port's files share among themselves: the link operations of a
// port made by PortOpen, callable directly on the per-byte path.
#pragma once
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::port_ops {

int32_t ReadBuffer(XferPort *port, uint8_t *destination, uint32_t length);
int32_t ReadChar(XferPort *port);
int32_t PeekChar(XferPort *port);
int32_t RxCount(XferPort *port);
int32_t WriteBuffer(XferPort *port, const uint8_t *data, uint32_t length);
int32_t WriteChar(XferPort *port, uint8_t byte);

// The 17-slot table of a port made by PortOpen (PortClose included).
void FillOperationTable(XferPortOps &ops);

} // namespace zvxfer::port_ops

namespace zvxfer {

// Take back a reference PortOpen added when the open fails later on: the
// record stays (with whatever hooks the host set), even at 0 references.
void ThreadHooksUndoAcquire(ThreadHooks *hooks);

} // namespace zvxfer
