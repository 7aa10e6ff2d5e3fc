// The ZMODEM receiver's batch: announce ourselves with ZRINIT, take ZSINIT
// and ZFILE frames, name and open each file in the receive folder (or
// answer ZSKIP), run its data phase, and end on the sender's ZFIN.
#include <cstring>

#include "core/core.h"
#include "core/file_facts.h"
#include "platform/heap.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace zvxfer::zm {
namespace {

constexpr std::size_t kNameLimit = 255;  // received names and composed paths
constexpr int32_t kCrossedPauseMs = 200; // after a ZRQINIT that crossed our ZRINIT
constexpr int32_t kPauseStepMs = 5;

constexpr uint8_t kRinitData[4] = {0, 0, 0, zm::kOurRinitFlags};
constexpr uint8_t kZeroData[4] = {0, 0, 0, 0};

// The local file name for the name that opens the ZFILE text in Buffer.
void ComposeName(XferRecord *r, char *out) {
    char received[kNameLimit + 1];
    const auto length = static_cast<std::size_t>(r->BlockSize);
    const auto *nul = static_cast<const uint8_t *>(std::memchr(r->Buffer, 0, length));
    std::size_t kept = nul ? static_cast<std::size_t>(nul - r->Buffer) : length;
    if (kept > kNameLimit) kept = kNameLimit;
    std::memcpy(received, r->Buffer, kept);
    received[kept] = 0;

    XferReceivedName(r, received, out, "Stripped filename ");
}

// The sender's start-up request crossed our ZRINIT: pause up to 200 ms.
// True when its answer to that ZRINIT arrived meanwhile; it is then read
// without a second ZRINIT, which would reach the sender while it waits for
// our answer to its ZFILE (a sender may take it for a skip).
bool AnswerFollows(XferRecord *r) {
    for (int32_t waited = 0; waited < kCrossedPauseMs; waited += kPauseStepMs) {
        if (RxEmpty(r->Port) == 0 || IdleWait(r->Port, kPauseStepMs) < 0) break;
    }
    return RxEmpty(r->Port) == 0;
}

} // namespace

void SendPosHeader(XferRecord *r, int type) {
    if (XferCheckAbort(r)) return;
    uint8_t data[4];
    ZmPutPosition(data, r->FilePos);
    SendHexHeader(r, type, data);
}

int GetFileName(XferRecord *r) {
    bool announce = true;
    for (;;) {
        if (announce) {
            XferStatus(r, 0, "GetFileName: sending RINIT");
            SendHexHeader(r, zm::ZRINIT, kRinitData);
            if (XferStopped(r)) {
                XferStatus(r, 0, "GetFileName: Error sending RINIT");
                return 0;
            }
        }
        announce = true;
        const int32_t type = ReadFrameHeader(r, 1);
        switch (type) {
        case zm::ZSINIT:
            // Its flags and attention string are not needed: we never
            // interrupt the sender.
            if (ReadDataSubpacket(r) >= 0) {
                XferStatus(r, 0, "GetFileName: good ZSINIT");
                SendHexHeader(r, zm::ZACK, kZeroData);
            } else {
                XferStatus(r, 0, "GetFileName: ZSINIT + bad packet");
                ZmCountError(r);
            }
            break;
        case zm::ZFILE:
            if (ReadDataSubpacket(r) >= 0) return 1;
            break; // asked for again with the next ZRINIT
        case zm::ZFIN:
            SendHexHeader(r, zm::ZFIN, kZeroData);
            ReadCharTimed(r->Port, 2000); // the sender's "OO", whatever comes
            ReadCharTimed(r->Port, 500);
            return 0;
        default:
            if (r->Result == XferErrNoFilesSent) {
                XferStatus(r, 0, "ERROR: Can't open any requested files");
                return 0;
            }
            XferStatus(r, 0, "GetFileName: frame_type=%d", static_cast<int>(type));
            if (type == zm::ZRQINIT)
                announce = !AnswerFollows(r);
            else
                ZmCountError(r);
            break;
        }
        if (XferStopped(r)) return 0;
    }
}

void ZmodemReceive(XferRecord *r) {
    r->Sending = 0;
    if (!XferInit(r)) return;
    // Room beyond the 255 characters for a free name's "(n)".
    auto *name = static_cast<char *>(plat::HeapAllocZero(XFER_PATH_MAX));
    if (name == nullptr) {
        XferCleanup(r);
        r->Result = XferErrNoBuffer;
        return;
    }
    r->FileName = name;

    while (GetFileName(r)) {
        ComposeName(r, name);
        const FileFacts facts = ParseFileFacts({r->Buffer, static_cast<std::size_t>(r->BlockSize)});
        r->FileSize = facts.size;
        r->FileTime = facts.modTime == 0 ? -1 : facts.modTime;
        const uint8_t *header = ZmHeaderData(r);
        ZmConversion(r) = header[3]; // ZF0
        ZmManagement(r) = header[2]; // ZF1
        if (facts.sizeTooLarge) {
            // Positions are 32-bit: such a file cannot be received whole.
            // It is refused before anything is created; the batch goes on.
            XferStatusMessage(r, 1, MsgTooLargeToReceive, name);
            SendHexHeader(r, zm::ZSKIP, kZeroData);
            if (XferStopped(r)) break;
            name[0] = 0;
            continue;
        }

        if (!XferOpenFile(r)) break;
        if (r->Result == XferErrShouldSkip) {
            r->Result = 0;
            SendHexHeader(r, zm::ZSKIP, kZeroData);
            continue;
        }
        ReadFileData(r);
        if (XferStopped(r)) break;
        XferCloseFile(r);
        XferStatusMessage(r, 1, MsgFileReceived);
        name[0] = 0;
    }

    if (r->FileName != nullptr) {
        plat::HeapFreeBlock(r->FileName);
        r->FileName = nullptr;
    }
    XferCleanup(r);
}

} // namespace zvxfer::zm
