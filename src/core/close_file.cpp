// XferCloseFile: gathered data written, flush; a completed file stamped with
// its time and put in place of the old one it replaces; close.
#include "core/core.h"
#include "core/file_writer.h"
#include "platform/file.h"

namespace zvxfer {

void XferCloseFile(XferRecord *record) {
    if (record->File == XFER_INVALID_FILE) return;
    const bool written = FlushGatheredData(record);
    plat::FileFlush(record->File);
    if (!written && record->Result == 0) {
        XferStatus(record, 0, "Error writing the end of the file");
        record->Result = XferErrFileIo;
    }
    // A file whose transfer failed or stopped keeps what arrived but not the
    // sender's time: it must not look complete.  FileTime is signed: times
    // before 1970 are stamped too; only -1 means "unknown, leave what the
    // system set".
    if (record->Result == 0) {
        if (record->FileTime != -1) plat::FileSetTimes(record->File, record->FileTime);
        if (!plat::FileCommit(record->File)) {
            XferStatus(record, 0, "Cannot put the received file in place of the old one");
            record->Result = XferErrFileIo;
        }
    }
    // Closing a replacement that was not committed removes it; the old
    // file stays as it was.
    plat::FileClose(record->File);
    record->File = XFER_INVALID_FILE;
}

} // namespace zvxfer
