// XferWaitQuiet: wait until the line has been silent for one second.
#include "core/core.h"
#include "port/port.h"

namespace zvxfer {

int XferWaitQuiet(XferRecord *record) {
    XferPort *port = record->Port;
    for (;;) {
        if (XferCheckAbort(record)) return 0;
        while (port->Ops.ReadChar(port) >= 0) {
        }
        // A NUL ends the wait like silence: line noise often reads as 0.
        if (ReadCharTimed(port, 1000) <= 0) return 1;
    }
}

} // namespace zvxfer
