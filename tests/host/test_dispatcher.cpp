// The node threads' event loop with a coalescing window: a socket that
// keeps bringing bytes is read once a window, while posted work and timers
// in the same thread are not held back by it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <thread>

#include "host/VeskDispatcher.h"

namespace {

struct Loop {
    explicit Loop(int coalesceMs)
    {
        thread.setEventDispatcher(new VeskDispatcher(coalesceMs));
        thread.start();
        context.moveToThread(&thread);
    }
    ~Loop()
    {
        thread.quit();
        thread.wait();
    }
    void run(const std::function<void()>& fn)
    {
        QMetaObject::invokeMethod(&context, fn, Qt::BlockingQueuedConnection);
    }
    QThread thread;
    QObject context;
};

TEST(Dispatcher, CoalescingWindowBatchesSocketsButNotPostedWorkOrTimers)
{
    constexpr int kWindowMs = 200, kBytes = 150;
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    Loop loop(kWindowMs);
    std::atomic<int> reads{0}, bytes{0}, ticks{0};
    QSocketNotifier* n = nullptr;
    QTimer* tick = nullptr;
    loop.run([&] {
        n = new QSocketNotifier(fds[0], QSocketNotifier::Read);
        QObject::connect(n, &QSocketNotifier::activated, [&] {
            char buf[4096];
            ssize_t got;
            while ((got = read(fds[0], buf, sizeof buf)) > 0) bytes += int(got);
            ++reads;
        });
        tick = new QTimer;
        QObject::connect(tick, &QTimer::timeout, [&] { ++ticks; });
        tick->start(10);
    });

    // A byte every 4 ms for 0.6 s, with work posted to the thread meanwhile.
    QElapsedTimer clock;
    clock.start();
    qint64 worstPostedMs = 0;
    for (int i = 0; i < kBytes; ++i) {
        ASSERT_EQ(write(fds[1], "x", 1), 1);
        if (i % 25 == 12) {
            const qint64 sent = clock.elapsed();
            std::atomic<qint64> ran{-1};
            QMetaObject::invokeMethod(&loop.context, [&] { ran = clock.elapsed(); });
            while (ran < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            worstPostedMs = std::max(worstPostedMs, ran - sent);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
    }
    while (bytes < kBytes && clock.elapsed() < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const qint64 spanMs = clock.elapsed();
    loop.run([&] {
        delete n;
        delete tick;
    });
    close(fds[0]);
    close(fds[1]);

    EXPECT_EQ(bytes, kBytes);
    // One read a window, and the first at once.
    EXPECT_LE(reads, spanMs / kWindowMs + 2) << spanMs << " ms";
    EXPECT_LT(worstPostedMs, kWindowMs / 2);
    EXPECT_GE(ticks, spanMs / 10 / 2);
}

}  // namespace
