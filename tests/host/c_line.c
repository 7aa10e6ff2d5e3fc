/* The C line host as a C program uses it: each side of a transfer in a
   dozen lines, and a writer that offers a block again after a partial
   write.  Compiled as C; c_line_test.cpp runs these and checks the result. */
#include "c_line.h"

#include <stdio.h>
#include <string.h>

int32_t CLineSend(int fd, int32_t protocol, const char *path) {
    char names[600];
    snprintf(names, sizeof names, "\"%s\"", path);
    ZvLine *line = ZvLineOpen(fd, fd, NULL);
    if (line == NULL) return -1000;
    XferPort *port = ZvLinePort(line, "", XFER_EXISTING_OVERWRITE);
    int32_t rc = -1001;
    if (port != NULL) {
        rc = CLFileSend(port, protocol, names, 0, 0, CLSetFileTransferOptions(NULL), NULL, NULL);
        port->Ops.PortClose(port);
    }
    ZvLineClose(line);
    return rc;
}

int32_t CLineReceive(int fd, int32_t protocol, const char *folder, char *fileName) {
    ZvLine *line = ZvLineOpen(fd, fd, NULL);
    if (line == NULL) return -1000;
    XferPort *port = ZvLinePort(line, folder, XFER_EXISTING_OVERWRITE);
    int32_t rc = -1001;
    if (port != NULL) {
        rc = CLFileReceive(port, protocol, fileName, 0, CLSetFileTransferOptions(NULL), NULL, NULL);
        port->Ops.PortClose(port);
    }
    ZvLineClose(line);
    return rc;
}

long CLineWriteAll(XferPort *port, const uint8_t *data, uint32_t length, void (*onRefusal)(void)) {
    long refusals = 0;
    while (length > 0) {
        const uint32_t piece = length < 4096 ? length : 4096;
        const int32_t r = port->Ops.WriteBuffer(port, data, piece);
        if (r != 0 && r != PortBufferFull) return r;
        const uint32_t taken = r == 0 ? piece : port->Count;
        data += taken;
        length -= taken;
        if (r == PortBufferFull) {
            ++refusals;
            if (onRefusal != NULL) onRefusal();
            /* The line watches its write descriptor while bytes wait: the
               wait ends when there is room again (or after a second), or
               at once for the line's own flush message, handled here as
               the library's idle hook would. */
            ZvMsg msg;
            ZvWaitMessage(1000);
            while (ZvPeekMessage(&msg, 1)) ZvDispatchMessage(&msg);
        }
    }
    return refusals;
}
