// The gathering file writer of received data.
#include "core/file_writer.h"

#include <algorithm>
#include <cstring>

#include "platform/file.h"

namespace zvxfer {

namespace {
thread_local FileWriter *t_innermost = nullptr;
} // namespace

FileWriter::FileWriter(XferRecord *record) : record_(record), outer_(t_innermost) {
    t_innermost = this;
}

FileWriter::~FileWriter() {
    Flush();
    t_innermost = outer_;
}

bool FlushGatheredData(XferRecord *record) {
    bool written = true;
    for (FileWriter *w = t_innermost; w != nullptr; w = w->outer_)
        if (w->record_ == record && !w->Flush()) written = false;
    return written;
}

bool FileWriter::Append(const uint8_t *data, std::size_t count) {
    while (count != 0) {
        if (used_ == piece_.size() && !Flush()) return false;
        const std::size_t n = std::min(count, piece_.size() - used_);
        std::memcpy(piece_.data() + used_, data, n);
        used_ += n;
        data += n;
        count -= n;
    }
    return true;
}

bool FileWriter::Flush() {
    const std::size_t pending = used_;
    used_ = 0;
    if (pending == 0 || record_->File == XFER_INVALID_FILE) return true;
    return plat::FileWrite(record_->File, piece_.data(), pending) == static_cast<long>(pending);
}

} // namespace zvxfer
