// Tests share the process's one hook record: start each from the defaults.
#pragma once
#include <gtest/gtest.h>

#include "zvxfer.h"

namespace zvxfer::test {

// Drop any record left behind by an earlier test: a port's close releases
// the record when it holds the last reference.
inline void ResetHooks() {
    XferPort *p = PortOpen(0, nullptr, "", 0);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->Hooks->PortRefs, 1) << "a port of another test is still open";
    p->Ops.PortClose(p);
}

} // namespace zvxfer::test
