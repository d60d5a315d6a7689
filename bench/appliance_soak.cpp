// appliance-soak: the whole appliance on the virtual board, for minutes or
// hours, under faults that repeat in cycles.
//
// One process runs every node class at once: captures on seven receiver
// families (7611, the microcontroller's input, IT6602, MS7200, GS2971,
// MS1824, EMA6911) whose sources go, come back and change format; the line
// input and the embedded HDMI audio into the board's two audio outputs; a
// USB camera, microphone and speaker that are pulled and put back; the
// microcontroller line going silent and sending noise; keys, infra-red and a
// GPIO button; the HDMI monitor with its capture and a television with a
// still picture; VeskInputNet on live UDP and HTTP peers (ffmpeg) that stop
// and come back; VeskInputFile playing, over and over, files whose middle is
// damaged; VeskInputRtsp against gst-rtsp-server (scripts/rtsp-server.py)
// through a relay that cuts the connection and stalls the stream, and a
// second one whose server is restarted. Every peer listens on 127.0.0.1,
// and every peer started here is stopped here (and dies with this process).
//
// Each fault is a check: what must come back ("signal", "ready",
// "CameraOpen", a packet, a status frame) within the node's retry period
// plus a margin after the fault ends. Stimuli (a key, a remote-control
// code, a button, a lost signal) must be answered in the same way. Every ten
// seconds it samples resident memory, heap in use, descriptors, threads, the
// host's bind record, queues and drops and the events of each node; at the
// end of each cycle it compares descriptors, threads and the bind record
// with the first cycle's, and at the end memory with the first cycle's plus
// a bound it prints. Output: samples.csv, nodes.csv, checks.csv, soak.png
// and log-tail.txt in --out, and the line
//   soak: M min, C cycles, recovered R/F faults, rss +X kB after warm-up,
//   descriptors +D, threads +T, dropped P
// Exit 0 when everything held, 1 when something did not, 2 when the run
// could not be set up.
#include <dirent.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QPainter>
#include <QProcess>
#include <QRandomGenerator>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QUdpSocket>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "driver/mcu/DriverVesk.h"
#include "driver/mcu/McuLine.h"
#include "frame/VeskObject.h"
#include "host/VeskBuffers.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "host/ffmpeglog.h"
#include "sim/AudioOut.h"
#include "sim/MediaPlatform.h"
#include "sim/Peripherals.h"
#include "sim/UsbSound.h"
#include "sim/VirtualBoard.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kSec = 1000 * kMs;

// The clock of the board's USB sound and GPIO time stamps.
int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * kSec + ts.tv_nsec;
}

// ---------------------------------------------------------------- options

struct Options {
    double minutes = 10;
    int cycles = 0;  // 0: from the minutes
    double cycleSeconds = 45;
    double marginSeconds = 5;
    long rssBoundKb = -1;  // -1: the built-in bound
    QString out = QStringLiteral("/tmp/vesk-soak");
    QString scenario = QStringLiteral(VESK_SOURCE_DIR "/examples/scenarios/soak.json");
    bool rtspInterop = false;
    bool verbose = false;
};

const char kUsage[] =
    "usage: appliance-soak [--minutes M | --cycles N] [--cycle-seconds S] [--margin SECONDS]\n"
    "                      [--rss-bound KB] [--out DIR] [--scenario FILE] [--rtsp-interop]\n"
    "                      [--verbose]\n";

// The opt-in RTSP mode that recovers from a restarted server (each attempt
// is a fresh session, so the id the server no longer knows is not sent):
// --rtsp-interop restarts that node's server every cycle and counts its
// return as a fault like any other.
const QVariantMap kRtspInteropData = {{"interop", true}};

bool parseOptions(const QStringList& args, Options* o, QString* why)
{
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        const QString next = i + 1 < args.size() ? args[i + 1] : QString();
        bool ok = true;
        auto number = [&](double* to) {
            *to = next.toDouble(&ok);
            ++i;
            ok = ok && *to > 0;
        };
        if (a == "--minutes") {
            number(&o->minutes);
            o->cycles = 0;
        } else if (a == "--cycles") {
            o->cycles = next.toInt(&ok);
            ++i;
            ok = ok && o->cycles > 0;
        } else if (a == "--cycle-seconds") {
            number(&o->cycleSeconds);
            if (ok && o->cycleSeconds < 45) {
                *why = "--cycle-seconds: a cycle needs at least 45 s";
                return false;
            }
        } else if (a == "--margin") {
            number(&o->marginSeconds);
        } else if (a == "--rss-bound") {
            o->rssBoundKb = next.toLong(&ok);
            ++i;
            ok = ok && o->rssBoundKb >= 0;
        } else if (a == "--out") {
            o->out = QFileInfo(next).absoluteFilePath();
            ++i;
            ok = !next.isEmpty();
        } else if (a == "--scenario") {
            o->scenario = next;
            ++i;
            ok = !next.isEmpty();
        } else if (a == "--rtsp-interop") {
            o->rtspInterop = true;
        } else if (a == "--verbose") {
            o->verbose = true;
        } else {
            *why = QStringLiteral("unexpected argument \"%1\"").arg(a);
            return false;
        }
        if (!ok) {
            *why = QStringLiteral("%1 needs a %2")
                       .arg(a, a == "--out" || a == "--scenario" ? "path" : "positive number");
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------- the log

// What the library and FFmpeg say: the recent past for reports, and the
// lines the USB faults wait for. Made once and never freed: the library's
// statics may still log while this file's are gone.
struct LogTap {
    QMutex lock;
    std::deque<QString> tail;
    quint64 lines = 0;
    std::atomic<int> micGone{0}, speakerGone{0};
    bool echo = false;

    void add(const QString& line)
    {
        if (echo) std::fprintf(stderr, "%s\n", qPrintable(line));
        QMutexLocker l(&lock);
        ++lines;
        tail.push_back(line);
        if (tail.size() > 4000) tail.pop_front();
    }
    // The last n lines that contain `needle` (all when empty).
    QStringList last(int n, const QString& needle)
    {
        QMutexLocker l(&lock);
        QStringList out;
        for (auto it = tail.rbegin(); it != tail.rend() && out.size() < n; ++it)
            if (needle.isEmpty() || it->contains(needle)) out.prepend(*it);
        return out;
    }
};

LogTap& logTap()
{
    static LogTap* tap = new LogTap;
    return *tap;
}

void onMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    LogTap& t = logTap();
    // The pulled card's nodes must have let go before it returns: a card
    // that comes back under the same number before it is noticed keeps a
    // dead handle. The speaker lets go at its next write or retry.
    if (text.startsWith("[mic] ") && text.contains("is gone")) ++t.micGone;
    if (text.startsWith("[speaker] ") &&
        (text.contains("is gone") || text.contains("unable to open pcm device")))
        ++t.speakerGone;
    t.add(text);
}

// ---------------------------------------------------------------- process figures

struct Usage {
    long rssKb = -1;        // after the allocator gave back its free pages
    long rssCachedKb = -1;  // before: what `top` shows
    long anonKb = -1;
    int threads = -1;
    int fds = -1;
    long heapKb = -1;  // allocated and not freed: a leak shows here before the pages do
    int binds = -1;    // entries of the host's bind record
    long blocks = -1;  // packet buffers held by anyone
};

void readStatus(Usage* u)
{
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly)) return;
    for (const QByteArray& line : f.readAll().split('\n')) {
        const QByteArray value = line.mid(line.indexOf(':') + 1).trimmed();
        const long n = value.split(' ').first().toLong();
        if (line.startsWith("VmRSS:")) u->rssKb = n;
        if (line.startsWith("RssAnon:")) u->anonKb = n;
        if (line.startsWith("Threads:")) u->threads = int(n);
    }
}

Usage usage()
{
    Usage u;
    readStatus(&u);
    u.rssCachedKb = u.rssKb;
    // glibc keeps the freed pages of its per-thread arenas for reuse. Over an
    // hour that reads as a slow climb of resident memory (measured: +16 MB
    // after 46 cycles, and 23 MB less at once after a trim, below the first
    // cycle's figure) that nothing holds. The bound is on what is held.
    malloc_trim(0);
    readStatus(&u);
    if (DIR* d = opendir("/proc/self/fd")) {
        int n = 0;
        while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
        u.fds = n - 1;  // not the one this look holds
    }
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer's allocator keeps no such count
    u.heapKb = long(mallinfo2().uordblks / 1024);
#endif
    u.binds = VeskHost::bindings().size();
    u.blocks = long(vhost::liveBlocks());
    return u;
}

// ---------------------------------------------------------------- taps

// A sink that counts what a source delivers and when; audio also tells
// sound from the silence the capture node fills gaps with.
class Tap : public VeskObject {
public:
    explicit Tap(const QString& n)
    {
        setName(n);
        shareDepth = 64;  // never the one that drops
    }
    void onNewPacketA(VeskObject::Packet p) override { note(p, true); }
    void onNewPacketV(VeskObject::Packet p) override { note(p, false); }

    std::atomic<quint64> packets{0};
    std::atomic<int64_t> lastNs{0};
    std::atomic<int64_t> lastSoundNs{0};

private:
    void note(const VeskObject::Packet& p, bool audio)
    {
        const int64_t t = nowNs();
        ++packets;
        lastNs = t;
        if (!audio || !p.data) return;
        const int n = qMin(p.len / 2, 1024);
        for (int i = 0; i < n; ++i) {
            int16_t s;
            std::memcpy(&s, p.data + 2 * i, 2);
            if (s > 64 || s < -64) {
                lastSoundNs = t;
                return;
            }
        }
    }
};

// ---------------------------------------------------------------- peers

// A child process on 127.0.0.1. It gets SIGTERM when this process dies,
// whatever the way; while wanted, it is started again when it ends (the
// HTTP peer serves one client and then ends).
class Peer : public QProcess {
public:
    Peer(const QString& label, const QString& program, const QStringList& args,
         const QString& logFile)
        : label(label), program(program), args(args)
    {
        setStandardOutputFile(QProcess::nullDevice());
        setStandardErrorFile(logFile, QIODevice::Append);
        connect(this, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
                [this](int, QProcess::ExitStatus) {
                    if (!wanted) return;
                    QTimer::singleShot(300, this, [this] {
                        if (!wanted || state() != QProcess::NotRunning) return;
                        ++restarts;
                        start(this->program, this->args);
                    });
                });
    }
    ~Peer() override { down(); }

    void up()
    {
        wanted = true;
        if (state() == QProcess::NotRunning) start(program, args);
    }
    void down()
    {
        wanted = false;
        if (state() == QProcess::NotRunning) return;
        terminate();
        if (!waitForFinished(3000)) {
            kill();
            waitForFinished(2000);
        }
    }

    const QString label;
    int restarts = 0;  // beyond those asked for

protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGTERM); }

private:
    const QString program;
    const QStringList args;
    bool wanted = false;
};

quint16 freeTcpPort()
{
    QTcpServer s;
    return s.listen(QHostAddress::LocalHost, 0) ? s.serverPort() : 0;
}

quint16 freeUdpPort()
{
    QUdpSocket s;
    return s.bind(QHostAddress(QHostAddress::LocalHost), 0) ? s.localPort() : 0;
}

bool listening(quint16 port)
{
    QTcpSocket s;
    s.connectToHost(QHostAddress::LocalHost, port);
    const bool ok = s.waitForConnected(300);
    s.abort();
    return ok;
}

// ---------------------------------------------------------------- RTSP relay

// Between an RTSP node and its server, in a thread of its own: passes bytes
// both ways until told to cut every connection (the node sees the server
// close) or to stall (what the server sends is read and thrown away: the
// stream stops while the connection stays, as when a camera hangs).
class Relay : public QObject {
public:
    explicit Relay(quint16 upstream) : upstream(upstream) {}
    ~Relay() override { qDeleteAll(pairs); }

    // These run in the relay's thread.
    bool listen()
    {
        server = new QTcpServer(this);
        connect(server, &QTcpServer::newConnection, this, [this] { accept(); });
        if (!server->listen(QHostAddress::LocalHost, 0)) return false;
        listeningOn = server->serverPort();
        return true;
    }
    quint16 port() const { return listeningOn; }
    void cut()
    {
        while (!pairs.empty()) drop(pairs.front());
    }
    void setStalled(bool s) { stalled = s; }
    void close()
    {
        cut();
        if (server) server->close();
    }

private:
    struct Pair {
        QTcpSocket* client;
        QTcpSocket* server;
        QByteArray pending;  // from the client, ahead of the upstream connection
    };

    void accept()
    {
        while (QTcpSocket* c = server->nextPendingConnection()) {
            auto* p = new Pair{c, new QTcpSocket(this), {}};
            pairs.push_back(p);
            connect(c, &QTcpSocket::readyRead, this, [p] {
                const QByteArray b = p->client->readAll();
                if (p->server->state() == QAbstractSocket::ConnectedState)
                    p->server->write(b);
                else
                    p->pending += b;
            });
            connect(p->server, &QTcpSocket::connected, this, [p] {
                p->server->write(p->pending);
                p->pending.clear();
            });
            connect(p->server, &QTcpSocket::readyRead, this, [this, p] {
                const QByteArray b = p->server->readAll();
                if (!stalled) p->client->write(b);
            });
            connect(c, &QTcpSocket::disconnected, this, [this, p] { drop(p); });
            connect(p->server, &QTcpSocket::disconnected, this, [this, p] { drop(p); });
            connect(p->server, &QAbstractSocket::errorOccurred, this,
                    [this, p](QAbstractSocket::SocketError) { drop(p); });
            p->server->connectToHost(QHostAddress::LocalHost, upstream);
        }
    }
    void drop(Pair* p)
    {
        auto it = std::find(pairs.begin(), pairs.end(), p);
        if (it == pairs.end()) return;
        pairs.erase(it);
        for (QTcpSocket* s : {p->client, p->server}) {
            s->disconnect(this);
            s->abort();
            s->deleteLater();
        }
        delete p;
    }

    const quint16 upstream;
    QTcpServer* server = nullptr;
    std::vector<Pair*> pairs;

public:
    std::atomic<quint16> listeningOn{0};

private:
    std::atomic<bool> stalled{false};
};

// ---------------------------------------------------------------- the plot

// A 5x7 font, so that the plot needs no font files.
struct Glyph {
    char c;
    uint8_t rows[7];
};
const Glyph kGlyphs[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}},
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}},
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}},
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}},
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}},
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11}},
    {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}},
    {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}},
    {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}},
    {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}},
    {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}},
    {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}},
    {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}},
    {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}},
    {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}},
    {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {',', {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}},
    {'+', {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}},
    {'/', {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}},
    {'(', {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}},
    {')', {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}},
    {'=', {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}},
};

// Upper-case text at (x, y), its top left corner; `scale` pixels a dot.
void drawText(QPainter& p, int x, int y, const QString& text, QRgb colour, int scale = 2)
{
    for (const QChar ch : text.toUpper()) {
        for (const Glyph& g : kGlyphs) {
            if (g.c != ch.toLatin1()) continue;
            for (int r = 0; r < 7; ++r)
                for (int c = 0; c < 5; ++c)
                    if (g.rows[r] & (0x10 >> c))
                        p.fillRect(x + c * scale, y + r * scale, scale, scale, QColor(colour));
        }
        x += 6 * scale;
    }
}

int textWidth(const QString& text, int scale = 2)
{
    return text.size() * 6 * scale;
}

struct Sample {
    double t = 0;  // seconds from the start
    int cycle = 0;
    Usage use;
    int queued = 0;
    int queuedMax = 0;
    quint64 dropped = 0;
    int events = 0;
    quint64 logLines = 0;
};

struct Series {
    QString label;
    QRgb colour;
    std::function<double(const Sample&)> value;
    double bound = -1;  // a horizontal line, when >= 0
};

bool writePlot(const QString& path, const QStringList& title, const std::vector<Sample>& samples,
               const std::vector<double>& cycleEnds, const QList<Series>& panels)
{
    const int W = 1200, panelH = 280, top = 30 + 22 * title.size();
    const int H = top + panelH * panels.size() + 40;
    const int left = 110, right = 30;
    QImage img(W, H, QImage::Format_RGB32);
    img.fill(qRgb(255, 255, 255));
    QPainter p(&img);
    for (int i = 0; i < title.size(); ++i) drawText(p, left, 16 + 22 * i, title[i], qRgb(0, 0, 0));
    const double tEnd = samples.empty() ? 1 : qMax(1.0, samples.back().t);
    const int plotW = W - left - right;
    auto xOf = [&](double t) { return left + int(t / tEnd * plotW); };

    for (int k = 0; k < panels.size(); ++k) {
        const Series& s = panels[k];
        const int y0 = top + k * panelH + 20, h = panelH - 60;
        double lo = 1e300, hi = -1e300;
        for (const Sample& smp : samples) {
            lo = qMin(lo, s.value(smp));
            hi = qMax(hi, s.value(smp));
        }
        if (s.bound >= 0) hi = qMax(hi, s.bound);
        if (samples.empty()) lo = hi = 0;
        // Round steps of 1, 2 or 5 times a power of ten, four or so a panel.
        const double mid = (lo + hi) / 2, span = qMax(hi - lo, 4.0);
        const double raw = span / 4, power = std::pow(10.0, std::floor(std::log10(raw)));
        double step = 10 * power;
        for (double m : {1.0, 2.0, 5.0})
            if (raw <= m * power) {
                step = m * power;
                break;
            }
        lo = std::floor((qMin(lo, mid - span / 2)) / step) * step;
        hi = std::ceil((qMax(hi, mid + span / 2)) / step) * step;
        auto yOf = [&](double v) { return y0 + h - int((v - lo) / (hi - lo) * h); };

        p.setPen(QPen(QColor(200, 200, 200), 1));
        for (double c : cycleEnds) p.drawLine(xOf(c), y0, xOf(c), y0 + h);
        if (!cycleEnds.empty()) {
            // The end of the warm-up cycle: growth is counted from here.
            p.setPen(QPen(QColor(255, 140, 0), 2));
            p.drawLine(xOf(cycleEnds.front()), y0, xOf(cycleEnds.front()), y0 + h);
        }
        p.setPen(QPen(QColor(120, 120, 120), 1));
        p.drawRect(left, y0, plotW, h);
        for (double v = lo; v <= hi + step / 2; v += step) {
            const int y = yOf(v);
            p.setPen(QPen(QColor(230, 230, 230), 1));
            if (v > lo && v < hi - step / 2) p.drawLine(left + 1, y, left + plotW - 1, y);
            const QString label = QString::number(v, 'f', step < 1 ? 1 : 0);
            drawText(p, left - 8 - textWidth(label), y - 7, label, qRgb(60, 60, 60));
        }
        if (s.bound >= 0) {
            p.setPen(QPen(QColor(220, 0, 0), 1, Qt::DashLine));
            p.drawLine(left, yOf(s.bound), left + plotW, yOf(s.bound));
        }
        p.setPen(QPen(QColor(s.colour), 2));
        for (size_t i = 1; i < samples.size(); ++i)
            p.drawLine(xOf(samples[i - 1].t), yOf(s.value(samples[i - 1])), xOf(samples[i].t),
                       yOf(s.value(samples[i])));
        drawText(p, left + 8, y0 - 18, s.label, s.colour);
        // Time in minutes under each panel.
        const double minutes = tEnd / 60;
        const double every = minutes <= 5 ? 0.5 : minutes <= 20 ? 2 : minutes <= 60 ? 5 : 10;
        for (double m = 0; m <= minutes + 1e-9; m += every) {
            const QString label = QString::number(m);
            drawText(p, xOf(m * 60) - textWidth(label) / 2, y0 + h + 6, label, qRgb(60, 60, 60));
        }
    }
    drawText(p, W - right - textWidth("MIN"), H - 20, "MIN", qRgb(60, 60, 60));
    p.end();
    return img.save(path, "PNG");
}

// ---------------------------------------------------------------- the soak

enum class Kind { Startup, Fault, Stimulus, Expected };

QString kindName(Kind k)
{
    switch (k) {
        case Kind::Startup:
            return QStringLiteral("startup");
        case Kind::Fault:
            return QStringLiteral("fault");
        case Kind::Stimulus:
            return QStringLiteral("stimulus");
        case Kind::Expected:
            return QStringLiteral("expected");
    }
    return QString();
}

struct Check {
    Kind kind;
    int cycle;
    QString what;
    QString node;
    int64_t from;
    int64_t deadline;
    // >0: when it was met; 0: not yet; <0: it cannot be met any more.
    std::function<int64_t()> met;
    std::function<void(bool)> after;
};

// A capture and the sources its cycle plays on it.
struct Capture {
    QString node, iface, chip;
    bool viaMcu;
    QVariantMap a, b;  // the source that stands, and the one it changes to
    int widthA, widthB;
};

QVariantMap hd(int w, int h, int f, int rate = 0)
{
    QVariantMap m{{"width", w}, {"height", h}, {"framerate", f}};
    if (rate) m["samplerate"] = rate;
    return m;
}

QVariantMap mcuStatus(int lock, int w, int h, int f)
{
    return {{"lock", lock}, {"w", w}, {"h", h}, {"f", f}, {"p", 1}, {"as", 48000}};
}

class Soak : public QObject {
public:
    explicit Soak(const Options& o) : opt(o) {}
    int prepare();
    void run();
    int finish();
    void teardown();

    bool interrupted = false;

private:
    // Set-up.
    bool makeMedia();
    bool startPeers();
    bool buildBoard();
    bool buildGraph();
    QVariantMap scenarioStep(const QString& key, const QString& value) const;

    // The cycle.
    void tick();
    void beginCycle();
    void endCycle();
    void plan(double at, std::function<void()> fn);
    void planCapture(const Capture& c, double offset);
    void planUsb();
    void planNetwork();
    void planRtsp();
    void planAudio();
    void planPanel();
    void nextPlay();

    // Checks.
    void expect(Kind kind, const QString& what, const QString& node, int64_t from, int retryMs,
                std::function<int64_t()> met, std::function<void(bool)> after = nullptr);
    void settle(const Check& c, int64_t metAt);
    int64_t eventAfter(const QString& node, const QString& event, int64_t from,
                       const std::function<bool(const QVariant&)>& pred = nullptr) const;
    std::function<int64_t()> signalAfter(const QString& node, int64_t from, bool available,
                                         int width) const;
    void when(std::function<bool()> ready, int64_t giveUpNs, std::function<void(bool)> then);
    void fail(const QString& why);

    // Figures.
    void noteEvent(const QString& node, const QString& event, const QVariant& value);
    void sample();
    void probeCycleEnd();
    QList<VeskObject*> observed() const;
    bool step(const QVariantMap& s);
    double since(int64_t ns) const { return double(ns - startNs) / 1e9; }

    const Options opt;
    QString mediaDir;
    QVariantMap scenario;
    int64_t startNs = nowNs();
    double clipSeconds = 8;
    int margin() const { return int(opt.marginSeconds * 1000); }

    // Peers and their ports.
    quint16 udpPort = 0, httpPort = 0, rtspPort = 0, restartPort = 0;
    std::unique_ptr<Peer> udpPeer, httpPeer, rtspServer, restartServer;
    QThread relayThread;
    Relay* relay = nullptr;

    VeskGraph graph;
    QThread tapThread;
    QMap<QString, Tap*> taps;
    QList<Capture> captures;

    // Events, the recent ones per node and counts since the last sample.
    struct Seen {
        int64_t at;
        QString event;
        QVariant value;
    };
    QHash<QString, std::deque<Seen>> recent;
    QMap<QString, QMap<QString, int>> sinceSample;
    int eventsSinceSample = 0;
    quint64 logLinesAtSample = 0;

    // Progress.
    enum class Phase { Startup, Cycles, Drain, Done } phase = Phase::Startup;
    int cycle = 0, cycles = 0;
    int64_t cycleStart = 0, nextSample = 0, drainUntil = 0;
    struct Action {
        int64_t due;
        std::function<void()> run;
    };
    std::vector<Action> actions;
    size_t nextAction = 0;
    struct Waiter {
        std::function<bool()> ready;
        int64_t giveUp;
        std::function<void(bool)> then;
    };
    std::list<Waiter> waiters;
    std::list<Check> checks;
    QTimer ticker;
    int plays = 0;
    bool restartStopped = false;

    // Results.
    struct Tally {
        int n = 0, met = 0;
        double worst = 0;  // seconds from the fault's end to the recovery
    };
    QMap<QString, Tally> byWhat;
    int faults = 0, recovered = 0, stimuli = 0, answered = 0;
    QStringList expectedNotes, failures;
    struct CycleEnd {
        Usage use;
        bool probed = false;
    };
    CycleEnd probe;
    std::vector<CycleEnd> cycleEnds;
    std::vector<double> cycleEndTimes;
    std::vector<Sample> samples;
    QFile samplesCsv, nodesCsv, checksCsv;
};

// ---------------------------------------------------------------- set-up

bool Soak::makeMedia()
{
    // Eight seconds of 320x240 H.264 and AAC: the peers loop it, the player
    // plays copies whose middle tenth is noise (in MP4 the index stays whole
    // and the noise lands in the media data; in MPEG-TS the demuxer has to
    // find its packets again).
    auto ffmpeg = [&](const QStringList& args) {
        QProcess p;
        p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        p.start("ffmpeg",
                QStringList{"-hide_banner", "-loglevel", "error", "-nostdin", "-y"} + args);
        return p.waitForFinished(120000) && p.exitStatus() == QProcess::NormalExit &&
               p.exitCode() == 0;
    };
    const QString ts = mediaDir + "/clip.ts", mp4 = mediaDir + "/clip.mp4";
    if (!ffmpeg({"-f",       "lavfi",
                 "-i",       "testsrc=size=320x240:rate=25",
                 "-f",       "lavfi",
                 "-i",       "sine=frequency=440:sample_rate=48000",
                 "-t",       QString::number(clipSeconds),
                 "-c:v",     "libx264",
                 "-preset",  "ultrafast",
                 "-g",       "25",
                 "-pix_fmt", "yuv420p",
                 "-c:a",     "aac",
                 "-b:a",     "64k",
                 ts}) ||
        !ffmpeg({"-i", ts, "-c", "copy", mp4}))
        return false;
    QRandomGenerator noise(22);
    for (const QString& name : {QStringLiteral("ts"), QStringLiteral("mp4")}) {
        QFile in(mediaDir + "/clip." + name);
        if (!in.open(QIODevice::ReadOnly)) return false;
        QByteArray bytes = in.readAll();
        for (int i = bytes.size() * 45 / 100; i < bytes.size() * 55 / 100; ++i)
            bytes[i] = char(noise.generate());
        QFile out(mediaDir + "/damaged." + name);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            out.write(bytes) != bytes.size())
            return false;
    }
    return true;
}

bool Soak::startPeers()
{
    udpPort = freeUdpPort();
    httpPort = freeTcpPort();
    rtspPort = freeTcpPort();
    restartPort = freeTcpPort();
    if (!udpPort || !httpPort || !rtspPort || !restartPort) return false;
    // Every peer also ends by itself some minutes after the soak should.
    const QString limit = QString::number(qRound(cycles * opt.cycleSeconds + 900));
    const QString log = opt.out + "/peers.log";
    const QString clip = mediaDir + "/clip.ts";
    const QStringList sender = {"-hide_banner", "-loglevel", "error", "-nostdin", "-re",
                                "-stream_loop", "-1",        "-i",    clip,       "-c",
                                "copy",         "-t",        limit,   "-f",       "mpegts"};
    udpPeer = std::make_unique<Peer>(
        "udp", "ffmpeg",
        sender + QStringList{QStringLiteral("udp://127.0.0.1:%1?pkt_size=1316").arg(udpPort)}, log);
    httpPeer = std::make_unique<Peer>(
        "http", "ffmpeg",
        sender + QStringList{"-listen", "1",
                             QStringLiteral("http://127.0.0.1:%1/live.ts").arg(httpPort)},
        log);
    auto server = [&](const QString& label, quint16 port) {
        return std::make_unique<Peer>(
            label, "/usr/bin/python3",
            QStringList{VESK_SOURCE_DIR "/scripts/rtsp-server.py", "--port", QString::number(port),
                        "--stream", "/live=h264+pcma", "--size", "320x240", "--fps", "15", "--gop",
                        "15", "--aggregate-mode", "none", "--seconds", limit},
            log);
    };
    rtspServer = server("rtsp", rtspPort);
    restartServer = server("rtsp-restart", restartPort);
    for (Peer* p : {udpPeer.get(), httpPeer.get(), rtspServer.get(), restartServer.get()}) {
        p->up();
        if (!p->waitForStarted(10000)) {
            std::fprintf(stderr, "appliance-soak: %s peer did not start: %s\n",
                         qPrintable(p->label), qPrintable(p->errorString()));
            return false;
        }
    }
    // The first GStreamer run on a machine builds its registry first.
    const int64_t giveUp = nowNs() + 60 * kSec;
    while (!(listening(rtspPort) && listening(restartPort))) {
        if (nowNs() > giveUp || rtspServer->state() == QProcess::NotRunning ||
            restartServer->state() == QProcess::NotRunning) {
            std::fprintf(stderr, "appliance-soak: the RTSP servers do not listen (see %s)\n",
                         qPrintable(log));
            return false;
        }
        QThread::msleep(200);
    }
    relay = new Relay(rtspPort);
    relay->moveToThread(&relayThread);
    relayThread.setObjectName("relay");
    relayThread.start();
    bool ok = false;
    QMetaObject::invokeMethod(
        relay, [&] { ok = relay->listen(); }, Qt::BlockingQueuedConnection);
    return ok;
}

bool Soak::buildBoard()
{
    QFile f(opt.scenario);
    if (!f.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "appliance-soak: %s: %s\n", qPrintable(opt.scenario),
                     qPrintable(f.errorString()));
        return false;
    }
    const QJsonDocument doc = QJsonDocument::fromJson(f.readAll());
    if (!doc.isObject()) {
        std::fprintf(stderr, "appliance-soak: %s: not a JSON object\n", qPrintable(opt.scenario));
        return false;
    }
    scenario = VeskHost::fromJson(doc.object()).toMap();
    QStringList notes;
    QString error;
    const QVariantMap board =
        VeskHost::boardFromJson(QJsonValue::fromVariant(scenario.value("board")), &notes, &error);
    for (const QString& n : notes) std::fprintf(stderr, "appliance-soak: %s\n", qPrintable(n));
    if (!error.isEmpty()) {
        std::fprintf(stderr, "appliance-soak: %s: %s\n", qPrintable(opt.scenario),
                     qPrintable(error));
        return false;
    }
    VeskHost::setConfig(board);
    vsim::Board& b = vsim::Board::instance();
    b.activate();
    if (!b.loadScenario(scenario, &error)) {
        std::fprintf(stderr, "appliance-soak: scenario: %s\n", qPrintable(error));
        return false;
    }
    // The MS7200 sees a source that arrives after it started, so the
    // scenario plugs that one a little later.
    b.startScenario();
    return true;
}

// The scenario's own step for a USB card or the like, so that a card comes
// back as it was first plugged.
QVariantMap Soak::scenarioStep(const QString& key, const QString& value) const
{
    for (const QVariant& v : scenario.value("timeline").toList()) {
        QVariantMap s = v.toMap();
        if (s.value(key).toString() != value) continue;
        s.remove("at");
        return s;
    }
    return {};
}

bool Soak::buildGraph()
{
    captures = {
        {"cap1", "hdmi1", "hdmi1", false, hd(1920, 1080, 60), hd(1280, 720, 50), 1920, 1280},
        {"cap2", "hdmi2", "mcu", true, mcuStatus(1, 1920, 1080, 60), mcuStatus(2, 1280, 720, 50),
         1920, 1280},
        {"cap3", "hdmi3", "hdmi3", false, hd(1920, 1080, 60, 48000), hd(1280, 720, 50, 44100), 1920,
         1280},
        {"cap4", "hdmi4", "hdmi4", false, hd(1920, 1080, 60, 48000), hd(1280, 720, 50, 44100), 1920,
         1280},
        {"cap5", "sdi1", "sdi1", false, hd(1920, 1080, 60), hd(1280, 720, 50), 1920, 1280},
        {"cap6", "vga1", "vga1", false, {{"vga", 16}}, {{"vga", 4}}, 1920, 1280},
        {"cap7", "hdmi5", "hdmi5", false, hd(1920, 1080, 60), hd(1280, 720, 50), 1920, 1280},
    };
    QVariantList nodes;
    auto node = [&](const QString& name, const QString& cls, const QVariantMap& data,
                    const QVariantList& invoke = {}) {
        QVariantMap n{{"name", name}, {"class", cls}, {"data", data}};
        if (!invoke.isEmpty()) n["invoke"] = invoke;
        nodes << n;
    };
    for (const Capture& c : captures) {
        QVariantMap data{{"interface", c.iface}, {"srcFramerate", 60}, {"dstFramerate", 60}};
        // The input unit holds one no-signal picture: the monitor's capture
        // loads it.
        if (c.node != "cap1") data["pic"] = "";
        node(c.node, "VeskInputVi", data);
    }
    node("monitor", "VeskOutputVo", {{"type", "hdmi"}, {"output", "1080P60"}, {"ui", true}});
    node("still", "VeskInputImage",
         {{"path", "/vesk/pictures/testsrc.jpg"},
          {"width", 640},
          {"height", 360},
          {"framerate", 5}});
    node("tv", "VeskOutputVo",
         {{"type", "cvbs"}, {"x", 0.25}, {"y", 0.25}, {"w", 0.5}, {"h", 0.5}});
    node("line", "VeskInputAi", {{"interface", "line"}, {"channels", 2}});
    node("out1", "VeskOutputAo", {{"did", 1}, {"cid", 0}, {"channels", 2}, {"delay", 100}});
    node("hdmi3audio", "VeskInputAi", {{"interface", "hdmi3"}, {"channels", 2}});
    node("out0", "VeskOutputAo", {{"did", 0}, {"cid", 0}, {"channels", 2}, {"delay", 100}});
    node("camera", "VeskInputV4l2",
         {{"path", "/dev/video0"},
          {"format", "mjpeg"},
          {"width", 640},
          {"height", 360},
          {"framerate", 15}});
    node("mic", "VeskInputAlsa", {{"bus", "001/004"}, {"channels", -1}});
    node("speaker", "VeskOutputAlsa", {{"lnk", "1-1.3"}});
    // A list of calls, each a list: [method] or [method, argument].
    node("dev", "VeskDevice", {}, QVariantList{QVariant(QVariantList{"enableIR"})});
    node("button", "VeskGPIO", {}, QVariantList{QVariant(QVariantList{"registEvent", "GPIO2_1"})});
    node("udp", "VeskInputNet",
         {{"path", QStringLiteral("udp://127.0.0.1:%1").arg(udpPort)}, {"timeout", 3}});
    node("http", "VeskInputNet",
         {{"path", QStringLiteral("http://127.0.0.1:%1/live.ts").arg(httpPort)}, {"timeout", 3}});
    node("player", "VeskInputFile", {{"path", mediaDir + "/damaged.mp4"}, {"sync", true}});
    node("rtsp", "VeskInputRtsp",
         {{"path", QStringLiteral("rtsp://127.0.0.1:%1/live").arg(relay->port())}, {"timeout", 3}});
    QVariantMap restartData{{"path", QStringLiteral("rtsp://127.0.0.1:%1/live").arg(restartPort)},
                            {"timeout", 3}};
    if (opt.rtspInterop)
        for (auto it = kRtspInteropData.begin(); it != kRtspInteropData.end(); ++it)
            restartData.insert(it.key(), it.value());
    node("rtspRestart", "VeskInputRtsp", restartData);

    auto link = [](const QString& from, const QString& to, const QVariantList& kinds) {
        return QVariantMap{{"from", from}, {"to", to}, {"kinds", kinds}};
    };
    const QVariantList links = {link("cap1", "monitor", {"V"}), link("still", "tv", {"V"}),
                                link("line", "out1", {"A"}), link("hdmi3audio", "out0", {"A"}),
                                link("mic", "speaker", {"A"})};

    connect(&graph, &VeskGraph::nodeEvent, this,
            [this](const QString& n, const QString& e, const QVariant& v) { noteEvent(n, e, v); });
    // The microcontroller line's own frames and watchdog, from its thread.
    mcu::setObserver([this](const QString& event, const QVariant& value) {
        if (event == "read" || event == "sent") return;
        QMetaObject::invokeMethod(
            this, [this, event, value] { noteEvent("mcu", event, value); }, Qt::QueuedConnection);
    });

    QStringList problems;
    const int64_t playStart = nowNs();
    graph.build({{"nodes", nodes}, {"links", links}}, &problems);
    for (const QString& p : problems) std::fprintf(stderr, "appliance-soak: %s\n", qPrintable(p));
    if (!problems.isEmpty()) return false;

    tapThread.setObjectName("taps");
    tapThread.start();
    auto tap = [&](const QString& from, int kinds) {
        auto* t = new Tap(from + "Tap");
        t->moveToThread(&tapThread);
        taps.insert(from, t);
        VeskHost::link(graph.node(from), t, kinds);
    };
    tap("line", VeskHost::LinkA);
    tap("camera", VeskHost::LinkV);
    tap("mic", VeskHost::LinkA);
    tap("udp", VeskHost::LinkA | VeskHost::LinkV);
    tap("http", VeskHost::LinkA | VeskHost::LinkV);
    tap("player", VeskHost::LinkA | VeskHost::LinkV);
    tap("rtsp", VeskHost::LinkA | VeskHost::LinkV);

    graph.startAll();
    // As the application does: front-panel keys go to the device node once
    // the line is up (the capture on the microcontroller's input brings it up).
    if (!DriverVesk::instance) {
        std::fprintf(stderr, "appliance-soak: the board has no microcontroller line\n");
        return false;
    }
    DriverVesk::instance->registDev(graph.node("dev"));

    // Everything must come up once before the cycles begin.
    const int64_t t0 = startNs;
    const int upMs = 60000;
    for (const Capture& c : captures)
        expect(Kind::Startup, c.node + ": signal", c.node, t0, upMs,
               signalAfter(c.node, t0, true, c.widthA));
    for (const QString n : {"udp", "http", "rtsp", "rtspRestart"})
        expect(Kind::Startup, QString(n) + ": ready", n, t0, upMs,
               [=] { return eventAfter(n, "ready", t0); });
    expect(Kind::Startup, "camera: open", "camera", t0, upMs,
           [=] { return eventAfter("camera", "CameraOpen", t0); });
    for (const QString n : {"mic", "player", "camera"})
        expect(Kind::Startup, QString(n) + ": packets", n, t0, upMs,
               [t = taps.value(n)] { return t->lastNs.load(); });
    expect(Kind::Startup, "line: sound", "line", t0, upMs,
           [t = taps.value("line")] { return t->lastSoundNs.load(); });
    expect(Kind::Startup, "speaker: plays", "speaker", t0, upMs,
           [] { return vsim::UsbSound::instance().card("speaker").dryAtNs > 0 ? nowNs() : 0; });
    expect(Kind::Startup, "mcu line: status", "mcu", t0, upMs, [=] {
        return eventAfter("mcu", "frame", t0,
                          [](const QVariant& v) { return v.toMap().value("handled").toBool(); });
    });
    ++plays;
    expect(Kind::Startup, "player: first play", "player", playStart, upMs + int(clipSeconds * 1000),
           [=] { return eventAfter("player", "EOF", playStart); });
    return true;
}

int Soak::prepare()
{
    QDir().mkpath(opt.out);
    mediaDir = opt.out + "/media";
    QDir().mkpath(mediaDir);
    for (const char* f :
         {"samples.csv", "nodes.csv", "checks.csv", "soak.png", "peers.log", "log-tail.txt"})
        QFile::remove(opt.out + "/" + f);
    cycles = opt.cycles ? opt.cycles : qMax(2, int(opt.minutes * 60 / opt.cycleSeconds));
    if (opt.rtspInterop && kRtspInteropData.isEmpty()) {
        std::fprintf(stderr,
                     "appliance-soak: --rtsp-interop: this library has no opt-in RTSP mode yet\n");
        return 2;
    }
    samplesCsv.setFileName(opt.out + "/samples.csv");
    nodesCsv.setFileName(opt.out + "/nodes.csv");
    checksCsv.setFileName(opt.out + "/checks.csv");
    for (QFile* f : {&samplesCsv, &nodesCsv, &checksCsv})
        if (!f->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
            std::fprintf(stderr, "appliance-soak: %s: %s\n", qPrintable(f->fileName()),
                         qPrintable(f->errorString()));
            return 2;
        }
    samplesCsv.write(
        "t_s,cycle,rss_kb,rss_anon_kb,heap_kb,descriptors,threads,binds,blocks,queued,"
        "queued_max,dropped,events,log_lines,rss_cached_kb\n");
    nodesCsv.write("t_s,node,queued_a,queued_v,dropped_a,dropped_v,events,event_counts\n");
    checksCsv.write("cycle,kind,check,node,from_s,deadline_s,met_s,latency_ms,result\n");

    std::printf("appliance-soak: %d cycles of %g s, margin %g s, output in %s\n", cycles,
                opt.cycleSeconds, opt.marginSeconds, qPrintable(opt.out));
    if (!makeMedia()) {
        std::fprintf(stderr, "appliance-soak: could not make the media with ffmpeg\n");
        return 2;
    }
    if (!startPeers() || !buildBoard() || !buildGraph()) return 2;
    return -1;
}

// ---------------------------------------------------------------- checks

void Soak::expect(Kind kind, const QString& what, const QString& node, int64_t from, int retryMs,
                  std::function<int64_t()> met, std::function<void(bool)> after)
{
    const int64_t deadline = from + int64_t(retryMs + margin()) * kMs;
    checks.push_back(
        Check{kind, cycle, what, node, from, deadline, std::move(met), std::move(after)});
}

int64_t Soak::eventAfter(const QString& node, const QString& event, int64_t from,
                         const std::function<bool(const QVariant&)>& pred) const
{
    const auto it = recent.constFind(node);
    if (it == recent.constEnd()) return 0;
    for (const Seen& s : *it)
        if (s.at >= from && s.event == event && (!pred || pred(s.value))) return s.at;
    return 0;
}

std::function<int64_t()> Soak::signalAfter(const QString& node, int64_t from, bool available,
                                           int width) const
{
    return [=] {
        return eventAfter(node, "signal", from, [=](const QVariant& v) {
            const QVariantMap m = v.toMap();
            return m.value("avalible").toBool() == available &&
                   (!available || m.value("width").toInt() == width);
        });
    };
}

void Soak::when(std::function<bool()> ready, int64_t giveUpNs, std::function<void(bool)> then)
{
    waiters.push_back(Waiter{std::move(ready), nowNs() + giveUpNs, std::move(then)});
}

void Soak::fail(const QString& why)
{
    failures << why;
    std::printf("FAILED: %s\n", qPrintable(why));
}

void Soak::settle(const Check& c, int64_t metAt)
{
    const bool met = metAt > 0;
    const double latency = met ? double(metAt - c.from) / 1e9 : -1;
    checksCsv.write(QStringLiteral("%1,%2,%3,%4,%5,%6,%7,%8,%9\n")
                        .arg(c.cycle)
                        .arg(kindName(c.kind))
                        .arg(c.what)
                        .arg(c.node)
                        .arg(since(c.from), 0, 'f', 2)
                        .arg(since(c.deadline), 0, 'f', 2)
                        .arg(met ? QString::number(since(metAt), 'f', 2) : QString())
                        .arg(met ? QString::number(qRound64(latency * 1000)) : QString())
                        .arg(met ? "met" : "missed")
                        .toUtf8());
    if (c.kind != Kind::Startup) {
        Tally& t = byWhat[QStringLiteral("%1 (%2)").arg(c.what, kindName(c.kind))];
        ++t.n;
        t.met += met;
        t.worst = qMax(t.worst, latency);
    }
    switch (c.kind) {
        case Kind::Fault:
            ++faults;
            recovered += met;
            break;
        case Kind::Stimulus:
            ++stimuli;
            answered += met;
            break;
        case Kind::Expected:
            expectedNotes
                << QStringLiteral("cycle %1: %2: %3")
                       .arg(c.cycle)
                       .arg(c.what,
                            met ? QStringLiteral(
                                      "came back after %1 s, which the default mode does not "
                                      "promise")
                                      .arg(latency, 0, 'f', 1)
                                : QStringLiteral(
                                      "not back %1 s after the restart: the node keeps the "
                                      "session id the restarted server no longer knows (454), as "
                                      "the default mode does")
                                      .arg(double(c.deadline - c.from) / 1e9, 0, 'f', 1));
            std::printf("expected: %s\n", qPrintable(expectedNotes.last()));
            break;
        case Kind::Startup:
            break;
    }
    if (!met && c.kind != Kind::Expected) {
        fail(QStringLiteral("cycle %1: %2 %3: not within %4 s after %5 s")
                 .arg(c.cycle)
                 .arg(kindName(c.kind), c.what)
                 .arg(double(c.deadline - c.from) / 1e9, 0, 'f', 1)
                 .arg(since(c.from), 0, 'f', 1));
        const QString tag = c.node == "mcu" ? QString() : "[" + c.node + "]";
        for (const QString& line : logTap().last(8, tag)) std::printf("    %s\n", qPrintable(line));
    }
    if (c.after) c.after(met);
}

// ---------------------------------------------------------------- events and figures

void Soak::noteEvent(const QString& node, const QString& event, const QVariant& value)
{
    std::deque<Seen>& q = recent[node];
    q.push_back(Seen{nowNs(), event, value});
    if (q.size() > 64) q.pop_front();
    ++sinceSample[node][event];
    ++eventsSinceSample;
    if (node == "player" && event == "EOF" && phase != Phase::Done)
        QTimer::singleShot(300, this, [this] { nextPlay(); });
}

QList<VeskObject*> Soak::observed() const
{
    QList<VeskObject*> out;
    for (const QString& n : graph.nodeNames()) out << graph.node(n);
    for (Tap* t : taps) out << t;
    return out;
}

void Soak::sample()
{
    Sample s;
    s.t = since(nowNs());
    s.cycle = phase == Phase::Startup ? 0 : cycle;
    s.use = usage();
    for (VeskObject* n : observed()) {
        const int qa = VeskHost::pendingPackets(n, VeskHost::LinkA);
        const int qv = VeskHost::pendingPackets(n, VeskHost::LinkV);
        const quint64 da = VeskHost::droppedPackets(n, VeskHost::LinkA);
        const quint64 dv = VeskHost::droppedPackets(n, VeskHost::LinkV);
        s.queued += qa + qv;
        s.queuedMax = qMax(s.queuedMax, qMax(qa, qv));
        s.dropped += da + dv;
        QStringList counts;
        const QMap<QString, int> ev = sinceSample.value(n->name());
        int total = 0;
        for (auto it = ev.begin(); it != ev.end(); ++it) {
            counts << QStringLiteral("%1=%2").arg(it.key()).arg(it.value());
            total += it.value();
        }
        nodesCsv.write(QStringLiteral("%1,%2,%3,%4,%5,%6,%7,%8\n")
                           .arg(s.t, 0, 'f', 1)
                           .arg(n->name())
                           .arg(qa)
                           .arg(qv)
                           .arg(da)
                           .arg(dv)
                           .arg(total)
                           .arg(counts.join(' '))
                           .toUtf8());
    }
    const QMap<QString, int> line = sinceSample.value("mcu");
    QStringList counts;
    int total = 0;
    for (auto it = line.begin(); it != line.end(); ++it) {
        counts << QStringLiteral("%1=%2").arg(it.key()).arg(it.value());
        total += it.value();
    }
    nodesCsv.write(QStringLiteral("%1,mcu,0,0,0,0,%2,%3\n")
                       .arg(s.t, 0, 'f', 1)
                       .arg(total)
                       .arg(counts.join(' '))
                       .toUtf8());
    s.events = eventsSinceSample;
    {
        QMutexLocker l(&logTap().lock);
        s.logLines = logTap().lines - logLinesAtSample;
        logLinesAtSample = logTap().lines;
    }
    sinceSample.clear();
    eventsSinceSample = 0;
    samplesCsv.write(QStringLiteral("%1,%2,%3,%4,%5,%6,%7,%8,%9,%10,%11,%12,%13,%14,%15\n")
                         .arg(s.t, 0, 'f', 1)
                         .arg(s.cycle)
                         .arg(s.use.rssKb)
                         .arg(s.use.anonKb)
                         .arg(s.use.heapKb)
                         .arg(s.use.fds)
                         .arg(s.use.threads)
                         .arg(s.use.binds)
                         .arg(s.use.blocks)
                         .arg(s.queued)
                         .arg(s.queuedMax)
                         .arg(s.dropped)
                         .arg(s.events)
                         .arg(s.logLines)
                         .arg(s.use.rssCachedKb)
                         .toUtf8());
    samplesCsv.flush();
    nodesCsv.flush();
    checksCsv.flush();
    samples.push_back(s);
}

// Descriptors and threads of a moment can include an opening under way; a
// leak stays. So the end of a cycle is the least of a few looks over its
// last two seconds.
void Soak::probeCycleEnd()
{
    const Usage u = usage();
    if (!probe.probed) {
        probe.use = u;
        probe.probed = true;
        return;
    }
    probe.use.fds = qMin(probe.use.fds, u.fds);
    probe.use.threads = qMin(probe.use.threads, u.threads);
    probe.use.binds = qMin(probe.use.binds, u.binds);
    probe.use.rssKb = u.rssKb;
    probe.use.anonKb = u.anonKb;
    probe.use.heapKb = u.heapKb;
}

bool Soak::step(const QVariantMap& s)
{
    QString error;
    if (vsim::Board::instance().applyStep(s, &error)) return true;
    fail(QStringLiteral("board step %1: %2").arg(VeskHost::toJsonText(s), error));
    return false;
}

// ---------------------------------------------------------------- the cycle

void Soak::plan(double at, std::function<void()> fn)
{
    actions.push_back(Action{cycleStart + int64_t(at * kSec), std::move(fn)});
}

void Soak::planCapture(const Capture& c, double o)
{
    auto source = [this, c](const QVariantMap& src) {
        if (c.viaMcu)
            step({{"chip", c.chip}, {"input", c.iface}, {"source", src}});
        else
            step({{"chip", c.chip}, {"source", src}});
        // The receiver's embedded audio runs at the source's rate.
        if (c.iface == "hdmi3" && src.contains("samplerate"))
            step({{"ai", 2}, {"samplerate", src.value("samplerate")}});
    };
    const QVariantMap none = c.viaMcu ? QVariantMap{{"lock", 0}} : QVariantMap{};
    plan(1 + o, [=] {
        source(none);
        const int64_t t = nowNs();
        expect(Kind::Stimulus, c.node + ": signal lost", c.node, t, 1000,
               signalAfter(c.node, t, false, 0));
    });
    auto change = [=](double at, const QVariantMap& src, int width, const QString& what) {
        plan(at + o, [=] {
            source(src);
            const int64_t t = nowNs();
            expect(Kind::Fault, c.node + ": " + what, c.node, t, 1000,
                   signalAfter(c.node, t, true, width));
            if (c.iface != "hdmi3" || what == "source back") return;
            const int rate = src.value("samplerate").toInt();
            expect(Kind::Fault, QStringLiteral("hdmi3audio: rate follows"), "hdmi3audio", t, 2000,
                   [=] {
                       return eventAfter("hdmi3audio", "infoA", t, [=](const QVariant& v) {
                           return v.toMap().value("params").toMap().value("samplerate").toInt() ==
                                  rate;
                       });
                   });
        });
    };
    change(5, c.a, c.widthA, "source back");
    change(11, c.b, c.widthB, "format change");
    change(17, c.a, c.widthA, "format back");
}

void Soak::planUsb()
{
    plan(3, [this] {
        const int mics = logTap().micGone, speakers = logTap().speakerGone;
        const int64_t pulled = nowNs();
        step({{"camera", "video0"}, {"plug", false}});
        step({{"usbsound", "mic"}, {"plug", false}});
        step({{"usbsound", "speaker"}, {"plug", false}});
        // Back only once the camera and the sound nodes have let go (or 15 s
        // on). The camera looks for its device every 500 ms: a device back
        // before that look was never gone for it, and nothing is to recover.
        when(
            [=] {
                return logTap().micGone > mics && logTap().speakerGone > speakers &&
                       eventAfter("camera", "CameraOpen", pulled,
                                  [](const QVariant& v) { return !v.toBool(); });
            },
            15 * kSec,
            [=](bool noticed) {
                Check notice{Kind::Stimulus, cycle,  "usb: pull noticed",
                             "mic",          pulled, pulled + 15 * kSec,
                             nullptr,        nullptr};
                settle(notice, noticed ? nowNs() : 0);
                const int64_t back = nowNs();
                const int64_t dry = vsim::UsbSound::instance().card("speaker").dryAtNs;
                step({{"camera", "video0"}, {"plug", true}});
                step(scenarioStep("usbsound", "mic"));
                step(scenarioStep("usbsound", "speaker"));
                expect(Kind::Fault, "camera: plugged back", "camera", back, 500,
                       [=] { return eventAfter("camera", "CameraOpen", back); });
                expect(Kind::Fault, "mic: plugged back", "mic", back, 2000,
                       [=, t = taps.value("mic")] {
                           const int64_t l = t->lastNs;
                           return l > back ? l : 0;
                       });
                expect(Kind::Fault, "speaker: plugged back", "speaker", back, 2000, [=] {
                    const int64_t d = vsim::UsbSound::instance().card("speaker").dryAtNs;
                    return d > qMax(dry, back) ? nowNs() : 0;
                });
            });
    });
}

void Soak::planNetwork()
{
    // A dead stream is noticed after "timeout" (3 s) without data; an
    // attempt that starts while the peer is away waits as long in FFmpeg
    // before it fails, and the next comes 3 s later.
    const int retry = 3000 + 3000;
    auto outage = [=](Peer* peer, const QString& node, double down, double up) {
        plan(down, [=] { peer->down(); });
        plan(up, [=] {
            peer->up();
            const int64_t t = nowNs();
            expect(Kind::Fault, node + ": peer back", node, t, retry,
                   [=] { return eventAfter(node, "ready", t); });
        });
    };
    outage(udpPeer.get(), "udp", 2, 8);
    outage(httpPeer.get(), "http", 4, 10);
}

void Soak::planRtsp()
{
    auto relayDo = [this](std::function<void(Relay*)> fn) {
        Relay* r = relay;
        QMetaObject::invokeMethod(
            r, [r, fn] { fn(r); }, Qt::QueuedConnection);
    };
    plan(6, [=] {
        relayDo([](Relay* r) { r->cut(); });
        const int64_t t = nowNs();
        expect(Kind::Fault, "rtsp: connection cut", "rtsp", t, 3000,
               [=] { return eventAfter("rtsp", "ready", t); });
    });
    plan(24, [=] {
        relayDo([](Relay* r) { r->setStalled(true); });
        const int64_t t = nowNs();
        // The alive tick that first finds nothing may come up to two
        // periods on.
        expect(Kind::Stimulus, "rtsp: stall noticed", "rtsp", t, 3000 + 3000,
               [=] { return eventAfter("rtsp", "timeout", t); });
    });
    plan(31, [=] {
        relayDo([](Relay* r) { r->setStalled(false); });
        const int64_t t = nowNs();
        // An attempt made during the stall lost its replies: it ends at the
        // alive tick (3 s), and the next one comes 3 s later.
        expect(Kind::Fault, "rtsp: stream back", "rtsp", t, 3000 + 3000,
               [=] { return eventAfter("rtsp", "ready", t); });
    });
    // A restarted server has forgotten the session the node holds on to.
    // In the default mode that node never plays again: once is enough to
    // show it, and then it is stopped so that its requests do not load the
    // machine for the rest of the run.
    if (restartStopped || (!opt.rtspInterop && cycle > 1)) return;
    plan(12, [=] {
        restartServer->down();
        restartServer->up();
        when([=] { return listening(restartPort); }, 30 * kSec,
             [=](bool up) {
                 if (!up) {
                     fail("the restarted RTSP server does not listen");
                     return;
                 }
                 const int64_t t = nowNs();
                 expect(
                     opt.rtspInterop ? Kind::Fault : Kind::Expected,
                     "rtspRestart: server restarted", "rtspRestart", t, 3000 + 3000,
                     [=] { return eventAfter("rtspRestart", "ready", t); },
                     [=](bool) {
                         if (opt.rtspInterop) return;
                         graph.stop("rtspRestart");
                         restartServer->down();
                         restartStopped = true;
                     });
             });
    });
}

void Soak::planAudio()
{
    plan(7, [=] { step({{"ai", 0}, {"stop", true}}); });
    plan(9, [=] {
        step({{"ai", 0}, {"stop", false}});
        const int64_t t = nowNs();
        expect(Kind::Fault, "line: input back", "line", t, 1000, [=, tap = taps.value("line")] {
            const int64_t l = tap->lastSoundNs;
            return l > t ? l : 0;
        });
    });
    // The codec's clock stalls: the output's sends wait, and the host drops
    // what does not fit in its queue meanwhile.
    plan(13, [] { vsim::AudioOut::instance().setHold(1, true); });
    plan(15, [=] {
        vsim::AudioOut::instance().setHold(1, false);
        const uint64_t accepted = vsim::AudioOut::instance().device(1).framesAccepted;
        const int64_t t = nowNs();
        expect(Kind::Fault, "out1: clock back", "out1", t, 1000, [=] {
            return vsim::AudioOut::instance().device(1).framesAccepted > accepted ? nowNs() : 0;
        });
    });
}

void Soak::planPanel()
{
    auto handledFrameAfter = [this](int64_t t) {
        return eventAfter("mcu", "frame", t,
                          [](const QVariant& v) { return v.toMap().value("handled").toBool(); });
    };
    plan(21, [=] { step({{"chip", "mcu"}, {"silent", 6}}); });
    plan(27, [=] {
        const int64_t t = nowNs();
        // The line's watchdog (3 s) reopens it; the reports come once a second.
        expect(Kind::Fault, "mcu line: reports back", "mcu", t, 3000 + 1000,
               [=] { return handledFrameAfter(t); });
    });
    plan(33, [=] {
        step({{"chip", "mcu"}, {"noise", "\x01boot> "}});
        step({{"chip", "mcu"}, {"garbage", "this is not JSON"}});
        step({{"chip", "mcu"}, {"split", true}});
        step({{"chip", "mcu"}, {"big", 6000}});
        const int64_t t = nowNs();
        expect(Kind::Stimulus, "mcu line: frames after noise", "mcu", t, 1000,
               [=] { return handledFrameAfter(t); });
    });
    plan(34, [=] {
        step({{"chip", "mcu"}, {"key", "menu"}, {"act", "press"}});
        const int64_t t = nowNs();
        expect(Kind::Stimulus, "dev: key", "dev", t, 1000,
               [=] { return eventAfter("dev", "keyPress", t); });
    });
    plan(34.2, [=] { step({{"chip", "mcu"}, {"key", "menu"}, {"act", "release"}}); });
    plan(35, [=] {
        step({{"ir", QVariantMap{{"high", 0}, {"low", 1088438015}, {"state", 1}}}});
        const int64_t t = nowNs();
        expect(Kind::Stimulus, "dev: remote control", "dev", t, 1000,
               [=] { return eventAfter("dev", "IR", t); });
    });
    plan(36, [=] {
        // A press that bounces, stamped from now on the board's GPIO clock.
        const double at =
            double(vsim::GpioLines::monotonicNs() - vsim::GpioLines::instance().epoch()) / 1e9 +
            0.05;
        const std::pair<int, int> bounce[] = {{0, 0}, {4, 1}, {9, 0}, {180, 1}};
        QVariantList edges;
        for (const auto& e : bounce) edges << QVariantMap{{"ms", e.first}, {"level", e.second}};
        step({{"at", at}, {"gpio", "GPIO2_1"}, {"edges", edges}});
        const int64_t t = nowNs();
        expect(Kind::Stimulus, "button: click", "button", t, 1000,
               [=] { return eventAfter("button", "click", t); });
    });
}

// The application's loop over the two damaged files: each play must come
// through the damage to its end.
void Soak::nextPlay()
{
    const QString file = mediaDir + (plays % 2 ? "/damaged.ts" : "/damaged.mp4");
    ++plays;
    VeskObject* player = graph.node("player");
    QMetaObject::invokeMethod(
        player,
        [player, file] {
            player->setData({{"path", file}});
        },
        Qt::QueuedConnection);
    const int64_t t = nowNs();
    const int64_t late = t + int64_t(clipSeconds * 0.6 * kSec);
    expect(Kind::Fault, "player: damaged file to its end", "player", t, int(clipSeconds * 1000),
           [=, tap = taps.value("player")]() -> int64_t {
               const int64_t eof = eventAfter("player", "EOF", t);
               if (!eof) return 0;
               // An end at the damage would leave the later part unplayed.
               return tap->lastNs > late ? eof : -1;
           });
}

void Soak::beginCycle()
{
    ++cycle;
    cycleStart = nowNs();
    actions.clear();
    nextAction = 0;
    probe = CycleEnd();
    for (int k = 0; k < captures.size(); ++k) planCapture(captures[k], 0.6 * k);
    planUsb();
    planNetwork();
    planRtsp();
    planAudio();
    planPanel();
    for (double before : {2.0, 1.5, 1.0, 0.5})
        plan(opt.cycleSeconds - before, [this] { probeCycleEnd(); });
    std::stable_sort(actions.begin(), actions.end(),
                     [](const Action& a, const Action& b) { return a.due < b.due; });
}

void Soak::endCycle()
{
    probeCycleEnd();
    cycleEnds.push_back(probe);
    cycleEndTimes.push_back(since(nowNs()));
    const Usage& u = probe.use;
    const Usage& base = cycleEnds.front().use;
    quint64 dropped = 0;
    for (VeskObject* n : observed())
        dropped += VeskHost::droppedPackets(n, VeskHost::LinkA) +
                   VeskHost::droppedPackets(n, VeskHost::LinkV);
    std::printf(
        "cycle %d/%d: faults %d/%d, rss %ld kB (%+ld), heap %ld kB (%+ld), %d descriptors, "
        "%d threads, %d binds, dropped %llu\n",
        cycle, cycles, recovered, faults, u.rssKb, u.rssKb - base.rssKb, u.heapKb,
        u.heapKb - base.heapKb, u.fds, u.threads, u.binds,
        static_cast<unsigned long long>(dropped));
    if (cycleEnds.size() > 1 && (u.fds != base.fds || u.threads != base.threads))
        fail(QStringLiteral("cycle %1 ends with %2 descriptors and %3 threads, the first with %4 "
                            "and %5")
                 .arg(cycle)
                 .arg(u.fds)
                 .arg(u.threads)
                 .arg(base.fds)
                 .arg(base.threads));
    // Every cycle rebinds the monitor to its capture as often as the last:
    // a record that grows with rebinds grows without bound.
    if (cycleEnds.size() > 1 && u.binds != base.binds)
        fail(QStringLiteral("cycle %1 ends with %2 entries in the host's bind record, the first "
                            "with %3")
                 .arg(cycle)
                 .arg(u.binds)
                 .arg(base.binds));
}

void Soak::tick()
{
    const int64_t now = nowNs();
    // The platform's call record grows with every audio frame; a soak keeps
    // none of it.
    vsim::MediaPlatform::instance().clearCalls();

    for (auto it = waiters.begin(); it != waiters.end();) {
        const bool ready = it->ready();
        if (!ready && now < it->giveUp) {
            ++it;
            continue;
        }
        const std::function<void(bool)> then = it->then;
        it = waiters.erase(it);
        then(ready);
    }
    while (nextAction < actions.size() && actions[nextAction].due <= now) {
        const std::function<void()> fn = actions[nextAction++].run;
        fn();
    }
    for (auto it = checks.begin(); it != checks.end();) {
        const int64_t m = it->met();
        if (m == 0 && now <= it->deadline) {
            ++it;
            continue;
        }
        const Check c = *it;
        it = checks.erase(it);
        settle(c, m > 0 && m <= c.deadline ? m : 0);
    }
    if (now >= nextSample) {
        sample();
        nextSample += 10 * kSec;
    }

    switch (phase) {
        case Phase::Startup: {
            bool waiting = false;
            for (const Check& c : checks) waiting |= c.kind == Kind::Startup;
            if (waiting) break;
            if (!failures.isEmpty()) {
                phase = Phase::Done;
                QCoreApplication::quit();
                break;
            }
            std::printf("appliance-soak: everything is up after %.1f s; cycle 1 is the warm-up\n",
                        since(now));
            phase = Phase::Cycles;
            beginCycle();
            break;
        }
        case Phase::Cycles:
            if (now < cycleStart + int64_t(opt.cycleSeconds * kSec)) break;
            endCycle();
            if (cycle < cycles) {
                beginCycle();
                break;
            }
            phase = Phase::Drain;
            drainUntil = now + 20 * kSec;
            break;
        case Phase::Drain: {
            // The player's check of the play under way is left open.
            bool open = false;
            for (const Check& c : checks) open |= c.node != "player";
            if (open && now < drainUntil) break;
            phase = Phase::Done;
            QCoreApplication::quit();
            break;
        }
        case Phase::Done:
            break;
    }
}

void Soak::run()
{
    nextSample = startNs;
    connect(&ticker, &QTimer::timeout, this, [this] { tick(); });
    ticker.start(100);
}

void Soak::teardown()
{
    ticker.stop();
    graph.shutdown();
    mcu::setObserver(nullptr);
    for (Tap* t : taps) VeskHost::detach(t);
    tapThread.quit();
    tapThread.wait();
    qDeleteAll(taps);
    taps.clear();
    if (relay) {
        // Deleted as its thread finishes, where its sockets live.
        QMetaObject::invokeMethod(
            relay,
            [r = relay] {
                r->close();
                r->deleteLater();
            },
            Qt::BlockingQueuedConnection);
        relay = nullptr;
    }
    relayThread.quit();
    relayThread.wait();
    for (auto* p : {&udpPeer, &httpPeer, &rtspServer, &restartServer})
        if (*p) p->reset();
    vsim::Board& b = vsim::Board::instance();
    b.stop();
    const QString root = b.root();
    b.deactivate();
    if (QFileInfo(root).fileName().startsWith("vesk-board-")) QDir(root).removeRecursively();
}

int Soak::finish()
{
    ticker.stop();
    phase = Phase::Done;
    const double minutes = since(nowNs()) / 60;
    sample();
    if (interrupted) fail("interrupted");
    const int httpRestarts = httpPeer ? httpPeer->restarts : 0;
    teardown();

    {
        QFile tail(opt.out + "/log-tail.txt");
        if (tail.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
            tail.write(logTap().last(4000, QString()).join('\n').toUtf8() + '\n');
    }

    // Memory after the warm-up cycle against the end of the last cycle. The
    // bound holds what a long run settles into (allocator arenas of some
    // forty threads, FFmpeg's and the sockets' buffers at their high-water
    // marks), far below what a packet's worth lost per fault would add up to.
    long bound = opt.rssBoundKb >= 0 ? opt.rssBoundKb : 16 * 1024;
#if defined(__SANITIZE_ADDRESS__)
    if (opt.rssBoundKb < 0) bound *= 4;  // the sanitizer's quarantine and shadow
#endif
    long rssGrowth = 0;
    int fdGrowth = 0, threadGrowth = 0;
    if (cycleEnds.size() > 1) {
        const Usage& base = cycleEnds.front().use;
        const Usage& last = cycleEnds.back().use;
        rssGrowth = last.rssKb - base.rssKb;
        fdGrowth = last.fds - base.fds;
        threadGrowth = last.threads - base.threads;
        if (rssGrowth > bound)
            fail(QStringLiteral("resident memory grew by %1 kB after the warm-up, more than %2 kB")
                     .arg(rssGrowth)
                     .arg(bound));
    } else if (!interrupted && failures.isEmpty()) {
        fail("fewer than two cycles ran");
    }
    quint64 dropped = samples.empty() ? 0 : samples.back().dropped;

    const Usage& first = cycleEnds.empty() ? samples.back().use : cycleEnds.front().use;
    QList<Series> panels = {
        {"resident memory MB, after malloc_trim (dashed: the bound)", qRgb(30, 80, 200),
         [](const Sample& s) { return s.use.rssKb / 1024.0; },
         cycleEnds.empty() ? -1.0 : (first.rssKb + bound) / 1024.0},
        {"open descriptors", qRgb(20, 140, 60), [](const Sample& s) { return double(s.use.fds); }},
        {"threads", qRgb(140, 40, 160), [](const Sample& s) { return double(s.use.threads); }},
    };
    const QString line = QStringLiteral(
                             "soak: %1 min, %2 cycles, recovered %3/%4 faults, rss %5 kB after "
                             "warm-up, descriptors %6, threads %7, dropped %8")
                             .arg(minutes, 0, 'f', 1)
                             .arg(cycleEnds.size())
                             .arg(recovered)
                             .arg(faults)
                             .arg(QString::asprintf("%+ld", rssGrowth))
                             .arg(QString::asprintf("%+d", fdGrowth))
                             .arg(QString::asprintf("%+d", threadGrowth))
                             .arg(dropped);
    const int cut = line.indexOf(", rss");
    writePlot(opt.out + "/soak.png", {line.left(cut + 1), line.mid(cut + 2)}, samples,
              cycleEndTimes, panels);
    samplesCsv.close();
    nodesCsv.close();
    checksCsv.close();

    std::printf("\nchecks (met/count, worst time to recover):\n");
    for (auto it = byWhat.begin(); it != byWhat.end(); ++it)
        std::printf("  %-48s %4d/%-4d %5.1f s\n", qPrintable(it.key()), it.value().met,
                    it.value().n, it.value().worst);
    std::printf(
        "stimuli answered %d/%d; the HTTP peer (one client a run) started again %d "
        "times\n",
        answered, stimuli, httpRestarts);
    for (const QString& n : expectedNotes)
        std::printf("expected non-recovery: %s\n", qPrintable(n));
    std::printf("memory bound: rss may grow by %ld kB after the warm-up cycle\n", bound);
    if (cycleEnds.size() > 2) {
        // The trend over the cycle ends, for a reader weighing a growth that
        // stays inside the bound.
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        const double n = double(cycleEnds.size());
        for (size_t i = 0; i < cycleEnds.size(); ++i) {
            const double y = double(cycleEnds[i].use.rssKb);
            sx += double(i);
            sy += y;
            sxx += double(i) * double(i);
            sxy += double(i) * y;
        }
        std::printf("memory trend: %+.0f kB a cycle (least squares over the cycle ends)\n",
                    (n * sxy - sx * sy) / (n * sxx - sx * sx));
    }
    std::printf("output: %s/{samples.csv,nodes.csv,checks.csv,soak.png,log-tail.txt}\n",
                qPrintable(opt.out));
    if (!failures.isEmpty()) {
        std::printf("%lld failure(s):\n", static_cast<long long>(failures.size()));
        for (const QString& f : failures) std::printf("  %s\n", qPrintable(f));
    }
    std::printf("%s\n", qPrintable(line));
    return failures.isEmpty() ? 0 : 1;
}

int quitPipe[2] = {-1, -1};

void onQuitSignal(int)
{
    const char c = 1;
    const ssize_t r = ::write(quitPipe[1], &c, 1);
    (void)r;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    QString why;
    const QStringList args = app.arguments().mid(1);
    if (args.contains("--help") || args.contains("-h")) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (!parseOptions(args, &o, &why)) {
        std::fprintf(stderr, "appliance-soak: %s\n%s", qPrintable(why), kUsage);
        return 2;
    }
    logTap().echo = o.verbose;
    qInstallMessageHandler(onMessage);
    // Collapsed as veskhost does: a pulled card's read loop would otherwise
    // put some 100,000 lines a second through the tap.
    veskhost::installFfmpegLog([](const QByteArray& line) {
        logTap().add(QStringLiteral("ffmpeg: ") + QString::fromUtf8(line).trimmed());
    });

    Soak soak(o);
    if (::pipe(quitPipe) == 0) {
        auto* n = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(n, &QSocketNotifier::activated, &app, [&soak] {
            soak.interrupted = true;
            QCoreApplication::quit();
        });
        std::signal(SIGINT, onQuitSignal);
        std::signal(SIGTERM, onQuitSignal);
    }
    const int code = soak.prepare();
    if (code >= 0) {
        soak.teardown();
        return code;
    }
    soak.run();
    app.exec();
    return soak.finish();
}
