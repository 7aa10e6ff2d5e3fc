// The ZMODEM entries with their option words already collected, for the
// exported variadic entries and for the generic entries.
#pragma once
#include <cstdint>
#include <span>
#include <vector>

#include "core/options.h"

#include "zvxfer.h"

namespace zvxfer {

int32_t ZmodemSendOptions(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                          std::span<const int32_t> options);
int32_t ZmodemReceiveOptions(XferPort *port, XferStatusFn status, XferProgressFn progress,
                             std::span<const int32_t> options);

// The record both entries start from: protocol, port, callbacks, abort
// key, unknown file time, names without folders, the error limit.
void ZmInitRecord(XferRecord &r, XferPort *port, XferStatusFn status, XferProgressFn progress);
// Apply the option words an entry accepted; true when 1009 asks the send
// list to search subfolders too.
bool ZmApplyOptions(XferRecord &r, const std::vector<Option> &options);

} // namespace zvxfer
