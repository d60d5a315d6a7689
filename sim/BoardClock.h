// The board's clock for the sleeps of the library's own threads (a
// receiver's poll loop, a chip's bring-up waits). Running free it is real
// time. A test may hold it: from then on every sleep through the OS seam
// waits until the test moves the clock past its end, so that a state
// machine with 100 ms passes and 3 s waits can be walked pass by pass, at
// the speed of the machine and in the same order every time.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace vsim {

class BoardClock {
public:
    static BoardClock& instance();

    // Held: sleeps wait for advance(). Released: they are real sleeps again,
    // and whoever is asleep wakes at once.
    void hold();
    void release();
    bool held() const;

    // Microseconds since the clock was held (0 while it runs free).
    int64_t nowUs() const;

    // Moves a held clock forward by `ms`, one sleeper's deadline at a time:
    // each thread whose sleep has ended runs until it sleeps again or ends,
    // before the clock moves on. A woken thread that neither sleeps again
    // nor ends within `graceMs` of real time (it waits on something else)
    // is left running, and the clock goes on without it.
    void advance(int64_t ms, int graceMs = 2000);

    // Waits, in real time, until at least `count` threads sleep on the held
    // clock; false if that did not happen within `timeoutMs`.
    bool waitSleepers(int count, int timeoutMs = 5000);
    int sleepers() const;

    // The seam's sleep.
    void sleepUs(int64_t us);

private:
    BoardClock() = default;
    void threadGone(std::thread::id id);
    friend struct ClockThreadExit;

    mutable std::mutex lock;
    std::condition_variable changed;
    bool isHeld = false;
    uint64_t epoch = 0;  // bumped by release(), so sleepers of a hold let go
    int64_t now = 0;
    std::multiset<std::pair<int64_t, std::thread::id>> asleep;
    std::set<std::thread::id> running;  // woken by advance(), not yet asleep
};

}  // namespace vsim
