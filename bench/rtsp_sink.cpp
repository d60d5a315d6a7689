// rtsp-sink URL [--sink-thread] [--dump FILE] [-v]
//
// Plays the host for one VeskInputRtsp node: creates it by class name, links
// it to a sink that only counts, and runs until the session ends (the node's
// "timeout" or "error" event, or 2 s without a packet once it was ready).
// Prints one line:
//   vesk video_packets=N video_bytes=N key_packets=N bad_start=N
//        audio_packets=N dropped=N end=EVENT
// The sink shares the node's thread unless --sink-thread gives it one of its
// own: then every packet also costs a wake-up of that thread, which is the
// host's delivery and not the node's work. --dump writes the video units
// as they came (Annex B), to compare with what another client makes of the
// same stream.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"

namespace {

class CountingSink : public VeskObject {
public:
    CountingSink()
    {
        setName(QStringLiteral("count"));
        // Room for a whole socket read's worth of units in one queue.
        shareDepth = 64;
    }
    void onNewPacketV(VeskObject::Packet p) override
    {
        videoPackets.fetch_add(1, std::memory_order_relaxed);
        videoBytes.fetch_add(p.len, std::memory_order_relaxed);
        if (p.frameType == 0) ++keyPackets;
        if (p.len < 4 || std::memcmp(p.data, "\0\0\0\1", 4) != 0) ++badStart;
        if (dump) std::fwrite(p.data, 1, size_t(p.len), dump);
    }
    void onNewPacketA(VeskObject::Packet) override { ++audioPackets; }

    std::atomic<qint64> videoPackets{0}, videoBytes{0};
    qint64 keyPackets = 0, badStart = 0, audioPackets = 0;
    FILE* dump = nullptr;
};

bool verbose = false;

void quietDebug(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg && !verbose) return;
    std::fprintf(stderr, "%s\n", qPrintable(text));
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QString url;
    bool sinkThread = false;
    const char* dumpPath = nullptr;
    for (int i = 1; i < argc; ++i) {
        const QByteArray a = argv[i];
        if (a == "--sink-thread")
            sinkThread = true;
        else if (a == "--dump" && i + 1 < argc)
            dumpPath = argv[++i];
        else if (a == "-v")
            verbose = true;
        else
            url = QString::fromLocal8Bit(a);
    }
    if (url.isEmpty()) {
        std::fprintf(stderr, "usage: rtsp-sink URL [--sink-thread] [--dump FILE] [-v]\n");
        return 2;
    }
    qInstallMessageHandler(quietDebug);

    VeskGraph graph;
    QString error;
    VeskObject* node =
        graph.create(QStringLiteral("VeskInputRtsp"), QStringLiteral("rtsp"), QString(), &error);
    if (!node) {
        std::fprintf(stderr, "rtsp-sink: %s\n", qPrintable(error));
        return 1;
    }
    CountingSink sink;
    if (dumpPath && !(sink.dump = std::fopen(dumpPath, "wb"))) {
        std::fprintf(stderr, "rtsp-sink: cannot write %s\n", dumpPath);
        return 1;
    }
    QThread own;
    if (sinkThread) {
        own.start();
        sink.moveToThread(&own);
    } else {
        sink.moveToThread(node->thread());
    }
    VeskHost::link(node, &sink, VeskHost::LinkA | VeskHost::LinkV);

    bool ready = false;
    QString end;
    auto finish = [&](const QString& why) {
        if (!end.isEmpty()) return;
        end = why;
        app.quit();
    };
    QObject::connect(&graph, &VeskGraph::nodeEvent, &app,
                     [&](const QString&, const QString& event, const QVariant&) {
                         if (verbose) std::fprintf(stderr, "event %s\n", qPrintable(event));
                         if (event == QLatin1String("ready")) ready = true;
                         if (event == QLatin1String("timeout") || event == QLatin1String("error"))
                             finish(event);
                     });
    // The event ends the run; this only catches a session that hangs.
    qint64 seen = -1;
    QElapsedTimer still;
    still.start();
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &app, [&] {
        const qint64 n = sink.videoPackets.load(std::memory_order_relaxed);
        if (n != seen) {
            seen = n;
            still.restart();
        } else if (ready && still.elapsed() > 2000) {
            finish(QStringLiteral("quiet"));
        }
    });
    watch.start(200);
    QTimer::singleShot(600000, &app, [&] { finish(QStringLiteral("too-long")); });

    graph.setData(QStringLiteral("rtsp"), {{QStringLiteral("path"), url}});
    graph.start(QStringLiteral("rtsp"));
    app.exec();

    graph.stop(QStringLiteral("rtsp"));
    // Packets already queued for the sink are counted before it is read.
    VeskGraph::runIn(&sink, [] {});
    const quint64 dropped = VeskHost::droppedPackets(&sink, VeskHost::LinkA) +
                            VeskHost::droppedPackets(&sink, VeskHost::LinkV);
    VeskHost::detach(&sink);
    QThread* home = QThread::currentThread();
    VeskGraph::runIn(&sink, [&] { sink.moveToThread(home); });
    graph.shutdown();
    own.quit();
    own.wait();
    if (sink.dump) std::fclose(sink.dump);

    std::printf(
        "vesk video_packets=%lld video_bytes=%lld key_packets=%lld bad_start=%lld "
        "audio_packets=%lld dropped=%llu end=%s\n",
        static_cast<long long>(sink.videoPackets.load()),
        static_cast<long long>(sink.videoBytes.load()), static_cast<long long>(sink.keyPackets),
        static_cast<long long>(sink.badStart), static_cast<long long>(sink.audioPackets),
        static_cast<unsigned long long>(dropped), qPrintable(end));
    return ready && sink.videoPackets.load() > 0 ? 0 : 1;
}
