#include "source_rig.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QTemporaryDir>

#include "frame/VeskHi.h"
#include "host/VeskHost.h"

namespace srcrig {

qint64 hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

// ---- sink ------------------------------------------------------------------------

Sink::Sink()
{
    setName(QStringLiteral("sink"));
    // Files read at full speed come in bursts; a packet dropped on the way
    // would fail the decode checks for the wrong reason.
    shareDepth = 256;
}

void Sink::record(bool video, const VeskObject::Packet& p)
{
    const Unit u{video, p.pts, hostNow(), p.frameType, QByteArray(p.data, p.len)};
    QMutexLocker lock(&mutex);
    all[video] << u;
}

QList<Unit> Sink::units(bool video) const
{
    QMutexLocker lock(&mutex);
    return all[video];
}

int Sink::count(bool video) const
{
    QMutexLocker lock(&mutex);
    return all[video].size();
}

QByteArray Sink::videoBytes() const
{
    QMutexLocker lock(&mutex);
    QByteArray out;
    for (const Unit& u : all[true]) out += u.bytes;
    return out;
}

void Sink::clear()
{
    QMutexLocker lock(&mutex);
    all[0].clear();
    all[1].clear();
}

// ---- rig -------------------------------------------------------------------------

Rig::Rig()
{
    sinkThread.setObjectName(QStringLiteral("sink"));
    sinkThread.start();
    sink.moveToThread(&sinkThread);
    QObject::connect(&graph, &VeskGraph::nodeEvent,
                     [this](const QString&, const QString& name, const QVariant& value) {
                         seen << Event{hostNow(), name, keepValues ? value : QVariant()};
                     });
}

Rig::~Rig()
{
    VeskHost::detach(&sink);
    graph.shutdown();
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &sink, [this, home] { sink.moveToThread(home); }, Qt::BlockingQueuedConnection);
    sinkThread.quit();
    sinkThread.wait();
}

QString Rig::create(const QString& className, const QString& node, const QVariantMap& data)
{
    QString error;
    nodeName = node;
    source = graph.create(className, node, QString(), &error);
    if (!source) return error;
    VeskHost::link(source, &sink, VeskHost::LinkA | VeskHost::LinkV);
    graph.setData(node, data);
    return QString();
}

void Rig::setData(const QVariantMap& data)
{
    graph.setData(nodeName, data);
}

QList<Event> Rig::events(const QString& name) const
{
    QList<Event> out;
    for (const Event& e : seen)
        if (name.isEmpty() || e.name == name) out << e;
    return out;
}

bool Rig::waitUntil(const std::function<bool()>& done, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

bool Rig::waitEvent(const QString& name, int count, int ms)
{
    return waitUntil([&] { return events(name).size() >= count; }, ms);
}

void Rig::pump(int ms)
{
    waitUntil([] { return false; }, ms);
}

QVariantMap Rig::ready(int index) const
{
    return events(QStringLiteral("ready")).value(index).value.toMap();
}

// ---- children ----------------------------------------------------------------------

QByteArray firstLine(QProcess& process, int ms)
{
    QElapsedTimer t;
    t.start();
    QByteArray out;
    while (!out.contains('\n') && t.elapsed() < ms && process.state() == QProcess::Running) {
        process.waitForReadyRead(200);
        out += process.readAllStandardOutput();
    }
    return out;
}

// ---- ffprobe -----------------------------------------------------------------------

Probe ffprobe(const QByteArray& bytes, const QString& format)
{
    Probe p;
    QTemporaryDir dir;
    QFile f(dir.filePath(QStringLiteral("stream.") + format));
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size()) return p;
    f.close();
    QProcess probe;
    probe.start(QStringLiteral("ffprobe"),
                {"-v", "error", "-count_frames", "-f", format, "-show_entries",
                 "stream=codec_name,width,height,sample_rate,channels,nb_read_frames", "-of",
                 "json", f.fileName()});
    if (!probe.waitForFinished(60000)) return p;
    p.errors = QString::fromUtf8(probe.readAllStandardError()).trimmed();
    const QJsonArray streams =
        QJsonDocument::fromJson(probe.readAllStandardOutput()).object().value("streams").toArray();
    if (probe.exitCode() != 0 || streams.isEmpty()) return p;
    const QJsonObject s = streams.first().toObject();
    p.codec = s.value("codec_name").toString();
    p.width = s.value("width").toInt();
    p.height = s.value("height").toInt();
    p.sampleRate = s.value("sample_rate").toString().toInt();
    p.channels = s.value("channels").toInt();
    p.frames = s.value("nb_read_frames").toString().toInt();
    p.ok = true;
    return p;
}

}  // namespace srcrig
