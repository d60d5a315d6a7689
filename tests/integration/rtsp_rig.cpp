#include "rtsp_rig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QSet>
#include <QTemporaryDir>

#include "frame/VeskHi.h"
#include "host/VeskHost.h"
#include "input/VeskInputRtsp.h"

namespace rtsp {

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
    // None may be dropped on the way, or the decode checks would fail for
    // the wrong reason.
    shareDepth = 256;
}

void Sink::onNewPacketA(VeskObject::Packet p)
{
    record(false, p);
}

void Sink::onNewPacketV(VeskObject::Packet p)
{
    record(true, p);
}

void Sink::record(bool video, const VeskObject::Packet& p)
{
    Unit u;
    u.video = video;
    u.pts = p.pts;
    u.arrival = hostNow();
    u.frameType = p.frameType;
    u.bytes = QByteArray(p.data, p.len);
    QMutexLocker lock(&mutex);
    all << u;
}

QList<Unit> Sink::units(bool video) const
{
    QMutexLocker lock(&mutex);
    QList<Unit> out;
    for (const Unit& u : all)
        if (u.video == video) out << u;
    return out;
}

int Sink::count(bool video) const
{
    QMutexLocker lock(&mutex);
    int n = 0;
    for (const Unit& u : all) n += u.video == video;
    return n;
}

void Sink::clear()
{
    QMutexLocker lock(&mutex);
    all.clear();
}

// ---- server ----------------------------------------------------------------------

Server::Server(const QStringList& serverArgs) : args(serverArgs)
{
    if (!args.contains(QStringLiteral("--port"))) args << QStringLiteral("--port") << "0";
    // A safety net for a test that dies without its destructors.
    args << QStringLiteral("--seconds") << QStringLiteral("300");
    launch(args);
}

Server::~Server()
{
    if (!process || process->state() == QProcess::NotRunning) return;
    process->terminate();
    if (!process->waitForFinished(3000)) {
        process->kill();
        process->waitForFinished(3000);
    }
}

bool Server::launch(const QStringList& a)
{
    process.reset(new QProcess);
    process->start(QStringLiteral("/usr/bin/python3"),
                   QStringList{QStringLiteral(VESK_SOURCE_DIR "/scripts/rtsp-server.py")} + a);
    if (!process->waitForStarted(5000)) return false;
    // The first GStreamer run on a machine builds its plugin registry.
    QElapsedTimer t;
    t.start();
    QByteArray out;
    while (!out.contains('\n') && t.elapsed() < 60000 && process->state() == QProcess::Running) {
        process->waitForReadyRead(200);
        out += process->readAllStandardOutput();
    }
    log += QString::fromUtf8(process->readAllStandardError());
    bool number = false;
    const int p = out.trimmed().toInt(&number);
    if (!number || p <= 0) {
        ADD_FAILURE() << "rtsp-server.py did not start: " << out.constData() << log.toStdString();
        return false;
    }
    port = p;
    return true;
}

QString Server::url(const QString& path, const QString& credentials) const
{
    const QString who = credentials.isEmpty() ? QString() : credentials + QLatin1Char('@');
    return QStringLiteral("rtsp://") + who + QStringLiteral("127.0.0.1:%1%2").arg(port).arg(path);
}

void Server::kill()
{
    if (!process) return;
    process->kill();
    process->waitForFinished(5000);
    log += QString::fromUtf8(process->readAllStandardError());
}

bool Server::restart()
{
    QStringList again = args;
    const int at = again.indexOf(QStringLiteral("--port"));
    again[at + 1] = QString::number(port);
    // The old listening socket may take a moment to be free again.
    for (int attempt = 0; attempt < 10; ++attempt) {
        process.reset(new QProcess);
        process->start(
            QStringLiteral("/usr/bin/python3"),
            QStringList{QStringLiteral(VESK_SOURCE_DIR "/scripts/rtsp-server.py")} + again);
        if (!process->waitForStarted(5000)) return false;
        QElapsedTimer t;
        t.start();
        QByteArray out;
        while (!out.contains('\n') && t.elapsed() < 30000 &&
               process->state() == QProcess::Running) {
            process->waitForReadyRead(200);
            out += process->readAllStandardOutput();
        }
        if (out.trimmed().toInt() == port) return true;
        process->waitForFinished(2000);
        log += QString::fromUtf8(process->readAllStandardError());
        QThread::msleep(300);
    }
    return false;
}

QString Server::output()
{
    if (process) log += QString::fromUtf8(process->readAllStandardError());
    return log;
}

// ---- rig -------------------------------------------------------------------------

Rig::Rig(const QVariantMap& data, bool startNow)
{
    sinkThread.setObjectName(QStringLiteral("sink"));
    sinkThread.start();
    sink.moveToThread(&sinkThread);
    QObject::connect(&graph, &VeskGraph::nodeEvent,
                     [this](const QString&, const QString& name, const QVariant& value) {
                         seen << Event{hostNow(), name, value};
                     });
    // Names the class, so that the library is linked in and registers it.
    const QString className = QString::fromLatin1(VeskInputRtsp::staticMetaObject.className());
    QString error;
    node = graph.create(className, QStringLiteral("rtsp"), QString(), &error);
    EXPECT_NE(node, nullptr) << error.toStdString();
    if (!node) return;
    VeskHost::link(node, &sink, VeskHost::LinkA | VeskHost::LinkV);
    graph.setData(QStringLiteral("rtsp"), data);
    if (startNow) start();
}

Rig::~Rig()
{
    // A connect window being waited out ends now.
    if (node && node->thread()) node->thread()->requestInterruption();
    VeskHost::detach(&sink);
    graph.shutdown();
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &sink, [this, home] { sink.moveToThread(home); }, Qt::BlockingQueuedConnection);
    sinkThread.quit();
    sinkThread.wait();
}

void Rig::start()
{
    graph.start(QStringLiteral("rtsp"));
}

void Rig::stop()
{
    graph.stop(QStringLiteral("rtsp"));
}

void Rig::setData(const QVariantMap& data)
{
    graph.setData(QStringLiteral("rtsp"), data);
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

// ---- media checks ------------------------------------------------------------------

int nalType(const Unit& u, bool h265)
{
    if (u.bytes.size() < 5) return -1;
    const auto b = static_cast<uint8_t>(u.bytes.at(4));
    return h265 ? (b >> 1) & 63 : b & 31;
}

bool isSlice(const Unit& u, bool h265)
{
    const int t = nalType(u, h265);
    return h265 ? t >= 0 && t <= 31 : t >= 1 && t <= 5;
}

int pictures(const QList<Unit>& video, bool h265)
{
    int n = 0;
    bool first = true;
    qint64 last = 0;
    for (const Unit& u : video) {
        if (!isSlice(u, h265)) continue;
        if (first || u.pts != last) ++n;
        first = false;
        last = u.pts;
    }
    return n;
}

Probe ffprobe(const QByteArray& bytes, const QString& format)
{
    Probe p;
    QTemporaryDir dir;
    const QString file = dir.path() + QStringLiteral("/stream.") + format;
    QFile f(file);
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size()) return p;
    f.close();
    QProcess probe;
    probe.start(QStringLiteral("ffprobe"),
                {"-v", "error", "-count_frames", "-f", format, "-show_entries",
                 "stream=codec_name,width,height,sample_rate,channels,nb_read_frames", "-of",
                 "json", file});
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

QByteArray adts(const QList<Unit>& audio, int sampleRate, int channels)
{
    static const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                22050, 16000, 12000, 11025, 8000,  7350};
    int index = 0;
    while (index < 12 && rates[index] != sampleRate) ++index;
    QByteArray out;
    for (const Unit& u : audio) {
        const int len = u.bytes.size() + 7;
        const char header[7] = {
            char(0xFF),
            char(0xF1),                                       // MPEG-4, no CRC
            char((1 << 6) | (index << 2) | (channels >> 2)),  // AAC-LC
            char(((channels & 3) << 6) | (len >> 11)),
            char((len >> 3) & 0xFF),
            char(((len & 7) << 5) | 0x1F),
            char(0xFC),
        };
        out.append(header, 7);
        out.append(u.bytes);
    }
    return out;
}

}  // namespace rtsp
