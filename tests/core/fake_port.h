// A scripted port and a stepping clock for the core tests: the port's link
// operations are plain functions over queues the test fills, and every read
// of the tick count advances the clock by a fixed step, so 30- and 60-second
// limits pass in a few thousand loop rounds.
#pragma once
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "fake_clock.h"
#include "zvxfer.h"

namespace zvxfer::test {

// The shared fake clock, stepping on every tick read and starting just
// before the 32-bit wrap so that deadlines cross it.
class SteppingClock {
  public:
    explicit SteppingClock(uint32_t stepMs = 1) : clock_(0xFFFF0000u) {
        clock_.SetStepPerRead(stepMs);
        current_ = this;
    }
    ~SteppingClock() { current_ = nullptr; }
    static uint32_t Now() { return current_->clock_.Now(); }

  private:
    FakeClock clock_;
    static inline SteppingClock *current_ = nullptr;
};

struct FakePort {
    XferPort port{};
    ThreadHooks hooks{};
    // Bytes that become readable once the clock has reached their time.
    std::deque<std::pair<uint32_t, uint8_t>> arrivals;
    std::deque<uint8_t> rx;
    std::vector<uint8_t> written;
    std::vector<std::string> events; // "write:<n>", "purge", "writechar"
    // Answer for WriteBuffer: how many of `length` bytes to take and what
    // to return.  Default: take everything.
    std::function<int32_t(uint32_t length, uint32_t &taken)> writeRule;
    std::function<int32_t()> writeCharRule; // null: WriteBuffer of one byte
    int writeCalls = 0;

    FakePort() {
        port.Ops.ReadChar = &ReadChar;
        port.Ops.PeekChar = &PeekChar;
        port.Ops.WriteChar = &WriteChar;
        port.Ops.RxCount = &RxCount;
        port.Ops.PurgeTx = [](XferPort *p) -> int32_t {
            Of(p).events.push_back("purge");
            return 0;
        };
        port.Ops.WriteBuffer = &WriteBuffer;
        port.Hooks = &hooks;
        port.PortUserData = reinterpret_cast<uintptr_t>(this);
        hooks.IdleFunction = [](XferPort *) -> int32_t { return 0; };
        hooks.AbortFunction = [](XferRecord *) -> int32_t { return 0; };
        hooks.AbortKey = 27;
    }
    FakePort(const FakePort &) = delete;

    static FakePort &Of(XferPort *p) { return *reinterpret_cast<FakePort *>(p->PortUserData); }

    void Deliver() {
        while (!arrivals.empty() &&
               static_cast<int32_t>(SteppingClock::Now() - arrivals.front().first) >= 0) {
            rx.push_back(arrivals.front().second);
            arrivals.pop_front();
        }
    }
    static int32_t PeekChar(XferPort *p) {
        FakePort &f = Of(p);
        f.Deliver();
        return f.rx.empty() ? -8 : f.rx.front();
    }
    static int32_t ReadChar(XferPort *p) {
        FakePort &f = Of(p);
        const int32_t c = PeekChar(p);
        if (c >= 0) f.rx.pop_front();
        return c;
    }
    static int32_t RxCount(XferPort *p) {
        PeekChar(p);
        return static_cast<int32_t>(Of(p).rx.size());
    }
    static int32_t WriteBuffer(XferPort *p, const uint8_t *data, uint32_t length) {
        FakePort &f = Of(p);
        ++f.writeCalls;
        uint32_t taken = length;
        const int32_t answer = f.writeRule ? f.writeRule(length, taken) : 0;
        f.written.insert(f.written.end(), data, data + taken);
        f.events.push_back("write:" + std::to_string(taken));
        if (answer == 0 || answer == -9) p->Count = taken;
        if (answer != 0) p->Status = answer;
        return answer;
    }
    static int32_t WriteChar(XferPort *p, uint8_t byte) {
        FakePort &f = Of(p);
        if (f.writeCharRule) {
            f.events.push_back("writechar");
            const int32_t answer = f.writeCharRule();
            if (answer == 0)
                f.written.push_back(byte);
            else
                p->Status = answer;
            return answer;
        }
        return WriteBuffer(p, &byte, 1);
    }
};

// A zeroed record that owns no file (a zeroed File would be descriptor 0).
inline XferRecord BlankRecord(XferPort *port = nullptr) {
    XferRecord record{};
    record.File = XFER_INVALID_FILE;
    record.FileTime = -1;
    record.Port = port;
    return record;
}

// Status lines a record produced, with their levels.
struct StatusLog {
    static inline std::vector<std::pair<int32_t, std::string>> lines;
    static int32_t Callback(XferRecord *, int32_t level, const char *text) {
        lines.emplace_back(level, text);
        return 0;
    }
    static int Count(int32_t level) {
        int n = 0;
        for (const auto &l : lines) n += l.first == level;
        return n;
    }
    static bool Has(const std::string &part) {
        for (const auto &l : lines)
            if (l.second.find(part) != std::string::npos) return true;
        return false;
    }
};

} // namespace zvxfer::test
