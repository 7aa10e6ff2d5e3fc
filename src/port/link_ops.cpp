// The link operations of a port made by PortOpen: reads served straight
// from the host's received block, writes staged in the 4096-byte TxBuffer,
// both exchanged with the host through XferPortMessage.
#include <algorithm>
#include <cstring>

#include "platform/message.h"
#include "port/port.h"
#include "port_internal.h"

namespace zvxfer::port_ops {

namespace {

// How often WriteChar offers a byte again at once before it hands the
// refusal (-9) to its caller, whose deadline and idle hook take over.
constexpr int kWriteCharRetries = 1000;

void AskHost(XferPort *port, uintptr_t request, PortBlock &block) {
    plat::SendMessage(port->HostWindow, XferPortMessage, request,
                      reinterpret_cast<intptr_t>(&block));
}

} // namespace

int32_t ReadBuffer(XferPort *port, uint8_t *destination, uint32_t length) {
    CallIdle(port); // its answer only matters to the timed waits
    return ReadBufferAfterIdle(port, destination, length);
}

int32_t ReadBufferAfterIdle(XferPort *port, uint8_t *destination, uint32_t length) {
    PortBlock &rx = port->RxBlock;
    if (rx.Length == 0) {
        AskHost(port, PORT_READ, rx);
        if (rx.Error != 0) return PortGeneralError;
        if (rx.Length == 0) {
            // A read that wanted bytes keeps the host's window alive while
            // its caller polls; a zero-length request (the fill behind
            // PeekChar and RxCount) only asks, so a sender checking for an
            // answer between streamed blocks does not lose 5 ms each time.
            if (length != 0) {
                NoteEmptyRead();
                PumpMessages(5);
            }
            port->Count = 0;
            return PortBufferEmpty;
        }
    }
    const uint32_t moved = std::min(length, rx.Length);
    if (destination != nullptr) {
        if (moved == 1)
            *destination = *rx.Data; // the byte-wise readers' case
        else if (moved != 0)
            std::memcpy(destination, rx.Data, moved);
    }
    port->Count = moved;
    rx.Data += moved;
    rx.Length -= moved;
    return moved == length ? PortSuccess : PortBufferEmpty;
}

int32_t ReadChar(XferPort *port) {
    return ReadCharInline(port);
}

int32_t PeekChar(XferPort *port) {
    if (port->RxBlock.Length == 0) {
        const int32_t r = ReadBuffer(port, nullptr, 0);
        if (r != 0) return r;
    }
    return port->RxBlock.Data[0];
}

int32_t RxCount(XferPort *port) {
    PeekChar(port); // asks the host only when nothing is buffered
    return static_cast<int32_t>(port->RxBlock.Length);
}

// A block longer than the staging buffer goes out in part: the host sees
// the first 4096 bytes and the caller gets -9 to resend the rest.
int32_t WriteBuffer(XferPort *port, const uint8_t *data, uint32_t length) {
    const uint32_t staged = std::min<uint32_t>(length, XFER_TX_BUFFER_SIZE);
    if (staged != 0) std::memcpy(port->TxBuffer, data, staged);
    PortBlock &tx = port->TxBlock;
    tx.Data = port->TxBuffer;
    tx.Length = staged;
    AskHost(port, PORT_WRITE, tx);
    if (tx.Error != 0) {
        port->Status = PortGeneralError;
        return PortGeneralError;
    }
    if (tx.Length < length) {
        port->Count = std::min(tx.Length, staged);
        port->Status = PortBufferFull;
        return PortBufferFull;
    }
    port->Count = length;
    return PortSuccess;
}

int32_t WriteChar(XferPort *port, uint8_t byte) {
    int32_t r = WriteBuffer(port, &byte, 1);
    for (int i = 0; r == PortBufferFull && i < kWriteCharRetries; ++i)
        r = WriteBuffer(port, &byte, 1);
    return r;
}

} // namespace zvxfer::port_ops
