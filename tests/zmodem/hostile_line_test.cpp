// ZMODEM against a far end that turns to garbage (a flood, or a byte a
// second) in every phase, and against positions that 32 bits cannot carry
// (a size that cannot be carried is checked end to end by the hostile far
// end).  The garbage runs use a clock that moves on every tick read,
// so minutes of such a line pass in a few seconds.
#include <climits>
#include <filesystem>
#include <fstream>

#include "garbage_feed.h"
#include "zm_wire.h"

namespace zvxfer::zm {
namespace {

using namespace test;

const Bytes kRinit = Hex(zm::ZRINIT, 0x27000000);

Bytes ZFile(const std::string &name, const std::string &facts) {
    return Cat(ZHeader(zm::ZFILE, 0, 'C'),
               ZSubpacket(Cat(Str(name), Bytes{0}, Str(facts)), zm::ZCRCW, true));
}

using GarbageRun = SteppedPort;

// The sender and the receiver give up within a minute of garbage, whatever
// its rate and wherever it begins: while the link opens, while the sender
// waits for confirmations (windowed or streaming), while the receiver waits
// for data.  CAN stays out of the garbage: five in a row are a valid cancel.
TEST_F(GarbageRun, BothSidesGiveUpWithinAMinuteOfGarbage) {
    const std::string file = tree.File("f.bin", std::string(10000, 'f'));
    const std::string names = "\"" + file + "\"";
    struct Case {
        const char *what;
        bool send;
        Bytes start; // what the far end says before it turns to garbage
        int32_t option;
        GarbageFeed::Rate rate;
    };
    const Bytes startTx = Cat(Hex(zm::ZRINIT, 0x23000000), Hex(zm::ZRPOS, 0));
    const Bytes startRx = ZFile("in.bin", "5000 0");
    const Case cases[] = {
        {"sender, link opening, flood", true, {}, 0, GarbageFeed::Flood},
        {"sender, link opening, a byte a second", true, {}, 0, GarbageFeed::OnePerSecond},
        {"sender, window, flood", true, startTx, 0, GarbageFeed::Flood},
        {"sender, window, a byte a second", true, startTx, 0, GarbageFeed::OnePerSecond},
        {"sender, streaming, flood", true, startTx, XferOptZmNoWindow, GarbageFeed::Flood},
        {"sender, streaming, a byte a second", true, startTx, XferOptZmNoWindow,
         GarbageFeed::OnePerSecond},
        {"receiver, start, flood", false, {}, 0, GarbageFeed::Flood},
        {"receiver, start, a byte a second", false, {}, 0, GarbageFeed::OnePerSecond},
        {"receiver, data, flood", false, startRx, 0, GarbageFeed::Flood},
        {"receiver, data, a byte a second", false, startRx, 0, GarbageFeed::OnePerSecond},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        host.ClearWritten();
        host.Receive(c.start);
        GarbageFeed feed(host, clock, c.rate, {zm::CAN});
        std::string list = names;
        const int32_t result =
            c.send ? ZmodemSendWithOptions(port, list.data(), nullptr, nullptr, c.option, 0)
                   : ZmodemReceiveWithOptions(port, nullptr, nullptr, 0);
        const uint32_t took = clock.Now() - feed.Started();
        EXPECT_EQ(result, XferErrTooManyErrors);
        EXPECT_TRUE(feed.Began());
        EXPECT_LE(took, 60000u);
        EXPECT_TRUE(EndsWithCancel(host.Written())) << "the cancel string ends it";
    }
}

// A receiver whose position would pass 2^31 - 1 ends with -607 before it
// writes the subpacket that would take it there.
TEST_F(ZmodemScripted, AReceiverStopsBeforeItsPositionPassesTheLimit) {
    constexpr int32_t kNear = INT32_MAX - 10;
    port_->Hooks->AbortFunction = [](XferRecord *r) -> int32_t {
        // Once the file is open, it has (as far as the receiver knows)
        // reached the edge: the receiver asks for the data from there.
        if (r->File != XFER_INVALID_FILE && r->FilePos == 0) r->FilePos = kNear;
        return 0;
    };
    peer_.On(kRinit, ZFile("edge.bin", "0 0"));
    peer_.On(Hex(zm::ZRPOS, kNear),
             Cat(ZHeader(zm::ZDATA, kNear, 'C'), ZSubpacket(Pattern(100), zm::ZCRCE, true)));
    EXPECT_EQ(ZmodemReceiveWithOptions(port_, CollectStatus, nullptr, 0), XferErrFileIo);
    EXPECT_EQ(std::filesystem::file_size(tree_.Path("edge.bin")), 0u);
    EXPECT_EQ(CountStatus("File position would pass"), 1);
}

} // namespace
} // namespace zvxfer::zm
