// File data ahead of the ZMODEM sender: one read of 64 KiB serves the next
// 64 subpackets, instead of a seek and a read for each.  The bytes are the
// file's bytes at the asked position, as a direct read would give them;
// repositioning after ZRPOS simply reads again where the cache does not
// reach.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "platform/file.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

struct ReadAhead {
    XferFile file = XFER_INVALID_FILE;
    int64_t start = 0;
    std::size_t length = 0;
    std::array<uint8_t, 64 * 1024> data;
};

// One per thread (a transfer runs on one thread), allocated on first use.
thread_local std::unique_ptr<ReadAhead> t_ahead;

} // namespace

void ZmForgetReadAhead() {
    if (t_ahead) t_ahead->file = XFER_INVALID_FILE;
}

long ZmReadFile(XferFile file, int64_t position, uint8_t *out, std::size_t count) {
    if (!t_ahead) t_ahead = std::make_unique<ReadAhead>();
    ReadAhead &a = *t_ahead;
    const bool inside =
        a.file == file && position >= a.start &&
        position + static_cast<int64_t>(count) <= a.start + static_cast<int64_t>(a.length);
    if (!inside) {
        a.file = XFER_INVALID_FILE;
        if (plat::FileSeek(file, position, 0) < 0) return -1;
        const long got = plat::FileRead(file, a.data.data(), a.data.size());
        if (got < 0) return -1;
        a.file = file;
        a.start = position;
        a.length = static_cast<std::size_t>(got);
    }
    const auto offset = static_cast<std::size_t>(position - a.start);
    const std::size_t n = std::min(count, a.length - offset);
    std::memcpy(out, a.data.data() + offset, n);
    return static_cast<long>(n);
}

} // namespace zvxfer::zm
