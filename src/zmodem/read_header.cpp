// Finding and reading one header: the hunt for ZPAD through line noise
// (with its silence, garbage and cancel limits), the format character, and
// the hex, binary CRC-16 and binary CRC-32 header bodies.
#include <cctype>

#include "core/core.h"
#include "core/crc16.h"
#include "platform/tick.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kSilentSecondsLimit = 10;
constexpr int32_t kCancelRun = 5;
constexpr uint32_t kHexTailMs = 55;
// A hunt that has seen stray bytes for this long ends as if the garbage
// limit had been reached: noise that never stops (a byte a second never
// makes a silent second, nor 2048 bytes in reasonable time) must not hold
// the transfer.  Honest bursts of noise are far shorter.
constexpr uint32_t kNoiseLimitMs = 3000;
constexpr uint32_t kNoiseGapMs = 1500;

// Stray bytes (anything but ZPAD) that keep coming, none more than
// kNoiseGapMs after the one before, form a run; a run of kNoiseLimitMs ends
// the hunt.  A pause longer than the gap (a quiet line) ends the run.
class NoiseRun {
  public:
    // A stray byte; true when the run has lasted long enough to give up.
    bool Byte() {
        const uint32_t now = plat::GetTickCount();
        if (!running_ || now - last_ > kNoiseGapMs) start_ = now;
        running_ = true;
        last_ = now;
        return now - start_ >= kNoiseLimitMs;
    }
    void Silence() {
        if (running_ && plat::GetTickCount() - last_ > kNoiseGapMs) running_ = false;
    }

  private:
    bool running_ = false;
    uint32_t start_ = 0, last_ = 0;
};

// A byte of noise; the hunt gives up after kGarbageLimit of them.
void CountGarbage(XferRecord *record) {
    intptr_t &garbage = ZmGarbageCount(record);
    ++garbage;
    if (garbage % 512 == 0) XferStatus(record, 0, "GetPad: incoming garbage");
}

// The header's data bytes and check: `count` values through `read` into one
// running check; returns the last negative read, or 0.
template <typename Read, typename Step>
int32_t ReadBody(XferRecord *record, int count, Read read, Step step) {
    uint8_t *data = ZmHeaderData(record);
    for (int i = 0; i < count; ++i) {
        const int32_t c = read(record);
        if (c < 0) return c;
        step(static_cast<uint8_t>(c));
        if (i >= 1 && i <= 4) data[i - 1] = static_cast<uint8_t>(c);
    }
    return 0;
}

// A silent second in the hunt for ZPAD; true when the hunt ends.
bool SilentSecond(XferRecord *record, bool noise, int32_t &silentSeconds) {
    // Noise and then a silent second: most likely a header that the line
    // damaged beyond recognition (a flipped ZPAD or ZDLE), and the other
    // side now waits for our answer.  A receiver's hunt ends as for a
    // damaged header, so it says its position within a second instead of
    // both sides waiting out the silence limit.  A sender waits on:
    // offering data at a position the receiver did not ask for leaves some
    // receivers (rz) waiting for good.
    if (noise && !record->Sending) {
        XferStatus(record, 0, "GetPad: silence after noise");
        return true;
    }
    if (++silentSeconds >= kSilentSecondsLimit) {
        XferStatusMessage(record, 1, MsgNoResponse);
        record->Result = XferErrNoFilesSent;
        return true;
    }
    return XferCheckAbort(record) != 0;
}

// A CAN in the hunt, counted with the one right after it when there is
// one; true when the hunt ends (the fifth in a row cancels the transfer).
bool CancelSeen(XferRecord *record, intptr_t &cans) {
    if (++cans >= kCancelRun) {
        record->Result = XferErrRemoteAbort;
        XferStatusMessage(record, 1, MsgRemoteCancelled);
        XferCleanup(record);
        return true;
    }
    if (XferCheckAbort(record)) return true;
    if (ReadCharTimed(record->Port, 120) == zm::CAN) {
        ++cans;
    } else {
        CountGarbage(record);
        cans = 0;
    }
    return false;
}

} // namespace

int GetPad(XferRecord *record) {
    XferPort *port = record->Port;
    intptr_t &cans = ZmCanCount(record);
    intptr_t &garbage = ZmGarbageCount(record);
    cans = 0;
    int32_t silentSeconds = 0;
    bool noise = false; // stray characters (not flow control) came in this hunt
    NoiseRun run;
    for (;;) {
        if (RxEmpty(port) != 0 && XferCheckAbort(record)) return 0;
        const int32_t c = ReadCharTimed(port, 1000);
        if (c < 0) {
            if (SilentSecond(record, noise, silentSeconds)) return 0;
            run.Silence();
            continue;
        }
        if (c == zm::ZPAD) return 1;
        if (run.Byte()) {
            XferStatus(record, 0, "GetPad: noise for %d seconds",
                       static_cast<int>(kNoiseLimitMs / 1000));
            return 0;
        }
        silentSeconds = 0;
        if (c == zm::CAN) {
            if (CancelSeen(record, cans)) return 0;
        } else {
            cans = 0;
            if ((c & 0x7F) != zm::XON && (c & 0x7F) != zm::XOFF) noise = true;
            CountGarbage(record);
            if (garbage % 256 == 0 && XferCheckAbort(record)) return 0;
        }
        if (garbage >= zm::kGarbageLimit) {
            XferStatus(record, 0, "GetPad: Exceeded garbage count");
            return 0;
        }
    }
}

int32_t GetHeaderType(XferRecord *record) {
    int32_t c;
    do {
        c = ReadChar7(record);
    } while (c == zm::ZPAD);
    if (c == zm::ZDLE) {
        c = ReadChar7(record);
        if (c < 0) XferStatus(record, 0, "GetHeaderType: error char %d", static_cast<int>(c));
        return c;
    }
    if (c < 0) {
        XferStatus(record, 0, "GetHeaderType: error char %d", static_cast<int>(c));
        return c;
    }
    ++ZmGarbageCount(record);
    return 0;
}

int32_t ReadHexHeader(XferRecord *record) {
    ZmHexSeen(record) = 0;
    uint16_t crc = 0;
    int32_t type = -1;
    const int32_t r = ReadBody(record, 7, ReadHexByte, [&](uint8_t b) {
        if (type < 0) type = b;
        crc = Crc16Update(crc, b);
    });
    if (r < 0) return r;
    if (crc != 0) {
        XferStatusMessage(record, 0, MsgHexHeaderCrc);
        return -1;
    }
    // The header line ends with CR LF (and XON after most types).  Take up
    // to five of the characters that arrive within 55 ms; the look ends at
    // the LF, so a line that is already complete costs no waiting.
    XferPort *port = record->Port;
    // The clock is read only when a character has to be waited for.
    uint32_t deadline = 0;
    bool timed = false;
    for (int round = 0; round < 5; ++round) {
        int32_t wait = 1;
        if (RxEmpty(port) != 0) {
            const uint32_t now = plat::GetTickCount();
            if (!timed) deadline = now + kHexTailMs;
            timed = true;
            const auto left = static_cast<int32_t>(deadline - now);
            wait = left > 1 ? left : 1;
        }
        const int32_t c = ReadCharTimed(port, wait);
        if (c < 0) break;
        const int32_t ch = c & 0x7F;
        if (ch == '\n') {
            // An XON that has already come behind the LF is the header's
            // too: taking it now spares the next reader a wait for more.
            const std::span<const uint8_t> next = PeekRun(port);
            if (!next.empty() && (next[0] & 0x7F) == zm::XON) TakeRun(port, 1);
            break;
        }
        if (ch != '\r' && ch != zm::XON) return -1;
    }
    ZmHexSeen(record) = 1;
    return type;
}

int32_t ReadBinHeader16(XferRecord *record) {
    uint16_t crc = 0;
    int32_t type = -1;
    const int32_t r = ReadBody(record, 7, ReadEscaped, [&](uint8_t b) {
        if (type < 0) type = b;
        crc = Crc16Update(crc, b);
    });
    if (r < 0) return r;
    if (crc != 0) {
        XferStatusMessage(record, 0, MsgBinaryHeaderCrc16);
        return -1;
    }
    return type;
}

int32_t ReadBinHeader32(XferRecord *record) {
    uint32_t crc = 0xFFFFFFFFu;
    int32_t type = -1;
    const int32_t r = ReadBody(record, 9, ReadEscaped, [&](uint8_t b) {
        if (type < 0) type = b;
        crc = Crc32Update(crc, b);
    });
    if (r < 0) return r;
    if (crc != zm::kCrc32Good) {
        XferStatusMessage(record, 0, MsgBinaryHeaderCrc32);
        return -1;
    }
    return type;
}

int32_t ReadFrameHeader(XferRecord *record, int returnOnError) {
    ZmGarbageCount(record) = 0;
    int32_t &format = ZmHeaderFormat(record);
    for (;;) {
        if (GetPad(record)) {
            format = GetHeaderType(record);
        } else {
            format = PortBufferEmpty;
            if (XferStopped(record)) return XferStopCode(record);
        }
        int32_t outcome;
        switch (format) {
        case 0:
            if (ZmGarbageCount(record) < zm::kGarbageLimit) continue;
            XferStatus(record, 0, "GetPad: Exceeded garbage count");
            outcome = -1;
            break;
        case zm::ZBIN:
            outcome = ReadBinHeader16(record);
            break;
        case zm::ZHEX:
            outcome = ReadHexHeader(record);
            break;
        case zm::ZBIN32:
            outcome = ReadBinHeader32(record);
            break;
        default:
            if (format >= 0 && format < 0x100 && std::isprint(format))
                XferStatus(record, 0, "ReadFrameHeader: Header Type %c", static_cast<char>(format));
            else
                XferStatus(record, 0, "ReadFrameHeader: Header Type <%d>",
                           static_cast<int>(format));
            outcome = -1;
            break;
        }
        if (outcome >= 0) return outcome;
        XferStatus(record, 0, "ReadFrameHeader: Frame type %d", static_cast<int>(outcome));
        if (XferStopped(record)) return XferStopCode(record);
        if (ZmCountError(record)) return XferErrTooManyErrors;
        if (returnOnError) return outcome;
    }
}

bool ZmForgiveSilence(XferRecord *record, bool &forgiven) {
    if (record->Result != XferErrNoFilesSent || forgiven) return false;
    forgiven = true;
    record->Result = 0;
    return !ZmCountError(record);
}

bool ZmDiscardInput(XferRecord *record) {
    XferPort *port = record->Port;
    uint8_t scratch[64];
    const uint32_t giveUp = plat::GetTickCount() + kNoiseLimitMs;
    for (;;) {
        const int32_t r = port->Ops.ReadBuffer(port, scratch, sizeof scratch);
        if ((r < 0 && r != PortBufferEmpty) || port->Count == 0) return true;
        if (plat::TickReached(plat::GetTickCount(), giveUp)) {
            XferStatus(record, 0, "Discarding given up: the line is never quiet");
            return !ZmCountError(record);
        }
    }
}

bool ZmCountError(XferRecord *record) {
    record->ErrorTotal++;
    if (++record->ErrorRun < ZmMaxErrors(record)) return false;
    record->Result = XferErrTooManyErrors;
    return true;
}

} // namespace zvxfer::zm
