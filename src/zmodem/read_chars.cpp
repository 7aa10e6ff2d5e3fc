// Characters off the line as the frame readers want them: 7-bit header
// characters and hex digits, and 8-bit data with the ZDLE escapes undone
// (subpacket ends flagged above 0xFF, runs of CAN counted); raw flow-control
// characters are never data.
#include "core/core.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kCharTimeoutMs = 2500;
constexpr int32_t kCancelRun = 5; // CAN/ZDLE in a row: the other side gave up

// Before a read that may have to wait, give the host its progress call and
// the user a chance to stop.  True when the transfer must end.
bool AbortWhileIdle(XferRecord *record) {
    return RxEmpty(record->Port) != 0 && XferCheckAbort(record) != 0;
}

// Flow-control characters that arrive raw.  A sender always escapes these
// values in data, so a raw one is the line's (or the XON that ends a hex
// header) and is passed over.
bool IsFlowControl(int32_t c) {
    return (c & 0x7F) == zm::XON || (c & 0x7F) == zm::XOFF;
}

// One 8-bit character for the data readers, flow control passed over.
int32_t ReadDataChar(XferRecord *record) {
    for (;;) {
        if (AbortWhileIdle(record)) return XferStopCode(record);
        const int32_t c = ReadCharTimed(record->Port, kCharTimeoutMs);
        if (c < 0 || !IsFlowControl(c)) return c;
    }
}

} // namespace

int32_t ReadChar7(XferRecord *record) {
    const int32_t c = ReadDataChar(record);
    return c < 0 ? c : c & 0x7F;
}

int32_t ReadHexByte(XferRecord *record) {
    int32_t value = 0;
    for (int i = 0; i < 2; ++i) {
        const int32_t c = ReadChar7(record);
        int32_t digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else
            return -1;
        value = value * 16 + digit;
    }
    return value;
}

int32_t ReadEscaped(XferRecord *record) {
    intptr_t &cans = ZmCanCount(record);
    cans = 0;
    int32_t c = ReadDataChar(record);
    if (c < 0 || c != zm::ZDLE) return c;
    ++cans;
    for (;;) {
        c = ReadDataChar(record);
        if (c < 0) return c;
        if (c != zm::CAN) cans = 0;
        if (c < zm::CAN || c > zm::ZRUB1) return c ^ 0x40;
        switch (c) {
        case zm::CAN:
            if (++cans >= kCancelRun) {
                record->Result = XferErrRemoteAbort;
                XferStatusMessage(record, 1, MsgRemoteCancelled);
                return XferErrRemoteAbort;
            }
            continue;
        case zm::ZCRCE:
        case zm::ZCRCG:
        case zm::ZCRCQ:
        case zm::ZCRCW:
            return c | zm::kEndFlag;
        case zm::ZRUB0:
            return 0x7F;
        case zm::ZRUB1:
            return 0xFF;
        default:
            return c ^ 0x40;
        }
    }
}

} // namespace zvxfer::zm
