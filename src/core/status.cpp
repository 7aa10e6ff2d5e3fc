// Status lines to the host: "<bare file name> : <message>", with the
// message formatted from a printf format or taken from a numbered text.
#include <cstring>

#include "core/core.h"
#include "locale/locale.h"
#include "platform/format.h"
#include "platform/heap.h"

namespace zvxfer {

namespace {

constexpr std::size_t kMessageSize = 256;
constexpr std::size_t kLineSize = 342;

// The message part: formatted when the name leaves room for the format,
// else the fixed substitute of two numbered texts.
void BuildMessage(const XferRecord *record, const char *format, va_list args, char *out) {
    const std::size_t nameLength = record->FileName ? std::strlen(record->FileName) : 0;
    const std::size_t formatLength = std::strlen(format);
    if (formatLength < kMessageSize && nameLength < kMessageSize - formatLength) {
        plat::FormatV(out, kMessageSize, format, args);
        return;
    }
    char first[kMessageSize], second[kMessageSize];
    MessageTextCopy(MsgNameTooLong, first, sizeof first);
    MessageTextCopy(MsgTransferCancelled, second, sizeof second);
    plat::Format(out, kMessageSize, "%s. %s", first, second);
}

} // namespace

void XferStatusV(XferRecord *record, int32_t level, const char *format, va_list args) {
    if (record == nullptr || record->StatusCallback == nullptr || format == nullptr) return;
    char message[kMessageSize];
    BuildMessage(record, format, args, message);

    const char *shown = record->FileName ? BareName(record->FileName) : "<\?\?\?>";
    // The line block comes from the global heap; without it the line is
    // still delivered from the stack rather than lost.
    char fallback[kLineSize];
    auto *block = static_cast<char *>(plat::GlobalAllocZero(kLineSize));
    char *line = block != nullptr ? block : fallback;
    plat::Format(line, kLineSize, "%s : %s", shown, message);
    record->StatusCallback(record, level, line);
    if (block != nullptr) plat::GlobalFreeBlock(block);
}

void XferStatus(XferRecord *record, int32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    XferStatusV(record, level, format, args);
    va_end(args);
}

void XferStatusMessage(XferRecord *record, int32_t level, int32_t number, ...) {
    if (record == nullptr || record->StatusCallback == nullptr) return;
    // Copy first: formatting may look up further numbered texts, which can
    // reuse the cache slot that holds this one.
    char text[kMessageSize];
    MessageTextCopy(number, text, sizeof text);
    va_list args;
    va_start(args, number);
    XferStatusV(record, level, text, args);
    va_end(args);
}

} // namespace zvxfer
