// The ZMODEM engine: CRC-32, the frame layer (headers, data subpackets,
// ZDLE escaping, the hunt for a header in noise), the receiver and the
// streaming sender.  Every routine works on the transfer's XferRecord and
// reports a failure through its Result; the ZMODEM state lives in the
// record's protocol area (accessors below).
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

#include "zvxfer.h"

namespace zvxfer::zm {

// --- characters ---
constexpr uint8_t ZPAD = '*';
constexpr uint8_t ZDLE = 0x18; // same value as CAN
constexpr uint8_t CAN = 0x18;
constexpr uint8_t ZBIN = 'A';   // binary header, CRC-16
constexpr uint8_t ZHEX = 'B';   // hex header, CRC-16
constexpr uint8_t ZBIN32 = 'C'; // binary header, CRC-32
constexpr uint8_t ZCRCE = 'h';  // frame ends, no answer
constexpr uint8_t ZCRCG = 'i';  // frame goes on, no answer
constexpr uint8_t ZCRCQ = 'j';  // frame goes on, ZACK expected
constexpr uint8_t ZCRCW = 'k';  // frame ends, ZACK expected
constexpr uint8_t ZRUB0 = 'l';  // escaped 0x7F
constexpr uint8_t ZRUB1 = 'm';  // escaped 0xFF
constexpr uint8_t XON = 0x11;
constexpr uint8_t XOFF = 0x13;

// --- frame types ---
constexpr int ZRQINIT = 0;
constexpr int ZRINIT = 1;
constexpr int ZSINIT = 2;
constexpr int ZACK = 3;
constexpr int ZFILE = 4;
constexpr int ZSKIP = 5;
constexpr int ZFIN = 8;
constexpr int ZRPOS = 9;
constexpr int ZDATA = 10;
constexpr int ZEOF = 11;
constexpr int ZFERR = 12;

// --- receiver capability flags (ZF0 of ZRINIT) ---
constexpr uint8_t CANFDX = 0x01;
constexpr uint8_t CANOVIO = 0x02;
constexpr uint8_t CANBRK = 0x04;
constexpr uint8_t CANFC32 = 0x20;
constexpr uint8_t kOurRinitFlags = CANFDX | CANOVIO | CANBRK | CANFC32; // 0x27

// --- limits ---
constexpr uint32_t kMaxSubpacket = 1024;              // data bytes per subpacket
constexpr uint32_t kMaxSubpacketWire = 2 * 1024 + 11; // escaped data, end, check, XON
constexpr int32_t kGarbageLimit = 2048;               // noise per ReadFrameHeader
constexpr int32_t kDefaultMaxErrors = 10;
constexpr int32_t kDefaultWindow = 4096;
constexpr uint32_t kCrc32Good = 0xDEBB20E3; // residue over data, end and check

// A subpacket end as ReadEscaped returns it: the end character plus 0x100.
constexpr int32_t kEndFlag = 0x100;

// --- the record's ZMODEM fields ---
// CanCount, GarbageCount and PeerFlags reuse the record's protocol words;
// the rest are the words of ProtocolBytes in this order.
inline intptr_t &ZmCanCount(XferRecord *r) {
    return r->ProtocolParam;
}
inline intptr_t &ZmGarbageCount(XferRecord *r) {
    return r->ProtocolHook;
}
inline int32_t &ZmPeerFlags(XferRecord *r) {
    return r->ProtocolFlag;
}
inline int32_t &ZmRestartPending(XferRecord *r) {
    return r->ProtocolBytes.Words[0];
}
inline int32_t &ZmPeerBufferSize(XferRecord *r) {
    return r->ProtocolBytes.Words[1];
}
inline int32_t &ZmFrameBytes(XferRecord *r) {
    return r->ProtocolBytes.Words[2];
}
inline uint8_t *ZmHeaderData(XferRecord *r) {
    return r->ProtocolBytes.Bytes + 3 * 4;
} // ZP0..ZP3
inline int32_t &ZmHeaderFormat(XferRecord *r) {
    return r->ProtocolBytes.Words[4];
}
inline int32_t &ZmResumeFlag(XferRecord *r) {
    return r->ProtocolBytes.Words[5];
}
inline int32_t &ZmPacingFlag(XferRecord *r) {
    return r->ProtocolBytes.Words[6];
}
inline int32_t &ZmWindowMode(XferRecord *r) {
    return r->ProtocolBytes.Words[7];
}
inline int32_t &ZmWindowSize(XferRecord *r) {
    return r->ProtocolBytes.Words[8];
}
inline int32_t &ZmConversion(XferRecord *r) {
    return r->ProtocolBytes.Words[9];
}
inline int32_t &ZmManagement(XferRecord *r) {
    return r->ProtocolBytes.Words[10];
}
inline int32_t &ZmHexSeen(XferRecord *r) {
    return r->ProtocolBytes.Words[11];
}
inline int32_t &ZmMaxErrors(XferRecord *r) {
    return r->ProtocolBytes.Words[12];
}
inline int32_t &ZmChunkSize(XferRecord *r) {
    return r->ProtocolBytes.Words[13];
}
// Sender: ticks of the first and the latest stray character of the current
// run of noise on the return channel (BackChannel).
inline int32_t &ZmNoiseSince(XferRecord *r) {
    return r->ProtocolBytes.Words[14];
}
inline int32_t &ZmNoiseLast(XferRecord *r) {
    return r->ProtocolBytes.Words[15];
}

// A file position in header data: ZP0 is the lowest byte.
inline void ZmPutPosition(uint8_t data[4], int32_t position) {
    const auto p = static_cast<uint32_t>(position);
    data[0] = static_cast<uint8_t>(p);
    data[1] = static_cast<uint8_t>(p >> 8);
    data[2] = static_cast<uint8_t>(p >> 16);
    data[3] = static_cast<uint8_t>(p >> 24);
}
inline int32_t ZmGetPosition(const uint8_t data[4]) {
    return static_cast<int32_t>(data[0] | data[1] << 8 | data[2] << 16 |
                                static_cast<uint32_t>(data[3]) << 24);
}

// --- CRC-32 (IEEE 802.3, reflected; no inversion in either call) ---
uint32_t Crc32Update(uint32_t crc, uint8_t byte);
uint32_t Crc32Block(uint32_t count, uint32_t crc, const uint8_t *bytes);

// --- pure codecs: build wire bytes into `out`, return the length ---
// Hex header text: "**" ZDLE 'B', type, data, CRC-16, CR LF, and XON unless
// the type is ZFIN or ZACK.  `out` holds at least 22 bytes.
std::size_t ZmFormatHexHeader(uint8_t *out, int type, const uint8_t data[4]);
// Binary header: ZPAD ZDLE, 'C' (crc32) or 'A', then the escaped type, data
// and check.  `out` holds at least 2 + 1 + 2 * 9 bytes.
std::size_t ZmFormatBinHeader(uint8_t *out, int type, const uint8_t data[4], bool crc32);
// Data subpacket: escaped data, ZDLE end, escaped check, XON after ZCRCW.
// `out` holds at least zm::kMaxSubpacketWire bytes; data.size() <= 1024.
std::size_t ZmFormatSubpacket(uint8_t *out, std::span<const uint8_t> data, uint8_t end, bool crc32);
// Escape one byte into `out` (one or two bytes); returns the bytes written.
std::size_t ZmEscape(uint8_t *out, uint8_t byte);

// --- sending (one XferWriteBuffer per header or subpacket) ---
int32_t SendHexHeader(XferRecord *record, int type, const uint8_t data[4]);
void SendBinHeader(XferRecord *record, int type, const uint8_t data[4]);
// The first `count` bytes of Buffer; notice MsgCannotSendSubpacket when the write fails.
int32_t SendDataSubpacket(XferRecord *record, uint32_t count, uint8_t end);

// --- reading ---
int32_t ReadChar7(XferRecord *record);
int32_t ReadHexByte(XferRecord *record);
int32_t ReadEscaped(XferRecord *record);
int GetPad(XferRecord *record);
int32_t GetHeaderType(XferRecord *record);
int32_t ReadHexHeader(XferRecord *record);
int32_t ReadBinHeader16(XferRecord *record);
int32_t ReadBinHeader32(XferRecord *record);
int32_t ReadFrameHeader(XferRecord *record, int returnOnError);
int32_t ReadDataSubpacket(XferRecord *record);
// In a data phase, ten silent seconds while waiting for a header may mean
// that our own last header was lost on its way and the other side waits
// for it: the first such silence (since `forgiven` was last cleared) is
// taken back and counted as an error, so the caller can say it again;
// true then.  False, with Result as it is, otherwise.
bool ZmForgiveSilence(XferRecord *record, bool &forgiven);
// Drop what the host holds, as ClearRXBuffer does, but give up after three
// seconds of bytes that never stop (counted as an error).  False when that
// error reached the limit (Result -610).
bool ZmDiscardInput(XferRecord *record);
// One more error (ErrorTotal and ErrorRun); true when the run reaches the
// limit, which sets Result -610.
bool ZmCountError(XferRecord *record);
int32_t ReadCrc16(XferRecord *record, int end);
int32_t ReadCrc32(XferRecord *record, int end);

// --- receiver ---
void ZmodemReceive(XferRecord *record);
int GetFileName(XferRecord *record);
void ReadFileData(XferRecord *record);
void SendPosHeader(XferRecord *record, int type);

// --- sender ---
// `count` bytes of the file at `position` (fewer at its end; -1 on failure),
// served from a read-ahead of the file; ZmForgetReadAhead drops it when a
// new file is opened (a descriptor may be reused).
long ZmReadFile(XferFile file, int64_t position, uint8_t *out, std::size_t count);
void ZmForgetReadAhead();
void ZmodemSend(XferRecord *record);
int OpenLink(XferRecord *record);
int NextFileInfo(XferRecord *record);
int SendFileFrame(XferRecord *record);
void SendFileData(XferRecord *record);
int32_t SendDataFrame(XferRecord *record);
int FillDataBuffer(XferRecord *record);
int BackChannel(XferRecord *record);
int32_t CloseLink(XferRecord *record);

} // namespace zvxfer::zm
