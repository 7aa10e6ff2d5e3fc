// What the two ZMODEM entries share: the record's defaults and the effect
// of every ZMODEM option word.  Each entry's own table decides which codes
// reach here (anything else refuses the call before this runs).
#include "zmodem/entries.h"
#include "zmodem/zmodem.h"

namespace zvxfer {
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

void ZmInitRecord(XferRecord &r, XferPort *port, XferStatusFn status, XferProgressFn progress) {
    InitEntryRecord(r, Zmodem, port, status, progress);
    zm::ZmMaxErrors(&r) = zm::kDefaultMaxErrors;
}

bool ZmApplyOptions(XferRecord &r, const std::vector<Option> &options) {
    bool subfolders = false;
    for (const Option &o : options) {
        if (ApplySharedOption(r, o)) continue;
        switch (o.code) {
        case XferOptSubfolders:
            subfolders = true;
            break;
        case XferOptZmResume:
            zm::ZmResumeFlag(&r) = 1;
            break;
        case XferOptZmPacing:
            zm::ZmPacingFlag(&r) = 1;
            break;
        case XferOptZmNoWindow:
            zm::ZmWindowMode(&r) = 0;
            break;
        case XferOptMaxErrors:
            zm::ZmMaxErrors(&r) = o.value;
            break;
        case XferOptZmWindowSize:
            zm::ZmWindowSize(&r) = o.value;
            break;
        default: // the file management codes; the last one given wins
            zm::ZmManagement(&r) = ManagementOf(o.code);
            break;
        }
    }
    return subfolders;
}

} // namespace zvxfer
