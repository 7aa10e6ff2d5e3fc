// The XMODEM block engine shared by XMODEM, XMODEM-1K, their streaming form
// and YMODEM: block checks, block I/O, the file-level loops and the batch
// loops.  Every routine works on the transfer's XferRecord and reports a
// failure through its Result.
#pragma once
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer {

namespace xm {
constexpr uint8_t SOH = 0x01;
constexpr uint8_t STX = 0x02;
constexpr uint8_t EOT = 0x04;
constexpr uint8_t ACK = 0x06;
constexpr uint8_t NAK = 0x15;
constexpr uint8_t CAN = 0x18;
constexpr uint8_t StartCrc = 'C';
constexpr uint8_t StartStreaming = 'G';

constexpr int32_t kReplyTimeoutMs = 15000; // sender: start character and answers
constexpr int32_t kSliceMs = 1000;         // every wait is cut into slices of this
constexpr int32_t kMaxErrors = 10;         // consecutive errors that end a transfer
// A discard of noise gives up after this long without a quiet second.
constexpr uint32_t kNoiseLimitMs = 3000;
// A receiver that has seen bytes but no valid block for this long gives up
// (-610): with the waits in progress and the clean-up, it ends within 60 s
// of endless garbage at any rate, however the garbage is made.
constexpr uint32_t kNoBlockLimitMs = 45000;
constexpr uint32_t kBlock0Size = 128;
} // namespace xm

// --- block checks (pure) ---
uint16_t Crc16Update(uint16_t crc, uint8_t byte);
uint16_t Crc16Block(uint32_t count, uint16_t crc, const uint8_t *bytes);
uint8_t XmChecksum(std::span<const uint8_t> data);

// --- record fields as this engine names them ---
inline bool XmCrcMode(const XferRecord *r) {
    return (r->ProtocolFlag & 0xFF) != 0;
}
inline void XmSetCrcMode(XferRecord *r, bool on) {
    r->ProtocolFlag = (r->ProtocolFlag & ~0xFF) | (on ? 1 : 0);
}
inline bool XmStreaming(const XferRecord *r) {
    return r->Protocol == Xmodem1KG || r->Protocol == YmodemG;
}

// --- waiting ---
constexpr int32_t kXmTimedOut = -8; // the wait ran out
constexpr int32_t kXmAborted = -2;  // XferCheckAbort said stop
// Wait up to `timeoutMs` for a byte in 1000-ms slices, checking for an abort
// after every empty slice.  Returns the byte, kXmTimedOut or kXmAborted.
int32_t XmWaitChar(XferRecord *record, int32_t timeoutMs);
// Read and drop bytes until a 1000-ms read finds none, or for at most
// kNoiseLimitMs when they never stop; false on an abort.  `count`
// (optional) receives the number of bytes dropped.
bool XmDiscard(XferRecord *record, int *count = nullptr);

// --- one block ---
int XmFillBlock(XferRecord *record);
int XmSendBlock(XferRecord *record);
int XmSendNak(XferRecord *record);
int XmSendAck(XferRecord *record);
int XmReceiveBlock(XferRecord *record);

// --- one file ---
int XmWaitStart(XferRecord *record);
int XmWaitAck(XferRecord *record, int final);
int XmSendEot(XferRecord *record);
void XmSendFile(XferRecord *record);
void XmReceiveFile(XferRecord *record);

// --- YMODEM batches ---
void YmSendBatch(XferRecord *record);
void YmReceiveBatch(XferRecord *record);

// Block 0: "name\0size octal-time 0", cut at 128 bytes.  Returns the bytes
// of text written (at most 128); `out` is cleared first.
uint32_t YmFormatBlock0(std::span<uint8_t, xm::kBlock0Size> out, const char *name, int32_t size,
                        int32_t modTime);

struct Block0Facts {
    int32_t size = 0;          // 0 when unknown: missing, not a number, or too large
    int32_t modTime = -1;      // -1 when unknown: missing, not a number, or too large
    bool sizeTooLarge = false; // the size was a number beyond 2^31 - 1
};
// Read the size (decimal) and time (octal) tokens after the name's NUL.
// Only plain digits count; a value that does not fit in 31 bits is unknown.
Block0Facts YmParseBlock0(std::span<const uint8_t> data);

} // namespace zvxfer
