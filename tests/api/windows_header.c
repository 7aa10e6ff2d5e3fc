/* On Windows the header's window handle is the system's HWND: a host
   passes its window to PortOpen with no cast, and the header goes with
   <windows.h> in either order. */
#include <windows.h>

#include "zvxfer.h"

_Static_assert(sizeof(ZvHwnd) == sizeof(HWND), "the window handle is a HWND");
_Static_assert(sizeof(XferFile) == sizeof(HANDLE), "a file is a HANDLE");

XferPort *zvxfer_open_on_hwnd(HWND window) {
    ZvHwnd same = window;
    HWND back = same;
    return PortOpen(0, back, "C:\\in\\", XFER_EXISTING_RENAME);
}
