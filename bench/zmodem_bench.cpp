// The ZMODEM data path without a line: CRC-32 of a 1 KiB subpacket, the
// sender's formatting (escaping plus check) and the receiver's reading of
// one subpacket from a port whose host hands over a long run of them.
// Every figure is per 1024 data bytes of random contents.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "platform/heap.h"
#include "port/port.h"
#include "zmodem/zmodem.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kData = 1024;

Bytes RandomBytes(std::size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes out(n);
    for (auto &b : out) b = static_cast<uint8_t>(rng());
    return out;
}

void BM_Crc32Block(benchmark::State &state) {
    const Bytes data = RandomBytes(kData, 1);
    uint32_t crc = 0;
    for (auto _ : state) crc ^= zvxfer::zm::Crc32Block(kData, 0xFFFFFFFFu, data.data());
    benchmark::DoNotOptimize(crc);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kData);
}
BENCHMARK(BM_Crc32Block);

void BM_FormatSubpacket(benchmark::State &state) {
    const Bytes data = RandomBytes(kData, 2);
    Bytes out(zvxfer::zm::kMaxSubpacketWire);
    std::size_t n = 0;
    for (auto _ : state) {
        n += zvxfer::zm::ZmFormatSubpacket(out.data(), data, zvxfer::zm::ZCRCG, true);
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(n);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kData);
}
BENCHMARK(BM_FormatSubpacket);

// A host on the benchmark's thread that hands over the same line bytes (64
// formatted subpackets of random data) on every PORT_READ.
struct LineHost {
    Bytes line;
    static intptr_t Proc(ZvHwnd w, uint32_t message, uintptr_t request, intptr_t lParam) {
        auto *self = static_cast<LineHost *>(ZvGetWindowUserData(w));
        if (message != XferPortMessage || request != PORT_READ) return 0;
        auto *block = reinterpret_cast<PortBlock *>(lParam);
        block->Data = self->line.data();
        block->Length = static_cast<uint32_t>(self->line.size());
        return 0;
    }
};

void BM_ReadDataSubpacket(benchmark::State &state) {
    LineHost host;
    for (uint32_t i = 0; i < 64; ++i) {
        Bytes wire(zvxfer::zm::kMaxSubpacketWire);
        wire.resize(zvxfer::zm::ZmFormatSubpacket(wire.data(), RandomBytes(kData, 10 + i),
                                                  zvxfer::zm::ZCRCG, true));
        host.line.insert(host.line.end(), wire.begin(), wire.end());
    }
    ZvHwnd window = ZvCreateWindow(LineHost::Proc, &host);
    XferPort *port = PortOpen(0, window, "", 0);
    XferRecord record{};
    record.Port = port;
    record.Buffer = static_cast<uint8_t *>(zvxfer::plat::HeapAllocZero(kData));
    zvxfer::zm::ZmHeaderFormat(&record) = zvxfer::zm::ZBIN32;
    int32_t end = 0;
    for (auto _ : state) end = zvxfer::zm::ReadDataSubpacket(&record);
    if (end != zvxfer::zm::ZCRCG || record.BlockSize != static_cast<int32_t>(kData))
        state.SkipWithError("a subpacket did not read back whole and good");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kData);
    zvxfer::plat::HeapFreeBlock(record.Buffer);
    port->Ops.PortClose(port);
    ZvDestroyWindow(window);
}
BENCHMARK(BM_ReadDataSubpacket);

} // namespace
