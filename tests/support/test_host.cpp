// The scripted test host: answers PORT_READ from its received bytes and
// PORT_WRITE into its record of written bytes, with the faults asked for.
#include "test_host.h"

#include <algorithm>

namespace zvxfer::test {

TestHost::TestHost() : window_(ZvCreateWindow(Procedure, this)) {}

TestHost::~TestHost() {
    ZvDestroyWindow(window_);
}

intptr_t TestHost::Procedure(ZvHwnd window, uint32_t message, uintptr_t wParam, intptr_t lParam) {
    auto *host = static_cast<TestHost *>(ZvGetWindowUserData(window));
    {
        std::lock_guard lock(host->mutex_);
        ++host->messages_;
        if (message != XferPortMessage) host->others_.push_back(message);
    }
    if (message != XferPortMessage || lParam == 0) return 0;
    // The hook runs without the lock so that it may use the setters.
    RequestHook hook;
    {
        std::lock_guard lock(host->mutex_);
        hook = host->hook_;
    }
    if (hook) hook(*host, wParam);
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
    std::size_t n = incoming_.size() - handedOver_;
    if (chunkSize_ != 0) n = std::min(n, chunkSize_);
    chunk_.assign(incoming_.begin() + static_cast<std::ptrdiff_t>(handedOver_),
                  incoming_.begin() + static_cast<std::ptrdiff_t>(handedOver_ + n));
    handedOver_ += n;
    if (handedOver_ == incoming_.size()) {
        incoming_.clear();
        handedOver_ = 0;
    }
    block.Data = chunk_.data();
    block.Length = static_cast<uint32_t>(n);
    block.Error = readError_ ? 1 : 0;
}

void TestHost::AnswerWrite(PortBlock &block) {
    std::lock_guard lock(mutex_);
    ++writes_;
    std::size_t accepted = std::min<std::size_t>(block.Length, writeLimit_);
    if (refuseWrites_ > 0) {
        --refuseWrites_;
        accepted = 0;
    }
    block.Error = writeError_ ? 1 : 0;
    if (writeError_) return;
    written_.insert(written_.end(), block.Data, block.Data + accepted);
    block.Length = static_cast<uint32_t>(accepted);
}

void TestHost::Receive(std::span<const uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    incoming_.insert(incoming_.end(), bytes.begin(), bytes.end());
}

void TestHost::Receive(std::string_view text) {
    Receive(std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
}

void TestHost::SetChunkSize(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    chunkSize_ = bytes;
}

std::size_t TestHost::Unread() const {
    std::lock_guard lock(mutex_);
    return incoming_.size() - handedOver_;
}

void TestHost::SetWriteLimit(std::size_t bytes) {
    std::lock_guard lock(mutex_);
    writeLimit_ = bytes;
}

void TestHost::RefuseWrites(int count) {
    std::lock_guard lock(mutex_);
    refuseWrites_ = count;
}

std::vector<uint8_t> TestHost::Written() const {
    std::lock_guard lock(mutex_);
    return written_;
}

std::string TestHost::WrittenString() const {
    std::lock_guard lock(mutex_);
    return std::string(written_.begin(), written_.end());
}

void TestHost::ClearWritten() {
    std::lock_guard lock(mutex_);
    written_.clear();
}

void TestHost::SetReadError(bool lost) {
    std::lock_guard lock(mutex_);
    readError_ = lost;
}

void TestHost::SetWriteError(bool lost) {
    std::lock_guard lock(mutex_);
    writeError_ = lost;
}

void TestHost::OnRequest(RequestHook hook) {
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
}

int TestHost::ReadRequests() const {
    std::lock_guard lock(mutex_);
    return reads_;
}

int TestHost::WriteRequests() const {
    std::lock_guard lock(mutex_);
    return writes_;
}

int TestHost::Messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

std::vector<uint32_t> TestHost::OtherMessages() const {
    std::lock_guard lock(mutex_);
    return others_;
}

} // namespace zvxfer::test
