/* The public header must compile as plain C11 and describe a usable API. */
#include "zvxfer.h"

_Static_assert(sizeof(PortBlock) >= 3 * sizeof(int32_t), "PortBlock holds three words");
_Static_assert(XferPortMessage == 1425, "the port message number");
_Static_assert(offsetof(XferRecord, SkipFile) == 0, "SkipFile leads the record");
_Static_assert(offsetof(XferRecord, SendList) < offsetof(XferRecord, FileName), "field order");
_Static_assert(offsetof(XferRecord, ProtocolParam) > offsetof(XferRecord, Protocol), "field order");
_Static_assert(XferErrFileEngine == -623 && PortPackingError == -42, "code values");

static int32_t idle(XferPort *port) {
    return port ? 0 : -1;
}

int zvxfer_header_compiles_as_c(void) {
    SetPortIdleFunctionPtr(idle);
    return (int)sizeof(XferRecord);
}
