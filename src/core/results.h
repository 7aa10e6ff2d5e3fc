// Result codes and their texts.  The texts come from the one code table of
// zvxfer.h (XFER_RESULT_MAP, PORT_RESULT_MAP); nothing here repeats them.
#pragma once
#include <cstdint>

namespace zvxfer {

// The default user error-name hook: never null.  Knows 0, -1, -8, -9, -10
// by its own short texts and the transfer codes -601..-623; every other code
// reads "Unknown error code".
const char *XferErrorName(int32_t code);

// Asks the hook record's error-name hook first; when it answers null (or
// there is no hook record), the port-layer table (-42..0) and the transfer
// table (-623..-601) answer.  Never null.
const char *PortErrorName(int32_t code);

} // namespace zvxfer
