// The line a fuzz target's input plays: a host window procedure that hands
// the bytes over through XferPortMessage (at most `chunk` per PORT_READ)
// and takes every byte written, and the test for a line that has nothing
// more to give, on which the targets' idle hooks end every wait at once.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "zvxfer.h"

namespace zvxfer::fuzz {

struct Line {
    const uint8_t *data = nullptr;
    std::size_t size = 0;
    std::size_t pos = 0;
    std::size_t chunk = 0; // 0: all there are
    bool stop = false;     // the run is over: end every wait
};

inline Line &TheLine() {
    static Line line;
    return line;
}

inline bool LineDry() {
    const Line &line = TheLine();
    return line.stop || line.pos >= line.size;
}

inline intptr_t LineHost(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    constexpr uint32_t kNudge = ZV_WM_USER + 1; // no meaning; ends a message wait at once
    if (message != XferPortMessage || lParam == 0) return 0;
    auto &block = *reinterpret_cast<PortBlock *>(lParam);
    block.Error = 0;
    if (wParam == PORT_READ) {
        Line &line = TheLine();
        std::size_t n = line.size - line.pos;
        if (line.chunk != 0) n = std::min(n, line.chunk);
        block.Data = const_cast<uint8_t *>(line.data + line.pos);
        block.Length = static_cast<uint32_t>(n);
        line.pos += n;
        // An empty read makes the port wait up to 5 ms for a message.
        if (n == 0) ZvPostMessage(window, kNudge, 0, 0);
    }
    return 0; // PORT_WRITE: everything taken
}

} // namespace zvxfer::fuzz
