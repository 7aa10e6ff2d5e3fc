// A transfer record on a port made by PortOpen over the shared scripted host,
// with a clock that steps on every tick read: 30- and 60-second limits pass
// in a few thousand loop rounds, and since it starts just before the 32-bit
// wrap, deadlines cross it.  The port's close puts the process-wide hooks
// back to their defaults, so a test may replace them freely.
#pragma once
#include <string>

#include "core/core.h"
#include "fake_clock.h"
#include "status_log.h"
#include "test_host.h"

namespace zvxfer::test {

class HostRecord {
  public:
    explicit HostRecord(uint32_t stepMs) : clock(0xFFFF0000u) {
        clock.SetStepPerRead(stepMs);
        port = PortOpen(0, host.Window(), "/tmp/", XFER_EXISTING_OVERWRITE);
        StatusLines().clear();
        Fresh(Xmodem, false, false);
    }
    ~HostRecord() {
        XferCleanup(&record);
        port->Ops.PortClose(port);
    }
    HostRecord(const HostRecord &) = delete;
    HostRecord &operator=(const HostRecord &) = delete;

    // Clean up the last record and start a new one, run through XferInit
    // when `init` is set.  A zeroed File would be descriptor 0.
    bool Fresh(int8_t protocol, bool sending = false, bool init = true) {
        XferCleanup(&record);
        record = XferRecord{};
        record.Port = port;
        record.File = XFER_INVALID_FILE;
        record.FileTime = -1;
        record.Protocol = protocol;
        record.Sending = sending ? 1 : 0;
        record.StatusCallback = &CollectStatus;
        return !init || XferInit(&record) == 1;
    }

    FakeClock clock;
    TestHost host;
    XferPort *port = nullptr;
    XferRecord record{};
};

inline const std::string kCancelString(kCancelBytes.begin(), kCancelBytes.end());

} // namespace zvxfer::test
