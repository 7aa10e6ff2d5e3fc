// Fuzz target: the B+ packet reader (_BPWaitForACK and everything under it:
// un-quoting, the four checks, sequence checks, acknowledgements received,
// resend requests and the resending of stored packets) reading arbitrary
// line bytes through a real port whose host window hands them over, call
// after call as the transfer would, until the error limit ends it.
//
// Input: two set-up bytes, then the line.
//   byte 0: bits 0-1 check method, bit 2 quote every control character,
//           bits 3-5 numbered packets sent before the reads (0..4, more
//           taken as 4), bits 6-7 bytes handed over per PORT_READ (0: all
//           there are; else 1, 7 or 64)
//   byte 1: bits 0-3 the shared sequence counter (mod 10), bit 4 the first
//           call starts after DLE 'B', bit 5 acknowledge, bit 6 allow
//           resend, bit 7 the alternate sequence counter
// Once the line is used up the idle hook ends every wait at once, so each
// read fails at once and the error count ends the run.
#include <algorithm>
#include <vector>

#include "bplus/bplus.h"
#include "fuzz_check.h"
#include "fuzz_line.h"
#include "port/port.h"
#include "zvxfer.h"

using namespace zvxfer;
using namespace zvxfer::bplus;

namespace {

constexpr std::size_t kChunks[] = {0, 1, 7, 64};
constexpr int32_t kBufferSize = 1025;

int32_t StopWhenDry(XferPort *) {
    return fuzz::LineDry() ? -1 : 0;
}

bool Expected(int32_t result) {
    // With resend not allowed, a repeated acknowledgement returns the
    // result the call had reached (a refused packet's code, or 0).
    return result == 0 || result == XferErrBPlusPacket || result == XferErrTooManyErrors ||
           result == XferErrPacketTimeout || result == XferErrPacketSize ||
           result == XferErrBPlusSequence;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 2) return 0;
    SetPortIdleFunctionPtr(StopWhenDry);
    fuzz::TheLine() = fuzz::Line{data + 2, size - 2, 0, kChunks[data[0] >> 6], false};

    ZvHwnd window = ZvCreateWindow(fuzz::LineHost, nullptr);
    XferPort *port = PortOpen(0, window, "", XFER_EXISTING_OVERWRITE);
    ZVXFER_FUZZ_CHECK(port != nullptr);
    std::vector<uint8_t> buffer(kBufferSize);
    XferRecord r{};
    r.Port = port;
    r.Buffer = buffer.data();
    r.BlockSize = 1031;
    r.RxSeq = (data[1] & 0x0F) % 10;
    SendWindow(&r) = 1;
    AltSeqParam(&r) = (data[1] & 0x80) != 0 ? 1 : 0;
    ZVXFER_FUZZ_CHECK(BPlusCreateLink(&r));
    BPlusLink *link = Link(&r);
    link->CheckMethod = static_cast<int8_t>(data[0] & 3);
    link->QuoteMode = (data[0] & 4) != 0 ? 3 : 4;

    const uint8_t payload[] = {'D', 0x10, 0x03, 0x91, 'x'};
    const int sends = std::min((data[0] >> 3) & 7, 4);
    for (int i = 0; i < sends; ++i)
        ZVXFER_FUZZ_CHECK(BPlusSendNumbered(&r, static_cast<int32_t>(sizeof payload), payload) ==
                          0);

    const bool acknowledge = (data[1] & 0x20) != 0, allowResend = (data[1] & 0x40) != 0;
    bool afterDleB = (data[1] & 0x10) != 0;
    for (int call = 0; call < 4096; ++call) {
        const int32_t before = r.RxSeq;
        const int32_t result = _BPWaitForACK(&r, afterDleB, acknowledge, allowResend);
        afterDleB = false;
        ZVXFER_FUZZ_CHECK(Expected(result));
        ZVXFER_FUZZ_CHECK(link->Outstanding >= 0 && link->Outstanding <= kStoreSize);
        ZVXFER_FUZZ_CHECK(link->Oldest >= 0 && link->Oldest < kStoreSize);
        ZVXFER_FUZZ_CHECK(r.ErrorTotal <= kMaxErrors);
        if (result == XferErrBPlusPacket) {
            ZVXFER_FUZZ_CHECK(r.Result == XferErrBPlusPacket);
            ZVXFER_FUZZ_CHECK(link->RxLength >= 1 && link->RxLength <= kBufferSize);
            // Delivered: the next number, or a failure packet under any.
            ZVXFER_FUZZ_CHECK(r.RxSeq == (before + 1) % 10 || buffer[0] == 'F');
        } else {
            ZVXFER_FUZZ_CHECK(link->RxLength == 0);
        }
        if (result == XferErrTooManyErrors) {
            ZVXFER_FUZZ_CHECK(r.ErrorTotal == kMaxErrors);
            break;
        }
    }
    // Every stored copy is still owned: the release frees them (the
    // sanitizer build reports a leak or a double free otherwise).
    BPlusReleaseLink(&r);
    ZVXFER_FUZZ_CHECK(r.ProtocolParam == 0);
    fuzz::TheLine().stop = true;
    port->Ops.PortClose(port);
    ZvDestroyWindow(window);
    while (ZvPeekMessage(nullptr, 1)) {
    }
    return 0;
}
