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
#include <cstdio>

#include "bench/counting_sink.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"

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
            verboseLog = true;
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
    CountingSink sink(QStringLiteral("count"));
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
    RunEnd finish;
    QObject::connect(&graph, &VeskGraph::nodeEvent, &app,
                     [&](const QString&, const QString& event, const QVariant&) {
                         if (verboseLog) std::fprintf(stderr, "event %s\n", qPrintable(event));
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
    const quint64 dropped = sink.takeBack();
    graph.shutdown();
    own.quit();
    own.wait();
    if (sink.dump) std::fclose(sink.dump);

    std::printf(
        "vesk video_packets=%lld video_bytes=%lld key_packets=%lld bad_start=%lld "
        "audio_packets=%lld dropped=%llu end=%s\n",
        static_cast<long long>(sink.videoPackets.load()),
        static_cast<long long>(sink.videoBytes.load()),
        static_cast<long long>(sink.keyPackets.load()),
        static_cast<long long>(sink.badStart.load()),
        static_cast<long long>(sink.audioPackets.load()), static_cast<unsigned long long>(dropped),
        qPrintable(finish.why));
    return ready && sink.videoPackets.load() > 0 ? 0 : 1;
}
