// The writability probe: the kernel copies one byte from a pipe to the
// address, which fails with EFAULT for read-only memory where a store by
// the program would end it with SIGSEGV.  The byte copied is the byte
// that is there, so a writable address keeps its value.
#include "platform/probe.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace zvxfer::plat {

bool ByteWritable(char *address) {
    if (address == nullptr) return true;
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return true; // cannot tell: take it as writable
    const char byte = *static_cast<volatile const char *>(address);
    bool writable = true;
    if (write(p[1], &byte, 1) == 1) {
        ssize_t n;
        while ((n = read(p[0], address, 1)) < 0 && errno == EINTR) {
        }
        writable = !(n < 0 && errno == EFAULT);
    }
    close(p[0]);
    close(p[1]);
    return writable;
}

} // namespace zvxfer::plat
