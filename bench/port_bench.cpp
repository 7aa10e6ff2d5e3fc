// The port's hot and idle paths: the timed single-byte read served from a
// host that hands over 64 KiB blocks, and a timed read that waits two
// seconds for bytes that never come (how much of a core the wait burns).
#include <benchmark/benchmark.h>

#include <array>
#include <sys/resource.h>
#include <sys/time.h>

#include "port/port.h"

namespace {

constexpr uint32_t kBlock = 64 * 1024;

// A host on the benchmark's own thread: every PORT_READ hands over the
// same 64 KiB block (or nothing when `silent`), without copying.
struct BlockHost {
    std::array<uint8_t, kBlock> data{};
    bool silent = false;
    static intptr_t Proc(ZvHwnd w, uint32_t message, uintptr_t request, intptr_t lParam) {
        auto *self = static_cast<BlockHost *>(ZvGetWindowUserData(w));
        if (message != XferPortMessage || request != PORT_READ) return 0;
        auto *block = reinterpret_cast<PortBlock *>(lParam);
        block->Data = self->data.data();
        block->Length = self->silent ? 0 : kBlock;
        return 0;
    }
};

struct OpenPort {
    BlockHost host;
    ZvHwnd window = ZvCreateWindow(BlockHost::Proc, &host);
    XferPort *port = PortOpen(0, window, "", 0);
    ~OpenPort() {
        port->Ops.PortClose(port);
        ZvDestroyWindow(window);
    }
};

// One iteration = one byte through ReadCharTimed, RxCount, PeekChar,
// ReadChar, ReadBuffer and the default idle hook.
void BM_ReadCharTimedPerByte(benchmark::State &state) {
    OpenPort p;
    for (std::size_t i = 0; i < kBlock; ++i) p.host.data[i] = static_cast<uint8_t>(i);
    int64_t sum = 0;
    for (auto _ : state) sum += zvxfer::ReadCharTimed(p.port, 1000);
    benchmark::DoNotOptimize(sum);
    state.SetBytesProcessed(state.iterations()); // "Time" is ns per byte
}
BENCHMARK(BM_ReadCharTimedPerByte);

double Seconds(const timeval &t) {
    return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6;
}

double ThreadCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// A 2-second timed read with nothing arriving: CPU time as % of one core.
void BM_IdleReadCharTimed2s(benchmark::State &state) {
    OpenPort p;
    p.host.silent = true;
    double cpu = 0;
    int32_t result = 0;
    for (auto _ : state) {
        const double before = ThreadCpuSeconds();
        result = zvxfer::ReadCharTimed(p.port, 2000);
        cpu += ThreadCpuSeconds() - before;
    }
    if (result != PortBufferEmpty) state.SkipWithError("the idle read did not time out");
    state.counters["cpu_%_of_core"] = 100.0 * cpu / (2.0 * static_cast<double>(state.iterations()));
}
BENCHMARK(BM_IdleReadCharTimed2s)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
