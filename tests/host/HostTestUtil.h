#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QObject>
#include <QSemaphore>
#include <QThread>
#include <functional>

// Spins the main loop until `done` holds or the time is up.
inline bool waitFor(const std::function<bool()>& done, int ms = 3000)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::usleep(200);
    }
    return true;
}

// Holds a node's thread inside a queued call until opened, so that
// deliveries pile up behind it.
class Gate {
public:
    void close(QObject* node)
    {
        QMetaObject::invokeMethod(
            node,
            [this] {
                entered.release();
                passage.acquire();
            },
            Qt::QueuedConnection);
        entered.acquire();
    }
    void open() { passage.release(1000); }
    ~Gate() { open(); }

private:
    QSemaphore entered;
    QSemaphore passage;
};
