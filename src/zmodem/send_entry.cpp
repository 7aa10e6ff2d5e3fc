// The ZMODEM send entry: a record on its own stack with the sender's
// defaults, the option words (refusing unknown codes before anything
// happens), the send list, and the sender's main loop.
#include <cstdarg>
#include <vector>

#include "core/core.h"
#include "core/options.h"
#include "filelist/filelist.h"
#include "zmodem/entries.h"
#include "zmodem/zmodem.h"

namespace zvxfer {
namespace {

constexpr int32_t kSendOptions[] = {1005, 1006, 1007, 1009, 1014, 1017, 1018, 1019,
                                    1020, 1021, 1022, 1023, 1027, 1028, 1029};

void InitRecord(XferRecord &r, XferPort *port, XferStatusFn status, XferProgressFn progress) {
    r.Protocol = Zmodem;
    r.Port = port;
    r.StatusCallback = status;
    r.ProgressCallback = progress;
    r.AbortKey = port->Hooks ? port->Hooks->AbortKey : 27;
    r.FileTime = -1;
    r.File = XFER_INVALID_FILE;
    r.StripPath = 1;
    ZmWindowMode(&r) = 1;
    ZmWindowSize(&r) = zm::kDefaultWindow;
    ZmMaxErrors(&r) = zm::kDefaultMaxErrors;
}

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

// Returns the subfolder flag for the send list.
bool ApplyOptions(XferRecord &r, const std::vector<Option> &options) {
    bool subfolders = false;
    for (const Option &o : options) {
        switch (o.code) {
        case XferOptFullPath:
            r.StripPath = 0;
            break;
        case XferOptFlag1006:
            r.Option1006Flag = 1;
            break;
        case XferOptAbortKey:
            r.AbortKey = o.value;
            break;
        case XferOptSubfolders:
            subfolders = true;
            break;
        case XferOptZmResume:
            ZmResumeFlag(&r) = 1;
            break;
        case XferOptZmNoWindow:
            ZmWindowMode(&r) = 0;
            break;
        case XferOptReleaseHookBuffer:
            r.ReleaseHookBuffer = o.value;
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
    return subfolders;
}

} // namespace

int32_t ZmodemSendOptions(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                          std::span<const int32_t> words) {
    if (!port) return PortInvalidParameter;
    std::vector<Option> options;
    if (ReadOptionList(words, kSendOptions, options) != 0) return PortInvalidParameter;

    XferRecord r{};
    InitRecord(r, port, status, progress);
    const bool subfolders = ApplyOptions(r, options);

    static char empty[1] = "";
    r.SendList = SendFileListCreate(names ? names : empty, subfolders);
    if (!r.SendList) return XferErrNoBuffer;
    ZmodemSend(&r);
    if (r.SendList) { // the clean-up normally releases it
        r.SendList->Destroy(r.SendList);
        r.SendList = nullptr;
    }
    return r.Result != 0 ? r.Result : r.FileCount;
}

} // namespace zvxfer

extern "C" ZVXFER_EXTERN int32_t ZmodemSendWithOptions(XferPort *port, char *names,
                                                       XferStatusFn status, XferProgressFn progress,
                                                       ...) {
    va_list args;
    va_start(args, progress);
    const std::vector<int32_t> words = zvxfer::CollectOptionWords(args);
    va_end(args);
    return zvxfer::ZmodemSendOptions(port, names, status, progress, words);
}
