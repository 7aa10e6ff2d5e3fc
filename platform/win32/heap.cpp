// Heap blocks: fixed, zero-filled blocks of the global heap (GlobalAlloc
// with GPTR, so the handle is the pointer and lock/unlock have nothing to
// do) and of the process heap, with an allocation budget that tests use to
// make the n-th allocation fail.
#include "platform/win32/win.h"

#include "platform/heap.h"

#include <atomic>

namespace zvxfer::plat {

namespace {

// Allocations still allowed; negative means no limit.
std::atomic<long> gBudget{-1};

bool MayAllocate() {
    long budget = gBudget.load(std::memory_order_relaxed);
    for (;;) {
        if (budget < 0) return true;
        if (budget == 0) return false;
        if (gBudget.compare_exchange_weak(budget, budget - 1, std::memory_order_relaxed)) {
            return true;
        }
    }
}

} // namespace

void *GlobalAllocZero(std::size_t size) {
    if (!MayAllocate()) return nullptr;
    return reinterpret_cast<void *>(::GlobalAlloc(GPTR, size != 0 ? size : 1));
}

bool GlobalFreeBlock(void *block) {
    if (block == nullptr) return false;
    // GlobalFree answers NULL when the block was released.
    return ::GlobalFree(reinterpret_cast<HGLOBAL>(block)) == nullptr;
}

void *HeapAllocZero(std::size_t size) {
    if (!MayAllocate()) return nullptr;
    return ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, size != 0 ? size : 1);
}

void HeapFreeBlock(void *block) {
    if (block != nullptr) ::HeapFree(::GetProcessHeap(), 0, block);
}

void SetAllocFailAfter(long count) {
    gBudget.store(count < 0 ? -1 : count);
}

} // namespace zvxfer::plat
