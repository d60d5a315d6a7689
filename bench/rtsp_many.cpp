// rtsp-many URL STREAMS [--expect VIDEO_UNITS AUDIO_FRAMES] [--threads K] [-v]
//
// Plays the host for STREAMS VeskInputRtsp nodes on the same URL, each
// linked to a sink of its own that only counts and lives in the node's
// thread. The nodes get the threads the graph gives them (one each), or
// with --threads are spread over K shared ones. The run ends once every
// sink has counted what --expect says a whole stream holds, or when no
// sink has counted anything for 3 s after the first packet. Prints
//   vesk streams=N complete=K video_packets=N audio_packets=N bad_start=N
//        dropped=N end=WHY
// and, on standard error, each stream that came up short.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "bench/counting_sink.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 3) {
        std::fprintf(stderr,
                     "usage: rtsp-many URL STREAMS [--expect VIDEO_UNITS AUDIO_FRAMES] "
                     "[--threads K] [-v]\n");
        return 2;
    }
    const QString url = QString::fromLocal8Bit(argv[1]);
    const int streams = std::max(1, std::atoi(argv[2]));
    qint64 wantV = -1, wantA = -1;
    int threads = 0;
    for (int i = 3; i < argc; ++i) {
        const QByteArray a = argv[i];
        if (a == "--expect" && i + 2 < argc) {
            wantV = std::atoll(argv[++i]);
            wantA = std::atoll(argv[++i]);
        } else if (a == "--threads" && i + 1 < argc) {
            threads = std::max(0, std::atoi(argv[++i]));
        } else if (a == "-v") {
            verboseLog = true;
        }
    }
    qInstallMessageHandler(quietDebug);

    VeskGraph graph;
    std::vector<VeskObject*> nodes;
    std::vector<std::unique_ptr<CountingSink>> sinks;
    for (int i = 0; i < streams; ++i) {
        QString error;
        const QString name = QStringLiteral("rtsp%1").arg(i);
        const QString thread =
            threads > 0 ? QStringLiteral("rtsp-t%1").arg(i % threads) : QString();
        VeskObject* node = graph.create(QStringLiteral("VeskInputRtsp"), name, thread, &error);
        if (!node) {
            std::fprintf(stderr, "rtsp-many: %s\n", qPrintable(error));
            return 1;
        }
        sinks.emplace_back(new CountingSink(QStringLiteral("count%1").arg(i)));
        sinks.back()->moveToThread(node->thread());
        VeskHost::link(node, sinks.back().get(), VeskHost::LinkA | VeskHost::LinkV);
        nodes.push_back(node);
    }

    RunEnd finish;
    QObject::connect(&graph, &VeskGraph::nodeEvent, &app,
                     [&](const QString& node, const QString& event, const QVariant&) {
                         if (verboseLog)
                             std::fprintf(stderr, "%s: event %s\n", qPrintable(node),
                                          qPrintable(event));
                     });
    auto total = [&] {
        qint64 n = 0;
        for (auto& s : sinks)
            n += s->videoPackets.load(std::memory_order_relaxed) +
                 s->audioPackets.load(std::memory_order_relaxed);
        return n;
    };
    auto complete = [&] {
        int k = 0;
        for (auto& s : sinks)
            if (s->videoPackets.load() == wantV && s->audioPackets.load() == wantA) ++k;
        return k;
    };
    qint64 seen = 0;
    QElapsedTimer still;
    still.start();
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &app, [&] {
        if (wantV >= 0 && complete() == streams) return finish(QStringLiteral("complete"));
        const qint64 n = total();
        if (n != seen) {
            seen = n;
            still.restart();
        } else if (n > 0 && still.elapsed() > 3000) {
            finish(QStringLiteral("quiet"));
        }
    });
    watch.start(200);
    QTimer::singleShot(3600000, &app, [&] { finish(QStringLiteral("too-long")); });

    for (int i = 0; i < streams; ++i) {
        const QString name = QStringLiteral("rtsp%1").arg(i);
        graph.setData(name, {{QStringLiteral("path"), url}});
        graph.start(name);
    }
    app.exec();

    for (int i = 0; i < streams; ++i) graph.stop(QStringLiteral("rtsp%1").arg(i));
    quint64 dropped = 0;
    qint64 v = 0, a = 0, bad = 0;
    for (int i = 0; i < streams; ++i) {
        CountingSink* s = sinks[size_t(i)].get();
        dropped += s->takeBack();
        v += s->videoPackets.load();
        a += s->audioPackets.load();
        bad += s->badStart.load();
        if (wantV >= 0 && (s->videoPackets.load() != wantV || s->audioPackets.load() != wantA))
            std::fprintf(
                stderr, "rtsp-many: stream %d: video %lld of %lld, audio %lld of %lld\n", i,
                static_cast<long long>(s->videoPackets.load()), static_cast<long long>(wantV),
                static_cast<long long>(s->audioPackets.load()), static_cast<long long>(wantA));
    }
    const int done = wantV >= 0 ? complete() : 0;
    graph.shutdown();

    std::printf(
        "vesk streams=%d complete=%d video_packets=%lld audio_packets=%lld bad_start=%lld "
        "dropped=%llu end=%s\n",
        streams, done, static_cast<long long>(v), static_cast<long long>(a),
        static_cast<long long>(bad), static_cast<unsigned long long>(dropped),
        qPrintable(finish.why));
    return (wantV < 0 || done == streams) && bad == 0 && dropped == 0 ? 0 : 1;
}
