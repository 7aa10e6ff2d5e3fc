// The turn scheduler of a link pair: a baton passed between the two end
// threads at their waits, and a simulated clock moved only when neither
// end can go on.
#include "turns.h"

#include <algorithm>
#include <cstdlib>

#include "platform/tick.h"

namespace zvxfer::test {

namespace {

constexpr uint32_t kStartTick = 1000;
constexpr uint64_t kNever = UINT64_MAX;
Turns *gTurns = nullptr;
thread_local int tEnd = -1; // the end this thread runs, -1: none

} // namespace

Turns::Turns(host::LinkConfig config) {
    if (gTurns != nullptr) std::abort(); // two would fight over the one clock
    gTurns = this;
    config.clock = [this] { return nowUs_.load(); };
    config.onEnd = [this](int end, bool running) { running ? Begin(end) : Finish(end); };
    pair_ = std::make_unique<host::LinkPair>(std::move(config));
    plat::SetTickSource(&Tick);
    plat::SetTimePasser(&Pass);
}

Turns::~Turns() {
    plat::SetTimePasser(nullptr);
    plat::SetTickSource(nullptr);
    gTurns = nullptr;
}

host::LinkResult Turns::Run(const host::LinkPair::EndFunction &a,
                            const host::LinkPair::EndFunction &b) {
    {
        std::lock_guard lock(mutex_);
        holder_ = 0;
        waiting_ = {}, finished_ = {};
    }
    return pair_->Run(a, b);
}

uint32_t Turns::Tick() {
    return kStartTick + static_cast<uint32_t>(gTurns->nowUs_.load() / 1000);
}

// Waits on threads that run no end (none while a run is on) pass no time.
void Turns::Pass(uint32_t ms) {
    if (tEnd >= 0 && gTurns != nullptr) gTurns->Wait(tEnd, ms);
}

void Turns::Begin(int end) {
    tEnd = end;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return holder_ == end; });
}

void Turns::Finish(int end) {
    std::lock_guard lock(mutex_);
    finished_[end] = true;
    waiting_[end] = false;
    Choose(end);
    tEnd = -1;
}

void Turns::Wait(int end, uint32_t ms) {
    std::unique_lock lock(mutex_);
    waiting_[end] = true;
    wakeUs_[end] = nowUs_ + uint64_t{ms} * 1000;
    Choose(end);
    changed_.wait(lock, [&] { return holder_ == end; });
    waiting_[end] = false;
}

// An end wakes when its wait is over, as a host on a slow line would look
// again every round: waking it for every byte as it arrives would cost a
// turn a byte.  The library's waits last a few milliseconds at most.
uint64_t Turns::NextEvent(int end) const {
    if (finished_[end]) return kNever;
    return waiting_[end] ? wakeUs_[end] : nowUs_.load();
}

bool Turns::Woken(int end) const {
    return NextEvent(end) <= nowUs_;
}

// With the lock, by the end whose turn ends: the other end goes on if it
// can, else this one, else the clock moves to the next event.
void Turns::Choose(int me) {
    for (;;) {
        if (Woken(1 - me)) {
            holder_ = 1 - me;
            break;
        }
        if (Woken(me)) {
            holder_ = me;
            break;
        }
        const uint64_t next = std::min(NextEvent(0), NextEvent(1));
        if (next == kNever) {
            holder_ = -1;
            break;
        }
        nowUs_ = next;
    }
    changed_.notify_all();
}

} // namespace zvxfer::test
