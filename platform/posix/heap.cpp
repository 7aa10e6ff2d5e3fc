// Heap blocks: zero-filled allocations from the C heap, with an allocation
// budget that tests use to make the n-th allocation fail.
#include "platform/heap.h"

#include <atomic>
#include <cstdlib>

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

void *AllocZero(std::size_t size) {
    if (!MayAllocate()) return nullptr;
    return std::calloc(1, size != 0 ? size : 1);
}

} // namespace

void *GlobalAllocZero(std::size_t size) {
    return AllocZero(size);
}

bool GlobalFreeBlock(void *block) {
    if (block == nullptr) return false;
    std::free(block);
    return true;
}

void *HeapAllocZero(std::size_t size) {
    return AllocZero(size);
}

void HeapFreeBlock(void *block) {
    std::free(block);
}

void SetAllocFailAfter(long count) {
    gBudget.store(count < 0 ? -1 : count);
}

} // namespace zvxfer::plat
