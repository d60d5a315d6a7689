// CPU per packet of the FFmpeg-based sources against FFmpeg itself, on one
// media file: a bare av_read_frame loop (the floor), `ffmpeg -c copy -f
// null`, VeskInputNet over the file's URL and VeskInputFile without pacing.
//
// Each source feeds a counting sink that shares its thread, so a packet's
// delivery costs one posted event and no thread switch; a sink in a thread
// of its own adds a wake-up of that thread per packet, which is the host's
// cost, not the source's. The sources are measured in steady state: process
// CPU time between two packets well inside the file, so that opening and
// probing do not count. ffmpeg is measured whole, less a run that only opens
// the file. Each figure is the best of a few runs: a loaded machine only
// ever adds time.
//
// Both sources run on a timer by design (the network source reads one
// packet per zero-length timer event, the file source one per 5 ms tick), so
// the same timers firing into an empty handler are measured too: that much
// of a source's figure is its design's floor in this event loop.
#include "bench/cpu_window.h"
#include "frame/VeskObject.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "input/VeskInputFile.h"
#include "input/VeskInputNet.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <sys/resource.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <QTimerEvent>
#include <atomic>
#include <cstdio>
#include <functional>

namespace {

constexpr int kRuns = 3;

double childrenCpu()
{
    rusage u{};
    getrusage(RUSAGE_CHILDREN, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Result {
    QString name;
    qint64 packets = 0;  // packets (or timer events) the figure is taken over
    double cpu = 0;      // seconds
    double perPacketUs() const { return packets > 0 ? cpu * 1e6 / double(packets) : 0; }
};

Result best(const QString& name, const std::function<Result()>& run)
{
    Result out{name};
    for (int i = 0; i < kRuns; ++i) {
        Result r = run();
        if (r.packets > 0 && (out.packets == 0 || r.perPacketUs() < out.perPacketUs())) out = r;
    }
    out.name = name;
    return out;
}

// Counts every packet and notes the process CPU time at two of them.
class CountingSink : public VeskObject {
public:
    CountingSink(qint64 from, qint64 to) : window(from, to)
    {
        setName(QStringLiteral("count"));
        shareDepth = 64;
    }
    void onNewPacketA(VeskObject::Packet) override { window.note(); }
    void onNewPacketV(VeskObject::Packet) override { window.note(); }

    CpuWindow window;
};

// A timer firing into an empty handler, counted like the sink counts.
class Ticker : public QObject {
public:
    Ticker(int interval, qint64 from, qint64 to) : window(from, to), interval(interval) {}
    void begin() { startTimer(interval, Qt::CoarseTimer); }
    CpuWindow window;

protected:
    void timerEvent(QTimerEvent* e) override
    {
        if (window.note()) killTimer(e->timerId());
    }

private:
    int interval;
};

Result timerFloor(int interval, qint64 events)
{
    QThread thread;
    thread.start();
    Ticker ticker(interval, 10, 10 + events);
    ticker.moveToThread(&thread);
    QMetaObject::invokeMethod(
        &ticker, [&] { ticker.begin(); }, Qt::QueuedConnection);
    while (!ticker.window.done) QThread::msleep(5);
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &ticker, [&] { ticker.moveToThread(home); }, Qt::BlockingQueuedConnection);
    thread.quit();
    thread.wait();
    Result r;
    r.packets = events;
    r.cpu = ticker.window.seconds();
    return r;
}

// Every packet of the file once, and the CPU between packets `from` and `to`.
Result bare(const QString& path, qint64 from, qint64 to, qint64* total)
{
    Result r;
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.toUtf8().constData(), nullptr, nullptr) < 0) return r;
    avformat_find_stream_info(ctx, nullptr);
    AVPacket* pkt = av_packet_alloc();
    qint64 n = 0;
    double a = 0, b = 0;
    while (av_read_frame(ctx, pkt) >= 0) {
        ++n;
        if (n == from) a = cpuNow();
        if (n == to) b = cpuNow();
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&ctx);
    *total = n;
    r.packets = to - from;
    r.cpu = b - a;
    return r;
}

Result source(const QString& cls, const QVariantMap& data, qint64 from, qint64 to)
{
    Result r;
    VeskGraph graph;
    QString error;
    VeskObject* n = graph.create(cls, QStringLiteral("src"), QString(), &error);
    if (!n) {
        std::fprintf(stderr, "source-bench: %s\n", qPrintable(error));
        return r;
    }
    CountingSink sink(from, to);
    sink.moveToThread(n->thread());
    VeskHost::link(n, &sink, VeskHost::LinkA | VeskHost::LinkV);
    graph.setData(QStringLiteral("src"), data);
    graph.start(QStringLiteral("src"));
    QElapsedTimer t;
    t.start();
    while (!sink.window.done && t.elapsed() < 600000) QThread::msleep(20);
    VeskHost::detach(&sink);
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &sink, [&] { sink.moveToThread(home); }, Qt::BlockingQueuedConnection);
    graph.shutdown();
    const quint64 dropped = VeskHost::droppedPackets(&sink, VeskHost::LinkA) +
                            VeskHost::droppedPackets(&sink, VeskHost::LinkV);
    if (!sink.window.done || dropped) {
        std::fprintf(stderr, "source-bench: %s: %lld packets counted, %llu dropped\n",
                     qPrintable(cls), static_cast<long long>(sink.window.count.load()),
                     static_cast<unsigned long long>(dropped));
        return r;
    }
    r.packets = to - from;
    r.cpu = sink.window.seconds();
    return r;
}

double runFfmpeg(const QStringList& extra, const QString& path)
{
    const double before = childrenCpu();
    QProcess p;
    p.setProcessChannelMode(QProcess::ForwardedChannels);
    p.start(QStringLiteral("ffmpeg"), QStringList{"-nostdin", "-v", "error", "-i", path} + extra +
                                          QStringList{"-c", "copy", "-f", "null", "-"});
    p.waitForFinished(-1);
    return childrenCpu() - before;
}

Result ffmpeg(const QString& path, qint64 total)
{
    // Starting the program and probing the file cost the same however long
    // the file is: the best run that stops at once takes them out.
    double whole = 1e9, idle = 1e9;
    for (int i = 0; i < kRuns; ++i) {
        whole = qMin(whole, runFfmpeg({}, path));
        idle = qMin(idle, runFfmpeg({"-t", "0"}, path));
    }
    Result r;
    r.packets = total;
    r.cpu = qMax(0.0, whole - idle);
    return r;
}

void row(const Result& r, double bareUs, double ffmpegUs)
{
    const double per = r.perPacketUs();
    std::printf("%-30s %8lld %8.3f %10.3f %13.0f %8.2f %8.2f\n", qPrintable(r.name),
                static_cast<long long>(r.packets), r.cpu, per, per > 0 ? 1e6 / per : 0.0,
                ffmpegUs > 0 ? per / ffmpegUs : 0.0, bareUs > 0 ? per / bareUs : 0.0);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: source-bench FILE [FILE_SOURCE_PACKETS]\n");
        return 2;
    }
    const QString path = QString::fromLocal8Bit(argv[1]);
    // The file source reads one packet per 5 ms tick: its window is kept
    // short enough to run in seconds.
    const qint64 fileWindow = argc > 2 ? QByteArray(argv[2]).toLongLong() : 1000;
    // Naming the classes keeps the library that registers them linked.
    if (!VeskInputNet::staticMetaObject.className() || !VeskInputFile::staticMetaObject.className())
        return 1;

    qint64 total = 0;
    bare(path, 1, 2, &total);  // counts, and brings the file into the page cache
    if (total < 4000) {
        std::fprintf(stderr, "source-bench: %s has %lld packets, want at least 4000\n",
                     qPrintable(path), static_cast<long long>(total));
        return 1;
    }
    const qint64 from = total / 10, to = total - total / 10;
    const Result b = best("bare av_read_frame", [&] { return bare(path, from, to, &total); });
    const Result ff = best("ffmpeg -c copy -f null", [&] { return ffmpeg(path, total); });
    const Result net = best("VeskInputNet (file: URL)", [&] {
        return source(QStringLiteral("VeskInputNet"),
                      {{"path", QStringLiteral("file:") + path}, {"sync", false}}, from, to);
    });
    const Result file = best("VeskInputFile (sync false)", [&] {
        return source(QStringLiteral("VeskInputFile"), {{"path", path}, {"sync", false}}, 200,
                      200 + fileWindow);
    });
    const Result zero = best("  empty 0 ms timer event", [] { return timerFloor(0, 200000); });
    const Result five = best("  empty 5 ms timer tick", [] { return timerFloor(5, 400); });

    const double bareUs = b.perPacketUs(), ffUs = ff.perPacketUs();
    std::printf("%s: %lld packets; CPU per packet, best of %d runs\n", qPrintable(path),
                static_cast<long long>(total), kRuns);
    std::printf("%-30s %8s %8s %10s %13s %8s %8s\n", "", "packets", "cpu_s", "us/packet",
                "packets/cpu_s", "/ffmpeg", "/bare");
    row(b, bareUs, ffUs);
    row(ff, bareUs, ffUs);
    row(net, bareUs, ffUs);
    row(zero, bareUs, ffUs);
    row(file, bareUs, ffUs);
    row(five, bareUs, ffUs);
    std::printf("beyond their timers: net %.3f us/packet, file %.3f us/packet\n",
                net.perPacketUs() - zero.perPacketUs(), file.perPacketUs() - five.perPacketUs());
    std::printf("cpu_per_packet net=%.3f file=%.3f bare=%.3f ffmpeg=%.3f ratio=%.3f\n",
                net.perPacketUs(), file.perPacketUs(), bareUs, ffUs,
                ffUs > 0 ? net.perPacketUs() / ffUs : 0.0);
    return net.packets > 0 && file.packets > 0 && ffUs > 0 ? 0 : 1;
}
