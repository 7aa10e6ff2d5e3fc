// The transfer record's core operations, shared by every engine but Kermit.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer {

// Ten CAN then ten backspace bytes: sent to the remote side after a failure.
extern const uint8_t XferCancelString[20];

int XferInit(XferRecord *record);
void XferStatus(XferRecord *record, int32_t level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void XferStatusV(XferRecord *record, int32_t level, const char *format, va_list args);
int XferCheckAbort(XferRecord *record);
int XferOpenFile(XferRecord *record);
void XferCloseFile(XferRecord *record);
void XferCleanup(XferRecord *record);
int XferWaitQuiet(XferRecord *record);
int32_t XferWriteChar(XferRecord *record, uint8_t byte);
int32_t XferWriteBuffer(XferRecord *record, const uint8_t *bytes, uint32_t count);

// Pointer into `name` after its last '/' or '\'; when there is neither,
// after its last ':'; else `name` itself.
const char *BareName(const char *name);
char *BareName(char *name);

// True when a file (not a directory) of this name exists.
bool XferFileExists(const char *name);

// Replace `name` (capacity `size`) by a free name: report(1).txt, ...
// false when no free name could be made.
bool XferFreeName(char *name, std::size_t size);

} // namespace zvxfer
