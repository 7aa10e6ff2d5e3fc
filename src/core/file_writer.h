// Received data on its way to the record's open file, gathered into pieces
// of 64 KiB so the file sees one write per piece instead of one per block
// or subpacket.  The owner writes the piece before it repositions the file;
// XferCloseFile writes it before the file closes, so a transfer that ends
// anywhere (an abort inside a read included) keeps every byte it took.
// Writers live on the stack of the transfer's thread, one per open file.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer {

class FileWriter {
  public:
    explicit FileWriter(XferRecord *record);
    ~FileWriter();
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;

    // False when the file took less than it was given.
    bool Append(const uint8_t *data, std::size_t count);
    // Write what is gathered; false when the file took less.  Nothing is
    // written (and true is returned) while the record has no open file.
    bool Flush();

  private:
    friend bool FlushGatheredData(XferRecord *record);
    XferRecord *record_;
    FileWriter *outer_; // the writer of an enclosing transfer on this thread
    std::array<uint8_t, 64 * 1024> piece_;
    std::size_t used_ = 0;
};

// Write what the thread's writers hold for this record's file (called
// before the file closes); false when the file took less.
bool FlushGatheredData(XferRecord *record);

} // namespace zvxfer
