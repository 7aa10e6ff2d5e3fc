// The packet layer's own helpers: quoting and check bytes into memory, so a
// whole packet reaches the host in a few port writes instead of one write
// per byte, and the run writer that puts them out.
#pragma once
#include <cstddef>
#include <cstdint>

#include "bplus/bplus.h"

namespace zvxfer::bplus {

// The wire form of one byte under the link's quoting rule (1 or 2 bytes).
std::size_t QuoteInto(const BPlusLink &link, uint8_t c, uint8_t *out);
// The check bytes of the accumulated value as they follow ETX (at most 8).
std::size_t CheckBytesInto(const XferRecord *r, uint8_t *out);
// Bytes out with the patience of WriteCharTimed for each of them: 0, or the
// first failure.
int32_t WriteRun(XferRecord *r, const uint8_t *bytes, std::size_t count);

} // namespace zvxfer::bplus
