// The XMODEM-family entries with their option words already collected, for
// the exported variadic entries and for the generic entries.
#pragma once
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer {

int32_t XmodemSend(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                   std::span<const int32_t> options);
int32_t XmodemReceive(XferPort *port, char *fileName, XferStatusFn status, XferProgressFn progress,
                      std::span<const int32_t> options);
int32_t Xmodem1KSend(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                     std::span<const int32_t> options);
int32_t Xmodem1KReceive(XferPort *port, char *fileName, XferStatusFn status,
                        XferProgressFn progress, std::span<const int32_t> options);
int32_t YmodemSend(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                   std::span<const int32_t> options);
int32_t YmodemReceive(XferPort *port, XferStatusFn status, XferProgressFn progress,
                      std::span<const int32_t> options);

} // namespace zvxfer
