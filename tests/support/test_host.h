// A scripted in-process host for tests of the port and of the engines: a
// window (owned by the thread that constructs the TestHost) that answers
// XferPortMessage like a terminal program would, from a script: bytes "from
// the line" (Receive), everything the port wrote (Written).
//
// Given a clock (UseClock), it also hands bytes over at a set time
// (ReceiveAt) and notes the time each written byte was accepted
// (WriteTimes), so that a test on a sleepless clock can say exactly when
// something happened on the line.
//
// Faults on request: accept only part of each write (or nothing, which the
// port reports as -9), set the Error flag on reads or writes (a lost
// connection), run a callback on every request (to feed bytes as a peer
// would, advance a fake clock, or post messages).
//
// The setters and getters may be called from any thread; the window's
// procedure runs on the owner thread (directly, or inside that thread's
// message waits when the port lives on another thread).
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::test {

// What a clean-up puts on the line to cancel: ten CAN, then ten backspaces.
inline const std::vector<uint8_t> kCancelBytes = {
    0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8};
inline bool EndsWithCancel(const std::vector<uint8_t> &written) {
    return written.size() >= kCancelBytes.size() &&
           std::equal(kCancelBytes.begin(), kCancelBytes.end(),
                      written.end() - static_cast<long>(kCancelBytes.size()));
}

class TestHost {
    template <class F>
    auto Locked(F f) const {
        std::lock_guard lock(mutex_);
        return f();
    }
    template <class T>
    T Get(const T &field) const {
        std::lock_guard lock(mutex_);
        return field;
    }
    template <class T>
    void Put(T &field, std::type_identity_t<T> value) {
        std::lock_guard lock(mutex_);
        field = std::move(value);
    }

  public:
    // Called on the owner thread for every PORT_READ / PORT_WRITE before the
    // host answers it; wParam tells which.  May call the host's setters.
    using RequestHook = std::function<void(TestHost &host, uintptr_t request)>;

    TestHost() : window_(ZvCreateWindow(Procedure, this)) {}
    ~TestHost() { ZvDestroyWindow(window_); }
    TestHost(const TestHost &) = delete;
    TestHost &operator=(const TestHost &) = delete;

    ZvHwnd Window() const { return window_; }

    // --- receive side ---
    // Append bytes that PORT_READ will hand over.
    void Receive(std::span<const uint8_t> bytes);
    void Receive(std::string_view text) {
        Receive(std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
    }
    // Bytes that PORT_READ hands over once the clock has reached `tick`
    // (after the bytes received before them).  Needs UseClock.
    void ReceiveAt(uint32_t tick, std::string_view text);
    void ReceiveAt(uint32_t tick, std::span<const uint8_t> bytes) {
        ReceiveAt(tick,
                  std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
    }
    // Largest number of bytes handed over per PORT_READ (0: all there are).
    void SetChunkSize(std::size_t bytes) { Put(chunkSize_, bytes); }
    // Bytes received but not yet handed over.
    std::size_t Unread() const {
        return Locked([&] { return incoming_.size(); });
    }

    // --- transmit side ---
    // Accept at most `bytes` of each PORT_WRITE (SIZE_MAX: all; 0: none).
    void SetWriteLimit(std::size_t bytes) { Put(writeLimit_, bytes); }
    // Accept nothing for the next `count` writes, then go back to the limit.
    void RefuseWrites(int count) { Put(refuseWrites_, count); }
    std::vector<uint8_t> Written() const { return Get(written_); }
    std::string WrittenString() const {
        const std::vector<uint8_t> w = Written();
        return std::string(w.begin(), w.end());
    }
    void ClearWritten() {
        Locked([&] { written_.clear(), writeTimes_.clear(); });
    }
    // With UseClock: the clock's reading when each written byte was taken.
    std::vector<uint32_t> WriteTimes() const { return Get(writeTimes_); }
    // The time the first byte of the `nth` (0-based) occurrence of `bytes`
    // in what was written was taken; UINT32_MAX when there is none.
    uint32_t WrittenAt(std::string_view bytes, int nth = 0) const;

    // --- time ---
    // A clock read (without side effects) for ReceiveAt and WriteTimes.
    using Clock = std::function<uint32_t()>;
    void UseClock(Clock clock) { Put(clock_, std::move(clock)); }
    // The clock's reading now (0 without a clock).
    uint32_t Now() const {
        const Clock clock = Get(clock_);
        return clock ? clock() : 0;
    }

    // --- faults ---
    void SetReadError(bool lost) { Put(readError_, lost); }
    void SetWriteError(bool lost) { Put(writeError_, lost); }
    void OnRequest(RequestHook hook) {
        Put(hook_, hook ? std::make_shared<const RequestHook>(std::move(hook)) : nullptr);
    }

    // --- counters ---
    int ReadRequests() const { return Get(reads_); }
    int WriteRequests() const { return Get(writes_); }

  private:
    static intptr_t Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam);
    void AnswerRead(PortBlock &block);
    void AnswerWrite(PortBlock &block);

    ZvHwnd window_ = nullptr;
    mutable std::mutex mutex_;
    std::deque<uint8_t> incoming_;                           // received, not yet handed over
    std::deque<std::pair<uint32_t, std::string>> scheduled_; // by ReceiveAt, in order
    Clock clock_;
    std::vector<uint32_t> writeTimes_;
    std::vector<uint8_t> chunk_; // the block the port is reading from
    std::size_t chunkSize_ = 0;
    std::size_t writeLimit_ = SIZE_MAX;
    int refuseWrites_ = 0;
    std::vector<uint8_t> written_;
    bool readError_ = false;
    bool writeError_ = false;
    std::shared_ptr<const RequestHook> hook_; // shared: a request takes it without a copy
    int reads_ = 0;
    int writes_ = 0;
};

} // namespace zvxfer::test
