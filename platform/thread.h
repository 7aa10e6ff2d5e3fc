// The current-thread pseudo-handle: one constant value in every thread, so
// every thread of the process finds the same hook record.
#pragma once
#include <cstdint>

namespace zvxfer::plat {

constexpr uintptr_t kCurrentThreadPseudoHandle = static_cast<uintptr_t>(-2);

inline uintptr_t GetCurrentThreadHandle() {
    return kCurrentThreadPseudoHandle;
}

} // namespace zvxfer::plat
