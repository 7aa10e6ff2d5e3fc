// What each B+ block check lets through: damaged packets fed to the
// library's packet reader (_BPWaitForACK), one at a time, each followed by
// the same packet undamaged.  The reader either refuses the damaged copy
// (NAK, then it takes the good one) or accepts it: a miss.
//
//   zvxfer-bplus-check-misses [--packets N] [--size BYTES] [--seed S]
//
// The packets come from the B+ service's own framing code (host/), so the
// library checks bytes it did not frame.  A damaged packet keeps the check
// bytes of the original and the quoting of its damaged bytes, as when the
// line changes bits inside the data but leaves the framing alone.  Damage
// kinds: k bytes of the data (k = 1, 2, 4) each XORed with a random
// non-zero value, and a burst of 2..16 bits in a row flipped.  Prints a
// Markdown table: damaged packets judged, those accepted, and one in how
// many was accepted.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bplus/bplus.h"
#include "bplus_service.h"
#include "platform/heap.h"
#include "port/port.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace wire = zvxfer::host::bplus_wire;

// Hands over the queued line bytes on the first PORT_READ and nothing
// after; takes every written byte (the reader's ACK and NAK).
struct QueueHost {
    Bytes line;
    bool given = false;
    static intptr_t Proc(ZvHwnd w, uint32_t message, uintptr_t request, intptr_t lParam) {
        auto *self = static_cast<QueueHost *>(ZvGetWindowUserData(w));
        if (message != XferPortMessage) return 0;
        auto *block = reinterpret_cast<PortBlock *>(lParam);
        if (request == PORT_READ) {
            block->Data = self->line.data();
            block->Length = self->given ? 0 : static_cast<uint32_t>(self->line.size());
            self->given = true;
        }
        block->Error = 0;
        return 0;
    }
};

// The frame with its data replaced by `damaged` and the check bytes of
// `original` (both framed with the same sequence number and quoting).
Bytes Splice(const Bytes &damagedFrame, const Bytes &originalFrame) {
    auto etx = [](const Bytes &f) {
        std::size_t i = 3; // DLE 'B' seq
        while (f[i] != wire::kEtx) i += f[i] == wire::kDle ? 2 : 1;
        return i;
    };
    Bytes out(damagedFrame.begin(), damagedFrame.begin() + static_cast<long>(etx(damagedFrame)));
    out.insert(out.end(), originalFrame.begin() + static_cast<long>(etx(originalFrame)),
               originalFrame.end());
    return out;
}

enum class Damage { Bytes1, Bytes2, Bytes4, Burst };

Bytes Damaged(const Bytes &data, Damage kind, std::mt19937 &rng) {
    Bytes out = data;
    if (kind == Damage::Burst) {
        const uint32_t bits = 2 + rng() % 15;
        const uint32_t start = rng() % (data.size() * 8 - bits);
        // The first and last bits of a burst are flipped, those between at
        // random.
        for (uint32_t b = 0; b < bits; ++b)
            if (b == 0 || b == bits - 1 || (rng() & 1))
                out[(start + b) / 8] ^= static_cast<uint8_t>(1u << ((start + b) % 8));
        return out;
    }
    const int count = kind == Damage::Bytes1 ? 1 : kind == Damage::Bytes2 ? 2 : 4;
    std::vector<std::size_t> at;
    while (static_cast<int>(at.size()) < count) {
        const std::size_t i = rng() % data.size();
        bool fresh = true;
        for (std::size_t j : at) fresh = fresh && j != i;
        if (fresh) at.push_back(i);
    }
    for (std::size_t i : at) out[i] ^= static_cast<uint8_t>(1 + rng() % 255);
    return out;
}

// Feeds one damaged packet and then the original to a fresh reader; true
// when the reader took the damaged copy.
bool Accepted(int method, const Bytes &original, const Bytes &damaged, int seq) {
    const wire::QuoteSet quote = wire::QuoteSet::Default();
    const Bytes good = wire::FramePacket(seq, original, method, quote);
    QueueHost host;
    host.line = Splice(wire::FramePacket(seq, damaged, method, quote), good);
    host.line.insert(host.line.end(), good.begin(), good.end());
    ZvHwnd window = ZvCreateWindow(QueueHost::Proc, &host);
    XferPort *port = PortOpen(0, window, "", 0);
    XferRecord r{};
    r.Port = port;
    Bytes buffer(1100);
    r.Buffer = buffer.data();
    r.BlockSize = static_cast<int32_t>(buffer.size());
    r.RxSeq = (seq + 9) % 10;
    zvxfer::bplus::SendWindow(&r) = 1;
    if (!zvxfer::bplus::BPlusCreateLink(&r)) std::abort();
    zvxfer::bplus::BPlusLink *link = zvxfer::bplus::Link(&r);
    link->CheckMethod = static_cast<int8_t>(method);
    link->ReadTimeout = 200; // only reached if a frame were lost: never here
    const int32_t result = zvxfer::bplus::_BPWaitForACK(&r, false, true, false);
    const Bytes got(buffer.begin(), buffer.begin() + link->RxLength);
    zvxfer::bplus::BPlusReleaseLink(&r);
    port->Ops.PortClose(port);
    ZvDestroyWindow(window);
    if (result != XferErrBPlusPacket) {
        std::fprintf(stderr, "the reader gave %d, not a packet\n", result);
        std::exit(1);
    }
    if (got != damaged && got != original) {
        std::fprintf(stderr, "the reader delivered neither copy\n");
        std::exit(1);
    }
    return got == damaged;
}

} // namespace

int main(int argc, char **argv) {
    long packets = 100000;
    std::size_t size = 1025; // 'N' and 1024 file bytes
    unsigned seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--packets"))
            packets = std::atol(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--size"))
            size = static_cast<std::size_t>(std::atol(argv[i + 1]));
        else if (!std::strcmp(argv[i], "--seed"))
            seed = static_cast<unsigned>(std::atol(argv[i + 1]));
    }
    if (packets < 1 || size < 8 || size > 1025) {
        std::fprintf(stderr, "usage: %s [--packets N] [--size 8..1025] [--seed S]\n", argv[0]);
        return 2;
    }
    const struct {
        Damage kind;
        const char *name;
    } kinds[] = {{Damage::Bytes1, "1 byte"},
                 {Damage::Bytes2, "2 bytes"},
                 {Damage::Bytes4, "4 bytes"},
                 {Damage::Burst, "burst of 2-16 bits"}};
    const char *methods[] = {"0 checksum", "1 CRC-16 CCITT", "2 CRC-16 X.25", "3 CRC-32"};
    std::printf("B+ packet reader, %ld damaged %zu-byte packets per cell, seed %u\n", packets, size,
                seed);
    std::printf("| check | damage | damaged packets judged | accepted | one in |\n");
    std::printf("|---|---|---|---|---|\n");
    for (int method = 0; method < 4; ++method) {
        for (const auto &k : kinds) {
            std::mt19937 rng(seed * 1000u + static_cast<unsigned>(method) * 10u +
                             static_cast<unsigned>(k.kind));
            long accepted = 0;
            for (long n = 0; n < packets; ++n) {
                Bytes data(size);
                for (auto &b : data) b = static_cast<uint8_t>(rng());
                data[0] = 'N';
                const Bytes damaged = Damaged(data, k.kind, rng);
                accepted += Accepted(method, data, damaged, static_cast<int>(n % 10)) ? 1 : 0;
            }
            if (accepted == 0)
                std::printf("| %s | %s | %ld | 0 | - |\n", methods[method], k.name, packets);
            else
                std::printf("| %s | %s | %ld | %ld | %.0f |\n", methods[method], k.name, packets,
                            accepted, static_cast<double>(packets) / accepted);
            std::fflush(stdout);
        }
    }
    return 0;
}
