// The event loop of the graph's node threads: one epoll set for the thread's
// sockets, an eventfd for posted events and a short list of timers.
//
// A network source wakes its thread for every few kilobytes that arrive;
// what a wake-up costs besides the node's own work is this loop's. It keeps
// the sockets registered between waits instead of building a poll set each
// time, writes the eventfd only for the first event posted since the thread
// last looked, and takes timers from a list that a thread with a handful of
// nodes keeps short.
//
// With a coalescing window, a thread that has just served its sockets looks
// at them again only once the window has passed, so that a paced stream's
// segments that arrive meanwhile are read in one wake-up instead of one
// each; posted events and timers are served on time throughout. The cost is
// up to the window's length of delay on what a socket brings.
//
// A handler may leave work for when it has returned to the loop
// (whenHandlerReturns): the host uses it to wake a receiver's thread once for
// all the packets a handler sends it, not once for each that happens to find
// that thread asleep.
#pragma once

#include <QAbstractEventDispatcher>
#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

class VeskDispatcher : public QAbstractEventDispatcher {
public:
    // coalesceMs: the window (0: sockets are served as soon as they are ready).
    explicit VeskDispatcher(int coalesceMs = 0, QObject* parent = nullptr);
    ~VeskDispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier* notifier) override;
    void unregisterSocketNotifier(QSocketNotifier* notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType,
                       QObject* object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int timerId) override;

    // `fn` runs as soon as the socket's or timer's handler under way in the
    // calling thread has returned to one of these loops, and before that
    // loop could wait; once however often it is asked for meanwhile. False
    // when the calling thread is in no such handler (a posted event's
    // included): the caller then does the work at once.
    static bool whenHandlerReturns(void (*fn)());

    void wakeUp() override;
    void interrupt() override;
    void flush() override {}

private:
    struct Timer {
        int id;
        int interval;  // ms
        Qt::TimerType type;
        QObject* object;
        int64_t dueNs;
        bool firing;  // in its handler: a nested loop must not fire it again
    };
    struct Watch {
        QSocketNotifier* notifier[3] = {nullptr, nullptr, nullptr};  // read, write, exception
        uint32_t events = 0;
    };

    void updateWatch(int fd);
    Timer* timer(int id);
    bool fireTimers();
    bool activate(int fd, uint32_t ready);

    int epollFd = -1;
    int wakeFd = -1;
    const int64_t coalesceNs;
    int64_t socketsServedNs = 0;  // when a round last served a socket
    std::atomic<bool> wakePending{false};
    std::atomic<bool> interrupted{false};
    std::vector<Timer> timers;
    std::unordered_map<int, Watch> watches;
};
