#include "host/VeskDispatcher.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimerEvent>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

namespace {

int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The dispatcher whose loop runs in this thread.
thread_local VeskDispatcher* running = nullptr;

// Handlers of this thread's loop under way (a handler may spin the loop),
// and what they left for when they return.
thread_local int handlers = 0;
thread_local std::vector<void (*)()> afterHandler;

void runAfterHandler()
{
    while (!afterHandler.empty()) {
        std::vector<void (*)()> fns;
        fns.swap(afterHandler);
        for (void (*fn)() : fns) fn();
    }
}

// Around the call into a socket's or a timer's handler, where a source's
// bursts start; what it left runs as it returns, also when it was nested in
// another. Posted events are not handlers in this sense: whoever posted one
// and waits for it (a blocking call into this thread) may count on what it
// sent being on its way when the wait ends.
struct HandlerScope {
    HandlerScope() { ++handlers; }
    ~HandlerScope()
    {
        --handlers;
        runAfterHandler();
    }
    HandlerScope(const HandlerScope&) = delete;
    HandlerScope& operator=(const HandlerScope&) = delete;
};

// Posted events, also those a handler's nested loop delivers, run outside
// any handler.
void deliverPosted()
{
    const int outer = handlers;
    handlers = 0;
    QCoreApplication::sendPostedEvents();
    handlers = outer;
}

constexpr uint32_t kTypeEvents[3] = {EPOLLIN, EPOLLOUT, EPOLLPRI};
// Hang-up and error wake a reader and a writer alike, as poll() reports them.
constexpr uint32_t kTypeReady[3] = {EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR,
                                    EPOLLOUT | EPOLLHUP | EPOLLERR, EPOLLPRI};

}  // namespace

VeskDispatcher::VeskDispatcher(int coalesceMs, QObject* parent)
    : QAbstractEventDispatcher(parent), coalesceNs(int64_t(std::max(coalesceMs, 0)) * 1000000)
{
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = wakeFd;
    epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &e);
}

VeskDispatcher::~VeskDispatcher()
{
    close(wakeFd);
    close(epollFd);
}

bool VeskDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    running = this;
    interrupted.store(false);
    emit awake();
    // What was posted before this round goes first; the flag is cleared
    // before, so that an event posted meanwhile wakes the wait below.
    wakePending.store(false);
    deliverPosted();
    bool did = false;

    const bool timersToo = !(flags & QEventLoop::X11ExcludeTimers);
    int timeoutMs = 0;
    if ((flags & QEventLoop::WaitForMoreEvents) && !interrupted.load() && !wakePending.load()) {
        // Whatever listens may post or quit: the checks come after it.
        emit aboutToBlock();
        timeoutMs = -1;
        if (timersToo && !timers.empty()) {
            int64_t due = INT64_MAX;
            for (const Timer& t : timers)
                if (!t.firing) due = std::min(due, t.dueNs);
            if (due != INT64_MAX) {
                const int64_t ms = (due - nowNs() + 999999) / 1000000;
                timeoutMs = int(std::max<int64_t>(0, std::min<int64_t>(ms, INT_MAX)));
            }
        }
        if (interrupted.load() || wakePending.load()) timeoutMs = 0;
    }

    // A handler that spins the loop may have left work it expects done.
    runAfterHandler();
    int64_t windowNs = 0;
    if (coalesceNs > 0 && socketsServedNs > 0) windowNs = socketsServedNs + coalesceNs - nowNs();
    epoll_event events[64];
    int n = 0;
    if (windowNs > 0) {
        // Within the window the sockets are not looked at: what they bring
        // meanwhile is read in one go once it has passed. Posted events and
        // timers are served as ever.
        const int64_t waitNs =
            timeoutMs < 0 ? windowNs : std::min(windowNs, int64_t(timeoutMs) * 1000000);
        pollfd p{wakeFd, POLLIN, 0};
        const timespec ts{time_t(waitNs / 1000000000), long(waitNs % 1000000000)};
        if (ppoll(&p, 1, &ts, nullptr) > 0) {
            events[0].data.fd = wakeFd;
            n = 1;
        }
        if (waitNs > 0) emit awake();
    } else {
        do {
            n = epoll_wait(epollFd, events, 64, timeoutMs);
        } while (n < 0 && errno == EINTR && timeoutMs == 0);
        if (timeoutMs != 0) emit awake();
    }

    bool posted = false, served = false;
    for (int i = 0; i < n; ++i) {
        if (events[i].data.fd == wakeFd) {
            uint64_t count;
            while (read(wakeFd, &count, sizeof count) < 0 && errno == EINTR) {
            }
            posted = true;
            continue;
        }
        if (flags & QEventLoop::ExcludeSocketNotifiers) continue;
        served = activate(events[i].data.fd, events[i].events) || served;
    }
    if (served) {
        did = true;
        if (coalesceNs > 0) socketsServedNs = nowNs();
    }
    if (timersToo) did = fireTimers() || did;
    if (posted) {
        wakePending.store(false);
        deliverPosted();
        did = true;
    }
    return did;
}

bool VeskDispatcher::hasPendingEvents()
{
    return wakePending.load();
}

bool VeskDispatcher::activate(int fd, uint32_t ready)
{
    bool did = false;
    for (int type = 0; type < 3; ++type) {
        if (!(ready & kTypeReady[type])) continue;
        // A handler may have removed this or any other notifier.
        auto it = watches.find(fd);
        if (it == watches.end()) break;
        QSocketNotifier* n = it->second.notifier[type];
        if (!n) continue;
        QEvent e(QEvent::SockAct);
        HandlerScope scope;
        QCoreApplication::sendEvent(n, &e);
        did = true;
    }
    return did;
}

void VeskDispatcher::registerSocketNotifier(QSocketNotifier* notifier)
{
    const int fd = int(notifier->socket());
    const int type = int(notifier->type());
    if (fd < 0 || type < 0 || type > 2) return;
    watches[fd].notifier[type] = notifier;
    updateWatch(fd);
}

void VeskDispatcher::unregisterSocketNotifier(QSocketNotifier* notifier)
{
    const int fd = int(notifier->socket());
    const int type = int(notifier->type());
    auto it = watches.find(fd);
    if (it == watches.end() || type < 0 || type > 2 || it->second.notifier[type] != notifier)
        return;
    it->second.notifier[type] = nullptr;
    updateWatch(fd);
}

void VeskDispatcher::updateWatch(int fd)
{
    auto it = watches.find(fd);
    if (it == watches.end()) return;
    uint32_t want = 0;
    for (int type = 0; type < 3; ++type)
        if (it->second.notifier[type]) want |= kTypeEvents[type];
    const uint32_t had = it->second.events;
    if (want == had) return;
    epoll_event e{};
    e.events = want;
    e.data.fd = fd;
    if (!want) {
        // The descriptor may be closed already, which took it out of the set.
        epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
        watches.erase(it);
        return;
    }
    if (!had || epoll_ctl(epollFd, EPOLL_CTL_MOD, fd, &e) != 0) {
        if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &e) != 0 && errno == EEXIST)
            epoll_ctl(epollFd, EPOLL_CTL_MOD, fd, &e);
    }
    it->second.events = want;
}

void VeskDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType,
                                   QObject* object)
{
    if (timerId <= 0 || !object) return;
    unregisterTimer(timerId);
    interval = std::max(0, interval);
    timers.push_back(
        {timerId, interval, timerType, object, nowNs() + int64_t(interval) * 1000000, false});
}

VeskDispatcher::Timer* VeskDispatcher::timer(int id)
{
    for (Timer& t : timers)
        if (t.id == id) return &t;
    return nullptr;
}

bool VeskDispatcher::unregisterTimer(int timerId)
{
    for (auto it = timers.begin(); it != timers.end(); ++it)
        if (it->id == timerId) {
            timers.erase(it);
            return true;
        }
    return false;
}

bool VeskDispatcher::unregisterTimers(QObject* object)
{
    const size_t before = timers.size();
    timers.erase(std::remove_if(timers.begin(), timers.end(),
                                [object](const Timer& t) { return t.object == object; }),
                 timers.end());
    return timers.size() != before;
}

QList<QAbstractEventDispatcher::TimerInfo> VeskDispatcher::registeredTimers(QObject* object) const
{
    QList<TimerInfo> out;
    for (const Timer& t : timers)
        if (t.object == object) out.append(TimerInfo(t.id, t.interval, t.type));
    return out;
}

int VeskDispatcher::remainingTime(int timerId)
{
    const Timer* t = timer(timerId);
    if (!t) return -1;
    return int(std::max<int64_t>(0, (t->dueNs - nowNs() + 999999) / 1000000));
}

bool VeskDispatcher::fireTimers()
{
    if (timers.empty()) return false;
    const int64_t now = nowNs();
    // By id: a handler may start and stop timers, this one included.
    std::vector<int> due;
    for (const Timer& t : timers)
        if (!t.firing && t.dueNs <= now) due.push_back(t.id);
    for (int id : due) {
        Timer* t = timer(id);
        if (!t || t->firing) continue;
        const int64_t step = int64_t(t->interval) * 1000000;
        t->dueNs += step;
        // One that fell behind does not fire again to catch up.
        if (t->dueNs <= now) t->dueNs = now + step;
        t->firing = true;
        QObject* object = t->object;
        {
            QTimerEvent e(id);
            HandlerScope scope;
            QCoreApplication::sendEvent(object, &e);
        }
        if (Timer* again = timer(id)) again->firing = false;
    }
    return !due.empty();
}

bool VeskDispatcher::whenHandlerReturns(void (*fn)())
{
    if (handlers == 0) return false;
    if (std::find(afterHandler.begin(), afterHandler.end(), fn) == afterHandler.end())
        afterHandler.push_back(fn);
    return true;
}

void VeskDispatcher::wakeUp()
{
    // Posted from this thread's own handlers: the loop is not waiting, and
    // the flag keeps it from waiting before it has delivered the event.
    if (running == this) {
        wakePending.store(true);
        return;
    }
    if (wakePending.exchange(true)) return;
    const uint64_t one = 1;
    while (write(wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void VeskDispatcher::interrupt()
{
    interrupted.store(true);
    if (running == this) return;
    // The flag alone would not end a wait already under way.
    wakePending.store(false);
    wakeUp();
}
