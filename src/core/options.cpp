// Reading option lists: one reader for every entry, each with its own table
// of accepted codes.
#include "core/options.h"

#include <algorithm>

#include "zvxfer.h"

namespace zvxfer {

namespace {

constexpr int32_t kValueCodes[] = {
    XferOptAbortKey,          XferOptReceiveTimeout, XferOptSendTimeout,  XferOptBPlusCheckMethod,
    XferOptReleaseHookBuffer, XferOptMaxErrors,      XferOptZmWindowSize,
};

bool Holds(std::span<const int32_t> codes, int32_t code) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

} // namespace

bool OptionTakesValue(int32_t code) {
    return Holds(kValueCodes, code);
}

bool IsOptionCode(int32_t code) {
    if (code == XferOptEnd) return true;
    return code >= XferOptNone && code <= XferOptZmWindowSize && code != 1010 && code != 1013;
}

int32_t ReadOptionList(std::span<const int32_t> words, std::span<const int32_t> accepted,
                       std::vector<Option> &out) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const int32_t code = words[i];
        if (code == XferOptEnd) break;
        if (code == XferOptNone) continue;
        if (!Holds(accepted, code)) return PortInvalidParameter;
        Option option{code, 0};
        if (OptionTakesValue(code) && i + 1 < words.size()) option.value = words[++i];
        out.push_back(option);
    }
    return 0;
}

std::vector<int32_t> CollectOptionWords(va_list args) {
    std::vector<int32_t> words;
    for (;;) {
        const int32_t code = va_arg(args, int32_t);
        words.push_back(code);
        if (code == XferOptEnd || !IsOptionCode(code)) break;
        if (OptionTakesValue(code)) words.push_back(va_arg(args, int32_t));
    }
    return words;
}

void InitEntryRecord(XferRecord &record, int8_t protocol, XferPort *port, XferStatusFn status,
                     XferProgressFn progress) {
    record.Protocol = protocol;
    record.Port = port;
    record.StatusCallback = status;
    record.ProgressCallback = progress;
    record.AbortKey = port->Hooks ? port->Hooks->AbortKey : 27;
    record.FileTime = -1;
    record.File = XFER_INVALID_FILE;
    record.StripPath = 1;
}

bool ApplySharedOption(XferRecord &record, const Option &o) {
    switch (o.code) {
    case XferOptFullPath:
        record.StripPath = 0;
        return true;
    case XferOptFlag1006:
        record.Option1006Flag = 1;
        return true;
    case XferOptAbortKey:
        record.AbortKey = o.value;
        return true;
    case XferOptReleaseHookBuffer:
        record.ReleaseHookBuffer = o.value;
        return true;
    default:
        return false;
    }
}

} // namespace zvxfer
