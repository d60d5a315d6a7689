#include "sim/BoardClock.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace vsim {

// A thread that ends while the clock waits for it to sleep again must not
// keep advance() waiting.
struct ClockThreadExit {
    bool used = false;
    ~ClockThreadExit()
    {
        if (used) BoardClock::instance().threadGone(std::this_thread::get_id());
    }
};
static thread_local ClockThreadExit clockThreadExit;

BoardClock& BoardClock::instance()
{
    static BoardClock* clock = new BoardClock;  // outlives every thread
    return *clock;
}

void BoardClock::hold()
{
    std::lock_guard<std::mutex> g(lock);
    isHeld = true;
    now = 0;
}

void BoardClock::release()
{
    std::lock_guard<std::mutex> g(lock);
    isHeld = false;
    ++epoch;
    asleep.clear();
    running.clear();
    changed.notify_all();
}

bool BoardClock::held() const
{
    std::lock_guard<std::mutex> g(lock);
    return isHeld;
}

int64_t BoardClock::nowUs() const
{
    std::lock_guard<std::mutex> g(lock);
    return isHeld ? now : 0;
}

int BoardClock::sleepers() const
{
    std::lock_guard<std::mutex> g(lock);
    return int(asleep.size());
}

bool BoardClock::waitSleepers(int count, int timeoutMs)
{
    std::unique_lock<std::mutex> g(lock);
    return changed.wait_for(g, std::chrono::milliseconds(timeoutMs),
                            [&] { return int(asleep.size()) >= count; });
}

void BoardClock::sleepUs(int64_t us)
{
    std::unique_lock<std::mutex> g(lock);
    if (!isHeld) {
        g.unlock();
        ::usleep(useconds_t(us < 0 ? 0 : us));
        return;
    }
    clockThreadExit.used = true;
    const auto self = std::this_thread::get_id();
    const int64_t until = now + (us < 0 ? 0 : us);
    const uint64_t myEpoch = epoch;
    running.erase(self);
    auto entry = asleep.emplace(until, self);
    changed.notify_all();
    changed.wait(g, [&] { return epoch != myEpoch || running.count(self) != 0; });
    if (epoch == myEpoch) asleep.erase(entry);
}

void BoardClock::threadGone(std::thread::id id)
{
    std::lock_guard<std::mutex> g(lock);
    running.erase(id);
    changed.notify_all();
}

void BoardClock::advance(int64_t ms, int graceMs)
{
    std::unique_lock<std::mutex> g(lock);
    if (!isHeld) return;
    const int64_t target = now + ms * 1000;
    for (;;) {
        if (asleep.empty() || asleep.begin()->first > target) {
            now = target;
            return;
        }
        now = asleep.begin()->first;
        for (auto it = asleep.begin(); it != asleep.end() && it->first <= now; ++it)
            running.insert(it->second);
        changed.notify_all();
        const bool settled = changed.wait_for(g, std::chrono::milliseconds(graceMs),
                                              [&] { return running.empty() || !isHeld; });
        if (!isHeld) return;
        if (!settled) {
            std::fprintf(stderr, "board clock: %zu thread(s) did not sleep again\n",
                         running.size());
            running.clear();
        }
    }
}

}  // namespace vsim
