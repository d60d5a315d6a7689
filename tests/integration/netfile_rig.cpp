#include "netfile_rig.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QUdpSocket>

#include "input/VeskInputFile.h"
#include "input/VeskInputNet.h"

#if defined(__SANITIZE_ADDRESS__)
// From the sanitizer runtime (GCC ships no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace rig {

Rig::Rig()
{
    // Naming the classes keeps the linker from dropping the library that
    // registers them; the graph creates nodes by class name only.
    EXPECT_STREQ(VeskInputNet::staticMetaObject.className(), "VeskInputNet");
    EXPECT_STREQ(VeskInputFile::staticMetaObject.className(), "VeskInputFile");
}

Rig::~Rig()
{
    if (source) {
        graph.stop(QStringLiteral("src"));
    }
}

void Rig::add(const QString& className, const QVariantMap& data, bool start)
{
    const QString error = create(className, QStringLiteral("src"), data);
    ASSERT_NE(source, nullptr) << error.toStdString();
    VeskObject* n = source;
    if (start)
        QMetaObject::invokeMethod(
            n, [n] { n->start(); }, Qt::QueuedConnection);
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
