// Fuzz target: the ZMODEM frame readers (ReadFrameHeader, ReadDataSubpacket
// and everything under them) reading arbitrary line bytes through a real
// port whose host window hands them over, as a receiver's data phase reads
// them: a header, then the subpackets of ZDATA, ZFILE and ZSINIT frames.
//
// Input: one set-up byte, then the line.
//   byte 0: bits 0-3 the error limit (0: the default 10), bits 4-7 bytes
//           handed over per PORT_READ (0: all there are)
// Once the line is used up the idle hook ends every wait at once, so no run
// waits out a real time-out.
#include <algorithm>

#include "core/core.h"
#include "fuzz_check.h"
#include "fuzz_line.h"
#include "port/port.h"
#include "zmodem/zmodem.h"
#include "zvxfer.h"

using namespace zvxfer;
using namespace zvxfer::zm;

namespace {

const XferRecord *g_record = nullptr; // a failed transfer ends its waits too

int32_t StopWhenDry(XferPort *) {
    const bool failed = g_record != nullptr && g_record->Result < 0;
    return fuzz::LineDry() || failed ? -1 : 0;
}

bool IsEnd(int32_t c) {
    return c == zm::ZCRCE || c == zm::ZCRCG || c == zm::ZCRCQ || c == zm::ZCRCW;
}

// The subpackets of one frame, as the receiver takes them.
void ReadSubpackets(XferRecord &r) {
    for (int n = 0; n < 64; ++n) {
        const int32_t end = ReadDataSubpacket(&r);
        ZVXFER_FUZZ_CHECK(r.BlockSize >= 0 &&
                          r.BlockSize <= static_cast<int32_t>(zm::kMaxSubpacket));
        if (end < 0) return;
        ZVXFER_FUZZ_CHECK(IsEnd(end));
        if (end == zm::ZCRCE || end == zm::ZCRCW) return;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 1) return 0;
    SetPortIdleFunctionPtr(StopWhenDry);
    fuzz::TheLine() =
        fuzz::Line{data + 1, size - 1, 0, static_cast<std::size_t>(data[0] >> 4), false};

    ZvHwnd window = ZvCreateWindow(fuzz::LineHost, nullptr);
    XferPort *port = PortOpen(0, window, "", XFER_EXISTING_OVERWRITE);
    ZVXFER_FUZZ_CHECK(port != nullptr);
    XferRecord r{};
    r.Port = port;
    r.Protocol = Zmodem;
    r.FileTime = -1;
    const int32_t limit = (data[0] & 0x0F) != 0 ? data[0] & 0x0F : zm::kDefaultMaxErrors;
    ZmMaxErrors(&r) = limit;
    g_record = &r;
    if (XferInit(&r)) {
        for (int frames = 0; frames < 256 && r.Result == 0; ++frames) {
            const int32_t type = ReadFrameHeader(&r, 1);
            if (type >= 0) {
                const int32_t format = ZmHeaderFormat(&r);
                ZVXFER_FUZZ_CHECK(format == zm::ZBIN || format == zm::ZHEX || format == zm::ZBIN32);
                ZVXFER_FUZZ_CHECK(type <= 0xFF);
                ZVXFER_FUZZ_CHECK(r.ErrorRun < limit);
                if (type == zm::ZDATA || type == zm::ZFILE || type == zm::ZSINIT) ReadSubpackets(r);
            } else {
                // A failure is either the transfer's end or a counted error.
                ZVXFER_FUZZ_CHECK(r.Result < 0 || (r.ErrorRun > 0 && r.ErrorRun < limit));
                if (fuzz::LineDry() && r.Result == 0) break;
            }
        }
        if (r.Result == XferErrTooManyErrors) ZVXFER_FUZZ_CHECK(r.ErrorRun >= limit);
        fuzz::TheLine().stop = true;
        XferCleanup(&r);
    }
    g_record = nullptr;
    port->Ops.PortClose(port);
    ZvDestroyWindow(window);
    while (ZvPeekMessage(nullptr, 1)) {
    }
    return 0;
}
