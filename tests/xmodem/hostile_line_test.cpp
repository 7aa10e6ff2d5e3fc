// XMODEM and YMODEM against a far end that sends nothing but garbage, or a
// block that trickles in a byte a second, and positions that 32 bits
// cannot carry.  A clock that moves on every tick read lets minutes of such a line
// pass in a few seconds.
#include <climits>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "garbage_feed.h"
#include "xmodem/xmodem.h"

namespace zvxfer::xm {
namespace {

using Bytes = std::vector<uint8_t>;
using test::GarbageFeed;

using HostileLine = test::SteppedPort;
using test::EndsWithCancel;

// Every receiver gives up within a minute of endless garbage, whatever its
// rate, with a defined code and the cancel string.  EOT and CAN stay out of
// the garbage: they are valid answers (end of file, cancel) on their own.
TEST_F(HostileLine, ReceiversGiveUpWithinAMinuteOfGarbage) {
    struct Case {
        const char *what;
        bool ymodem;
        int32_t option;
        GarbageFeed::Rate rate;
        Bytes prefix;
    };
    const Case cases[] = {
        {"xmodem flood", false, 0, GarbageFeed::Flood, {}},
        {"xmodem a byte a second", false, 0, GarbageFeed::OnePerSecond, {}},
        {"xmodem-1k a block that trickles in", false, 0, GarbageFeed::OnePerSecond, {2, 1, 0xFE}},
        {"ymodem flood", true, 0, GarbageFeed::Flood, {}},
        {"ymodem a byte a second", true, 0, GarbageFeed::OnePerSecond, {}},
        {"ymodem-g a block 0 that trickles in",
         true,
         XferOptStreaming,
         GarbageFeed::OnePerSecond,
         {1, 0, 0xFF}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host.ClearWritten();
        GarbageFeed feed(host, clock, c.rate, {0x04, 0x18}, c.prefix);
        std::string name = tree.Path("rx.bin");
        const int32_t result =
            c.ymodem ? YmodemReceiveWithOptions(port, nullptr, nullptr, c.option, 0)
                     : Xmodem1KReceiveWithOptions(port, name.data(), nullptr, nullptr, 0);
        const uint32_t took = clock.Now() - feed.Started();
        EXPECT_TRUE(result == XferErrPacketTimeout || result == XferErrTooManyErrors) << result;
        EXPECT_LE(took, 60000u);
        EXPECT_GT(feed.Sent(), c.rate == GarbageFeed::Flood ? 1000u : 10u) << "garbage all along";
        EXPECT_EQ(EndsWithCancel(host.Written()), c.option == 0);
    }
}

// A receiver whose position would pass 2^31 - 1 ends with -607 before it
// writes the block that would take it there; what arrived stays.
TEST_F(HostileLine, ReceiverStopsBeforeItsPositionPassesTheLimit) {
    XferRecord r{};
    r.Port = port;
    r.Protocol = Xmodem;
    r.File = XFER_INVALID_FILE;
    r.FileTime = -1;
    r.ProtocolFlag = 1; // CRC
    std::string name = tree.Path("near.bin");
    r.FileName = name.data();
    // The block the receiver will take next, and the position it has reached.
    const Bytes data(128, 'd');
    uint8_t block[kMaxBlockWire];
    host.Receive(std::span(block, XmBuildBlock(block, 1, data, true)));
    // The position starts where the file open leaves it (0): the abort hook,
    // called before the first block, moves it near the limit.
    static int32_t start;
    start = INT32_MAX - 100;
    port->Hooks->AbortFunction = [](XferRecord *rec) -> int32_t {
        if (rec->FilePos == 0 && rec->BlockNumber == 1) rec->FilePos = start;
        return 0;
    };
    XmReceiveFile(&r);
    port->Hooks->AbortFunction = nullptr;
    EXPECT_EQ(r.Result, XferErrFileIo);
    EXPECT_EQ(r.FilePos, start) << "nothing counted past the limit";
    std::ifstream in(name, std::ios::binary | std::ios::ate);
    EXPECT_EQ(static_cast<long>(in.tellg()), 0L) << "the block that would pass it is not written";
    EXPECT_TRUE(EndsWithCancel(host.Written()));
}

} // namespace
} // namespace zvxfer::xm
