// XferCloseFile: gathered data written, flush, stamp the file's time, close.
#include "core/core.h"
#include "core/file_writer.h"
#include "platform/file.h"

namespace zvxfer {

void XferCloseFile(XferRecord *record) {
    if (record->File == XFER_INVALID_FILE) return;
    FlushGatheredData(record);
    plat::FileFlush(record->File);
    // FileTime is signed: times before 1970 are stamped too; only -1 means
    // "unknown, leave what the system set".
    if (record->FileTime != -1) plat::FileSetTimes(record->File, record->FileTime);
    plat::FileClose(record->File);
    record->File = XFER_INVALID_FILE;
}

} // namespace zvxfer
