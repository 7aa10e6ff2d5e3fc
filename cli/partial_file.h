// Which file a failed receive left incomplete.  The program watches the
// files the library opens for writing (through the progress callback) and,
// when a receive fails, finds out whether the last one is a partial file
// that this run created: the name still holds the very file that was open,
// and it does not hold the size the sender announced.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "zvxfer.h"

namespace zvxfer::cli {

struct PartialFile {
    std::string name; // the local path
    uint64_t bytes = 0;
    // The file was empty when it was opened: this run created it (or
    // emptied it).  A file the library appended to held the user's bytes
    // before; it is never removed.
    bool createdHere = false;
};

class ReceivedFiles {
  public:
    // A look at the record during a receive.  A file that was open and is
    // closed while the transfer goes on without a failure has completed.
    void Seen(const XferRecord &record);

    // After a failed receive: the partial file, if the last file opened is
    // one.  A name that now holds another file (an old file that a failed
    // overwrite left alone, or one put there by someone else) is none.
    std::optional<PartialFile> Partial() const;

  private:
    bool any_ = false;
    std::string name_;
    uint64_t device_ = 0;
    uint64_t inode_ = 0;
    int32_t announced_ = 0; // 0: unknown
    bool createdHere_ = false;
    bool open_ = false;     // the last look found the file open
    bool complete_ = false; // it was closed with the transfer going on
};

} // namespace zvxfer::cli
