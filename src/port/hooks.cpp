// The hook table: 255 slots keyed by the current-thread pseudo-handle (so
// one record serves every thread), the reference counting done by PortOpen
// and PortClose, and the four exported setters.
#include <array>
#include <mutex>

#include "core/results.h"
#include "platform/heap.h"
#include "platform/thread.h"
#include "port/port.h"
#include "port_internal.h"

namespace zvxfer {

namespace {

constexpr std::size_t kHookSlots = 255;
constexpr int32_t kDefaultAbortKey = 27;

// Guards the slots and PortRefs.  Hook fields are read without it (see
// LoadHook): the per-byte path takes no lock.
std::mutex gTableMutex;
std::array<ThreadHooks *, kHookSlots> gTable{};

int32_t NoAbort(XferRecord *) {
    return 0;
}

ThreadHooks *FindLocked() {
    const uintptr_t self = plat::GetCurrentThreadHandle();
    for (ThreadHooks *hooks : gTable) {
        if (hooks != nullptr && hooks->Thread == self) return hooks;
    }
    for (ThreadHooks *&slot : gTable) {
        if (slot != nullptr) continue;
        auto *hooks = static_cast<ThreadHooks *>(plat::HeapAllocZero(sizeof(ThreadHooks)));
        if (hooks == nullptr) return nullptr;
        hooks->IdleFunction = DefaultIdle;
        hooks->FileOpenFunction = DefaultFileOpen;
        hooks->AbortFunction = NoAbort;
        hooks->AbortKey = kDefaultAbortKey;
        hooks->UserErrorNameFunction = XferErrorName;
        hooks->Thread = self;
        slot = hooks;
        return hooks;
    }
    return nullptr; // every slot taken
}

// Store one hook in the calling thread's record; null is not accepted.
template <typename Fn>
void SetHook(Fn ThreadHooks::*field, Fn value) {
    if (value == nullptr) return;
    std::lock_guard lock(gTableMutex);
    if (ThreadHooks *hooks = FindLocked()) {
        std::atomic_ref<Fn>(hooks->*field).store(value, std::memory_order_relaxed);
    }
}

} // namespace

ThreadHooks *ThreadHooksFind() {
    std::lock_guard lock(gTableMutex);
    return FindLocked();
}

ThreadHooks *ThreadHooksAcquire() {
    std::lock_guard lock(gTableMutex);
    ThreadHooks *hooks = FindLocked();
    if (hooks != nullptr) ++hooks->PortRefs;
    return hooks;
}

void ThreadHooksUndoAcquire(ThreadHooks *hooks) {
    if (hooks == nullptr) return;
    std::lock_guard lock(gTableMutex);
    --hooks->PortRefs;
}

void ThreadHooksRelease(ThreadHooks *hooks) {
    if (hooks == nullptr) return;
    std::lock_guard lock(gTableMutex);
    if (--hooks->PortRefs > 0) return;
    for (ThreadHooks *&slot : gTable) {
        if (slot == hooks) slot = nullptr;
    }
    *hooks = ThreadHooks{};
    plat::HeapFreeBlock(hooks);
}

} // namespace zvxfer

using namespace zvxfer;

extern "C" {

ZVXFER_EXTERN void SetPortIdleFunctionPtr(XferIdleFn idle) ZVXFER_NOEXCEPT try {
    SetHook(&ThreadHooks::IdleFunction, idle);
} catch (...) {
}

ZVXFER_EXTERN void SetAbortXferFunctionPtr(XferAbortFn abortFn) ZVXFER_NOEXCEPT try {
    SetHook(&ThreadHooks::AbortFunction, abortFn);
} catch (...) {
}

ZVXFER_EXTERN void SetUserErrorNameFunctionPtr(XferErrorNameFn errorName) ZVXFER_NOEXCEPT try {
    SetHook(&ThreadHooks::UserErrorNameFunction, errorName);
} catch (...) {
}

ZVXFER_EXTERN void SetXferFileOpenFunctionPtr(XferFileOpenFn fileOpen) ZVXFER_NOEXCEPT try {
    SetHook(&ThreadHooks::FileOpenFunction, fileOpen);
} catch (...) {
}

} // extern "C"
