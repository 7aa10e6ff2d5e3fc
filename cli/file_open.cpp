// Opening the files a sender reads, without a lock.
#include "file_open.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "zvxfer.h"

namespace zvxfer::cli {

namespace {

XferFile OpenToRead(XferRecord *, const char *name, const char *mode) {
    if (name == nullptr || mode == nullptr || std::strcmp(mode, "rb") != 0)
        return XFER_INVALID_FILE;
    int fd;
    do {
        fd = open(name, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? XFER_INVALID_FILE : static_cast<XferFile>(fd);
}

} // namespace

void InstallSendOnlyFileOpen() {
    SetXferFileOpenFunctionPtr(OpenToRead);
}

} // namespace zvxfer::cli
