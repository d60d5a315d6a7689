#include "source_rig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUdpSocket>

#include "frame/VeskHi.h"
#include "host/VeskHost.h"
#include "tests/support/BuiltProgram.h"

namespace srcrig {

qint64 hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

void Sink::record(bool video, const VeskObject::Packet& p)
{
    QMutexLocker lock(&mutex);
    all[video] << Unit{p.pts, hostNow(), p.frameType, QByteArray(p.data, p.len), runs};
}

QList<Unit> Sink::units(bool video, int run) const
{
    QMutexLocker lock(&mutex);
    QList<Unit> out;
    for (const Unit& u : all[video])
        if (!run || u.run == run) out << u;
    return out;
}

Rig::Rig()
{
    sinkThread.start();
    sink.moveToThread(&sinkThread);
    QObject::connect(&graph, &VeskGraph::nodeEvent,
                     [this](const QString&, const QString& name, const QVariant& value) {
                         seen << Event{hostNow(), name, value};
                     });
}

Rig::~Rig()
{
    // A start queued by add() is not known to the graph as one.
    if (source) stop();
    VeskHost::detach(&sink);
    graph.shutdown();
    QMetaObject::invokeMethod(
        &sink, [this, home = QThread::currentThread()] { sink.moveToThread(home); },
        Qt::BlockingQueuedConnection);
    sinkThread.quit();
    sinkThread.wait();
}

void Rig::add(const QString& className, const QVariantMap& data, bool startNow)
{
    QString error;
    VeskObject* n = source = graph.create(className, "src", QString(), &error);
    ASSERT_TRUE(n) << error.toStdString();
    VeskHost::link(n, &sink, VeskHost::LinkA | VeskHost::LinkV);
    setData(data);
    if (startNow)
        QMetaObject::invokeMethod(
            n, [n] { n->start(); }, Qt::QueuedConnection);
}

bool Rig::waitUntil(const std::function<bool()>& done, int ms)
{
    QElapsedTimer t;
    for (t.start(); !done || !done(); QThread::msleep(5)) {
        if (t.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

int freePort(bool udp)
{
    QUdpSocket u;
    QTcpServer t;
    EXPECT_TRUE(udp ? u.bind(QHostAddress(QHostAddress::LocalHost), 0)
                    : t.listen(QHostAddress::LocalHost, 0));
    return udp ? u.localPort() : t.serverPort();
}

bool waitListening(int port, int ms)
{
    // Local address, remote address, state: 0A is listening.
    const QByteArray listening = QStringLiteral(":%1 00000000:0000 0A")
                                     .arg(port, 4, 16, QLatin1Char('0'))
                                     .toUpper()
                                     .toLatin1();
    QElapsedTimer t;
    for (t.start(); t.elapsed() < ms; QThread::msleep(20)) {
        QFile f("/proc/net/tcp");
        if (f.open(QIODevice::ReadOnly) && f.readAll().contains(listening)) return true;
    }
    return false;
}

QJsonObject veskhostProbe(const QString& program, const QString& url, int seconds, int* code)
{
    QProcess p;
    vesktest::startBuilt(p, program,
                         {"probe", url, "--seconds", QString::number(seconds), "--json"});
    if (!p.waitForFinished(60000)) p.kill();
    *code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    return QJsonDocument::fromJson(p.readAllStandardOutput().trimmed().split('\n').last()).object();
}

QJsonObject ffprobe(const QByteArray& bytes, const QString& format)
{
    QTemporaryDir dir;
    QFile f(dir.filePath("stream." + format));
    QProcess probe;
    if (f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size() && f.flush())
        probe.start("ffprobe",
                    {"-v", "error", "-count_frames", "-f", format, "-show_entries",
                     "stream=codec_name,width,height,nb_read_frames", "-of", "json", f.fileName()});
    probe.waitForFinished(60000);
    QJsonObject s = QJsonDocument::fromJson(probe.readAllStandardOutput())["streams"][0].toObject();
    s["frames"] = s["nb_read_frames"].toString().toInt();
    s["errors"] = QString(probe.readAllStandardError()).trimmed();
    return s;
}

}  // namespace srcrig
