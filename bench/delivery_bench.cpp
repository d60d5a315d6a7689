// delivery-bench [--packets N] [--burst B] [--runs R]
//
// What the reference host spends to carry one packet from a source to one
// receiver: a source node whose 1 ms timer sends B packets a tick (each in a
// buffer of its pool, 1024 bytes copied in, as a network source fills them)
// to a counting node, once in another thread and once in the same thread.
// The figure is the process's CPU time between two packets well inside the
// run, per packet, less what the same timer costs when its ticks send
// nothing: pool, send, queueing, the receiver's wake-up and its handler
// call. Beside it, on the same machine in the same run, GStreamer's
//   gst-launch-1.0 fakesrc num-buffers=N ! queue ! fakesink   (another thread)
//   gst-launch-1.0 fakesrc num-buffers=N ! fakesink           (same thread)
// per buffer: the CPU of the whole process (wait4) less that of a run with
// one buffer. Each figure is the best of R runs; load only ever adds. The
// host's three kinds of run take turns, so that a change in load meets all.
//
// The last line reads
//   host_delivery cross_thread=X same_thread=Y gst_queue=Z gst_direct=W
// in microseconds of CPU per packet.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSemaphore>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bench/cpu_window.h"
#include "frame/VeskObject.h"
#include "host/VeskDispatcher.h"
#include "host/VeskHost.h"

namespace {

// Released as a window closes: the main thread waits on it without waking,
// which would otherwise add to the process's CPU time in every run.
QSemaphore closed;

class Receiver : public VeskObject {
public:
    explicit Receiver(CpuWindow& w) : w(w)
    {
        setName(QStringLiteral("receiver"));
        // A busy machine may keep the receiver's thread away for a while:
        // room enough that nothing is dropped then, as rtsp-sink gives its sink.
        shareDepth = 64;
    }
    void onNewPacketV(VeskObject::Packet p) override
    {
        if (p.len != 1024 || p.data[0] != 'v') bad = true;
        if (w.note()) closed.release();
    }
    CpuWindow& w;
    std::atomic<bool> bad{false};
};

class Source : public VeskObject {
public:
    Source(int burst, CpuWindow* idle) : burst(burst), idle(idle)
    {
        setName(QStringLiteral("source"));
        std::memset(payload, 'v', sizeof payload);
    }
    void begin()
    {
        timer = new QTimer(this);
        timer->setTimerType(Qt::PreciseTimer);
        QObject::connect(timer, &QTimer::timeout, this, [this] { tick(); });
        timer->start(1);
    }
    void end() { delete timer; }

private:
    void tick()
    {
        if (idle) {
            if (idle->note()) closed.release();
            return;
        }
        for (int i = 0; i < burst; ++i) {
            Packet p;
            p.data = bufferData(payload, sizeof payload, 20);
            p.len = sizeof payload;
            p.pts = ++sent;
            sendPacketV(p);
        }
    }
    int burst;
    CpuWindow* idle;
    QTimer* timer = nullptr;
    qint64 sent = 0;
    char payload[1024];
};

void waitFor(const std::atomic<bool>& done)
{
    closed.acquire();
    Q_ASSERT(done);
}

// CPU seconds per packet of the host carrying `packets` packets.
double hostRun(bool sameThread, qint64 packets, int burst)
{
    QThread src, dst;
    // The event loop the graph runs its node threads with.
    src.setEventDispatcher(new VeskDispatcher);
    dst.setEventDispatcher(new VeskDispatcher);
    src.start();
    if (!sameThread) dst.start();
    // Well inside the run: the first ticks warm the pool up.
    CpuWindow w(burst * 50, burst * 50 + packets);
    Source s(burst, nullptr);
    Receiver r(w);
    s.moveToThread(&src);
    r.moveToThread(sameThread ? &src : &dst);
    VeskHost::link(&s, &r, VeskHost::LinkV);
    QMetaObject::invokeMethod(
        &s, [&] { s.begin(); }, Qt::BlockingQueuedConnection);
    waitFor(w.done);
    QMetaObject::invokeMethod(
        &s, [&] { s.end(); }, Qt::BlockingQueuedConnection);
    VeskHost::detach(&s);
    const quint64 dropped = VeskHost::droppedPackets(&r, VeskHost::LinkV);
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &s, [&] { s.moveToThread(home); }, Qt::BlockingQueuedConnection);
    QMetaObject::invokeMethod(
        &r, [&] { r.moveToThread(home); }, Qt::BlockingQueuedConnection);
    src.quit();
    dst.quit();
    src.wait();
    dst.wait();
    if (dropped || r.bad) {
        std::fprintf(stderr, "delivery-bench: %llu packets dropped%s\n",
                     static_cast<unsigned long long>(dropped), r.bad ? ", some damaged" : "");
        return std::nan("");
    }
    return w.seconds() / double(packets);
}

// CPU seconds per packet of the timer alone, ticks that send nothing.
double timerRun(qint64 packets, int burst)
{
    QThread src;
    src.setEventDispatcher(new VeskDispatcher);
    src.start();
    const qint64 ticks = packets / burst;
    CpuWindow w(50, 50 + ticks);
    Source s(burst, &w);
    s.moveToThread(&src);
    QMetaObject::invokeMethod(
        &s, [&] { s.begin(); }, Qt::BlockingQueuedConnection);
    waitFor(w.done);
    QMetaObject::invokeMethod(
        &s, [&] { s.end(); }, Qt::BlockingQueuedConnection);
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &s, [&] { s.moveToThread(home); }, Qt::BlockingQueuedConnection);
    src.quit();
    src.wait();
    return w.seconds() / double(ticks * burst);
}

// CPU seconds of one gst-launch-1.0 process.
double gstRun(const std::vector<std::string>& pipeline)
{
    std::vector<std::string> args = {"gst-launch-1.0", "-q"};
    args.insert(args.end(), pipeline.begin(), pipeline.end());
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "delivery-bench: gst-launch-1.0: %s\n", std::strerror(errno));
        _exit(127);
    }
    if (pid < 0) return std::nan("");
    int status = -1;
    rusage ru{};
    while (wait4(pid, &status, 0, &ru) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nan("");
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double gstPerBuffer(bool queue, qint64 buffers)
{
    auto pipeline = [&](qint64 n) {
        std::vector<std::string> p = {"fakesrc", "num-buffers=" + std::to_string(n)};
        if (queue) p.insert(p.end(), {"!", "queue"});
        p.insert(p.end(), {"!", "fakesink"});
        return p;
    };
    return (gstRun(pipeline(buffers)) - gstRun(pipeline(1))) / double(buffers - 1);
}

// Keeps the lower of two figures in `b`, never a failed run's (NaN).
void keepLower(double& b, double v)
{
    if (std::isfinite(v) && !(v >= b)) b = v;
}

double best(int runs, const std::function<double()>& run)
{
    double b = std::nan("");
    for (int i = 0; i < runs; ++i) keepLower(b, run());
    return b;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qint64 packets = 200000;
    int burst = 32, runs = 3;
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--packets")
            packets = std::max<qint64>(1000, std::atoll(argv[++i]));
        else if (a == "--burst")
            burst = std::max(1, std::atoi(argv[++i]));
        else if (a == "--runs")
            runs = std::max(1, std::atoi(argv[++i]));
    }
    VeskHost::registerMetaTypes();

    double timer = std::nan(""), cross = timer, same = timer;
    for (int i = 0; i < runs; ++i) {
        keepLower(timer, timerRun(packets, burst));
        keepLower(cross, hostRun(false, packets, burst));
        keepLower(same, hostRun(true, packets, burst));
    }
    const qint64 buffers = packets * 5;
    const double gstQueue = best(runs, [&] { return gstPerBuffer(true, buffers); });
    const double gstDirect = best(runs, [&] { return gstPerBuffer(false, buffers); });

    auto us = [](double s) { return s * 1e6; };
    std::printf(
        "host: %lld packets of 1024 bytes, %d a 1 ms tick; GStreamer: %lld buffers; "
        "best of %d runs, CPU per packet\n",
        static_cast<long long>(packets), burst, static_cast<long long>(buffers), runs);
    std::printf("  %-44s %8.3f us\n", "source's timer alone (subtracted below)", us(timer));
    std::printf("  %-44s %8.3f us  (%.3f with the timer)\n", "host, receiver in another thread",
                us(cross - timer), us(cross));
    std::printf("  %-44s %8.3f us  (%.3f with the timer)\n", "host, receiver in the same thread",
                us(same - timer), us(same));
    std::printf("  %-44s %8.3f us\n", "fakesrc ! queue ! fakesink", us(gstQueue));
    std::printf("  %-44s %8.3f us\n", "fakesrc ! fakesink", us(gstDirect));
    std::printf("host_delivery cross_thread=%.3f same_thread=%.3f gst_queue=%.3f gst_direct=%.3f\n",
                us(cross - timer), us(same - timer), us(gstQueue), us(gstDirect));
    return std::isfinite(cross) && std::isfinite(same) ? 0 : 1;
}
