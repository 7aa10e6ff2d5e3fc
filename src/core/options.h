// The option-list convention shared by every entry: words after the fixed
// arguments, 0 ends, 1001 is skipped, value codes consume the next word, and
// any code the entry does not accept refuses the whole call with -7 before
// anything is opened, sent or called back.
#pragma once
#include <cstdarg>
#include <cstdint>
#include <span>
#include <vector>

#include "zvxfer.h"

namespace zvxfer {

struct Option {
    int32_t code;
    int32_t value; // 0 for codes without a value
};

// True for the codes that take a value word (1007, 1012, 1016, 1024, 1027,
// 1028, 1029).
bool OptionTakesValue(int32_t code);

// True for 0 and the codes of the option vocabulary (1001..1029 without the
// unused 1010 and 1013).
bool IsOptionCode(int32_t code);

// Read words until 0 from `words` (reading stops early at a refused code;
// the end of the span counts as the end of the list, and a value code at
// the very end gets the value 0).  Accepted codes are appended to `out` in
// order; returns 0, or -7 at the first code that `accepted` does not hold.
// 1001 is skipped whether or not `accepted` lists it.
int32_t ReadOptionList(std::span<const int32_t> words, std::span<const int32_t> accepted,
                       std::vector<Option> &out);

// Collect the words of a variadic option list up to and including its 0,
// reading a value word only after a value code and stopping right after a
// word that is not an option code at all (the caller supplied nothing past
// it that we may read).  The va_list is consumed.
std::vector<int32_t> CollectOptionWords(va_list args);

// The start every entry gives its record: protocol, port, callbacks, the
// hook record's abort key, unknown file time, no file, names without
// their folders.
void InitEntryRecord(XferRecord &record, int8_t protocol, XferPort *port, XferStatusFn status,
                     XferProgressFn progress);

// The codes whose effect is the same in every entry that accepts them:
// 1005 (names with their folders), 1006 (the flag word), 1007 (abort key)
// and 1027 (release the hook record's work buffer).  True when `o` was one.
bool ApplySharedOption(XferRecord &record, const Option &o);

} // namespace zvxfer
