// What the two ZMODEM entries share: the record's defaults and the effect
// of every ZMODEM option word.
#include "zmodem/entries.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

// The file management option each code puts into ZF1 of ZFILE.
int32_t ManagementOf(int32_t code) {
    switch (code) {
    case XferOptZmNewerLonger:
        return 1;
    case XferOptZmAppend:
        return 3;
    case XferOptZmReplace:
        return 4;
    case XferOptZmNewer:
        return 5;
    case XferOptZmDiffer:
        return 6;
    case XferOptZmProtect:
        return 7;
    default:
        return 0;
    }
}

} // namespace

void InitEntry(EntryFrame &frame, const EntryArgs &) {
    ZmMaxErrors(&frame.record) = kDefaultMaxErrors;
}

void ApplyOption(EntryFrame &frame, const Option &o) {
    XferRecord &r = frame.record;
    switch (o.code) {
    case XferOptSubfolders:
        frame.subfolders = true;
        break;
    case XferOptZmResume:
        ZmResumeFlag(&r) = 1;
        break;
    case XferOptZmPacing:
        ZmPacingFlag(&r) = 1;
        break;
    case XferOptZmNoWindow:
        ZmWindowMode(&r) = 0;
        break;
    case XferOptMaxErrors:
        ZmMaxErrors(&r) = o.value;
        break;
    case XferOptZmWindowSize:
        ZmWindowSize(&r) = o.value;
        break;
    default: // the file management codes; the last one given wins
        ZmManagement(&r) = ManagementOf(o.code);
        break;
    }
}

} // namespace zvxfer::zm
