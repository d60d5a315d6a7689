// VeskInputRtsp in "interop" mode against a camera of the kind found in the
// field, played by the test itself on 127.0.0.1: a DESCRIBE body in a later
// segment, a Content-Base with a query, an absolute track URL, interleaved
// channels of its own choosing, Digest with qop and a renewed nonce, or
// Basic alone, 461 for interleaved transport, UDP that never comes or comes
// out of order and twice, and sessions dropped after 2 s without a request.
// VESK_FIELD_EXPIRY_S and VESK_FIELD_PLAY_S stretch that to a camera's own
// figures (10 s expiry, a minute's play) for a run by hand; the suite keeps
// the short ones.
#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUdpSocket>
#include <algorithm>
#include <cstdlib>

#include "rtsp_rig.h"

namespace {

using rtsp::Unit;

enum class Case { Interleaved, Refused, UdpBlocked };

int seconds(const char* name, int fallback)
{
    const char* v = std::getenv(name);
    return v && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}
const int kExpiryS = seconds("VESK_FIELD_EXPIRY_S", 2);
const int kPlayS = seconds("VESK_FIELD_PLAY_S", 3 * kExpiryS);

QByteArray md5(const QString& s)
{
    return QCryptographicHash::hash(s.toUtf8(), QCryptographicHash::Md5).toHex();
}

QString param(const QString& header, const QString& name)
{
    const QRegularExpression re(name + "=\"?([^\",]*)");
    return re.match(header).captured(1);
}

class Camera : public QObject {
public:
    explicit Camera(Case c) : kind(c)
    {
        EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0));
        rtcp.bind(QHostAddress(QHostAddress::LocalHost), 0);
        connect(&server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* s = server.nextPendingConnection();
            connect(s, &QTcpSocket::readyRead, this, [this, s] { onRead(s); });
        });
        connect(&rtcp, &QUdpSocket::readyRead, this, [this] {
            while (rtcp.hasPendingDatagrams()) reports += rtcp.readDatagram(nullptr, 0) >= 0;
        });
        connect(&media, &QTimer::timeout, this, [this] { sendPicture(); });
        media.start(40);
        connect(&expiry, &QTimer::timeout, this, [this] {
            // No request within the session timeout: the session and its
            // connection go.
            if (!client || idle.elapsed() < kExpiryS * 1000) return;
            ++expired;
            reboot();
        });
        expiry.start(100);
    }
    QString path() const
    {
        const QString who = kind == Case::UdpBlocked ? "" : "admin:pw@";
        return "rtsp://" + who +
               QStringLiteral("127.0.0.1:%1/cam/live?channel=1&subtype=0").arg(server.serverPort());
    }
    // Forgets every session and connection, as a camera does that reboots.
    void reboot()
    {
        if (client) client->abort();
        client = nullptr;
        session.clear();
    }

    int keepAlives = 0, teardowns = 0, unknownSessions = 0, expired = 0, reports = 0, stale = 0;
    QStringList setups;

private:
    QByteArray challenge(bool renewed)
    {
        ++nonce;
        if (kind == Case::Refused) return "WWW-Authenticate: Basic realm=\"cam\"\r\n";
        return "WWW-Authenticate: Basic realm=\"cam\"\r\nWWW-Authenticate: Digest realm=\"cam\", "
               "nonce=\"n" +
               QByteArray::number(nonce) + "\", qop=\"auth,auth-int\"" +
               (renewed ? ", stale=TRUE" : "") + "\r\n";
    }
    bool authorised(const QString& method, const QString& auth)
    {
        if (kind == Case::UdpBlocked) return true;
        if (kind == Case::Refused) return auth == "Basic " + QByteArray("admin:pw").toBase64();
        const QString n = "n" + QString::number(nonce), nc = param(auth, "nc");
        const QString ha1 = md5("admin:cam:pw"), ha2 = md5(method + ":" + param(auth, "uri"));
        const QString expect =
            md5(ha1 + ":" + n + ":" + nc + ":" + param(auth, "cnonce") + ":auth:" + ha2);
        return param(auth, "nonce") == n && nc.size() == 8 && param(auth, "response") == expect;
    }
    void onRead(QTcpSocket* s)
    {
        inbox[s] += s->readAll();
        for (int end; (end = inbox[s].indexOf("\r\n\r\n")) >= 0;) {
            const QString req = inbox[s].left(end);
            inbox[s].remove(0, end + 4);
            const QStringList lines = req.split("\r\n");
            QMap<QString, QString> h;
            for (const QString& l : lines.mid(1))
                h[l.section(':', 0, 0)] = l.section(':', 1).trimmed();
            answer(s, lines[0].section(' ', 0, 0), lines[0].section(' ', 1, 1), h);
        }
    }
    void answer(QTcpSocket* s, const QString& method, const QString& uri,
                const QMap<QString, QString>& h)
    {
        QByteArray head = "CSeq: " + h["CSeq"].toLatin1() + "\r\n";
        auto reply = [&](const QByteArray& status, const QByteArray& more = {}) {
            s->write("RTSP/1.0 " + status + "\r\n" + head + more + "\r\n");
        };
        if (h.contains("Session") && h["Session"] != session) {
            ++unknownSessions;
            return reply("454 Session Not Found");
        }
        if (h.contains("Session")) idle.start();
        const QString base = QStringLiteral("rtsp://127.0.0.1:%1/cam/live?channel=1&subtype=0/")
                                 .arg(server.serverPort());
        if (method != "OPTIONS" && !authorised(method, h["Authorization"]))
            return reply("401 Unauthorized", challenge(false));
        // Once, in the middle of the dialogue, the nonce is renewed.
        if (method == "SETUP" && !stale++ && kind == Case::Interleaved)
            return reply("401 Unauthorized", challenge(true));
        if (method == "OPTIONS") {
            if (h.contains("Session")) ++keepAlives;
            return reply("200 OK",
                         "Public: OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER, "
                         "TEARDOWN\r\n");
        }
        if (method == "GET_PARAMETER") return ++keepAlives, reply("200 OK");
        if (method == "DESCRIBE") {
            const QByteArray sdp =
                "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=cam\r\nt=0 0\r\na=control:*\r\n"
                "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:rtsp://127.0.0.1:" +
                QByteArray::number(server.serverPort()) +
                "/abs/video\r\nm=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\n"
                "a=control:trackID=2\r\n";
            reply("200 OK", "Content-Base: " + base.toLatin1() +
                                "\r\nContent-Type: "
                                "application/sdp\r\nContent-Length: " +
                                QByteArray::number(sdp.size()) + "\r\n");
            s->flush();
            QTimer::singleShot(50, s, [s, sdp] { s->write(sdp); });
            return;
        }
        if (method == "SETUP") {
            setups << uri;
            const bool video = uri.endsWith("/abs/video");
            if (!video && uri != base + "trackID=2") return reply("404 Not Found");
            const QString t = h["Transport"];
            QByteArray transport;
            if (t.contains("TCP")) {
                if (kind == Case::Refused) return reply("461 Unsupported Transport");
                udp[video] = 0;
                transport = video ? "RTP/AVP/TCP;unicast;interleaved=6-7"
                                  : "RTP/AVP/TCP;unicast;interleaved=4-5";
            } else {
                udp[video] = param(t, "client_port").section('-', 0, 0).toUShort();
                transport = t.toLatin1() +
                            ";server_port=" + QByteArray::number(rtcp.localPort() - 1) + "-" +
                            QByteArray::number(rtcp.localPort());
            }
            if (session.isEmpty()) session = "S" + QString::number(++sessions);
            idle.start();
            return reply("200 OK", "Transport: " + transport +
                                       "\r\nSession: " + session.toLatin1() +
                                       ";timeout=" + QByteArray::number(kExpiryS) + "\r\n");
        }
        if (method == "PLAY") {
            client = s;
            return reply("200 OK");
        }
        if (method == "TEARDOWN") {
            ++teardowns;
            client = nullptr;
            session.clear();
            return reply("200 OK");
        }
        reply("405 Method Not Allowed");
    }
    // RTP with a counter behind the NAL header, so that order shows.
    QByteArray rtp(bool video, const QByteArray& payload)
    {
        QByteArray p(12, '\0');
        const uint16_t n = seq[video]++;
        const uint32_t ts = uint32_t(pictures) * (video ? 3600 : 320);
        p[0] = char(0x80);
        p[1] = char(video ? 96 : 8);
        p[2] = char(n >> 8);
        p[3] = char(n);
        for (int i = 0; i < 4; ++i) p[4 + i] = char(ts >> (24 - 8 * i));
        p[11] = char(video ? 1 : 2);
        return p + payload;
    }
    void sendPicture()
    {
        if (!client) return;
        QList<QByteArray> video;
        const QByteArray count = QByteArray::number(pictures).rightJustified(6, '0');
        if (pictures % 10 == 0) {
            const QByteArray sps = QByteArray::fromBase64("Z0LAFdoFB+wFqDAwNSgAAAMACAAAAwGUeLF1");
            const QByteArray pps = QByteArray::fromHex("68ce3c80");
            video << rtp(true, "\x18" + QByteArray(1, char(sps.size() >> 8)) + char(sps.size()) +
                                   sps + QByteArray(1, 0) + char(pps.size()) + pps);
            video << rtp(true, "\x65" + count);
        } else {
            video << rtp(true, "\x41" + count);
        }
        const QByteArray audio = rtp(false, QByteArray(320, char(0xd5)));
        ++pictures;
        if (kind == Case::UdpBlocked && udp[true]) return;
        if (udp[true]) out.writeDatagram(audio, QHostAddress::LocalHost, udp[false]);
        if (!udp[true]) {
            auto frame = [](int ch, const QByteArray& p) {
                return QByteArray("$") + char(ch) + char(p.size() >> 8) + char(p.size()) + p;
            };
            for (const QByteArray& p : video) client->write(frame(6, p));
            client->write(frame(4, audio));
            return;
        }
        // Every third picture overtakes the one before; every seventh comes twice.
        held += video;
        if (pictures % 3 == 1) return;
        if (pictures % 7 == 0) held << held.last();
        std::reverse(held.begin(), held.end());
        for (const QByteArray& p : held) out.writeDatagram(p, QHostAddress::LocalHost, udp[true]);
        held.clear();
    }

    const Case kind;
    QTcpServer server;
    QUdpSocket rtcp, out;
    QTimer media, expiry;
    QElapsedTimer idle;
    QMap<QTcpSocket*, QByteArray> inbox;
    QTcpSocket* client = nullptr;
    QString session;
    int sessions = 0, nonce = 0, pictures = 0;
    uint16_t udp[2] = {0, 0};
    uint16_t seq[2] = {0, 0};
    QList<QByteArray> held;
};

class RtspField : public ::testing::TestWithParam<Case> {};

TEST_P(RtspField, EveryCaseIsPlayedInOneSessionKeptAliveAndTornDown)
{
    const Case kind = GetParam();
    Camera cam(kind);
    rtsp::Rig r({{"path", cam.path()},
                 {"protocol", kind == Case::UdpBlocked ? "udp" : "tcp"},
                 {"timeout", 2},
                 {"interop", true}});
    ASSERT_TRUE(r.waitEvent("ready", 1, kind == Case::UdpBlocked ? 12000 : 6000));
    EXPECT_EQ(r.ready()["transport"], kind == Case::Refused ? "udp" : "tcp");
    EXPECT_EQ(r.ready()["infoA"].toMap()["codec"], "pcma");
    r.pump(kPlayS * 1000);
    EXPECT_EQ(cam.expired, 0);
    // Half the session timeout, within 0.5 s and 5 s.
    const int keepAliveMs = std::clamp(kExpiryS * 500, 500, 5000);
    EXPECT_GE(cam.keepAlives, kPlayS * 1000 / keepAliveMs - 1);
    EXPECT_EQ(cam.reports > 0, kind != Case::Interleaved);
    EXPECT_EQ(r.events("ready").size(), 1);
    EXPECT_TRUE(r.events("timeout").isEmpty());
    EXPECT_TRUE(cam.setups
                    .filter(QRegularExpression("/abs/video$|live\\?channel=1&subtype=0/"
                                               "trackID=2$"))
                    .size() == cam.setups.size());

    // Every unit, in order: two parameter sets in front of each key slice,
    // each counter once.
    const QList<Unit> video = r.sink.units(true);
    QList<int> counters;
    int sps = 0, pps = 0;
    for (const Unit& u : video) {
        const int type = u.bytes[4] & 31;
        sps += type == 7;
        pps += type == 8;
        if (type == 1 || type == 5) counters << u.bytes.mid(5).toInt();
    }
    ASSERT_GT(counters.size(), 100);
    for (int i = 1; i < counters.size(); ++i) ASSERT_EQ(counters[i], counters[i - 1] + 1) << i;
    EXPECT_EQ(sps, pps);
    EXPECT_GE(sps, counters.size() / 10 - 1);
    for (const Unit& u : r.sink.units(false)) ASSERT_EQ(u.bytes.size(), 320);

    // The camera reboots: a new session at the next retry, without the old id.
    cam.reboot();
    ASSERT_TRUE(r.waitEvent("ready", 2, 8000));
    EXPECT_EQ(cam.unknownSessions, 0);
    r.stop();
    r.pump(200);
    // A fallback from UDP ends its first session properly too.
    EXPECT_EQ(cam.teardowns, kind == Case::UdpBlocked ? 2 : 1);
}

const char* const kCaseNames[] = {"Interleaved", "RefusedToUdp", "UdpBlockedToTcp"};
INSTANTIATE_TEST_SUITE_P(, RtspField,
                         ::testing::Values(Case::Interleaved, Case::Refused, Case::UdpBlocked),
                         [](const auto& i) { return kCaseNames[int(i.param)]; });

}  // namespace
