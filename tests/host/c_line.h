/* The C side of the line host tests (c_line.c, compiled as C). */
#ifndef ZVXFER_TESTS_C_LINE_H
#define ZVXFER_TESTS_C_LINE_H

#include "zvxfer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Send the file `path` with `protocol` over fd (a line of its own, default
   options, received names placed in the current folder).  The entry's
   result, -1000 when the line would not open, -1001 when the port would not. */
int32_t CLineSend(int fd, int32_t protocol, const char *path);

/* Receive with `protocol` over fd into `folder` (ending in '/'); fileName is
   the file for the protocols that take one from the host (else NULL). */
int32_t CLineReceive(int fd, int32_t protocol, const char *folder, char *fileName);

/* Write `length` bytes through the port, offering the rest again after a
   partial write (-9) once the thread's wait says there is room, and
   calling onRefusal (may be NULL) at each refusal.  The number of
   refusals, or the port's negative answer. */
long CLineWriteAll(XferPort *port, const uint8_t *data, uint32_t length, void (*onRefusal)(void));

#ifdef __cplusplus
}
#endif

#endif
