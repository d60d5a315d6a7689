// The process's CPU time over a window well inside a run: taken at the
// `from`th and the `to`th event, so that start-up and warming up do not
// count. Shared by the benchmarks that measure per packet in steady state.
#pragma once

#include <QtGlobal>
#include <atomic>
#include <ctime>

inline double cpuNow()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// Marks the process CPU time at the `from`th and `to`th call of note().
struct CpuWindow {
    CpuWindow(qint64 from, qint64 to) : from(from), to(to) {}
    // True at the call that closes the window.
    bool note()
    {
        const qint64 n = ++count;
        if (n == from) cpuFrom = cpuNow();
        if (n != to) return false;
        cpuTo = cpuNow();
        done = true;
        return true;
    }
    double seconds() const { return cpuTo - cpuFrom; }

    qint64 from, to;
    std::atomic<qint64> count{0};
    std::atomic<bool> done{false};
    double cpuFrom = 0, cpuTo = 0;
};
