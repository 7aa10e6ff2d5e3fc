// CompuServe B+, the terminal side: the per-transfer link state, the
// record's B+ fields, and the operations of the packet layer and of the
// transfer.  The remote service drives the exchange; the engine answers one
// file request per call.
//
// The folder is split by concern:
//   link.cpp       the link state's life (creation, release with the
//                  resend store), quoting, reading un-quoted bytes
//   checks.cpp     the four block checks
//   packets.cpp    raw and numbered packets, acknowledgements sent and
//                  received, failure packets
//   wait_ack.cpp   the packet reader (_BPWaitForACK) and BPlusWaitAllAcks
//   main_loop.cpp  BPlusMain and the dispatcher _BPHandleProtocol
//   negotiate.cpp  the transport-parameter exchange
//   send_file.cpp, receive_file.cpp   upload and download (with resume)
//   entries.cpp    CompuServeBPlusWithOptions, CompuServeBPlusRespond
#pragma once
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::bplus {

inline constexpr uint8_t kDle = 0x10, kEtx = 0x03, kEnq = 0x05, kNak = 0x15;
inline constexpr int32_t kStoreSize = 5;
inline constexpr int32_t kReadTimeoutMs = 15000;
inline constexpr int32_t kWriteTimeoutMs = 500;
inline constexpr int32_t kMaxErrors = 10;

// One packet kept for resending until it is acknowledged.
struct StoredPacket {
    int32_t Seq;
    int32_t Length;
    uint8_t *Data; // owned copy (process heap)
};

// The per-transfer link state; the record's ProtocolParam holds its address.
struct BPlusLink {
    int32_t Done;        // the file transfer is complete: ends the main loop
    int32_t AltSeq;      // second send sequence counter
    int32_t RxLength;    // data bytes of the last accepted packet
    int32_t ReadTimeout; // ms, every read
    int32_t LastChar;    // last character read, after un-quoting
    int32_t Unquoted;    // LastChar came without a DLE in front
    int32_t RxSinceSend; // packets accepted since the last numbered send
    StoredPacket Store[kStoreSize];
    int32_t Outstanding;   // numbered packets not yet acknowledged (0..5)
    int32_t Oldest;        // Store index of the oldest of them
    int8_t CheckMethod;    // 0 checksum, 1 CRC-16 CCITT, 2 CRC-16 X.25, 3 CRC-32
    int32_t ResendPending; // waiting for the answers to ENQ ENQ
    int32_t LastAck;       // last acknowledgement character; -1 after ENQ ENQ
    int32_t QuoteMode;     // 3 quote every control character; else mask-driven
    uint8_t QuoteMask[32]; // 0x01: quote i; 0x10: quote 0x80 + i
    uint32_t Crc32;        // CRC-32 accumulator of the packet being checked
};

// ---- the record's B+ fields --------------------------------------------
inline BPlusLink *Link(const XferRecord *r) {
    return reinterpret_cast<BPlusLink *>(r->ProtocolParam);
}
inline int8_t &DownloadResume(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[0]);
}
inline int8_t &UploadResume(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[1]);
}
inline int8_t &FileInfo(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[2]);
}
inline int8_t &SendWindow(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[3]);
}
inline int8_t &ReceiveWindow(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[4]);
}
inline int8_t &AltSeqParam(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[5]);
}
inline int8_t &RequestedCheck(XferRecord *r) {
    return reinterpret_cast<int8_t &>(r->ProtocolBytes.Bytes[6]);
}
inline int32_t &StripBit7(XferRecord *r) {
    return r->ProtocolFlag;
}

// ---- link state (link.cpp) -----------------------------------------------
// Create the link state in ProtocolParam with its defaults; false when out
// of memory.
bool BPlusCreateLink(XferRecord *r);
// Release the link state and every stored copy (called by the clean-up).
void BPlusReleaseLink(XferRecord *r);
void BPlusSendQuoted(XferRecord *r, uint8_t c);
// The next byte, un-quoted (Unquoted says whether a DLE came first), or
// -616 on a failed read.
int32_t BPlusReadQuoted(XferRecord *r);

// ---- checks (checks.cpp) ----------------------------------------------------
void BPlusCheckInit(XferRecord *r);
void BPlusCheckUpdate(XferRecord *r, uint8_t b);
// Send the check bytes of the accumulated value.
void BPlusSendCheck(XferRecord *r);
// True when the accumulator holds the value a good packet leaves.
bool BPlusCheckGood(const XferRecord *r);
// Plain updates, for the resume scan.
uint16_t Crc16CcittUpdate(uint16_t crc, uint8_t b);
uint16_t Crc16X25Update(uint16_t crc, uint8_t b);
uint32_t Crc32Update(uint32_t crc, uint8_t b);

// ---- packets (packets.cpp, wait_ack.cpp) -----------------------------------
int32_t BPlusSendPacket(XferRecord *r, int32_t length, int32_t seq, const uint8_t *data);
int32_t BPlusSendNumbered(XferRecord *r, int32_t length, const uint8_t *data);
void _BPSendACK(XferRecord *r);
void BPlusReleaseAcked(XferRecord *r, int32_t ackChar);
int32_t _BPWaitForACK(XferRecord *r, bool afterDleB, bool acknowledge, bool allowResend);
int32_t BPlusWaitAllAcks(XferRecord *r);
int32_t BPlusSendFailure(XferRecord *r, char code, const char *text);

// ---- transfer (main_loop.cpp, negotiate.cpp, send_file.cpp,
//      receive_file.cpp) -----------------------------------------------------
void BPlusMain(XferRecord *r);
int32_t _BPHandleProtocol(XferRecord *r);
void BPlusNegotiate(XferRecord *r);
int32_t SendFile(XferRecord *r);
int32_t ReceiveFile(XferRecord *r);
// The abort check of the transfer: a packet that just arrived (-622) is no
// reason to skip the host's abort hook.
bool BPlusCheckAbort(XferRecord *r);
// XferOpenFile (or, with `append`, XferOpenFileToAppend) with the link
// state and the packet buffer kept through a failed open, so that the
// service can still be told; 1 = open, 0 = stop (Result says why).
int BPlusOpenFile(XferRecord *r, bool append);
// Closes the file and tells the service the host stopped the transfer; the
// host's answer stays the result.
void BPlusCancel(XferRecord *r);
// Sends failure `code` with the text of `message` and shows that text.
void BPlusFail(XferRecord *r, char code, int32_t message);

} // namespace zvxfer::bplus
