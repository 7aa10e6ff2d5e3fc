// ZmodemReceiveWithOptions: a record on the entry's stack, the options this
// receiver accepts (anything else refuses the call before anything
// happens), and the batch.
#include <cstdarg>
#include <vector>

#include "core/options.h"
#include "zmodem/entries.h"
#include "zmodem/zmodem.h"

namespace zvxfer {
namespace {

constexpr int32_t kReceiveOptions[] = {1005, 1006, 1007, 1014, 1015, 1027, 1028};

} // namespace

int32_t ZmodemReceiveOptions(XferPort *port, XferStatusFn status, XferProgressFn progress,
                             std::span<const int32_t> words) {
    if (!port) return PortInvalidParameter;
    std::vector<Option> options;
    if (ReadOptionList(words, kReceiveOptions, options) != 0) return PortInvalidParameter;

    XferRecord r{};
    ZmInitRecord(r, port, status, progress);
    ZmApplyOptions(r, options);
    zm::ZmodemReceive(&r);
    return r.Result != 0 ? r.Result : r.FileCount;
}

} // namespace zvxfer

extern "C" ZVXFER_EXTERN int32_t ZmodemReceiveWithOptions(XferPort *port, XferStatusFn status,
                                                          XferProgressFn progress, ...) {
    va_list args;
    va_start(args, progress);
    const std::vector<int32_t> words = zvxfer::CollectOptionWords(args);
    va_end(args);
    return zvxfer::ZmodemReceiveOptions(port, status, progress, words);
}
