// Runs the two ends of a link pair in turns on a simulated clock, so that a
// run depends on its seed alone.  One end runs at a time; when it waits
// (the library's waits hand over the time they would sleep, as with the
// sleepless clock) the other end takes its turn, and when both wait the
// clock jumps to the earliest moment one of them wakes: its wait is over.  The
// library's tick and the lines' clock both read this simulated clock, so a
// 10-second silence costs no real time and line rates hold in line time.
//
// Only one Turns (and no FakeClock) may exist at a time: the clock is
// process-wide.  The destructor gives the library its real clock back.
#pragma once
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "link_pair.h"

namespace zvxfer::test {

class Turns {
  public:
    explicit Turns(host::LinkConfig config);
    ~Turns();
    Turns(const Turns &) = delete;
    Turns &operator=(const Turns &) = delete;

    host::LinkResult Run(const host::LinkPair::EndFunction &a,
                         const host::LinkPair::EndFunction &b);

  private:
    static uint32_t Tick();
    static void Pass(uint32_t ms);
    void Begin(int end);
    void Finish(int end);
    void Wait(int end, uint32_t ms);
    bool Woken(int end) const;
    uint64_t NextEvent(int end) const;
    void Choose(int me);

    std::unique_ptr<host::LinkPair> pair_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int holder_ = 0; // the end whose turn it is; -1: both have finished
    std::atomic<uint64_t> nowUs_{0};
    std::array<bool, 2> waiting_{}, finished_{};
    std::array<uint64_t, 2> wakeUs_{};
};

} // namespace zvxfer::test
