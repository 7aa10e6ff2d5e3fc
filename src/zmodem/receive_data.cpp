// One file's data phase on the receiving side: ZRPOS to start, ZDATA frames
// of subpackets written to the file (with optional newline conversion and
// pacing), ZACKs where the sender asks for them, ZRPOS after damage, and
// the ZEOF that completes the file.
#include <climits>

#include "core/core.h"
#include "core/file_writer.h"
#include "platform/file.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kPacingMs = 70;
constexpr int32_t kConvertNewlines = 2; // ZF0: write each LF as CR LF
constexpr int32_t kAppend = 3;          // ZF1: positions count from the end
constexpr int32_t kZnak = 6;            // the other side could not read our header

// With pacing, a pause of 70 ms; the port's Status survives it unless the
// pause itself reported something other than an empty buffer.
class Pacing {
  public:
    explicit Pacing(XferRecord *r) : r_(r) {}
    void Pause() {
        if (!ZmPacingFlag(r_)) return;
        noted_ = r_->Port->Status;
        IdleWait(r_->Port, kPacingMs);
    }
    void Restore() {
        if (!ZmPacingFlag(r_)) return;
        const int32_t now = r_->Port->Status;
        if (now == PortBufferEmpty || now == 0) r_->Port->Status = noted_;
    }

  private:
    XferRecord *r_;
    int32_t noted_ = 0;
};

// The subpacket in Buffer to the file, each LF preceded by an inserted CR
// under newline conversion.  False when the file did not take it all.
bool WriteData(XferRecord *r, FileWriter &out) {
    const auto size = static_cast<std::size_t>(r->BlockSize);
    if (ZmConversion(r) != kConvertNewlines) return out.Append(r->Buffer, size);
    static constexpr uint8_t kCr = '\r';
    std::size_t start = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (r->Buffer[i] != '\n') continue;
        // The piece up to the LF, then CR; the LF starts the next piece.
        if (!out.Append(r->Buffer + start, i - start) || !out.Append(&kCr, 1)) return false;
        start = i;
    }
    return out.Append(r->Buffer + start, size - start);
}

// Write what is gathered; a file that does not take it ends the transfer.
bool Flushed(XferRecord *r, FileWriter &out) {
    if (out.Flush()) return true;
    r->Result = XferErrFileIo;
    XferCleanup(r);
    return false;
}

enum class FrameEnd { Good, Damaged, Stop };

// The subpackets of one ZDATA frame whose position matched.
FrameEnd TakeSubpackets(XferRecord *r, Pacing &pacing, FileWriter &out) {
    for (;;) {
        const int32_t end = ReadDataSubpacket(r);
        if (XferStopped(r)) return FrameEnd::Stop;
        if (end < 0) return FrameEnd::Damaged;
        r->ErrorRun = 0;
        if (int64_t{r->FilePos} + r->BlockSize > INT32_MAX) {
            // Positions are 32-bit: the file would pass what they carry.
            XferStatus(r, 0, "File position would pass %ld", static_cast<long>(INT32_MAX));
            r->Result = XferErrFileIo;
            XferCleanup(r);
            return FrameEnd::Stop;
        }
        pacing.Pause();
        const bool written = WriteData(r, out);
        pacing.Restore();
        if (!written) {
            r->Result = XferErrFileIo;
            XferCleanup(r);
            return FrameEnd::Stop;
        }
        XferStatus(r, 0, "ReadFileData: read @%ld", static_cast<long>(r->FilePos));
        r->FilePos += r->BlockSize;
        if (end == zm::ZCRCQ || end == zm::ZCRCW) {
            XferStatus(r, 0, "Sending a ZACK");
            SendPosHeader(r, zm::ZACK);
        }
        if (end != zm::ZCRCG && end != zm::ZCRCQ) return FrameEnd::Good;
    }
}

// The common end of a frame: go on with the next header, or ask for the
// data again from the last good position.  A header that arrived damaged
// may have been the ZDATA the sender now waits on, and a ZNAK says our own
// header arrived damaged: either way the sender needs our position again,
// or both ends would wait for each other until the silence limit.  False
// when the error limit ends the transfer.
bool AfterFrame(XferRecord *r, int32_t type, bool lastGood) {
    const bool padFound = ZmHeaderFormat(r) != PortBufferEmpty;
    const bool dataHeader = type == zm::ZDATA || type == zm::ZEOF;
    const bool damagedHeader = padFound && (type < 0 || type == kZnak);
    if ((lastGood || !dataHeader) && padFound && !damagedHeader) return true;
    // A damaged header was counted by its reader.
    if (padFound && type >= 0 && ZmCountError(r)) return false;
    if (r->FilePos != r->FileSize && !ZmDiscardInput(r)) return false;
    SendPosHeader(r, zm::ZRPOS);
    XferStatus(r, 0, "Sending a new file offset!!!");
    return true;
}

} // namespace

void ReadFileData(XferRecord *r) {
    XferStatus(r, 0, "ReadFileData: reading name");
    SendPosHeader(r, zm::ZRPOS);
    if (XferStopped(r)) {
        XferStatus(r, 0, "ReadFileData: Error sending ZRPOS");
        return;
    }
    // Positions count from the start of the file, or when appending from
    // its end as it was when the data phase began (so a repeated frame
    // lands where it did the first time).
    const int64_t base = ZmManagement(r) == kAppend ? plat::FileSeek(r->File, 0, 2) : 0;
    Pacing pacing(r);
    FileWriter out(r);
    bool lastGood = true; // the last subpacket (none yet) was good
    bool forgiven = false;
    for (;;) {
        if (XferCheckAbort(r)) return;
        const int32_t type = ReadFrameHeader(r, 1);
        if (XferStopped(r)) {
            if (!ZmForgiveSilence(r, forgiven)) break;
            SendPosHeader(r, zm::ZRPOS); // our last ZRPOS or ZACK may have been lost
            XferStatus(r, 0, "Sending a new file offset!!!");
            continue;
        }
        if (type >= 0) forgiven = false;
        const int32_t position = ZmGetPosition(ZmHeaderData(r));

        if (type == zm::ZDATA) {
            if (position != r->FilePos) {
                XferStatus(r, 0, "ReadFileData: Mismatch in rx_pos");
                SendPosHeader(r, zm::ZRPOS);
                continue;
            }
            pacing.Pause();
            XferStatus(r, 0, "NEW BYTE COUNT: %lx", static_cast<unsigned long>(r->FilePos));
            if (!Flushed(r, out)) return;
            plat::FileSeek(r->File, base + r->FilePos, 0);
            pacing.Restore();
            const FrameEnd end = TakeSubpackets(r, pacing, out);
            if (end == FrameEnd::Stop) return;
            lastGood = end == FrameEnd::Good;
        } else if (type == zm::ZEOF) {
            if (position == r->FilePos) {
                XferStatus(r, 0, "ReadFileData: frame_type=%d", static_cast<int>(type));
                Flushed(r, out); // the file is complete only once it is all written
                return;
            }
            XferStatus(r, 0, "ZEOF at wrong position");
        } else {
            XferStatus(r, 0, "ReadFileData: frame_type=%d", static_cast<int>(type));
            lastGood = false;
        }

        if (!AfterFrame(r, type, lastGood)) return;
    }
    XferStatusMessage(r, 1, MsgReceivingStopped);
}

} // namespace zvxfer::zm
