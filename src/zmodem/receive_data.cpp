// One file's data phase on the receiving side: ZRPOS to start, ZDATA frames
// of subpackets written to the file (with optional newline conversion and
// pacing), ZACKs where the sender asks for them, ZRPOS after damage, and
// the ZEOF that completes the file.
#include "core/core.h"
#include "platform/file.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer {
namespace {

constexpr int32_t kPacingMs = 70;
constexpr int32_t kConvertNewlines = 2; // ZF0: write each LF as CR LF
constexpr int32_t kAppend = 3;          // ZF1: positions count from the end

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

// The subpacket in Buffer to the file.  Returns the data bytes written
// (inserted CRs not counted).
long WriteData(XferRecord *r) {
    const auto size = static_cast<std::size_t>(r->BlockSize);
    if (ZmConversion(r) != kConvertNewlines) return plat::FileWrite(r->File, r->Buffer, size);
    long written = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (r->Buffer[i] != '\n') continue;
        // The piece up to the LF, then CR; the LF starts the next piece.
        if (i > start) {
            const long n = plat::FileWrite(r->File, r->Buffer + start, i - start);
            if (n < 0) return written;
            written += n;
        }
        if (plat::FileWrite(r->File, "\r", 1) != 1) return written;
        start = i;
    }
    if (size > start) {
        const long n = plat::FileWrite(r->File, r->Buffer + start, size - start);
        if (n > 0) written += n;
    }
    return written;
}

enum class FrameEnd { Good, Damaged, Stop };

// The subpackets of one ZDATA frame whose position matched.
FrameEnd TakeSubpackets(XferRecord *r, Pacing &pacing) {
    for (;;) {
        const int32_t end = ReadDataSubpacket(r);
        if (r->Result < 0) return FrameEnd::Stop;
        if (end < 0) return FrameEnd::Damaged;
        r->ErrorRun = 0;
        pacing.Pause();
        const long written = WriteData(r);
        pacing.Restore();
        if (r->BlockSize != 0 && written != r->BlockSize) {
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

} // namespace

void ReadFileData(XferRecord *r) {
    XferStatus(r, 0, "ReadFileData: reading name");
    SendPosHeader(r, zm::ZRPOS);
    if (r->Result < 0) {
        XferStatus(r, 0, "ReadFileData: Error sending ZRPOS");
        return;
    }
    // Positions count from the start of the file, or when appending from
    // its end as it was when the data phase began (so a repeated frame
    // lands where it did the first time).
    const int64_t base = ZmManagement(r) == kAppend ? plat::FileSeek(r->File, 0, 2) : 0;
    Pacing pacing(r);
    bool lastGood = true; // the last subpacket (none yet) was good
    for (;;) {
        if (XferCheckAbort(r)) return;
        const int32_t type = ReadFrameHeader(r, 1);
        if (r->Result < 0) break;
        const int32_t position = ZmGetPosition(ZmHeaderData(r));

        if (type == zm::ZDATA) {
            if (position != r->FilePos) {
                XferStatus(r, 0, "ReadFileData: Mismatch in rx_pos");
                SendPosHeader(r, zm::ZRPOS);
                continue;
            }
            pacing.Pause();
            XferStatus(r, 0, "NEW BYTE COUNT: %lx", static_cast<unsigned long>(r->FilePos));
            plat::FileSeek(r->File, base + r->FilePos, 0);
            pacing.Restore();
            const FrameEnd end = TakeSubpackets(r, pacing);
            if (end == FrameEnd::Stop) return;
            lastGood = end == FrameEnd::Good;
        } else if (type == zm::ZEOF) {
            if (position == r->FilePos) {
                XferStatus(r, 0, "ReadFileData: frame_type=%d", static_cast<int>(type));
                return;
            }
            XferStatus(r, 0, "ZEOF at wrong position");
        } else {
            XferStatus(r, 0, "ReadFileData: frame_type=%d", static_cast<int>(type));
            lastGood = false;
        }

        // The common end of a frame: go on with the next header, or ask
        // for the data again from the last good position.
        const bool padFound = ZmHeaderFormat(r) != PortBufferEmpty;
        const bool dataHeader = type == zm::ZDATA || type == zm::ZEOF;
        if ((lastGood || !dataHeader) && padFound) continue;
        if (padFound) {
            r->ErrorTotal++;
            if (++r->ErrorRun >= ZmMaxErrors(r)) {
                r->Result = XferErrTooManyErrors;
                return;
            }
        }
        if (r->FilePos != r->FileSize) ClearRXBuffer(r->Port);
        SendPosHeader(r, zm::ZRPOS);
        XferStatus(r, 0, "Sending a new file offset!!!");
    }
    XferStatusMessage(r, 1, 28303);
}

} // namespace zvxfer
