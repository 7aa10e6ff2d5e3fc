// The ZMODEM sender's data phase: ZDATA frames streamed from the file, the
// acknowledgement window, restarts after ZRPOS, the watch on the return
// channel between subpackets, and ZEOF.
#include <optional>

#include "core/core.h"
#include "platform/file.h"
#include "platform/message.h"
#include "platform/tick.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr int32_t kBackChannelMs = 70;
constexpr uint32_t kAckWaitMs = 1500; // each such wait for a ZACK is an error
constexpr uint32_t kPauseMs = 5;      // longest sleep between two looks at the line
constexpr intptr_t kNoiseLimit = 100;
// Stray characters that keep coming, none more than kNoiseGapMs after the
// one before, for kNoiseRunMs end the frame like the 52nd: a byte a second
// would otherwise take a minute to reach the count.  Scattered noise (an
// honest line's) breaks the run and never adds up.
constexpr uint32_t kNoiseRunMs = 3000;
constexpr uint32_t kNoiseGapMs = 1500;

void SendPosition(XferRecord *record, int type, int32_t position) {
    uint8_t data[4];
    ZmPutPosition(data, position);
    SendBinHeader(record, type, data);
}

bool AtEnd(const XferRecord *record) {
    return record->FilePos >= record->FileSize;
}

// Read the next subpacket from the file and send it, ending with `streamEnd`
// unless it ends the frame (then ZCRCW).  Returns the frame-end flag.
bool SendNextSubpacket(XferRecord *record, uint8_t streamEnd) {
    XferStatus(record, 0, "SendDataFrame: sending @%ld", static_cast<long>(record->FilePos));
    const bool frameEnd = FillDataBuffer(record) != 0 || ZmRestartPending(record) != 0;
    // A failed read has already ended the transfer and released Buffer.
    if (XferStopped(record)) return frameEnd;
    SendDataSubpacket(record, static_cast<uint32_t>(record->BlockSize),
                      frameEnd ? zm::ZCRCW : streamEnd);
    return frameEnd;
}

// With the window full (or the last ZACKs still missing), wait for the
// receiver to say something.  Every kAckWaitMs of silence counts as one
// error.  True when input is waiting; false when the transfer stopped (an
// abort, or -610 at the error limit).
bool AwaitAnswer(XferRecord *record) {
    XferPort *port = record->Port;
    uint32_t mark = plat::GetTickCount() + kAckWaitMs;
    for (;;) {
        if (port->Ops.RxCount(port) > 0) return true;
        if (XferCheckAbort(record)) return false;
        if (plat::TickReached(plat::GetTickCount(), mark)) {
            mark += kAckWaitMs;
            if (ZmCountError(record)) return false;
        }
        plat::WaitForNewInput(kPauseMs);
    }
}

// Between subpackets: read what the receiver has said.  The windowed
// sender counts its ZACKs into `confirmed`; anything else (and everything a
// window-less sender hears) is handed to the caller.  Returns the value
// SendDataFrame returns, or nothing to go on streaming; `endWait` is set
// when everything is out and only the last ZACK is still to come.
std::optional<int32_t> HearReceiver(XferRecord *record, bool window, int32_t &confirmed,
                                    bool &endWait) {
    int seen;
    while ((seen = BackChannel(record)) == 1) {
        if (XferStopped(record) || XferCheckAbort(record)) return 0;
        if (!window) {
            if (!AtEnd(record)) {
                XferStatus(record, 0, "BackChannel: backtalk ZCAN/ZPAD");
                SendDataSubpacket(record, 0, zm::ZCRCE);
            }
            return 0;
        }
        const int32_t type = ReadFrameHeader(record, 0);
        if (type != zm::ZACK) return type;
        // ZACKs are counted, not read for their position: each one
        // confirms a subpacket, the last one's own length or a chunk.
        const bool lastOnly = record->FilePos - record->BlockSize == confirmed;
        if (AtEnd(record) && lastOnly) {
            XferStatus(record, 0, "SendDataFrame: Received a ZACK at EOF");
            return zm::ZACK;
        }
        confirmed += lastOnly ? record->BlockSize : ZmChunkSize(record);
        record->ErrorRun = 0;
        if (XferStopped(record)) return 0;
    }
    if (seen == 2) return 0;
    if (window && AtEnd(record)) {
        // All confirmed, or only the last subpacket's ZACK still to come:
        // the caller reads what the receiver says next.
        if (confirmed >= record->FilePos || confirmed == record->FilePos - record->BlockSize)
            return 0;
        endWait = true;
    } else if (XferCheckAbort(record)) {
        return 0;
    }
    return std::nullopt;
}

// What the sender does after the receiver's answer to a data frame.
enum class Next { Stream, ReadAgain, Stop };

// Act on the receiver's answer `type` to a data frame (negative: none came,
// or it came damaged).  `done` is set when the receiver confirmed the end.
Next OnAnswer(XferRecord *record, int32_t type, bool &forgiven, bool &done) {
    if (type >= 0) forgiven = false;
    if (type < 0 && ZmForgiveSilence(record, forgiven)) {
        // Ten silent seconds: our last frame, or the receiver's answer,
        // was lost; offer the data again from here.
        ZmRestartPending(record) = 1;
        return Next::Stream;
    }
    if (type < 0 && !XferStopped(record)) {
        // The receiver's answer arrived damaged (a ZRPOS or the last ZACK,
        // most likely) and it now waits on us: offer the data again from
        // here.  A receiver that is elsewhere answers with its own position.
        XferStatus(record, 0, "SendFile: frame type %d", static_cast<int>(type));
        ZmRestartPending(record) = 1;
        return Next::Stream;
    }
    if (type == zm::ZRINIT || type == zm::ZSKIP) {
        record->Result = XferErrRemoteAbort; // the receiver gave up on the file
        return Next::Stop;
    }
    if (type == zm::ZACK) {
        XferStatus(record, 0, "SendFile: received an ACK frame");
        record->ErrorRun = 0;
        ZmRestartPending(record) = 0;
        if (!AtEnd(record)) return Next::Stream;
        const int32_t position = ZmGetPosition(ZmHeaderData(record));
        if (position == record->FileSize) {
            if (!ZmDiscardInput(record)) return Next::Stop;
            done = true;
        } else if (position < record->FileSize && position >= 0) {
            // An older ZACK (a repeated restart is answered twice): the
            // one for the end is still to come.
            return Next::ReadAgain;
        } else {
            record->Result = XferErrProtocol;
        }
        return Next::Stream;
    }
    if (type == zm::ZRPOS) {
        const int32_t position = ZmGetPosition(ZmHeaderData(record));
        if (position < 0) {
            // No file position is beyond 2^31 - 1: a damaged answer.
            XferStatus(record, 0, "SendFileData: bad ZRPOS location %ld",
                       static_cast<long>(position));
            if (ZmCountError(record)) return Next::Stop;
            ZmRestartPending(record) = 1;
            return Next::Stream;
        }
        record->FilePos = position;
        plat::FileSeek(record->File, record->FilePos, 0);
        XferStatus(record, 0, "SendFileData: ZRPOS location %ld",
                   static_cast<long>(record->FilePos));
        ZmRestartPending(record) = 1;
        record->Port->Ops.PurgeTx(record->Port);
        return Next::Stream;
    }
    XferStatus(record, 0, "SendFile: frame type %d", static_cast<int>(type));
    return XferStopped(record) ? Next::Stop : Next::ReadAgain;
}

} // namespace

int BackChannel(XferRecord *record) {
    XferPort *port = record->Port;
    if (RxEmpty(port) != 0) return 0;
    intptr_t &garbage = ZmGarbageCount(record);
    for (;;) {
        const int32_t c = ReadCharTimed(port, kBackChannelMs);
        if (c < 0) return 0;
        if (c == zm::CAN || c == zm::ZPAD) return 1;
        if (c == zm::XON || c == zm::XOFF) continue;
        const auto now = static_cast<int32_t>(plat::GetTickCount());
        if (garbage == 0 || now - ZmNoiseLast(record) > static_cast<int32_t>(kNoiseGapMs))
            ZmNoiseSince(record) = now;
        ZmNoiseLast(record) = now;
        const bool endless = now - ZmNoiseSince(record) >= static_cast<int32_t>(kNoiseRunMs);
        // Each stray character counts twice, so the 52nd of a frame ends it.
        if (garbage > kNoiseLimit || endless) {
            XferStatusMessage(record, 1, MsgTooMuchNoise);
            // Noise that never stops counts toward the error limit, which
            // ends a line that stays like this.
            if (endless && ZmCountError(record)) return 2;
            SendDataSubpacket(record, 0, zm::ZCRCE);
            return 2;
        }
        if (++garbage % 16 == 1) XferStatus(record, 0, "BackChannel: garbage detected");
        ++garbage;
    }
}

int FillDataBuffer(XferRecord *record) {
    // The first frame after a ZRPOS is one empty ZCRCW subpacket: its ZACK
    // shows that the receiver is in step again before data follow.
    if (ZmRestartPending(record)) {
        record->BlockSize = 0;
        return 1;
    }
    const int32_t peerBuffer = ZmPeerBufferSize(record);
    int32_t amount = peerBuffer != 0 ? peerBuffer - ZmFrameBytes(record)
                                     : static_cast<int32_t>(zm::kMaxSubpacket);
    if (amount > static_cast<int32_t>(zm::kMaxSubpacket))
        amount = static_cast<int32_t>(zm::kMaxSubpacket);
    ZmChunkSize(record) = amount;
    if (AtEnd(record)) return 1;
    // Never past the size (a file that grew is sent as it was listed), so
    // the position cannot pass what 32 bits carry.
    if (amount > record->FileSize - record->FilePos) amount = record->FileSize - record->FilePos;

    long got = -1;
    if (amount > 0)
        got = ZmReadFile(record->File, record->FilePos, record->Buffer,
                         static_cast<std::size_t>(amount));
    if (got <= 0) {
        record->BlockSize = 0;
        record->Result = XferErrNoBuffer;
        XferCleanup(record);
        return 1;
    }
    record->BlockSize = static_cast<int32_t>(got);
    record->FilePos += record->BlockSize;
    ZmFrameBytes(record) += record->BlockSize;

    if (peerBuffer == 0) return (ZmPeerFlags(record) & zm::CANOVIO) == 0 || AtEnd(record);
    return ZmFrameBytes(record) >= peerBuffer || AtEnd(record);
}

// One ZDATA frame.  Returns 0 when the caller should read the receiver's
// next header itself, or a header type that was read here and that the
// caller must handle (ZACK at the end of the file, ZRPOS, ...).
int32_t SendDataFrame(XferRecord *record) {
    int32_t confirmed = record->FilePos; // position the receiver has confirmed
    bool frameEnd = false;               // the last subpacket ended with ZCRCW
    const bool window = ZmWindowMode(record) != 0;
    const int32_t windowSize = ZmWindowSize(record);

    ZmGarbageCount(record) = 0;
    switch (BackChannel(record)) {
    case 1: // the receiver is already talking: let the caller read it
        XferStatus(record, 0, "BackChannel: backtalk ZCAN/ZPAD");
        SendDataSubpacket(record, 0, zm::ZCRCE);
        return 0;
    case 2:
        return 0;
    default:
        break;
    }

    ZmFrameBytes(record) = 0;
    SendPosition(record, zm::ZDATA, record->FilePos);
    if (XferStopped(record)) return 0;

    // Set when a wait ended because the receiver spoke: the next round reads
    // it even when the window rule alone would not look (a frame that starts
    // at the end of the file), instead of finding the same input waiting
    // over and over.
    bool answerWaiting = false;
    for (;;) {
        if (XferCheckAbort(record)) return 0;
        bool endWait = false;
        const bool look = !window || record->FilePos - confirmed >= windowSize ||
                          (frameEnd && record->FilePos > confirmed && AtEnd(record)) ||
                          answerWaiting;
        answerWaiting = false;
        if (look) {
            if (const auto stop = HearReceiver(record, window, confirmed, endWait)) return *stop;
        }

        const int32_t outstanding = record->FilePos - confirmed;
        // A restart's empty ZCRCW subpacket goes out at the end of the file
        // too: a receiver that asked for the end position (it has every
        // byte, but our ZEOF was lost) waits for it, and its ZACK lets the
        // ZEOF follow.  Without it both ends repeat ZRPOS and a bare ZDATA
        // until the error limit.
        const bool restart = ZmRestartPending(record) != 0;
        const bool more = !AtEnd(record) || restart;
        if (!window) {
            if (!endWait && more) {
                frameEnd = SendNextSubpacket(record, zm::ZCRCG);
            } else {
                // Everything is out: the receiver's ZACK is all that can
                // come.  Sleep until input arrives instead of spinning.
                plat::WaitForNewInput(kPauseMs);
            }
        } else if ((outstanding < windowSize || outstanding == 0) && more && !endWait) {
            frameEnd = SendNextSubpacket(record, zm::ZCRCQ);
        } else {
            if (!AwaitAnswer(record))
                return record->Result == XferErrTooManyErrors ? XferErrTooManyErrors : 0;
            answerWaiting = true;
        }

        if (XferStopped(record)) return 0;
        // The caller reads the ZACK or ZRPOS.
        if (frameEnd && (!AtEnd(record) || restart)) return 0;
    }
}

void SendFileData(XferRecord *record) {
    record->FileCount++;
    // A receiver that asks for the end position already holds the whole
    // file (crash recovery of a finished file): ZEOF follows at once.
    bool done = record->FileSize != 0 && AtEnd(record);
    bool forgiven = false;
    while (record->FileSize != 0) { // an empty file sends no ZDATA at all
        if (AtEnd(record) && done) break;
        int32_t type = SendDataFrame(record);
        if (record->Buffer == nullptr) return; // an abort whose clean-up has already run
        if (XferStopped(record)) {
            // Ten silent seconds while watching for the receiver's answers
            // are forgiven once like those below; any other failure ends it.
            if (!ZmForgiveSilence(record, forgiven)) return;
            ZmRestartPending(record) = 1;
            continue;
        }
        if (type == 0) type = ReadFrameHeader(record, 1);
        Next next;
        while ((next = OnAnswer(record, type, forgiven, done)) == Next::ReadAgain)
            type = ReadFrameHeader(record, 1);
        if (next == Next::Stop) return;
        if (XferStopped(record)) return; // a ZACK at the end with the wrong position
        if (AtEnd(record) && done) break;
    }
    SendPosition(record, zm::ZEOF, record->FilePos);
    // The answer is normally the receiver's next ZRINIT, which the next
    // file's ZFILE exchange tolerates; its type is not examined.
    if (!XferStopped(record)) ReadFrameHeader(record, 0);
}

} // namespace zvxfer::zm
