// XferCleanup: the end of every transfer, successful or not.
#include <atomic>

#include "core/core.h"
#include "core/protocol.h"
#include "platform/heap.h"
#include "platform/tick.h"
#include "port/port.h"

namespace zvxfer {

namespace {

// A nested clean-up (an abort check inside the cancel string's patient
// write that ends the transfer again) returns at once: the outer one is
// still running and finishes the job.
thread_local int cleanupDepth = 0;

// The drain of the line after a failure stops after this long even when
// bytes keep coming (a far end that floods the line).
constexpr uint32_t kDrainLimitMs = 3000;
constexpr uint32_t kDrainCheckBytes = 256;

struct DepthGuard {
    DepthGuard() { ++cleanupDepth; }
    ~DepthGuard() { --cleanupDepth; }
};

// The transfer has already failed: if the cancel string cannot go out
// either, the result keeps saying why the transfer failed.
void SendCancelString(XferRecord *record) {
    const int32_t cause = record->Result;
    XferWriteBuffer(record, XferCancelString, sizeof XferCancelString);
    record->Result = cause;
}

// Tell the remote side, let the line settle, and throw away what arrives.
void EndFailedTransfer(XferRecord *record) {
    XferPort *port = record->Port;
    switch (ProtocolOf(record->Protocol).onFailure) {
    case FailureSignal::CancelString:
        SendCancelString(record);
        break;
    case FailureSignal::PurgeThenCancel:
        if (record->Buffer != nullptr && record->Result != XferErrRemoteAbort) {
            port->Ops.PurgeTx(port);
            SendCancelString(record);
        }
        break;
    case FailureSignal::Nothing:
        break;
    }
    IdleWait(port, 1000);
    const uint32_t giveUp = plat::GetTickCount() + kDrainLimitMs;
    for (uint32_t drained = 1; port->Ops.RxCount(port) > 0; ++drained) {
        port->Ops.ReadChar(port);
        // The clock is read once every kDrainCheckBytes: a few bytes left
        // over cost no clock reads.
        if (drained % kDrainCheckBytes == 0 && plat::TickReached(plat::GetTickCount(), giveUp))
            break;
    }
}

void ReleaseHeld(XferRecord *record) {
    if (record->Buffer != nullptr) {
        plat::HeapFreeBlock(record->Buffer);
        record->Buffer = nullptr;
    }
    const ProtocolInfo &protocol = ProtocolOf(record->Protocol);
    if (protocol.receiverOwnsFileName && !record->Sending && record->FileName != nullptr) {
        plat::HeapFreeBlock(record->FileName);
        record->FileName = nullptr;
    }
    if (record->SendList != nullptr) {
        record->SendList->Destroy(record->SendList);
        record->SendList = nullptr;
    }
    if (protocol.releaseState != nullptr) protocol.releaseState(record);
    if (record->ReleaseHookBuffer != 0) {
        // Transfers on other threads share the record: take the buffer out
        // atomically so that only one of them releases it.
        if (ThreadHooks *hooks = ThreadHooksFind()) {
            plat::HeapFreeBlock(std::atomic_ref<void *>(hooks->WorkBuffer).exchange(nullptr));
        }
    }
}

} // namespace

void XferCleanup(XferRecord *record) {
    if (cleanupDepth > 0) return;
    DepthGuard guard;
    XferCloseFile(record);
    if (record->Result != 0 && record->Port != nullptr) EndFailedTransfer(record);
    ReleaseHeld(record);
}

} // namespace zvxfer
