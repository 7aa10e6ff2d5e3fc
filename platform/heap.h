// Heap blocks: the "global heap" (movable, zero-initialised; lock and unlock
// are no-ops here) and the process heap.  Tests can make allocations fail.
#pragma once
#include <cstddef>

namespace zvxfer::plat {

// Zero-initialised block, or nullptr when out of memory.
void *GlobalAllocZero(std::size_t size);
// Release a block from GlobalAllocZero; true when the release succeeded.
bool GlobalFreeBlock(void *block);

// Process heap: zero-filled, nullptr when out of memory.
void *HeapAllocZero(std::size_t size);
void HeapFreeBlock(void *block);

// Test aid: the next `count` allocations succeed, every later one fails;
// a negative count turns failures off.
void SetAllocFailAfter(long count);

} // namespace zvxfer::plat
