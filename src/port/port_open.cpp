// Opening and closing a port, and the operation table of a port made by
// PortOpen, with its fixed-answer slots.
#include "platform/heap.h"
#include "port/port.h"
#include "port_internal.h"

namespace zvxfer {

namespace {

int32_t NotSupported(XferPort *port, intptr_t) {
    port->Status = PortNotSupported;
    return PortNotSupported;
}

int32_t BufferSize(XferPort *) {
    return XFER_TX_BUFFER_SIZE;
}
int32_t NothingWaiting(XferPort *) {
    return 0;
}
int32_t PurgeNothing(XferPort *) {
    return PortSuccess;
}
void ClearStatus(XferPort *port) {
    port->Status = PortSuccess;
}

// Release the staging buffer, the hook reference and the port block.
// 0 when the final release succeeded, 1 when the platform refused it.
int32_t ClosePort(XferPort *port) {
    if (port == nullptr) return 1;
    plat::GlobalFreeBlock(port->TxBuffer);
    port->TxBuffer = nullptr;
    ThreadHooksRelease(port->Hooks);
    port->Hooks = nullptr;
    return plat::GlobalFreeBlock(port) ? 0 : 1;
}

} // namespace

void port_ops::FillOperationTable(XferPortOps &ops) {
    ops.ReadChar = ReadChar;
    ops.PeekChar = PeekChar;
    ops.WriteChar = WriteChar;
    ops.PortClose = ClosePort;
    ops.Reserved1 = NotSupported;
    ops.Reserved2 = nullptr; // an empty slot that is never called
    ops.Reserved3 = NotSupported;
    ops.Reserved4 = NotSupported;
    ops.Reserved5 = NotSupported;
    ops.TxFree = BufferSize;
    ops.TxCount = NothingWaiting;
    ops.RxFree = BufferSize;
    ops.RxCount = RxCount;
    ops.PurgeTx = PurgeNothing;
    ops.WriteBuffer = WriteBuffer;
    ops.ReadBuffer = ReadBuffer;
    ops.ClearError = ClearStatus;
}

} // namespace zvxfer

using namespace zvxfer;

extern "C" ZVXFER_EXTERN XferPort *PortOpen(uintptr_t userData, ZvHwnd window,
                                            const char *receiveFolder,
                                            int32_t existingFilePolicy) ZVXFER_NOEXCEPT try {
    auto *port = static_cast<XferPort *>(plat::GlobalAllocZero(sizeof(XferPort)));
    if (port == nullptr) return nullptr;
    port->HostWindow = window;
    port->PortUserData = userData;
    port->ReceiveFolder = receiveFolder;
    CheckReceiveFolder(receiveFolder);
    port->ExistingFilePolicy = existingFilePolicy;
    port_ops::FillOperationTable(port->Ops);
    port->Hooks = ThreadHooksAcquire();
    if (port->Hooks != nullptr) {
        port->TxBuffer = static_cast<uint8_t *>(plat::GlobalAllocZero(XFER_TX_BUFFER_SIZE));
        if (port->TxBuffer != nullptr) return port;
    }
    ThreadHooksUndoAcquire(port->Hooks);
    plat::GlobalFreeBlock(port);
    return nullptr;
} catch (...) {
    return nullptr;
}
