// The scripted test host: answers PORT_READ from its received bytes and
// PORT_WRITE into its record of written bytes, with the faults asked for.
#include "test_host.h"

#include <algorithm>

namespace zvxfer::test {

intptr_t TestHost::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *host = static_cast<TestHost *>(ZvGetWindowUserData(window));
    if (message != XferPortMessage || lParam == 0) return 0;
    // The hook runs without the lock so that it may use the setters.
    if (const auto hook = host->Get(host->hook_)) (*hook)(*host, wParam);
    auto &block = *reinterpret_cast<PortBlock *>(lParam);
    if (wParam == PORT_READ) host->AnswerRead(block);
    if (wParam == PORT_WRITE) host->AnswerWrite(block);
    return 0;
}

// The handed-over bytes live in chunk_, which changes only on the next
// PORT_READ: the port asks again only after it has taken them all.
void TestHost::AnswerRead(PortBlock &block) {
    std::lock_guard lock(mutex_);
    ++reads_;
    while (!scheduled_.empty() && clock_ &&
           static_cast<int32_t>(clock_() - scheduled_.front().first) >= 0) {
        const std::string &due = scheduled_.front().second;
        incoming_.insert(incoming_.end(), due.begin(), due.end());
        scheduled_.pop_front();
    }
    const auto n = static_cast<std::ptrdiff_t>(
        chunkSize_ != 0 ? std::min(incoming_.size(), chunkSize_) : incoming_.size());
    chunk_.assign(incoming_.begin(), incoming_.begin() + n);
    incoming_.erase(incoming_.begin(), incoming_.begin() + n);
    block.Data = chunk_.data();
    block.Length = static_cast<uint32_t>(n);
    block.Error = readError_ ? 1 : 0;
}

void TestHost::AnswerWrite(PortBlock &block) {
    std::lock_guard lock(mutex_);
    ++writes_;
    const std::size_t accepted =
        refuseWrites_ > 0 ? 0 : std::min<std::size_t>(block.Length, writeLimit_);
    refuseWrites_ -= refuseWrites_ > 0;
    block.Error = writeError_ ? 1 : 0;
    if (writeError_) return;
    written_.insert(written_.end(), block.Data, block.Data + accepted);
    if (clock_) writeTimes_.insert(writeTimes_.end(), accepted, clock_());
    block.Length = static_cast<uint32_t>(accepted);
}

void TestHost::Receive(std::span<const uint8_t> bytes) {
    Locked([&] { incoming_.insert(incoming_.end(), bytes.begin(), bytes.end()); });
}

void TestHost::ReceiveAt(uint32_t tick, std::string_view text) {
    Locked([&] { scheduled_.emplace_back(tick, std::string(text)); });
}

uint32_t TestHost::WrittenAt(std::string_view bytes, int nth) const {
    std::lock_guard lock(mutex_);
    const std::string_view all(reinterpret_cast<const char *>(written_.data()), written_.size());
    std::size_t at = all.find(bytes);
    for (; at != std::string_view::npos && nth > 0; --nth) at = all.find(bytes, at + 1);
    if (at == std::string_view::npos || at >= writeTimes_.size()) return UINT32_MAX;
    return writeTimes_[at];
}

} // namespace zvxfer::test
