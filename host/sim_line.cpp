// The simulated line: serialisation time, latency, bit errors, dropped bytes
// and stalls, all reproducible from a seed.
#include "sim_line.h"

#include <algorithm>
#include <chrono>

namespace zvxfer::host {

namespace {

constexpr uint64_t kNsPerUs = 1000;

uint64_t Draw(std::mt19937_64 &random, double p) {
    if (p <= 0) return UINT64_MAX;
    if (p >= 1) return 0;
    return std::geometric_distribution<uint64_t>(p)(random);
}

} // namespace

uint64_t RealMicros() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count());
}

SimLine::SimLine(LineConfig config, uint64_t seed, MicroClock clock)
    : config_(std::move(config)), clock_(std::move(clock)), random_(seed) {
    bitsToFlip_ = Draw(random_, config_.bitErrorRate);
    bytesToDrop_ = Draw(random_, config_.dropRate);
}

// When the next byte can start on the wire: not before now, not before the
// previous byte has left, and not inside a scheduled stall.  Times in ns.
uint64_t SimLine::StartTime(uint64_t nowNs, uint64_t freeNs) const {
    uint64_t start = std::max(nowNs, freeNs);
    for (bool moved = true; moved;) {
        moved = false;
        for (const auto &s : config_.stalls) {
            const uint64_t from = s.startUs * kNsPerUs;
            const uint64_t to = from + s.lengthUs * kNsPerUs;
            if (start >= from && start < to) {
                start = to;
                moved = true;
            }
        }
    }
    return start;
}

std::size_t SimLine::Room(uint64_t nowUs) const {
    std::size_t room = SIZE_MAX;
    if (config_.bufferBytes != 0) {
        room = config_.bufferBytes > queue_.size() ? config_.bufferBytes - queue_.size() : 0;
    }
    if (config_.queueBytes != 0) {
        // Departure times never decrease along the queue.
        const auto firstWaiting = std::partition_point(
            queue_.begin(), queue_.end(), [nowUs](const Byte &b) { return b.departUs <= nowUs; });
        const auto waiting = static_cast<std::size_t>(queue_.end() - firstWaiting);
        room = std::min(room, config_.queueBytes > waiting ? config_.queueBytes - waiting : 0);
    }
    return room;
}

uint8_t SimLine::Corrupt(uint8_t value) {
    if (config_.bitErrorRate <= 0) return value;
    uint64_t pos = 0;
    while (bitsToFlip_ < 8 - pos) {
        pos += bitsToFlip_;
        value ^= static_cast<uint8_t>(1u << pos);
        ++counters_.flippedBits;
        ++pos;
        bitsToFlip_ = Draw(random_, config_.bitErrorRate);
    }
    bitsToFlip_ -= 8 - pos;
    return value;
}

bool SimLine::DropNext() {
    if (config_.dropRate <= 0) return false;
    if (bytesToDrop_ == 0) {
        bytesToDrop_ = Draw(random_, config_.dropRate);
        return true;
    }
    --bytesToDrop_;
    return false;
}

std::size_t SimLine::Offer(std::span<const uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    const uint64_t nowUs = clock_();
    const std::size_t n = std::min(bytes.size(), Room(nowUs));
    const uint64_t byteNs =
        config_.bytesPerSecond == 0 ? 0 : 1'000'000'000 / config_.bytesPerSecond;
    const uint64_t latencyUs = uint64_t{config_.latencyMs} * 1000;
    for (std::size_t i = 0; i < n; ++i) {
        const uint64_t departNs = StartTime(nowUs * kNsPerUs, lineFreeNs_) + byteNs;
        lineFreeNs_ = departNs;
        ++wireBytes_;
        if (config_.stallEveryBytes != 0 && wireBytes_ % config_.stallEveryBytes == 0) {
            lineFreeNs_ += uint64_t{config_.stallMs} * 1'000'000;
        }
        const uint64_t departUs = (departNs + kNsPerUs - 1) / kNsPerUs;
        const bool dropped = DropNext();
        if (dropped) ++counters_.dropped;
        queue_.push_back({departUs, departUs + latencyUs, Corrupt(bytes[i]), dropped});
    }
    counters_.offered += n;
    return n;
}

std::size_t SimLine::Take(std::span<uint8_t> out) {
    std::lock_guard lock(mutex_);
    const uint64_t nowUs = clock_();
    std::size_t n = 0;
    while (n < out.size() && !queue_.empty() && queue_.front().arriveUs <= nowUs) {
        if (!queue_.front().dropped) out[n++] = queue_.front().value;
        queue_.pop_front();
    }
    counters_.delivered += n;
    return n;
}

std::optional<uint64_t> SimLine::NextArrival() const {
    std::lock_guard lock(mutex_);
    if (queue_.empty()) return std::nullopt;
    return queue_.front().arriveUs;
}

bool SimLine::Empty() const {
    std::lock_guard lock(mutex_);
    return queue_.empty();
}

void SimLine::Close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
}

bool SimLine::Closed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

bool SimLine::ClosedAndDrained() const {
    std::lock_guard lock(mutex_);
    return closed_ && queue_.empty();
}

LineCounters SimLine::Counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

} // namespace zvxfer::host
