#include "netfile_rig.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUdpSocket>

#include "frame/VeskHi.h"
#include "host/VeskHost.h"
#include "input/VeskInputFile.h"
#include "input/VeskInputNet.h"

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (GCC ships no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace rig {

qint64 hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

Sink::Sink()
{
    setName(QStringLiteral("sink"));
    // Files read at full speed come in bursts; a packet dropped on the way
    // would fail the decode checks for the wrong reason.
    shareDepth = 256;
}

void Sink::record(bool video, const VeskObject::Packet& p)
{
    const Unit u{p.pts, hostNow(), p.frameType, QByteArray(p.data, qMin(p.len, 8))};
    QMutexLocker lock(&mutex);
    all[video] << u;
    if (video) bytes.append(p.data, p.len);
}

QList<Unit> Sink::units(bool video) const
{
    QMutexLocker lock(&mutex);
    return all[video];
}

QByteArray Sink::videoBytes() const
{
    QMutexLocker lock(&mutex);
    return bytes;
}

void Sink::clear()
{
    QMutexLocker lock(&mutex);
    all[0].clear();
    all[1].clear();
    bytes.clear();
}

Rig::Rig()
{
    // Naming the classes keeps the linker from dropping the library that
    // registers them; the graph creates nodes by class name only.
    EXPECT_STREQ(VeskInputNet::staticMetaObject.className(), "VeskInputNet");
    EXPECT_STREQ(VeskInputFile::staticMetaObject.className(), "VeskInputFile");
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
    if (source) {
        // A read blocked on a silent peer ends now, not at "timeout".
        source->thread()->requestInterruption();
        graph.stop(QStringLiteral("src"));
    }
    graph.shutdown();
    QThread* home = QThread::currentThread();
    QMetaObject::invokeMethod(
        &sink, [this, home] { sink.moveToThread(home); }, Qt::BlockingQueuedConnection);
    sinkThread.quit();
    sinkThread.wait();
}

void Rig::add(const QString& className, const QVariantMap& data, bool start)
{
    QString error;
    source = graph.create(className, QStringLiteral("src"), QString(), &error);
    ASSERT_NE(source, nullptr) << error.toStdString();
    VeskHost::link(source, &sink, VeskHost::LinkA | VeskHost::LinkV);
    graph.setData(QStringLiteral("src"), data);
    VeskObject* n = source;
    if (start)
        QMetaObject::invokeMethod(
            n, [n] { n->start(); }, Qt::QueuedConnection);
}

void Rig::setData(const QVariantMap& data)
{
    graph.setData(QStringLiteral("src"), data);
}

QVariant Rig::invoke(const QString& method, const QVariant& arg)
{
    return graph.invoke(QStringLiteral("src"), method, arg);
}

QVariantMap Rig::data()
{
    QVariantMap copy;
    VeskObject* n = source;
    VeskGraph::runIn(n, [&] { copy = n->data; });
    return copy;
}

QList<Event> Rig::events(const QString& name) const
{
    QList<Event> out;
    for (const Event& e : seen)
        if (e.name == name) out << e;
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

Peer::Peer(const QString& program, const QStringList& args)
{
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    EXPECT_TRUE(process.waitForStarted(5000)) << program.toStdString();
}

void Peer::kill()
{
    if (process.state() == QProcess::NotRunning) return;
    process.kill();
    process.waitForFinished(5000);
}

QString media(const QString& name)
{
    static const bool made = [] {
        QProcess p;
        p.setProcessChannelMode(QProcess::ForwardedChannels);
        p.start(QStringLiteral("bash"), {NETFILE_MEDIA_SCRIPT, NETFILE_MEDIA_DIR});
        return p.waitForFinished(300000) && p.exitCode() == 0;
    }();
    EXPECT_TRUE(made) << "making the test media failed";
    return QDir(QStringLiteral(NETFILE_MEDIA_DIR)).filePath(name);
}

int freeTcpPort()
{
    QTcpServer s;
    EXPECT_TRUE(s.listen(QHostAddress::LocalHost, 0));
    return s.serverPort();
}

int freeUdpPort()
{
    QUdpSocket s;
    EXPECT_TRUE(s.bind(QHostAddress(QHostAddress::LocalHost), 0));
    return s.localPort();
}

bool waitListening(int port, int ms)
{
    const QByteArray want =
        QStringLiteral(":%1").arg(port, 4, 16, QLatin1Char('0')).toUpper().toLatin1();
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < ms) {
        QFile f(QStringLiteral("/proc/net/tcp"));
        if (f.open(QIODevice::ReadOnly))
            for (const QByteArray& line : f.readAll().split('\n')) {
                const QList<QByteArray> cols = line.simplified().split(' ');
                // local address, remote address, state (0A: listening)
                if (cols.size() > 3 && cols[1].endsWith(want) && cols[3] == "0A") return true;
            }
        QThread::msleep(20);
    }
    return false;
}

std::unique_ptr<Peer> liveEncoder(const QStringList& output)
{
    const QStringList args = {"-nostdin",
                              "-v",
                              "error",
                              "-re",
                              "-f",
                              "lavfi",
                              "-i",
                              "testsrc=size=320x240:rate=25",
                              "-re",
                              "-f",
                              "lavfi",
                              "-i",
                              "sine=frequency=440:sample_rate=48000",
                              "-c:v",
                              "libx264",
                              "-preset",
                              "ultrafast",
                              "-tune",
                              "zerolatency",
                              "-g",
                              "25",
                              "-pix_fmt",
                              "yuv420p",
                              "-c:a",
                              "aac",
                              "-ac",
                              "2",
                              "-b:a",
                              "96k"};
    return std::make_unique<Peer>(QStringLiteral("ffmpeg"), args + output);
}

std::unique_ptr<Peer> httpServer(const QString& dir, int* port)
{
    auto peer = std::make_unique<Peer>(
        QStringLiteral("/usr/bin/python3"),
        QStringList{"-u", "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory", dir});
    QByteArray text;
    const QRegularExpression re(QStringLiteral("port (\\d+)"));
    *port = 0;
    QElapsedTimer t;
    t.start();
    while (!*port && t.elapsed() < 10000) {
        text += peer->output();
        const auto m = re.match(QString::fromUtf8(text));
        if (m.hasMatch()) *port = m.captured(1).toInt();
    }
    EXPECT_GT(*port, 0) << "the HTTP server did not come up: " << text.toStdString();
    return peer;
}

Probe ffprobe(const QByteArray& bytes, const QString& suffix)
{
    Probe r;
    QTemporaryDir dir;
    QFile f(dir.filePath(QStringLiteral("stream.") + suffix));
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size()) return r;
    f.close();
    QProcess p;
    p.start(QStringLiteral("ffprobe"),
            {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
             "stream=codec_name,width,height,nb_read_frames", "-of", "json", f.fileName()});
    if (!p.waitForFinished(60000)) return r;
    r.errors = QString::fromUtf8(p.readAllStandardError()).trimmed();
    const QJsonArray streams =
        QJsonDocument::fromJson(p.readAllStandardOutput()).object().value("streams").toArray();
    if (p.exitCode() != 0 || streams.isEmpty()) return r;
    const QJsonObject s = streams.first().toObject();
    r.ok = true;
    r.codec = s.value("codec_name").toString();
    r.width = s.value("width").toInt();
    r.height = s.value("height").toInt();
    r.frames = s.value("nb_read_frames").toString().toInt();
    return r;
}

QByteArray hvccToAnnexB(const QByteArray& hvcc)
{
    // 22 bytes of header, then arrays of (type, count, count x (length, unit)).
    const auto at = [&](int i) { return i < hvcc.size() ? int(uint8_t(hvcc[i])) : 0; };
    QByteArray out;
    int pos = 23;
    for (int a = 0; a < at(22) && pos + 3 <= hvcc.size(); ++a) {
        const int count = (at(pos + 1) << 8) | at(pos + 2);
        pos += 3;
        for (int n = 0; n < count && pos + 2 <= hvcc.size(); ++n) {
            const int len = (at(pos) << 8) | at(pos + 1);
            out += QByteArray("\0\0\0\1", 4) + hvcc.mid(pos + 2, len);
            pos += 2 + len;
        }
    }
    return out;
}

int openFds()
{
    // Sockets and pipes show as dangling links: System lists them too.
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
        .size();
}

qint64 heapInUse()
{
#if defined(__SANITIZE_ADDRESS__)
    return qint64(__sanitizer_get_current_allocated_bytes());
#else
    const struct mallinfo2 m = mallinfo2();
    return qint64(m.uordblks) + qint64(m.hblkhd);
#endif
}

}  // namespace rig
