// Reads that find nothing on a thread whose waits watch no descriptor are
// traced once per transfer, while the behaviour stays as it was.  Watched
// descriptors are the line host's way of waking the library on POSIX.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "fake_clock.h"
#include "temp_tree.h"
#include "test_host.h"
#include "traced.h"

namespace zvxfer {
namespace {

struct UnwatchedReads : Traced {};

// A receiver that finds nothing to read on a thread that watches no
// descriptor is traced once per transfer (port reads and Kermit's own);
// once a descriptor is watched, never.  The sleepless clock passes the
// receivers' time-outs at once.
TEST_F(UnwatchedReads, TracedOncePerTransfer) {
    const char *const note = "no descriptor is watched";
    test::FakeClock clock(test::FakeClock::kSleepless);
    test::TempTree tree;
    test::TestHost host;
    XferPort *port = PortOpen(0, host.Window(), "", XFER_EXISTING_OVERWRITE);
    auto receive = [&](int32_t protocol) {
        char name[XFER_PATH_MAX];
        snprintf(name, sizeof name, "%s", tree.Path("in.bin").c_str());
        return CLFileReceive(port, protocol, name, 0, CLSetFileTransferOptions(nullptr), nullptr,
                             nullptr);
    };
    EXPECT_LT(receive(Xmodem), 0);
    EXPECT_EQ(Count(note), 1);
    EXPECT_LT(receive(Xmodem), 0);
    EXPECT_EQ(Count(note), 2);
    receive(Kermit); // returns 0 whatever the outcome
    EXPECT_EQ(Count(note), 3);

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(ZvWatchFd(p[0], ZV_FD_READ), 0);
    EXPECT_LT(receive(Xmodem), 0);
    receive(Kermit);
    EXPECT_EQ(Count(note), 3);
    ZvUnwatchFd(p[0]);
    close(p[0]);
    close(p[1]);
    port->Ops.PortClose(port);
}

} // namespace
} // namespace zvxfer
