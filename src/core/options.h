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

// The generic entries' option block: the slot each storable code takes
// (a value code's value goes into the slot after it).  The file-management
// codes 1018..1021 and 1023 share slot 17, so the last one given wins; 1001,
// 1010, 1013 and 1022 have no slot.
constexpr int kBlockSlots = 28;
struct BlockSlotOf {
    int32_t code;
    int slot;
};
inline constexpr BlockSlotOf kBlockSlotTable[] = {
    {XferOptKermitQuote8Bit, 0}, {XferOptKermitTextMode, 1},     {XferOptKermitNoRepeat, 2},
    {XferOptFullPath, 3},        {XferOptFlag1006, 4},           {XferOptAbortKey, 5},
    {XferOptChecksum, 7},        {XferOptSendTimeout, 8},        {XferOptSubfolders, 10},
    {XferOptStreaming, 11},      {XferOptReceiveTimeout, 12},    {XferOptZmResume, 14},
    {XferOptZmPacing, 15},       {XferOptZmNoWindow, 16},        {XferOptZmNewerLonger, 17},
    {XferOptZmAppend, 17},       {XferOptZmReplace, 17},         {XferOptZmDiffer, 17},
    {XferOptZmNewer, 17},        {XferOptBPlusCheckMethod, 18},  {XferOptBPlusFileInfo, 20},
    {XferOptBPlusResume, 21},    {XferOptReleaseHookBuffer, 22}, {XferOptMaxErrors, 24},
    {XferOptZmWindowSize, 26},
};
// Slot lists name slot 17 (the file-management code given last) by this.
constexpr int32_t kOptZmManagement = XferOptZmNewerLonger;

// The block slot of `code`, or -1 when it has none.
constexpr int BlockSlot(int32_t code) {
    for (const BlockSlotOf &s : kBlockSlotTable)
        if (s.code == code) return s.slot;
    return -1;
}

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
