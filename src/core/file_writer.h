// Received data on its way to the record's open file, gathered into pieces
// of 64 KiB so the file sees one write per piece instead of one per block
// or subpacket.  The owner writes the piece before it repositions the file
// and before the file is closed.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer {

class FileWriter {
  public:
    explicit FileWriter(XferRecord *record) : record_(record) {}
    ~FileWriter() { Flush(); }
    FileWriter(const FileWriter &) = delete;
    FileWriter &operator=(const FileWriter &) = delete;

    // False when the file took less than it was given.
    bool Append(const uint8_t *data, std::size_t count);
    // Write what is gathered; false when the file took less.  Nothing is
    // written (and true is returned) while the record has no open file.
    bool Flush();

  private:
    XferRecord *record_;
    std::array<uint8_t, 64 * 1024> piece_;
    std::size_t used_ = 0;
};

} // namespace zvxfer
