// Fuzz target: the Kermit packet reader (rpacket and ttinl under it) taking
// arbitrary line bytes from a host window through the engine's own link,
// and the data-field decoder on every packet it accepts.
//
// Input: two set-up bytes, then the line.
//   byte 0: bits 0-1 block check (0 and 1: type 1, 2, 3), bit 2 eighth-bit
//           prefixing, bit 3 repeat counts, bit 4 text mode, bit 5 a peer
//           that ends lines with LF alone (CRs are dropped in text mode)
//   byte 1: bits 0-3 bytes handed over per PORT_READ (0: all there are),
//           bits 4-5 most characters per packet (9000, 100, 20, 5),
//           bits 6-7 room of the decoder's sink (20000, 261, 16, 1)
// The clock moves 10 ms on every reading, so a read on a line that has
// nothing more to give times out after a hundred looks at the host.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_line.h"
#include "kermit/engine.h"
#include "platform/tick.h"
#include "zvxfer.h"

using namespace zvxfer;
using namespace zvxfer::kermit;

namespace {

uint32_t g_now = 1000;
uint32_t SteppingTick() {
    return g_now += 10;
}
void PassTime(uint32_t ms) {
    g_now += ms;
}

constexpr int32_t kLimits[] = {9000, 100, 20, 5};
constexpr int32_t kRooms[] = {20000, 261, 16, 1};
constexpr uint8_t kGuard = 0xA5;
constexpr std::size_t kGuardBytes = 16;

// Bytes encode may be given at once without passing the data field: at
// most three characters per byte.
constexpr std::size_t kEncodable = 2900;

// An accepted packet is what spacket builds for its type, number and data,
// as far as the header and data go (the first check character is where the
// data's terminator now sits), whenever the sender would have chosen the
// same form and no length character carried a parity bit.
void CheckRebuilt(KermitEngine &e, int type, int checkLength) {
    const bool longForm = e.rcvbuf[1] == ' ';
    if (longForm != (e.rdlen + checkLength + 2 >= 95)) return;
    if ((e.rcvbuf[1] & 0x80) != 0) return;
    if (longForm && ((e.rcvbuf[4] | e.rcvbuf[5]) & 0x80) != 0) return;
    const int dataEnd = static_cast<int>(e.rdata - e.rcvbuf) + e.rdlen;
    std::vector<uint8_t> received(e.rcvbuf, e.rcvbuf + dataEnd);
    e.padcount = 0;
    ZVXFER_FUZZ_CHECK(e.spacket(type, e.rseq, e.rdlen, e.rdata) > 0);
    ZVXFER_FUZZ_CHECK(e.sndlen == dataEnd + checkLength + 1);
    ZVXFER_FUZZ_CHECK(std::memcmp(e.sndbuf, received.data(), received.size()) == 0);
}

// Decode into a bounded sink with guard bytes behind it; a decoded field
// encodes and decodes back to the same bytes.
void CheckDecoded(KermitEngine &e, int32_t room) {
    std::vector<uint8_t> sink(static_cast<std::size_t>(room) + kGuardBytes, kGuard);
    uint8_t *const data = e.rdata;
    const int32_t length = e.rdlen;
    e.memorySink = sink.data();
    e.memorySinkRoom = room;
    const int r = e.decode(length);
    ZVXFER_FUZZ_CHECK(r == 0 || r == -1);
    const auto stored = static_cast<std::size_t>(e.memorySink - sink.data());
    e.memorySink = nullptr;
    ZVXFER_FUZZ_CHECK(stored + 1 <= static_cast<std::size_t>(room));
    ZVXFER_FUZZ_CHECK(e.memorySinkRoom == room - static_cast<int32_t>(stored));
    ZVXFER_FUZZ_CHECK(sink[stored] == 0);
    for (std::size_t i = static_cast<std::size_t>(room); i < sink.size(); ++i)
        ZVXFER_FUZZ_CHECK(sink[i] == kGuard);
    if (r != 0 || stored == 0 || stored + 1 >= static_cast<std::size_t>(room) ||
        stored > kEncodable)
        return;

    const std::vector<uint8_t> bytes(sink.begin(), sink.begin() + static_cast<long>(stored));
    e.dsize = 0;
    e.rptcount = 0;
    e.maxdata = kLongestPacket;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        e.encode(bytes[i], i + 1 < bytes.size() ? bytes[i + 1] : -1);
    ZVXFER_FUZZ_CHECK(e.dsize <= static_cast<int32_t>(3 * bytes.size()));
    std::vector<uint8_t> field(e.data, e.data + e.dsize);
    std::vector<uint8_t> back(bytes.size() + 1 + kGuardBytes, kGuard);
    e.rdata = field.data();
    e.memorySink = back.data();
    e.memorySinkRoom = static_cast<int32_t>(bytes.size() + 1);
    ZVXFER_FUZZ_CHECK(e.decode(static_cast<int>(field.size())) == 0);
    e.memorySink = nullptr;
    ZVXFER_FUZZ_CHECK(std::equal(bytes.begin(), bytes.end(), back.begin()));
    e.rdata = data;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    static const ZvHwnd window = ZvCreateWindow(fuzz::LineHost, nullptr);
    static const bool clockSet = [] {
        plat::SetTickSource(SteppingTick);
        plat::SetTimePasser(PassTime);
        return true;
    }();
    (void)clockSet;
    if (size < 2) return 0;

    const int checkLength = std::max(data[0] & 3, 1);
    XferRecord record{};
    auto engine = std::make_unique<KermitEngine>();
    KermitEngine &e = *engine;
    e.hostWindow = window;
    e.record = &record;
    e.tracing = true; // formatted only when a debug output is set
    e.timo = 1;
    e.chkuse = checkLength;
    e.ebqon = (data[0] >> 2) & 1;
    e.rpton = (data[0] >> 3) & 1;
    e.textmode = (data[0] >> 4) & 1;
    e.crlocal = ((data[0] >> 5) & 1) ^ 1;
    e.rcvlimit = kLimits[(data[1] >> 4) & 3];
    const int32_t room = kRooms[(data[1] >> 6) & 3];

    fuzz::Line &line = fuzz::TheLine();
    line = fuzz::Line{data + 2, size - 2, 0, static_cast<std::size_t>(data[1] & 15), false};

    for (int packets = 0; packets < 256 && !fuzz::LineDry(); ++packets) {
        const int type = e.rpacket();
        // 'T' and 'Q' are also the reader's own verdicts (interrupted, or
        // no good packet); a peer may still send packets of those types.
        if (type == 'T' && e.rcvbuf[0] == 0) {
            ZVXFER_FUZZ_CHECK(e.rdlen == -1 && e.rseq == -1);
            continue;
        }
        if (type == 'Q') continue;
        ZVXFER_FUZZ_CHECK(type == e.rcvbuf[3]);
        ZVXFER_FUZZ_CHECK(e.rdlen >= 0);
        ZVXFER_FUZZ_CHECK(e.rdata == e.rcvbuf + 4 || e.rdata == e.rcvbuf + 7);
        ZVXFER_FUZZ_CHECK(e.rdata + e.rdlen + checkLength <= e.rcvbuf + e.rcvlimit);
        ZVXFER_FUZZ_CHECK(e.rdata[e.rdlen] == 0);
        CheckDecoded(e, room);
        CheckRebuilt(e, type, checkLength);
    }
    line.stop = true;
    return 0;
}
