// ASCII upload and capture: the record's ASCII fields and the two engines.
// The sender pours the lines of every file of the send list onto the line,
// one byte at a time, pausing after each line and showing the far side's
// echo; the capture writes everything that arrives into one file until the
// line stays quiet for the idle time-out.
#pragma once
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::ascii {

// A line ends after a CR, after this many stored bytes, or at the end of
// the file.
inline constexpr std::size_t kMaxLine = 82;
inline constexpr uint8_t kCr = 0x0D, kLf = 0x0A;
// The capture's silence limit unless an option sets one; negative: none.
inline constexpr int32_t kDefaultIdleMs = 10000;
// The capture runs the abort check once every this many bytes taken.
inline constexpr int32_t kAbortCheckEvery = 256;

// The record's fields as ASCII uses them.
inline XferCharFn CharCallback(const XferRecord *r) {
    return reinterpret_cast<XferCharFn>(r->ProtocolHook);
}
inline void SetCharCallback(XferRecord *r, XferCharFn fn) {
    r->ProtocolHook = reinterpret_cast<intptr_t>(fn);
}
inline uint8_t &DropLf(XferRecord *r) {
    return r->ProtocolBytes.Bytes[4];
}
inline int32_t &LineDelayMs(XferRecord *r) {
    return r->ProtocolFlag;
}
inline intptr_t &IdleTimeoutMs(XferRecord *r) {
    return r->ProtocolParam;
}

// One more byte in the byte count.  A capture may run past 2^31 bytes; the
// count then wraps instead of overflowing (every 256th byte stays one).
inline void CountByte(XferRecord *r) {
    r->FilePos = static_cast<int32_t>(static_cast<uint32_t>(r->FilePos) + 1u);
}

// Send every file of the record's send list; Result -619 when the list
// yields no file.  Ends with XferCleanup.
void AsciiSend(XferRecord *r);
// Capture into the record's FileName until silence (Result -617), an
// abort, or a read or write failure.  Ends with XferCleanup.
void AsciiReceive(XferRecord *r);

// Shared by both directions: a host idle hook that answers negative asks
// the transfer to stop (the default hook does so when the application is
// closing); the transfer then ends like one the user stopped.  1 = stop.
int StopOnIdleAnswer(XferRecord *r, int32_t idle);

} // namespace zvxfer::ascii
