#include "rtsp_rig.h"

#include <gtest/gtest.h>

#include <QThread>

#include "input/VeskInputRtsp.h"

namespace rtsp {

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
    const QByteArray out = srcrig::firstLine(*process, 60000);
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
        if (srcrig::firstLine(*process, 30000).trimmed().toInt() == port) return true;
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
    // Names the class, so that the library is linked in and registers it.
    const QString className = QString::fromLatin1(VeskInputRtsp::staticMetaObject.className());
    const QString error = create(className, QStringLiteral("rtsp"), data);
    EXPECT_NE(source, nullptr) << error.toStdString();
    if (source && startNow) start();
}

void Rig::start()
{
    graph.start(QStringLiteral("rtsp"));
}

void Rig::stop()
{
    graph.stop(QStringLiteral("rtsp"));
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
