// The ZMODEM entries with their option words already collected, for the
// exported variadic entries and for the generic entries.
#pragma once
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer {

int32_t ZmodemSendOptions(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                          std::span<const int32_t> options);
int32_t ZmodemReceiveOptions(XferPort *port, XferStatusFn status, XferProgressFn progress,
                             std::span<const int32_t> options);

} // namespace zvxfer
