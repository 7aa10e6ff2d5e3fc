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

} // namespace

int32_t ZmodemSendOptions(XferPort *port, char *names, XferStatusFn status, XferProgressFn progress,
                          std::span<const int32_t> words) {
    if (!port) return PortInvalidParameter;
    std::vector<Option> options;
    if (ReadOptionList(words, kSendOptions, options) != 0) return PortInvalidParameter;

    XferRecord r{};
    ZmInitRecord(r, port, status, progress);
    zm::ZmWindowMode(&r) = 1;
    zm::ZmWindowSize(&r) = zm::kDefaultWindow;
    const bool subfolders = ZmApplyOptions(r, options);

    static char empty[1] = "";
    r.SendList = SendFileListCreate(names ? names : empty, subfolders);
    if (!r.SendList) return XferErrNoBuffer;
    zm::ZmodemSend(&r);
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
