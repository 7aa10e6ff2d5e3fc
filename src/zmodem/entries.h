// What the two ZMODEM entries share: the record's defaults and the effect
// of every ZMODEM option word.  Each entry's own table decides which codes
// reach here (anything else refuses the call before this runs).
#pragma once
#include "core/entry.h"

namespace zvxfer::zm {

// The error limit both directions start from.
void InitEntry(EntryFrame &frame, const EntryArgs &args);
// The effect of an accepted ZMODEM code (the shared ones aside).
void ApplyOption(EntryFrame &frame, const Option &option);

} // namespace zvxfer::zm
