// Result codes and their texts.
#pragma once
#include <cstdint>

namespace zvxfer {

// The default user error-name hook: never null.
const char *XferErrorName(int32_t code);
// Asks the hook record's error-name hook first, then the built-in tables.
const char *PortErrorName(int32_t code);

} // namespace zvxfer
