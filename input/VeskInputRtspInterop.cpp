// The "interop" mode of VeskInputRtsp: the session as field cameras and
// servers need it. Keep-alive requests and receiver reports, a fresh
// session per attempt and TEARDOWN at its end, track URLs against the
// server's base, channels and ports from the server's Transport answer,
// fallback between UDP and TCP, and UDP put back in order.
#include <QVariantMap>
#include <climits>

#include "input/VeskInputRtsp.h"

namespace {

constexpr int kRetryMs = 3000;
constexpr int kHeadroom = 20;
constexpr int kDatagramsPerRead = 256;
// UDP that brings nothing within this time after PLAY is taken as blocked.
constexpr int kUdpWaitMs = 3000;
// Keep-alives go out every half of the session's timeout, at least every
// 5 s, never more often than every 500 ms; 60 s when the server names none.
constexpr int kDefaultSessionTimeout = 60;
constexpr int kMaxKeepAliveMs = 5000;
constexpr int kMinKeepAliveMs = 500;
const char kCname[] = "veskio-receiver";

}  // namespace

void VeskInputRtsp::handleInterop(const Message& msg)
{
    // A request of the server's own is not answered.
    if (msg.value(QStringLiteral("H1")) != QLatin1String("RTSP/1.0")) return;
    const int status = msg.value(QStringLiteral("H2")).toInt();
    const QString reason = QStringLiteral("%1 %2").arg(status).arg(msg.value(QStringLiteral("H3")));

    if (step >= 5) {
        // Answers to keep-alives: only a lost session or a new nonce matters.
        bool stale = false;
        if (status == 401 &&
            auth.challenge(msg.value(QStringLiteral("WWW-Authenticate")), &stale) &&
            (stale || authFailures++ == 0))
            onTimerKeepAlive();
        else if (status == 454)
            failInterop(QStringLiteral("keep-alive answered %1").arg(reason));
        return;
    }

    if (status == 401) {
        const bool answered = auth.active();
        bool stale = false;
        if (!auth.challenge(msg.value(QStringLiteral("WWW-Authenticate")), &stale)) {
            failInterop(QStringLiteral("no authentication scheme this client answers"));
            return;
        }
        // A renewed nonce is no refusal; a second refusal of the password is.
        if (answered && !stale && ++authFailures >= 2) {
            failInterop(QStringLiteral("authentication refused"));
            return;
        }
        sendInteropStep();
        return;
    }

    const bool setup = step == 2 || step == 3;
    if (setup && status != 200 && !transportFixed && (!udpNow || status == 461)) {
        // The other transport is asked for the same track.
        if (!udpNow && !bindUdp()) {
            failInterop(QStringLiteral("interleaved TCP refused and no UDP port pair free"));
            return;
        }
        udpNow = !udpNow;
        transportFixed = true;
        log(QStringLiteral("transport %1: SETUP answered %2")
                .arg(udpNow ? QStringLiteral("udp") : QStringLiteral("tcp"), reason));
        sendInteropStep();
        return;
    }
    if (status != 200) {
        static const char* const requests[] = {"OPTIONS", "DESCRIBE", "SETUP", "SETUP", "PLAY"};
        failInterop(
            QStringLiteral("%1 answered %2").arg(QLatin1String(requests[qMin(step, 4u)]), reason));
        return;
    }
    authFailures = 0;
    if (msg.contains(QStringLiteral("Session"))) {
        int timeout = 0;
        session = rtspinterop::sessionId(msg.value(QStringLiteral("Session")), &timeout);
        if (timeout > 0) sessionTimeout = timeout;
    }

    ++step;
    switch (step) {
        case 1:
            getParameter = msg.value(QStringLiteral("Public"))
                               .contains(QLatin1String("GET_PARAMETER"), Qt::CaseInsensitive);
            break;
        case 2: {
            sdp = msg.value(QStringLiteral("Content"));
            base = msg.value(QStringLiteral("Content-Base"));
            if (base.isEmpty()) base = msg.value(QStringLiteral("Content-Location"));
            if (base.isEmpty()) base = url;
            media.parseSDP(sdp, url);
            const rtspinterop::SdpControls c = rtspinterop::sdpControls(sdp);
            media.controlV = c.hasVideo ? rtspinterop::resolveControl(c.video, base) : QString();
            media.controlA = c.hasAudio ? rtspinterop::resolveControl(c.audio, base) : QString();
            playUrl = rtspinterop::resolveControl(c.session, base);
            if (media.controlV.isEmpty()) ++step;
            if (step == 3 && media.controlA.isEmpty()) ++step;
            break;
        }
        case 3:
            takeTrackTransport(msg, true);
            if (media.controlA.isEmpty()) ++step;
            break;
        case 4:
            takeTrackTransport(msg, false);
            break;
        default: {
            log(QStringLiteral("Connect OK"));
            const int timeout =
                qMin(sessionTimeout > 0 ? sessionTimeout : kDefaultSessionTimeout, 3600);
            timerKeepAlive.start(qBound(kMinKeepAliveMs, timeout * 500, kMaxKeepAliveMs));
            log(QStringLiteral("transport %1, keep-alive %2 every %3 ms")
                    .arg(udpNow ? QStringLiteral("udp") : QStringLiteral("tcp"),
                         getParameter ? QStringLiteral("GET_PARAMETER") : QStringLiteral("OPTIONS"))
                    .arg(timerKeepAlive.interval()));
            if (!udpNow) {
                sendReady();
            } else {
                sendReports();
                // "ready" waits for the first datagram, so that it names
                // the transport that really brings the media.
                if (udpSeen)
                    sendReady();
                else
                    timerUdpWatch.start(kUdpWaitMs);
            }
            return;
        }
    }
    sendInteropStep();
}

void VeskInputRtsp::sendInteropStep()
{
    Message m;
    switch (step) {
        case 0:
            m = newMsg(QStringLiteral("OPTIONS"), url);
            break;
        case 1:
            m = newMsg(QStringLiteral("DESCRIBE"), url);
            m.insert(QStringLiteral("Accept"), QStringLiteral("application/sdp"));
            break;
        case 2:
        case 3: {
            const bool video = step == 2;
            const QUdpSocket& rtp = video ? udpV : udpA;
            const QUdpSocket& rtcp = video ? udpRtcpV : udpRtcpA;
            m = newMsg(QStringLiteral("SETUP"), video ? media.controlV : media.controlA);
            m.insert(QStringLiteral("Transport"),
                     udpNow ? QStringLiteral("RTP/AVP;unicast;client_port=%1-%2")
                                  .arg(rtp.localPort())
                                  .arg(rtcp.localPort())
                            : QStringLiteral("RTP/AVP/TCP;unicast;interleaved=") +
                                  (video ? QStringLiteral("0-1") : QStringLiteral("2-3")));
            break;
        }
        default:
            m = newMsg(QStringLiteral("PLAY"), playUrl);
            m.insert(QStringLiteral("Range"), QStringLiteral("npt=0.000-"));
            break;
    }
    sendMsg(m);
}

void VeskInputRtsp::takeTrackTransport(const Message& msg, bool video)
{
    const rtspinterop::Transport t =
        rtspinterop::parseTransport(msg.value(QStringLiteral("Transport")));
    (video ? transportV : transportA) = t;
    (video ? ssrcV : ssrcA) = int32_t(t.ssrc);
    // The server may put a track on channels of its own choosing.
    if (!udpNow && t.channel[0] >= 0) (video ? channelV : channelA) = uint8_t(t.channel[0]);
}

void VeskInputRtsp::failInterop(const QString& why)
{
    log(why + QStringLiteral(", again in %1 ms").arg(kRetryMs));
    endSession();
    timerRetry.start(kRetryMs);
}

void VeskInputRtsp::sendTeardown()
{
    if (session.isEmpty() || !running || tcp.state() != QAbstractSocket::ConnectedState) return;
    sendMsg(newMsg(QStringLiteral("TEARDOWN"), playUrl));
    tcp.flush();
    session.clear();
}

void VeskInputRtsp::onTimerKeepAlive()
{
    if (!running || step < 5) return;
    sendMsg(newMsg(getParameter ? QStringLiteral("GET_PARAMETER") : QStringLiteral("OPTIONS"),
                   playUrl));
    if (udpNow) sendReports();
}

void VeskInputRtsp::sendReports()
{
    const int64_t t = now();
    auto send = [&](QUdpSocket& socket, rtspinterop::RtpStats& stats,
                    rtspinterop::Transport& transport, bool present) {
        if (!present || transport.serverPort[1] == 0) return;
        if (socket.state() != QAbstractSocket::BoundState) return;
        socket.writeDatagram(stats.report(ourSsrc, QByteArray(kCname), t), host,
                             transport.serverPort[1]);
    };
    send(udpRtcpV, statsV, transportV, !media.controlV.isEmpty());
    send(udpRtcpA, statsA, transportA, !media.controlA.isEmpty());
}

void VeskInputRtsp::onTimerUdpWatch()
{
    if (!running || !interop || udpSeen || step < 5) return;
    log(QStringLiteral("no UDP packet within %1 ms of PLAY: transport tcp").arg(kUdpWaitMs));
    udpNow = false;
    transportFixed = true;
    // No "ready" went out for this session, so its end is not announced.
    endSession(false);
    init();
}

void VeskInputRtsp::readUdpInterop(QUdpSocket& socket, bool video)
{
    const int64_t t = now();
    rtspinterop::RtpStats& stats = video ? statsV : statsA;
    rtspinterop::RtpReorder& reorder = video ? reorderV : reorderA;
    auto deliver = [this, video](char* buf, int len, bool held) {
        deliverUdp(video, buf, len, held);
    };
    for (int n = 0; n < kDatagramsPerRead && socket.hasPendingDatagrams(); ++n) {
        char* buf = nullptr;
        const int len = takeDatagram(socket, video, &buf);
        if (len == kNoMore) break;
        if (len == kDropped) continue;
        // Media over UDP is a sign of life like a frame over TCP.
        alive = true;
        if (!udpSeen) {
            udpSeen = true;
            if (timerUdpWatch.isActive()) {
                timerUdpWatch.stop();
                sendReady();
            }
        }
        stats.packet(buf, len, t, video ? media.clockV : media.clockA);
        reorder.push(buf, len, t, deliver);
    }
    armReorder();
}

void VeskInputRtsp::deliverUdp(bool video, char* buf, int len, bool held)
{
    if (held) {
        // A packet that waited for its turn: into the pool like any other,
        // since audio leaves pointing into it.
        buf = bufferData(buf, len, kHeadroom);
        if (!buf) {
            log(QStringLiteral("no buffer for a datagram of %1 bytes, dropped").arg(len));
            return;
        }
    }
    if (video)
        media.parseV(buf, len);
    else
        media.parseA(buf, len);
}

void VeskInputRtsp::armReorder()
{
    const int64_t t = now();
    const int64_t v = reorderV.due(t), a = reorderA.due(t);
    const int64_t due = v < 0 ? a : a < 0 ? v : qMin(v, a);
    if (due >= 0 && !timerReorder.isActive()) timerReorder.start(int(due / 1000) + 1);
}

void VeskInputRtsp::onTimerReorder()
{
    if (!running || !interop) return;
    const int64_t t = now();
    reorderV.expire(t, [this](char* buf, int len, bool held) { deliverUdp(true, buf, len, held); });
    reorderA.expire(t,
                    [this](char* buf, int len, bool held) { deliverUdp(false, buf, len, held); });
    armReorder();
}

void VeskInputRtsp::readRtcpInterop(QUdpSocket& socket, bool video)
{
    rtspinterop::RtpStats& stats = video ? statsV : statsA;
    rtspinterop::Transport& transport = video ? transportV : transportA;
    char buf[2048];
    for (int n = 0; n < kDatagramsPerRead && socket.hasPendingDatagrams(); ++n) {
        QHostAddress from;
        quint16 fromPort = 0;
        const qint64 got = socket.readDatagram(buf, sizeof buf, &from, &fromPort);
        if (got < 0) break;
        stats.rtcp(buf, int(got), now());
        // Without a server_port in the SETUP answer, reports go back to
        // where the sender's reports come from.
        if (transport.serverPort[1] == 0 && from.isEqual(host)) transport.serverPort[1] = fromPort;
    }
}
