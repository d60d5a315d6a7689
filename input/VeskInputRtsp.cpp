#include "input/VeskInputRtsp.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QRandomGenerator>
#include <QStringList>
#include <QThread>
#include <QVariantMap>
#include <climits>
#include <cstring>

#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"

VESK_REGISTER(VeskInputRtsp)

namespace {

constexpr int kHeadroom = 20;
// A `$` frame's length is 16 bits. The room in front and the tail behind
// match what a pool buffer with kHeadroom would have.
constexpr int kMaxFrame = 65535;
constexpr int kScratchRoom = (kHeadroom + 15) & ~15;
constexpr int kScratchTail = 64;
constexpr int kRetryMs = 3000;
constexpr int kConnectMs = 3000;
constexpr uint16_t kFirstUdpPort = 50000;
// Every even port once: beyond that no bind is going to succeed.
constexpr int kUdpBindTries = 32768;
// Datagrams handled per readyRead; the rest wait for the next one, so that a
// flood cannot keep the node's thread from its timers.
constexpr int kDatagramsPerRead = 256;
// A server that does not read what it is sent gets no further keep-alives
// once this much waits to be written.
constexpr qint64 kMaxWriteBacklog = 64 * 1024;
// What the control connection may hold unread. Once a bad frame header has
// stopped the reading, TCP holds the server back instead of the bytes piling
// up in memory until the alive timer ends the session.
constexpr qint64 kMaxReadBacklog = 1 << 20;

// One recorded compound RTCP packet in an interleaved frame on channel 3:
// a receiver report and a source description. Only its arrival matters to
// the server; none of its fields are filled in from the session.
const char kKeepAliveHex[] =
    "2403003c"                        // '$', channel 3, 60 bytes
    "81c90007"                        // RR, one report block, 7 words
    "20890c7f"                        // our SSRC
    "1c9ad44f"                        // SSRC reported on
    "00ffffff"                        // fraction lost, cumulative lost
    "0001de4a"                        // extended highest sequence number
    "00000206"                        // interarrival jitter
    "86aa7604"                        // last SR
    "0004a5ed"                        // delay since last SR
    "81ca0006"                        // SDES, one chunk, 6 words
    "20890c7f"                        // our SSRC
    "010f"                            // CNAME, 15 characters
    "7665736b696f2d7265636569766572"  // "veskio-receiver"
    "000000";                         // end of items, padding

// The control connection as the reader sees it.
class SocketSource : public RtspByteSource {
public:
    explicit SocketSource(QTcpSocket& socket) : s(socket) {}
    bool connected() const override { return s.state() == QAbstractSocket::ConnectedState; }
    int64_t available() const override { return s.bytesAvailable(); }
    bool canReadLine() const override { return s.canReadLine(); }
    QByteArray readLine(int64_t max) override { return s.readLine(max); }
    int64_t read(char* to, int64_t max) override { return s.read(to, max); }
    QByteArray readAll() override { return s.readAll(); }

private:
    QTcpSocket& s;
};

// The value of a quoted Digest parameter: from behind `name="` up to the
// next quote. Counting from a missing name lands 6 characters in, as it
// always has.
QString quotedParam(const QString& params, const QString& name)
{
    const int from = params.indexOf(name) + name.size() + 2;
    const int end = params.indexOf(QLatin1Char('"'), from);
    return end < 0 ? params.mid(from) : params.mid(from, end - from);
}

int32_t ssrcOf(const QString& transport)
{
    QString text = transport.mid(transport.indexOf(QLatin1String("ssrc")) + 5);
    const int semicolon = text.indexOf(QLatin1Char(';'));
    if (semicolon >= 0) text = text.left(semicolon);
    return int32_t(text.toUInt(nullptr, 16));
}

QString videoCodec(int type)
{
    switch (type) {
        case VeskObject::TypeH264:
            return QStringLiteral("h264");
        case VeskObject::TypeH265:
            return QStringLiteral("h265");
        case VeskObject::TypeMPEG4:
            return QStringLiteral("mpeg4");
        default:
            return QString();
    }
}

QString audioCodec(int type)
{
    switch (type) {
        case VeskObject::TypeAAC:
            return QStringLiteral("aac");
        case VeskObject::TypeMP2:
            return QStringLiteral("mp2");
        case VeskObject::TypeMP3:
            return QStringLiteral("mp3");
        case VeskObject::TypeG722:
            return QStringLiteral("g722");
        case VeskObject::TypeAC3:
            return QStringLiteral("ac3");
        case VeskObject::TypePCMA:
            return QStringLiteral("pcma");
        case VeskObject::TypePCMU:
            return QStringLiteral("pcmu");
        case VeskObject::TypeOpus:
            return QStringLiteral("opus");
        default:
            return QString();
    }
}

}  // namespace

VeskInputRtsp::VeskInputRtsp(QObject* parent)
    : VeskObject(parent),
      tcp(this),
      udpA(this),
      udpRtcpA(this),
      udpV(this),
      udpRtcpV(this),
      timerRetry(this),
      timerAlive(this),
      media(*this),
      reader(*this),
      timerKeepAlive(this),
      timerUdpWatch(this),
      timerReorder(this)
{
    data[QStringLiteral("agent")] = QStringLiteral("VeskSDK");
    data[QStringLiteral("memSize")] = 4096000;
    data[QStringLiteral("protocol")] = QStringLiteral("tcp");
    data[QStringLiteral("path")] = QString();
    data[QStringLiteral("timeout")] = 10;
    data[QStringLiteral("timestampMode")] = QStringLiteral("auto");
    // Off: the client as it is settled. On: what field cameras and servers
    // need (keep-alive, transport fallback, fresh sessions, whole replies,
    // every aggregated unit, UDP in order).
    data[QStringLiteral("interop")] = false;
    shareDepth = 3;

    keepAlive = QByteArray::fromHex(kKeepAliveHex);
    tcp.setReadBufferSize(kMaxReadBacklog);
    timerRetry.setSingleShot(true);
    connect(&udpA, &QUdpSocket::readyRead, this, &VeskInputRtsp::onReadUdpA);
    connect(&udpV, &QUdpSocket::readyRead, this, &VeskInputRtsp::onReadUdpV);
    connect(&udpRtcpA, &QUdpSocket::readyRead, this, &VeskInputRtsp::onReadUdpRtcpA);
    connect(&udpRtcpV, &QUdpSocket::readyRead, this, &VeskInputRtsp::onReadUdpRtcpV);
    connect(&timerRetry, &QTimer::timeout, this, &VeskInputRtsp::onTimerRetry);
    connect(&timerAlive, &QTimer::timeout, this, &VeskInputRtsp::onTimerAlive);
    timerUdpWatch.setSingleShot(true);
    timerReorder.setSingleShot(true);
    connect(&timerKeepAlive, &QTimer::timeout, this, &VeskInputRtsp::onTimerKeepAlive);
    connect(&timerUdpWatch, &QTimer::timeout, this, &VeskInputRtsp::onTimerUdpWatch);
    connect(&timerReorder, &QTimer::timeout, this, &VeskInputRtsp::onTimerReorder);
    refreshSettings();
}

VeskInputRtsp::~VeskInputRtsp()
{
    running = false;
    timerRetry.stop();
    timerAlive.stop();
    timerKeepAlive.stop();
    timerUdpWatch.stop();
    timerReorder.stop();
    QObject::disconnect(&tcp, nullptr, this, nullptr);
    tcp.abort();
    udpA.close();
    udpV.close();
    udpRtcpA.close();
    udpRtcpV.close();
}

QString VeskInputRtsp::md5(const QString& text)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toLatin1(), QCryptographicHash::Md5).toHex());
}

void VeskInputRtsp::log(const QString& text)
{
    qDebug().noquote() << QLatin1Char('[') + name() + QLatin1Char(']') << text;
}

void VeskInputRtsp::refreshSettings()
{
    media.timestampMode = data.value(QStringLiteral("timestampMode")).toString();
}

// ---- life cycle ----------------------------------------------------------------

void VeskInputRtsp::onSetData(QMap<QString, QVariant> newData)
{
    refreshSettings();
    if (!running) return;
    if (newData.contains(QStringLiteral("path")) || newData.contains(QStringLiteral("interop"))) {
        transportFixed = false;
        onTimerRetry();
    }
}

void VeskInputRtsp::onStart()
{
    running = true;
    if (started) return;
    if (!data.value(QStringLiteral("path")).toString().isEmpty()) onTimerRetry();
}

void VeskInputRtsp::onStop()
{
    // TEARDOWN goes out while requests can still be made.
    if (interop) sendTeardown();
    running = false;
    transportFixed = false;
    endSession();
}

void VeskInputRtsp::onTimerRetry()
{
    if (!running) return;
    endSession();
    init();
}

void VeskInputRtsp::endSession(bool announce)
{
    if (interop) {
        sendTeardown();
        // Each attempt is a session of its own: a server that restarted
        // knows no old id and would refuse every request that carried one.
        session.clear();
        auth.reset();
        authFailures = 0;
        timerKeepAlive.stop();
        timerUdpWatch.stop();
        timerReorder.stop();
        reorderV.reset();
        reorderA.reset();
        statsV = statsA = rtspinterop::RtpStats{};
        transportV = transportA = rtspinterop::Transport{};
        udpSeen = false;
        channelV = 0;
        channelA = 2;
    }
    // Also for a stop ordered from outside: "timeout" only says that a
    // session which got somewhere has ended.
    if (step != 0 && announce)
        sendEvent(QStringLiteral("timeout"), data.value(QStringLiteral("path")).toString());
    // The session id outlives the session on purpose: the next attempt goes
    // on in it. A server that lost its sessions (a restarted one answers
    // every request carrying the id with 454) is therefore not played again
    // by this node.
    media.reset();
    step = 0;
    reader.reset();
    needAuth = false;
    started = false;
    alive = false;
    cseq = 1;
    timerAlive.stop();
    timerRetry.stop();
    disconnect(&tcp, &QTcpSocket::disconnected, this, &VeskInputRtsp::onDisconnected);
    disconnect(&tcp, &QTcpSocket::readyRead, this, &VeskInputRtsp::onReadTCP);
    tcp.disconnectFromHost();
    tcp.close();
    // Unwritten bytes would hold the socket in its closing state, where it
    // cannot connect again.
    if (tcp.state() != QAbstractSocket::UnconnectedState) tcp.abort();
    udpA.close();
    udpV.close();
    udpRtcpA.close();
    udpRtcpV.close();
    keepAliveBacklogLogged = false;
}

void VeskInputRtsp::init()
{
    const QString path = data.value(QStringLiteral("path")).toString();
    if (!path.startsWith(QLatin1String("rtsp://"))) return;

    QString rest = path.mid(7);
    const int at = rest.indexOf(QLatin1Char('@'));
    if (at >= 0) {
        // A password with a colon in it makes three parts: then neither is
        // taken.
        const QStringList credentials = rest.left(at).split(QLatin1Char(':'));
        if (credentials.size() == 2) {
            user = credentials[0];
            password = credentials[1];
        }
        rest = rest.mid(at + 1);
    }
    url = QStringLiteral("rtsp://") + rest;
    interop = data.value(QStringLiteral("interop")).toBool();
    reader.interop = media.interop = interop;
    if (interop) {
        if (!transportFixed)
            udpNow = data.value(QStringLiteral("protocol")).toString() == QLatin1String("udp");
        base = playUrl = url;
        getParameter = false;
        sessionTimeout = 0;
        ourSsrc = QRandomGenerator::global()->generate();
    }
    const int slash = rest.indexOf(QLatin1Char('/'));
    if (slash >= 0) rest = rest.left(slash);
    if (rest.contains(QLatin1Char(':'))) {
        const QStringList parts = rest.split(QLatin1Char(':'));
        host.setAddress(parts[0]);
        port = parts[1].toUShort();
    } else {
        // A literal address only: a name is not looked up and fails below.
        host.setAddress(rest);
        port = 554;
    }

    const bool udp =
        interop ? udpNow
                : data.value(QStringLiteral("protocol")).toString() == QLatin1String("udp");
    if (udp && !bindUdp()) {
        log(QStringLiteral("no UDP port pair free from %1 on").arg(kFirstUdpPort));
        sendEvent(QStringLiteral("error"), path);
        endSession();
        timerRetry.start(kRetryMs);
        return;
    }

    log(QStringLiteral("%1:%2 user \"%3\" password \"%4\"")
            .arg(host.toString())
            .arg(port)
            .arg(user, password));
    // Blocks the node's thread: nothing else of this node could go on
    // without the connection anyway.
    tcp.connectToHost(host, port, QIODevice::ReadWrite);
    const bool connected = tcp.waitForConnected(kConnectMs);
    // Without an address the attempt fails at once; it takes the whole
    // window like an unreachable address does, so that a URL with a host
    // name retries every 6 s rather than flooding the log every 3.
    if (!connected && host.isNull()) QThread::msleep(kConnectMs);
    if (!connected) {
        sendEvent(QStringLiteral("error"), path);
        endSession();
        timerRetry.start(kRetryMs);
        return;
    }
    onConnected();
    started = true;
    // Runs from OPTIONS on: the whole dialogue and the first frame must fit
    // into one period.
    timerAlive.start(data.value(QStringLiteral("timeout")).toInt() * 1000);
}

bool VeskInputRtsp::bindUdp()
{
    const QHostAddress any = host.protocol() == QAbstractSocket::IPv6Protocol
                                 ? QHostAddress(QHostAddress::Any)
                                 : QHostAddress(QHostAddress::AnyIPv4);
    // Not shared: two sessions on one port would take each other's packets.
    const auto mode = QAbstractSocket::DontShareAddress;
    uint16_t p = kFirstUdpPort;
    for (int tries = 0; !udpA.bind(any, p, mode); p += 2)
        if (++tries >= kUdpBindTries) return false;
    udpRtcpA.bind(any, uint16_t(p + 1), mode);
    p = udpA.localPort();
    for (int tries = 0; !udpV.bind(any, p, mode); p += 2)
        if (++tries >= kUdpBindTries) return false;
    udpRtcpV.bind(any, uint16_t(p + 1), mode);
    return true;
}

void VeskInputRtsp::onConnected()
{
    if (!running) return;
    connect(&tcp, &QTcpSocket::disconnected, this, &VeskInputRtsp::onDisconnected,
            Qt::UniqueConnection);
    connect(&tcp, &QTcpSocket::readyRead, this, &VeskInputRtsp::onReadTCP, Qt::UniqueConnection);
    sendMsg(newMsg(QStringLiteral("OPTIONS"), url));
}

void VeskInputRtsp::onDisconnected()
{
    if (!running) return;
    log(QStringLiteral("Disconnect"));
    endSession();
    timerRetry.start(kRetryMs);
}

void VeskInputRtsp::onTimerAlive()
{
    if (!running) return;
    if (alive) {
        alive = false;
        return;
    }
    // UDP that has not begun yet gets its 3 s before TCP is tried instead.
    if (interop && timerUdpWatch.isActive()) return;
    // Over UDP nothing sets alive, so this ends every UDP session after one
    // period, media or not.
    log(QStringLiteral("Timeout"));
    endSession();
    timerAlive.stop();
    timerRetry.start(kRetryMs);
    alive = false;
}

// ---- messages ------------------------------------------------------------------

void VeskInputRtsp::sendSetup(const QString& control, const QUdpSocket& rtp, const QUdpSocket& rtcp,
                              const QString& channels)
{
    const bool udp = data.value(QStringLiteral("protocol")).toString() == QLatin1String("udp");
    Message m = newMsg(QStringLiteral("SETUP"), control);
    m.insert(QStringLiteral("Transport"),
             udp ? QStringLiteral("RTP/AVP;unicast;client_port=%1-%2")
                       .arg(rtp.localPort())
                       .arg(rtcp.localPort())
                 : QStringLiteral("RTP/AVP/TCP;unicast;interleaved=") + channels);
    sendMsg(m);
}

VeskInputRtsp::Message VeskInputRtsp::newMsg(const QString& method, const QString& uri)
{
    Message msg;
    if (!running) return msg;
    msg.insert(QStringLiteral("H1"), method);
    msg.insert(QStringLiteral("H2"), uri);
    msg.insert(QStringLiteral("H3"), QStringLiteral("RTSP/1.0"));
    msg.insert(QStringLiteral("CSeq"), QString::number(cseq++));
    msg.insert(QStringLiteral("User-Agent"), data.value(QStringLiteral("agent")).toString());
    if (interop) {
        if (auth.active())
            msg.insert(QStringLiteral("Authorization"), auth.header(method, uri, user, password));
    } else if (needAuth && authScheme == QLatin1String("Digest")) {
        // Over the base URL for every request, SETUP included, and without
        // qop: the server's challenge goes back as it came.
        const QString ha1 = md5(user + QLatin1Char(':') + realm + QLatin1Char(':') + password);
        const QString ha2 = md5(method + QLatin1Char(':') + url);
        const QString response = md5(ha1 + QLatin1Char(':') + nonce + QLatin1Char(':') + ha2);
        msg.insert(QStringLiteral("Authorization"),
                   QStringLiteral("Digest username=\"%1\", %2, uri=\"%3\", response=\"%4\"")
                       .arg(user, authParams, url, response));
    }
    if (!session.isEmpty()) msg.insert(QStringLiteral("Session"), session);
    return msg;
}

void VeskInputRtsp::sendMsg(Message msg)
{
    if (!msg.contains(QStringLiteral("H1"))) return;
    QString text = msg.take(QStringLiteral("H1")) + QLatin1Char(' ') +
                   msg.take(QStringLiteral("H2")) + QLatin1Char(' ') +
                   msg.take(QStringLiteral("H3")) + QStringLiteral("\r\n");
    const bool hasContent = msg.contains(QStringLiteral("Content"));
    const QString content = msg.take(QStringLiteral("Content"));
    // The map's own order: sorted, case-sensitive.
    for (auto it = msg.constBegin(); it != msg.constEnd(); ++it)
        text += it.key() + QStringLiteral(": ") + it.value() + QStringLiteral("\r\n");
    text += QStringLiteral("\r\n");
    QByteArray bytes = text.toUtf8();
    if (hasContent) bytes += content.toUtf8();
    if (tcp.state() == QAbstractSocket::ConnectedState)
        tcp.write(bytes);
    else
        onDisconnected();
}

void VeskInputRtsp::handleMsg(Message msg)
{
    if (interop) {
        handleInterop(msg);
        return;
    }
    if (msg.value(QStringLiteral("H1")) != QLatin1String("RTSP/1.0")) return;
    const int status = msg.value(QStringLiteral("H2")).toInt();
    if (status == 401) {
        needAuth = true;
        const QString w = msg.value(QStringLiteral("WWW-Authenticate"));
        const int blank = w.indexOf(QLatin1Char(' '));
        authScheme = blank < 0 ? w : w.left(blank);
        if (authScheme == QLatin1String("Digest")) {
            authParams = blank < 0 ? QString() : w.mid(blank + 1);
            nonce = quotedParam(authParams, QStringLiteral("nonce"));
            realm = quotedParam(authParams, QStringLiteral("realm"));
        }
    } else if (status == 200) {
        ++step;
        if (msg.contains(QStringLiteral("Session")))
            session = msg.value(QStringLiteral("Session")).section(QLatin1Char(';'), 0, 0);
    }

    // A track that isn't there is skipped by counting the same reply again.
    auto again = [this, &msg] {
        // Each pass moves the step on, so two suffice; more would mean a
        // reply that cannot move it and would recurse for ever.
        if (reentry >= 2) {
            log(QStringLiteral("reply %1 cannot skip a track, ignored")
                    .arg(msg.value(QStringLiteral("H2"))));
            return;
        }
        ++reentry;
        handleMsg(msg);
        --reentry;
    };

    switch (step) {
        case 0:
            sendMsg(newMsg(QStringLiteral("OPTIONS"), url));
            break;
        case 1: {
            Message m = newMsg(QStringLiteral("DESCRIBE"), url);
            m.insert(QStringLiteral("Accept"), QStringLiteral("application/sdp"));
            sendMsg(m);
            break;
        }
        case 2: {
            sdp = msg.value(QStringLiteral("Content"));
            media.parseSDP(sdp, url);
            if (media.controlV.isEmpty()) {
                again();
                return;
            }
            sendSetup(media.controlV, udpV, udpRtcpV, QStringLiteral("0-1"));
            break;
        }
        case 3: {
            if (!media.controlV.isEmpty()) ssrcV = ssrcOf(msg.value(QStringLiteral("Transport")));
            if (media.controlA.isEmpty()) {
                again();
                return;
            }
            sendSetup(media.controlA, udpA, udpRtcpA, QStringLiteral("2-3"));
            break;
        }
        case 4: {
            if (!media.controlA.isEmpty()) ssrcA = ssrcOf(msg.value(QStringLiteral("Transport")));
            Message m = newMsg(QStringLiteral("PLAY"), url);
            m.insert(QStringLiteral("Range"), QStringLiteral("npt=0.000-"));
            sendMsg(m);
            break;
        }
        default:
            log(QStringLiteral("Connect OK"));
            sendReady();
            break;
    }
}

void VeskInputRtsp::sendReady()
{
    // "codec" goes into the event's copies only; infoA and infoV stay as
    // the SDP left them.
    QVariantMap v = media.infoV.params;
    QVariantMap a = media.infoA.params;
    const QString vc = videoCodec(media.infoV.type);
    const QString ac = audioCodec(media.infoA.type);
    if (!vc.isEmpty()) v.insert(QStringLiteral("codec"), vc);
    if (!ac.isEmpty()) a.insert(QStringLiteral("codec"), ac);
    QVariantMap ready{{QStringLiteral("infoA"), a}, {QStringLiteral("infoV"), v}};
    // Which transport runs, after any fallback: "udp" or "tcp".
    if (interop) {
        ready.insert(QStringLiteral("transport"),
                     udpNow ? QStringLiteral("udp") : QStringLiteral("tcp"));
    }
    sendEvent(QStringLiteral("ready"), ready);
}

// ---- control connection ----------------------------------------------------------

void VeskInputRtsp::onReadTCP()
{
    if (!running) return;
    SocketSource in(tcp);
    if (reader.read(in) == RtspReader::BadFrame) return;
    // Also when a request inside this read found the connection gone and
    // ended the session: the stop then runs a second time, with step 0.
    if (tcp.state() != QAbstractSocket::ConnectedState) onDisconnected();
}

char* VeskInputRtsp::frameBuffer(int len)
{
    // parseA sends packets that point into the frame itself, so an audio
    // frame must live in a buffer the graph can hold on to.
    if (reader.frameChannel == channelA) return bufferData(nullptr, len, kHeadroom);
    if (len < 0 || len > kMaxFrame) return nullptr;
    if (!frameScratch) frameScratch.reset(new char[kScratchRoom + kMaxFrame + kScratchTail]);
    char* p = frameScratch.get() + kScratchRoom;
    // Zeroed like a pool buffer's tail, so that nothing past the frame ever
    // reads what an earlier frame left.
    std::memset(p + len, 0, kScratchTail);
    return p;
}

void VeskInputRtsp::keepAliveDue()
{
    // Interop sessions keep alive by requests; channel 3 may be anything.
    if (interop) return;
    if (tcp.bytesToWrite() > kMaxWriteBacklog) {
        if (!keepAliveBacklogLogged)
            log(QStringLiteral("server reads nothing, keep-alive held back"));
        keepAliveBacklogLogged = true;
        return;
    }
    tcp.write(keepAlive);
}

void VeskInputRtsp::frame(uint8_t channel, char* buf, int len)
{
    alive = true;
    if (!buf) return;
    // The channels of the fixed Transport texts (0 and 1 video, 2 and 3
    // audio), or those the server gave.
    if (channel == channelV)
        media.parseV(buf, len);
    else if (channel == channelA)
        media.parseA(buf, len);
}

// ---- UDP -------------------------------------------------------------------------

void VeskInputRtsp::onReadUdpA()
{
    if (interop)
        readUdpInterop(udpA, false);
    else
        readUdp(udpA, false);
}

void VeskInputRtsp::onReadUdpV()
{
    if (interop)
        readUdpInterop(udpV, true);
    else
        readUdp(udpV, true);
}

void VeskInputRtsp::onReadUdpRtcpA()
{
    if (interop)
        readRtcpInterop(udpRtcpA, false);
    else
        answerRtcp(udpRtcpA);
}

void VeskInputRtsp::onReadUdpRtcpV()
{
    if (interop)
        readRtcpInterop(udpRtcpV, true);
    else
        answerRtcp(udpRtcpV);
}

int VeskInputRtsp::takeDatagram(QUdpSocket& socket, bool video, char** out)
{
    const qint64 size = socket.pendingDatagramSize();
    if (size <= 0 || size > INT_MAX) {
        if (socket.readDatagram(nullptr, 0) < 0) return kNoMore;
        log(QStringLiteral("empty datagram on the %1 port, dropped")
                .arg(video ? QStringLiteral("video") : QStringLiteral("audio")));
        return kDropped;
    }
    // Straight into a pool buffer: audio leaves in it without a copy.
    char* buf = bufferData(nullptr, int(size), kHeadroom);
    if (!buf) {
        if (socket.readDatagram(nullptr, 0) < 0) return kNoMore;
        log(QStringLiteral("no buffer for a datagram of %1 bytes, dropped").arg(size));
        return kDropped;
    }
    const qint64 got = socket.readDatagram(buf, size);
    if (got <= 0) return kNoMore;
    if (!running) return kDropped;
    const int len = rtpUnpaddedLength(buf, int(got));
    if (len < 0) {
        log(QStringLiteral("padding longer than a datagram of %1 bytes, dropped").arg(got));
        return kDropped;
    }
    *out = buf;
    return len;
}

void VeskInputRtsp::readUdp(QUdpSocket& socket, bool video)
{
    for (int n = 0; n < kDatagramsPerRead && socket.hasPendingDatagrams(); ++n) {
        char* buf = nullptr;
        const int len = takeDatagram(socket, video, &buf);
        if (len == kNoMore) break;
        if (len == kDropped) continue;
        if (video)
            media.parseV(buf, len);
        else
            media.parseA(buf, len);
    }
}

void VeskInputRtsp::answerRtcp(QUdpSocket& socket)
{
    const QByteArray answer = keepAlive.mid(4);
    for (int n = 0; n < kDatagramsPerRead && socket.hasPendingDatagrams(); ++n) {
        QHostAddress from;
        quint16 fromPort = 0;
        if (socket.readDatagram(nullptr, 0, &from, &fromPort) < 0) break;
        socket.writeDatagram(answer, from, fromPort);
    }
}

// ---- media sink --------------------------------------------------------------------

char* VeskInputRtsp::buffer(const char* src, int len, int headroom)
{
    return bufferData(const_cast<char*>(src), len, headroom);
}

void VeskInputRtsp::sendInfo(bool video, const VeskObject::StreamInfo& info)
{
    if (video) {
        infoV = info;
        sendInfoV(info);
    } else {
        infoA = info;
        sendInfoA(info);
    }
}

void VeskInputRtsp::sendPacket(bool video, const VeskObject::Packet& packet)
{
    if (video)
        sendPacketV(packet);
    else
        sendPacketA(packet);
}

int64_t VeskInputRtsp::now()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}
