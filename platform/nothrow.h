// What an exported function answers when an exception would leave it: the
// library's C boundary lets none out.
#pragma once
#include <new>

#include "zvxfer.h"

namespace zvxfer::plat {

// The code for an exception caught at the boundary: -601 when memory ran
// out, -611 for anything else.
inline int32_t BoundaryCode() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return XferErrNoBuffer;
    } catch (...) {
        return XferErrInternal;
    }
}

} // namespace zvxfer::plat
