// The XMODEM block engine shared by XMODEM, XMODEM-1K, their streaming form
// and YMODEM: block checks, block I/O, the file-level loops and the batch
// loops.  Every routine works on the transfer's XferRecord and reports a
// failure through its Result.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer::xm {

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

// --- one block on the line (pure) ---
// The 8-bit arithmetic checksum: the sum of the bytes modulo 256.
uint8_t XmChecksum(std::span<const uint8_t> data);
// The check a block of `data` carries: its CRC-16 from 0, or its checksum.
int32_t XmBlockCheck(std::span<const uint8_t> data, bool crc);
// A block number is valid when its complement byte is its one's complement.
inline bool XmNumberValid(int32_t number, int32_t complement) {
    return number >= 0 && complement >= 0 && number == (~complement & 0xFF);
}

// What surrounds a block's data on the line: SOH (128 data bytes) or STX,
// the number and its complement before; the CRC (high byte first) or the
// checksum after.
struct XmBlockFrame {
    std::array<uint8_t, 3> head;
    std::array<uint8_t, 2> check;
    uint8_t checkLength; // 2 with CRC-16, 1 with the checksum
};
XmBlockFrame XmFrameBlock(uint8_t number, std::span<const uint8_t> data, bool crc);
// The longest block on the line: STX, number, complement, 1024 data bytes
// and a CRC.
constexpr std::size_t kMaxBlockWire = 3 + 1024 + 2;
// The whole block (head, data, check) into `out`, which holds
// data.size() + 5 bytes; returns its length.
std::size_t XmBuildBlock(std::span<uint8_t> out, uint8_t number, std::span<const uint8_t> data,
                         bool crc);

// Reading a block from bytes already at hand: what the receiver decides
// about a block with the same bytes, except the sequence, which depends on
// the block counter.
enum class XmBlockVerdict {
    Good,       // a whole block with a valid number and check
    Incomplete, // a valid start, but the block's bytes run out
    NotBlock,   // the first byte is not SOH or STX
    BadNumber,  // number and complement disagree
    BadCheck,   // the check does not match the data
};
struct XmParsedBlock {
    XmBlockVerdict verdict = XmBlockVerdict::NotBlock;
    uint8_t number = 0;
    std::span<const uint8_t> data; // inside the bytes given
    std::size_t length = 0;        // bytes of the whole block on the line
};
XmParsedBlock XmParseBlock(std::span<const uint8_t> bytes, bool crc);

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

} // namespace zvxfer::xm
