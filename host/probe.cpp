#include "host/probe.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QVector>
#include <cstdio>
#include <cstring>
#include <memory>

#include "frame/VeskHi.h"
#include "frame/VeskObject.h"
#include "frame/VeskSys.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "host/usage.h"
#include "sim/VirtualBoard.h"

namespace {


void out(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

int fail(const QString& why)
{
    return veskUsageError("probe", why);
}

qint64 hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

struct SideStats {
    qint64 packets = 0;
    qint64 bytes = 0;
    qint64 keyPackets = 0;
    qint64 lastPts = 0;
    qint64 ptsBackwards = 0;
    // Arrival time and size of every packet, and whether it began a frame:
    // the RTSP node sends each NAL unit of a picture as a packet of its own,
    // all with the picture's pts.
    struct Arrival {
        qint64 at;
        int len;
        bool frame;
    };
    QVector<Arrival> arrivals;

    void add(const VeskObject::Packet& p)
    {
        if (packets > 0 && p.pts < lastPts) ++ptsBackwards;
        const bool frame = packets == 0 || p.pts != lastPts;
        lastPts = p.pts;
        ++packets;
        bytes += p.len;
        if (p.frameType == 0) ++keyPackets;
        arrivals.append({hostNow(), p.len, frame});
    }

    // Rates as delivered, over the later half of the packets: what FFmpeg
    // buffered while probing comes in one burst at the start and would
    // count as speed. Frames per second and bits per second; 0 when there
    // is too little to tell.
    QPair<double, double> rates() const
    {
        const int n = arrivals.size();
        if (n < 4) return {0, 0};
        const int from = n / 2;
        const double span = double(arrivals[n - 1].at - arrivals[from].at) / 1e6;
        if (span <= 0) return {0, 0};
        qint64 sum = 0;
        int frames = 0;
        for (int i = from + 1; i < n; ++i) {
            sum += arrivals[i].len;
            frames += arrivals[i].frame;
        }
        return {double(frames) / span, double(sum) * 8.0 / span};
    }

    QJsonObject toJson() const
    {
        QJsonObject o{{"packets", double(packets)},
                      {"bytes", double(bytes)},
                      {"keyPackets", double(keyPackets)},
                      {"ptsBackwards", double(ptsBackwards)}};
        const auto r = rates();
        if (r.first > 0) {
            o.insert("framerate", qRound(r.first * 100) / 100.0);
            o.insert("bitrate", double(qRound64(r.second)));
        }
        return o;
    }

    QString describe() const
    {
        QString s =
            QStringLiteral("%1 packets, %2 bytes, %3 key").arg(packets).arg(bytes).arg(keyPackets);
        const auto r = rates();
        if (r.first > 0)
            s += QStringLiteral(", %1 per second, %2 kbit/s")
                     .arg(r.first, 0, 'f', 2)
                     .arg(r.second / 1000.0, 0, 'f', 1);
        if (ptsBackwards) s += QStringLiteral(", pts went back %1 times").arg(ptsBackwards);
        return s;
    }
};

// Counts what the source sends; lives in the probe's thread.
class CountingSink : public VeskObject {
public:
    CountingSink()
    {
        setName(QStringLiteral("probe-sink"));
        // Room for a burst of a fast source while the probe's thread prints.
        shareDepth = 64;
    }
    void onNewPacketA(VeskObject::Packet p) override { audio.add(p); }
    void onNewPacketV(VeskObject::Packet p) override { video.add(p); }

    SideStats audio, video;
};

QVariant parseValue(const QString& text)
{
    QJsonParseError err;
    const QJsonDocument doc = QJsonDocument::fromJson("[" + text.toUtf8() + "]", &err);
    if (err.error == QJsonParseError::NoError && doc.array().size() == 1)
        return VeskHost::fromJson(doc.array().first());
    return text;
}

// What a camera offers, asked the way the camera node asks it.
QVariantList cameraFormats(const QString& path)
{
    QVariantList formats;
    const int fd = vsys::open(path.toLocal8Bit().constData(), O_RDWR | O_NONBLOCK);
    if (fd < 0) return formats;
    for (uint32_t i = 0; i < 64; ++i) {
        v4l2_fmtdesc desc;
        std::memset(&desc, 0, sizeof desc);
        desc.index = i;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (vsys::ioctl(fd, VIDIOC_ENUM_FMT, &desc) != 0) break;
        formats << QString::fromLatin1(reinterpret_cast<const char*>(desc.description),
                                       int(qstrnlen(reinterpret_cast<const char*>(desc.description),
                                                    sizeof desc.description)));
    }
    vsys::close(fd);
    return formats;
}

}  // namespace

QString veskProbeClassFor(const QString& url)
{
    if (url.startsWith(QLatin1String("/dev/video"))) return QStringLiteral("VeskInputV4l2");
    const QString scheme = QUrl(url).scheme().toLower();
    // RTSP has a node of its own; until it is in the library, FFmpeg's
    // client serves it like any other URL.
    if (scheme == QLatin1String("rtsp") &&
        QMetaType::type("VeskInputRtsp*") != QMetaType::UnknownType)
        return QStringLiteral("VeskInputRtsp");
    return QStringLiteral("VeskInputNet");
}

int veskProbe(const QStringList& args)
{
    QString url;
    double seconds = 10;
    bool json = false;
    QVariantMap settings;
    bool sim = false;
    QString scenarioFile;
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        const bool hasNext = i + 1 < args.size();
        if (a == QLatin1String("--seconds")) {
            bool ok = false;
            seconds = hasNext ? args[++i].toDouble(&ok) : 0;
            if (!ok || seconds <= 0)
                return fail(QStringLiteral("--seconds needs a positive number"));
        } else if (a == QLatin1String("--json")) {
            json = true;
        } else if (a == QLatin1String("--set")) {
            const QString kv = hasNext ? args[++i] : QString();
            const int eq = kv.indexOf(QLatin1Char('='));
            if (eq <= 0) return fail(QStringLiteral("--set needs KEY=VALUE"));
            settings.insert(kv.left(eq), parseValue(kv.mid(eq + 1)));
        } else if (a == QLatin1String("--sim")) {
            sim = true;
            if (hasNext && args[i + 1].endsWith(QLatin1String(".json"))) scenarioFile = args[++i];
        } else if (a.startsWith(QLatin1String("--"))) {
            return fail(QStringLiteral("unexpected argument \"%1\"").arg(a));
        } else if (url.isEmpty()) {
            url = a;
        } else {
            return fail(QStringLiteral("one URL only (\"%1\")").arg(a));
        }
    }
    if (url.isEmpty()) return fail(QStringLiteral("probe needs a URL"));

    std::unique_ptr<QCoreApplication> ownApp;
    static int argc = 1;
    static char name[] = "veskhost";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance()) ownApp.reset(new QCoreApplication(argc, argv));

    if (sim) {
        QVariantMap scenario = vsim::defaultScenario();
        if (!scenarioFile.isEmpty()) {
            QFile f(scenarioFile);
            if (!f.open(QIODevice::ReadOnly)) return fail(scenarioFile + ": " + f.errorString());
            scenario = QJsonDocument::fromJson(f.readAll()).toVariant().toMap();
        }
        QString why;
        vsim::Board::instance().activate();
        if (!vsim::Board::instance().loadScenario(scenario, &why)) return fail(why);
        vsim::Board::instance().startScenario();
    }

    QElapsedTimer clock;
    clock.start();
    VeskGraph graph;
    const QString cls = veskProbeClassFor(url);
    QString error;
    VeskObject* node = graph.create(cls, QStringLiteral("probe"), QString(), &error);
    if (!node) {
        std::fprintf(stderr, "veskhost probe: %s\n", qPrintable(error));
        return 1;
    }

    CountingSink sink;
    VeskHost::link(node, &sink, VeskHost::LinkA | VeskHost::LinkV);

    QVariant ready;
    QJsonArray events;
    QMetaObject::Connection watch =
        QObject::connect(&graph, &VeskGraph::nodeEvent,
                         [&](const QString&, const QString& event, const QVariant& value) {
                             // The graph reports stream announcements alongside; "events" are
                             // what the node itself raised.
                             const bool announcement =
                                 event == QLatin1String("infoA") || event == QLatin1String("infoV");
                             if (!announcement) events.append(event);
                             if (event == QLatin1String("ready")) ready = value;
                             if (!json)
                                 out(QStringLiteral("[%1] %2  %3")
                                         .arg(double(clock.nsecsElapsed()) / 1e9, 8, 'f', 3)
                                         .arg(event, VeskHost::toJsonText(value)));
                         });

    settings.insert(QStringLiteral("path"), url);
    graph.setData(QStringLiteral("probe"), settings);
    // A network source opens inside onStart, for as long as its peer takes:
    // the probe's time runs from here, not from when the peer answered.
    QMetaObject::invokeMethod(
        node, [node] { node->start(); }, Qt::QueuedConnection);

    QEventLoop loop;
    QTimer::singleShot(qRound64(seconds * 1000), &loop, &QEventLoop::quit);
    loop.exec();

    // What happens while the node winds down is not part of the probe, and
    // the report comes first: a read blocked on a silent peer keeps the
    // node until its "timeout" has run out.
    QObject::disconnect(watch);
    VeskHost::detach(&sink);
    const bool flowed = sink.video.packets + sink.audio.packets > 0;
    if (cls == QLatin1String("VeskInputV4l2") && events.contains(QStringLiteral("CameraOpen"))) {
        // A camera has no "ready": what it offers and how it is set stand in.
        QVariantMap camera;
        camera["formats"] = cameraFormats(url);
        VeskGraph::runIn(node, [&] { camera["stream"] = node->infoV.params; });
        camera["ptz"] = graph.invoke(QStringLiteral("probe"), QStringLiteral("ptz_get"));
        camera["insta360"] = graph.invoke(QStringLiteral("probe"), QStringLiteral("insta360_get"));
        ready = camera;
    }
    const bool ok = ready.isValid() && flowed;
    if (json) {
        QJsonObject o{{"url", url},
                      {"class", cls},
                      {"ready", ready.isValid() ? VeskHost::toJson(ready) : QJsonValue()},
                      {"video", sink.video.toJson()},
                      {"audio", sink.audio.toJson()},
                      {"events", events}};
        out(QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)));
    } else {
        out(QStringLiteral("class: %1").arg(cls));
        out(QStringLiteral("ready: %1")
                .arg(ready.isValid() ? VeskHost::toJsonText(ready) : QStringLiteral("never")));
        out(QStringLiteral("video: %1").arg(sink.video.describe()));
        out(QStringLiteral("audio: %1").arg(sink.audio.describe()));
    }
    graph.stop(QStringLiteral("probe"));
    graph.shutdown();
    if (sim) vsim::Board::instance().stop();
    return ok ? 0 : 1;
}
