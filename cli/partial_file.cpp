// Finding the partial file of a failed receive by the identity of the file
// the library had open.
#include "partial_file.h"

#include <sys/stat.h>

namespace zvxfer::cli {

void ReceivedFiles::Seen(const XferRecord &record) {
    if (record.Sending) return;
    if (record.File == XFER_INVALID_FILE) {
        // Closed, and the transfer has not failed: the file is whole
        // (whether or not its size was announced).  A failure sets the
        // result before its clean-up closes the file.
        if (open_ && record.Result >= 0) complete_ = true;
        open_ = false;
        return;
    }
    if (record.FileName == nullptr) return;
    // The file is asked for its identity at every look, not only when the
    // name changes: a batch may write the same name twice, and a closed
    // file's descriptor number comes back for the next one.
    struct stat st {};
    if (fstat(static_cast<int>(record.File), &st) != 0) return;
    const auto device = static_cast<uint64_t>(st.st_dev);
    const auto inode = static_cast<uint64_t>(st.st_ino);
    if (!any_ || device != device_ || inode != inode_) {
        // The first look at a file comes right after the library opened
        // it, before any data: a file it created is still empty.
        createdHere_ = st.st_size == 0;
        complete_ = false;
        device_ = device;
        inode_ = inode;
    }
    any_ = true;
    open_ = true;
    if (name_ != record.FileName) name_ = record.FileName;
    announced_ = record.FileSize;
}

std::optional<PartialFile> ReceivedFiles::Partial() const {
    if (!any_ || complete_) return std::nullopt;
    struct stat st {};
    if (lstat(name_.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    if (static_cast<uint64_t>(st.st_dev) != device_ || static_cast<uint64_t>(st.st_ino) != inode_)
        return std::nullopt;
    const auto bytes = static_cast<uint64_t>(st.st_size);
    if (announced_ > 0 && bytes == static_cast<uint64_t>(announced_)) return std::nullopt;
    return PartialFile{name_, bytes, createdHere_};
}

} // namespace zvxfer::cli
