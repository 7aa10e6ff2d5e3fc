// Fuzz target: the XMODEM block receiver (XmReceiveBlock) reading arbitrary
// line bytes through a real port whose host window hands them over.
//
// Input: four set-up bytes, then the line.
//   byte 0: bits 0-2 protocol (0 XMODEM, 1 YMODEM, 2 XMODEM-1K, 3 streaming
//           XMODEM-1K, 4 streaming YMODEM; 5-7 wrap), bit 3 checksum mode,
//           bits 4-7 bytes handed over per PORT_READ (0: all there are)
//   byte 1: the block counter to start from
//   bytes 2-3: the announced file size (little end first; YMODEM cuts to it)
// Once the line is used up the idle hook ends every wait at once, so no run
// waits out a real time-out.
#include <algorithm>
#include <cstring>

#include "core/core.h"
#include "core/crc16.h"
#include "fuzz_check.h"
#include "fuzz_line.h"
#include "port/port.h"
#include "xmodem/xmodem.h"
#include "zvxfer.h"

using namespace zvxfer;
using namespace zvxfer::xm;

namespace {

int32_t StopWhenDry(XferPort *) {
    return fuzz::LineDry() ? -1 : 0;
}

bool Streaming(int8_t protocol) {
    return protocol == Xmodem1KG || protocol == YmodemG;
}

// What an accepted block must look like, whatever the line said.
void CheckAccepted(const XferRecord &r, int32_t counterBefore, int32_t posBefore) {
    const intptr_t header = r.ProtocolHook;
    ZVXFER_FUZZ_CHECK(header == xm::SOH || header == xm::STX);
    ZVXFER_FUZZ_CHECK(r.BlockNumber == counterBefore + 1);
    ZVXFER_FUZZ_CHECK(r.RxSeq == (counterBefore & 0xFF));
    const int32_t full = header == xm::SOH ? 128 : 1024;
    const bool ymodem = r.Protocol == Ymodem || r.Protocol == YmodemG;
    if (ymodem && r.FileSize >= 1 && posBefore + full > r.FileSize)
        ZVXFER_FUZZ_CHECK(r.BlockSize == std::max(r.FileSize - posBefore, 0));
    else
        ZVXFER_FUZZ_CHECK(r.BlockSize == full);
    const auto length = static_cast<uint32_t>(full);
    const int32_t check =
        XmCrcMode(&r) ? Crc16Block(length, 0, r.Buffer) : XmChecksum({r.Buffer, length});
    ZVXFER_FUZZ_CHECK(check == r.RxCheck);
    ZVXFER_FUZZ_CHECK(r.ErrorRun < xm::kMaxErrors);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 4) return 0;
    // Before the port opens: the last port's close puts the defaults back.
    SetPortIdleFunctionPtr(StopWhenDry);
    constexpr int8_t kProtocols[] = {Xmodem, Ymodem, Xmodem1K, Xmodem1KG, YmodemG};
    fuzz::TheLine() =
        fuzz::Line{data + 4, size - 4, 0, static_cast<std::size_t>(data[0] >> 4), false};

    ZvHwnd window = ZvCreateWindow(fuzz::LineHost, nullptr);
    XferPort *port = PortOpen(0, window, "", XFER_EXISTING_OVERWRITE);
    ZVXFER_FUZZ_CHECK(port != nullptr);
    XferRecord r{};
    r.Port = port;
    r.Protocol = kProtocols[(data[0] & 7) % 5];
    r.FileTime = -1;
    XmSetCrcMode(&r, (data[0] & 8) == 0);
    if (XferInit(&r)) {
        r.BlockNumber = data[1];
        r.FileSize = data[2] | data[3] << 8;
        r.FilePos = 0;
        // A receiver's loop: accept blocks until EOT or a failure.
        for (int blocks = 0; blocks < 64; ++blocks) {
            const int32_t counter = r.BlockNumber;
            const int32_t pos = r.FilePos;
            if (!XmReceiveBlock(&r)) {
                ZVXFER_FUZZ_CHECK(r.Result != 0 || r.ErrorRun >= xm::kMaxErrors);
                break;
            }
            if (r.ProtocolHook == xm::EOT) break;
            CheckAccepted(r, counter, pos);
            r.FilePos += r.BlockSize;
            if (!Streaming(r.Protocol) && !XmSendAck(&r)) break;
            r.ErrorRun = 0;
        }
        fuzz::TheLine().stop = true;
        XferCleanup(&r);
    }
    port->Ops.PortClose(port);
    ZvDestroyWindow(window);
    while (ZvPeekMessage(nullptr, 1)) {
    }
    return 0;
}
