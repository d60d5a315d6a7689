// The RTSP session of VeskInputRtsp against a server scripted by the test on
// 127.0.0.1: the exact requests, Digest, the step machine with its skipped
// tracks and repeated statuses, the reply and `$` frame reader on hostile
// input, and the UDP ports with their RTCP answer.
#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>

#include "input/VeskInputRtsp.h"
#include "tests/integration/rtsp_rig.h"

namespace {

using rtsp::Rig;

const QByteArray kSps = "Z0LAFdoFB+wFqDAwNSgAAAMACAAAAwGUeLF1";  // 320x240

QByteArray sdp(bool video, bool audio)
{
    QByteArray s = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=cam\r\nt=0 0\r\n";
    if (video)
        s += "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=framerate:25\r\n"
             "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=" +
             kSps + ",aM48gA==\r\na=control:trackID=1\r\n";
    if (audio) s += "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\na=control:trackID=2\r\n";
    return s;
}

QByteArray ok(const QByteArray& headers = {}, const QByteArray& body = {})
{
    QByteArray r = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n" + headers;
    if (!body.isEmpty()) r += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return r + "\r\n" + body;
}

QByteArray rtp(uint32_t ts, const QByteArray& payload, uint8_t first = 0x80)
{
    QByteArray p(12, '\0');
    p[0] = char(first);
    p[1] = 96;
    for (int i = 0; i < 4; ++i) p[4 + i] = char(ts >> (24 - 8 * i));
    return p + payload;
}

QByteArray frame(int channel, const QByteArray& payload)
{
    const int n = payload.size();
    return QByteArray("$") + char(channel) + char(n >> 8) + char(n & 0xff) + payload;
}

QString md5(const QString& s)
{
    return QCryptographicHash::hash(s.toLatin1(), QCryptographicHash::Md5).toHex();
}

// One RTSP server whose every reply the test writes.
class Peer {
public:
    Peer() { EXPECT_TRUE(server.listen(QHostAddress::LocalHost, 0)); }
    QString url(const QString& path = "/cam") const
    {
        return QStringLiteral("rtsp://127.0.0.1:%1%2").arg(server.serverPort()).arg(path);
    }
    // The next request, up to its blank line; empty when none came.
    QByteArray request(Rig& r, int ms = 5000)
    {
        r.waitUntil(
            [&] {
                take();
                return inbox.contains("\r\n\r\n");
            },
            ms);
        const int end = inbox.indexOf("\r\n\r\n");
        if (end < 0) return {};
        const QByteArray req = inbox.left(end + 4);
        inbox.remove(0, end + 4);
        return req;
    }
    QByteArray bytes(Rig& r, int n, int ms = 3000)
    {
        r.waitUntil(
            [&] {
                take();
                return inbox.size() >= n;
            },
            ms);
        const QByteArray out = inbox.left(n);
        inbox.remove(0, n);
        return out;
    }
    void send(const QByteArray& data)
    {
        ASSERT_NE(conn, nullptr);
        conn->write(data);
        conn->flush();
    }
    // Answers OPTIONS, DESCRIBE and the SETUPs with 200 up to PLAY's reply.
    void play(Rig& r, const QByteArray& description, int setups)
    {
        request(r);
        send(ok());
        request(r);
        send(ok("Content-Type: application/sdp\r\n", description));
        for (int i = 0; i < setups; ++i) {
            request(r);
            send(ok("Session: 0042;timeout=60\r\nTransport: RTP/AVP/TCP;ssrc=1A2B;mode=play\r\n"));
        }
        request(r);
        send(ok());
    }
    void take()
    {
        if (!conn && server.hasPendingConnections()) conn = server.nextPendingConnection();
        if (conn) inbox += conn->readAll();
    }
    void drop()
    {
        delete conn;
        conn = nullptr;
        inbox.clear();
    }

    QTcpServer server;
    QTcpSocket* conn = nullptr;
    QByteArray inbox;
};

TEST(RtspSession, DialogueSendsSortedHeadersWithoutLengthAndPlaysFramesFromTheSocket)
{
    Peer peer;
    // Credentials leave the URL; a password with a colon is not taken apart.
    Rig r(
        {{"path", QStringLiteral("rtsp://a:b:c@127.0.0.1:%1/cam").arg(peer.server.serverPort())}});
    const QByteArray base = peer.url().toLatin1();
    EXPECT_EQ(peer.request(r),
              "OPTIONS " + base + " RTSP/1.0\r\nCSeq: 1\r\nUser-Agent: VeskSDK\r\n\r\n");
    peer.send(ok());
    EXPECT_EQ(peer.request(r), "DESCRIBE " + base +
                                   " RTSP/1.0\r\nAccept: application/sdp\r\nCSeq: 2\r\n"
                                   "User-Agent: VeskSDK\r\n\r\n");
    peer.send(ok("Content-Type: application/sdp\r\n", sdp(true, true)));
    EXPECT_EQ(peer.request(r), "SETUP " + base +
                                   "/trackID=1 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP/TCP;"
                                   "unicast;interleaved=0-1\r\nUser-Agent: VeskSDK\r\n\r\n");
    // The first of two Session headers counts, up to its ";".
    peer.send(ok("Session: 0042;timeout=60\r\nSession: 0043\r\n"));
    EXPECT_EQ(peer.request(r), "SETUP " + base +
                                   "/trackID=2 RTSP/1.0\r\nCSeq: 4\r\nSession: 0042\r\n"
                                   "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n"
                                   "User-Agent: VeskSDK\r\n\r\n");
    peer.send(ok());
    EXPECT_EQ(peer.request(r), "PLAY " + base +
                                   " RTSP/1.0\r\nCSeq: 5\r\nRange: npt=0.000-\r\nSession: 0042\r\n"
                                   "User-Agent: VeskSDK\r\n\r\n");
    // The first frames ride in the same segment as the answer to PLAY.
    peer.send(ok() + frame(0, rtp(90000, "\x65\x88\x84")));
    ASSERT_TRUE(r.waitEvent("ready", 1, 3000));
    const QVariantMap v = r.ready().value("infoV").toMap();
    const QVariantMap a = r.ready().value("infoA").toMap();
    EXPECT_EQ(v.value("codec").toString(), "h264");
    EXPECT_EQ(v.value("width").toInt(), 320);
    EXPECT_EQ(v.value("height").toInt(), 240);
    EXPECT_EQ(a.value("codec").toString(), "pcma");
    EXPECT_EQ(a.value("samplerate").toLongLong(), 8000);

    // Audio frame cut into single bytes, RTCP on the video channel (no
    // answer) and on the audio channel (the keep-alive).
    for (char c : frame(2, rtp(8000, QByteArray(160, 'x')))) peer.send(QByteArray(1, c));
    peer.send(frame(1, QByteArray(28, '\x81')) + frame(3, QByteArray(28, '\x81')));
    // One interleaved compound RTCP packet: a receiver report, then a
    // source description.
    const QByteArray k = peer.bytes(r, 64);
    EXPECT_EQ(k.left(6), QByteArray("$\x03\x00\x3c\x81\xc9", 6));
    EXPECT_EQ(k.mid(36, 2), "\x81\xca");
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(false) == 1; }, 3000));
    EXPECT_EQ(r.sink.units(true).value(0).bytes, QByteArray("\0\0\0\1\x65\x88\x84", 7));
    EXPECT_EQ(r.sink.units(false).value(0).bytes, QByteArray(160, 'x'));
    r.pump(200);
    EXPECT_TRUE(peer.inbox.isEmpty()) << "answered a frame on channel 1";
}

TEST(RtspSession, DigestIsBuiltOverTheBaseUrlAndOtherSchemesGetNoAnswer)
{
    Peer peer;
    Rig r({{"path",
            QStringLiteral("rtsp://admin:pw@127.0.0.1:%1/cam").arg(peer.server.serverPort())}});
    const QString base = peer.url();
    const QString challenge = R"(realm="cam", nonce="abc123", stale=FALSE)";
    auto expected = [&](const QString& method) {
        const QString response = md5(md5("admin:cam:pw") + ":abc123:" + md5(method + ":" + base));
        return QStringLiteral(
                   "Authorization: Digest username=\"admin\", %1, uri=\"%2\", "
                   "response=\"%3\"\r\n")
            .arg(challenge, base, response)
            .toLatin1();
    };
    // OPTIONS passes without credentials; DESCRIBE is refused once and
    // goes again with the answer to the first of two challenges.
    peer.request(r);
    peer.send(ok());
    QByteArray req = peer.request(r);
    EXPECT_FALSE(req.contains("Authorization")) << req.data();
    peer.send("RTSP/1.0 401 Unauthorized\r\nCSeq: 2\r\nWWW-Authenticate: Digest " +
              challenge.toLatin1() + "\r\nWWW-Authenticate: Basic realm=\"x\"\r\n\r\n");
    req = peer.request(r);
    EXPECT_TRUE(req.startsWith("DESCRIBE " + base.toLatin1() + " RTSP/1.0\r\n")) << req.data();
    EXPECT_TRUE(req.contains(expected("DESCRIBE"))) << req.data();
    peer.send(ok({}, sdp(true, false)));
    // SETUP names the track on its request line but digests the base URL.
    req = peer.request(r);
    EXPECT_TRUE(req.startsWith("SETUP " + base.toLatin1() + "/trackID=1 ")) << req.data();
    EXPECT_TRUE(req.contains(expected("SETUP"))) << req.data();

    // Another scheme: the request goes again, without an answer to it.
    peer.send(
        "RTSP/1.0 401 Unauthorized\r\nCSeq: 3\r\nWWW-Authenticate: Basic realm=\"c\"\r\n\r\n");
    req = peer.request(r);
    EXPECT_TRUE(req.startsWith("SETUP ")) << req.data();
    EXPECT_FALSE(req.contains("Authorization")) << req.data();
}

TEST(RtspSession, MissingTracksAreSkippedAndOtherStatusesRepeatTheStep)
{
    struct Case {
        bool video, audio;
        QStringList setups;
        // The description comes in a segment of its own, after the header,
        // and is not waited for: to the session it has no tracks.
        bool late = false;
    };
    for (const Case& c : {Case{true, false, {"trackID=1 "}}, Case{false, true, {"trackID=2 "}},
                          Case{false, false, {}}, Case{false, false, {}, true}}) {
        Peer peer;
        Rig r({{"path", peer.url()}});
        peer.request(r);
        peer.send(ok());
        peer.request(r);
        if (c.late) {
            const QByteArray reply = ok({}, sdp(true, true));
            const int body = reply.indexOf("\r\n\r\n") + 4;
            peer.send(reply.left(body));
            r.pump(200);
            peer.send(reply.mid(body));
        } else {
            peer.send(ok({}, sdp(c.video, c.audio)));
        }
        for (const QString& track : c.setups) {
            const QByteArray setup = peer.request(r);
            EXPECT_TRUE(setup.contains(track.toLatin1())) << setup.data();
            // A failure repeats the same request at once with the next CSeq.
            peer.send("RTSP/1.0 454 Gone\r\nCSeq: 3\r\n\r\n");
            const QByteArray again = peer.request(r);
            EXPECT_EQ(QString(again).section('\n', 0, 0), QString(setup).section('\n', 0, 0));
            EXPECT_TRUE(again.contains("CSeq: 4\r\n")) << again.data();
            peer.send(ok());
        }
        EXPECT_TRUE(peer.request(r).startsWith("PLAY "));
        peer.send(ok());
        ASSERT_TRUE(r.waitEvent("ready", 1, 3000));
        EXPECT_EQ(r.ready().value("infoV").toMap().contains("codec"), c.video);
        EXPECT_EQ(r.ready().value("infoA").toMap().contains("codec"), c.audio);
    }
}

TEST(RtspSession, RepliesWithoutEndsOrWithColonsInValuesAreDroppedAndTheDialogueGoesOn)
{
    Peer peer;
    Rig r({{"path", peer.url()}});
    peer.request(r);
    // A line without end, far longer than any reply, then its end and a
    // reply whose reason phrase has two words (its status line is lost).
    peer.send(QByteArray(1 << 20, 'A'));
    r.pump(300);
    peer.send("\r\nRTSP/1.0 200 Very OK\r\nCSeq: 1\r\n\r\n");
    r.pump(300);
    EXPECT_TRUE(peer.inbox.isEmpty());
    // A Session whose value holds a colon is not seen.
    peer.send(ok("Session: 12:34\r\n"));
    const QByteArray describe = peer.request(r);
    EXPECT_TRUE(describe.startsWith("DESCRIBE ")) << describe.left(200).data();
    EXPECT_FALSE(describe.contains("Session")) << describe.data();
}

TEST(RtspSession, FramesOfAnyLengthArriveWholeAndABadHeaderStopsMediaForGood)
{
    Peer peer;
    Rig r({{"path", peer.url()}, {"timeout", 1}});
    peer.play(r, sdp(true, true), 2);
    ASSERT_TRUE(r.waitEvent("ready", 1, 3000));

    // The largest frame, in pieces; one of length 0, which never completes
    // and lets the next header be read; padding that is taken off, and
    // padding longer than its frame, which is dropped.
    const QByteArray big = rtp(1, QByteArray(65535 - 12, 'b'));
    const QByteArray all = frame(2, big) + frame(2, {}) +
                           frame(2, rtp(2, QByteArray("pad\0\0\x02", 6), 0xa0)) +
                           frame(2, rtp(3, "x\x7f", 0xa0)) + frame(0, rtp(4, "\x41zz"));
    for (int at = 0; at < all.size(); at += 1000) peer.send(all.mid(at, 1000));
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) == 1; }, 3000));
    const QList<rtsp::Unit> audio = r.sink.units(false);
    ASSERT_EQ(audio.size(), 2);
    EXPECT_EQ(audio[0].bytes, QByteArray(65535 - 12, 'b'));
    EXPECT_EQ(audio[1].bytes, QByteArray("pad\0", 4));

    // Not a '$': "ERROR", and nothing from this connection is read again.
    peer.send(QByteArray("#\0\0\4", 4) + frame(0, rtp(5, "\x41yy")));
    r.pump(300);
    EXPECT_EQ(r.sink.count(true), 1);
    // The alive timer rebuilds the session, but the stray header outlives
    // it: the next session plays and still gets no media.
    ASSERT_TRUE(r.waitEvent("timeout", 1, 3000));
    peer.drop();
    peer.play(r, sdp(true, true), 2);
    ASSERT_TRUE(r.waitEvent("ready", 2, 5000));
    peer.send(frame(0, rtp(6, "\x41ww")));
    r.pump(300);
    EXPECT_EQ(r.sink.count(true), 1);
}

TEST(RtspSession, StopSaysTimeoutAndANewPathOrAFailedConnectStartsAgain)
{
    Peer peer;
    Rig r({{"path", peer.url()}});
    peer.play(r, sdp(true, false), 1);
    ASSERT_TRUE(r.waitEvent("ready", 1, 3000));
    r.stop();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 1000));
    EXPECT_EQ(r.events("timeout").first().value.toString(), peer.url());
    r.pump(3200);
    EXPECT_EQ(r.events("error").size() + r.events("ready").size(), 1) << "a stopped node retried";

    // A new path while running: the old session ends, the new one starts at
    // once. A host name is not looked up: each attempt fails after the
    // whole 3 s connect window and the next comes 3 s after that.
    r.start();
    peer.drop();
    ASSERT_FALSE(peer.request(r).isEmpty());
    const QString named = QStringLiteral("rtsp://camera.invalid/cam");
    r.setData({{"path", named}});
    ASSERT_TRUE(r.waitEvent("error", 2, 10000));
    const QList<rtsp::Event> errors = r.events("error");
    EXPECT_EQ(errors[0].value.toString(), named);
    EXPECT_NEAR(double(errors[1].at - errors[0].at) / 1e6, 6.0, 0.7);

    // Not an rtsp:// URL: nothing at all.
    Rig idle({{"path", "http://127.0.0.1:1/x"}});
    idle.pump(500);
    EXPECT_TRUE(idle.events().isEmpty());
}

TEST(RtspSession, AServerThatComesBackIsPlayedAgainInTheOldSession)
{
    Peer peer;
    const quint16 port = peer.server.serverPort();
    Rig r({{"path", peer.url()}});
    peer.play(r, sdp(true, false), 1);
    ASSERT_TRUE(r.waitEvent("ready", 1, 3000));

    // The server goes away: the session ends and every retry is refused.
    peer.drop();
    peer.server.close();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 3000));
    ASSERT_TRUE(r.waitEvent("error", 1, 6000));

    // Back on the same port: the next attempt starts over, still carrying
    // the session id of the last one, and plays.
    ASSERT_TRUE(peer.server.listen(QHostAddress::LocalHost, port));
    const QByteArray options = peer.request(r, 8000);
    EXPECT_TRUE(options.startsWith("OPTIONS ")) << options.toStdString();
    EXPECT_TRUE(options.contains("\r\nSession: 0042\r\n")) << options.toStdString();
    peer.send(ok());
    peer.request(r);
    peer.send(ok("Content-Type: application/sdp\r\n", sdp(true, false)));
    peer.request(r);
    peer.send(ok("Session: 0042\r\n"));
    peer.request(r);
    peer.send(ok() + frame(0, rtp(90000, "\x65\x88\x84")));
    EXPECT_TRUE(r.waitEvent("ready", 2, 3000));
}

TEST(RtspSession, UdpAsksForPortPairsFrom50000AndAnswersRtcpFromThem)
{
    Peer peer;
    Rig r({{"path", peer.url()}, {"protocol", "udp"}});
    peer.request(r);
    peer.send(ok());
    peer.request(r);
    peer.send(ok({}, sdp(true, true)));
    QList<quint16> ports;
    for (int i = 0; i < 2; ++i) {
        const QByteArray setup = peer.request(r);
        const int at = setup.indexOf("client_port=");
        ASSERT_GT(at, 0) << setup.data();
        const QList<QByteArray> pair = setup.mid(at + 12).split('\r').first().split('-');
        ASSERT_EQ(pair.size(), 2);
        ports << pair[0].toUShort();
        EXPECT_EQ(pair[1].toUShort(), ports.last() + 1);
        EXPECT_GE(ports.last(), 50000);
        EXPECT_EQ(ports.last() % 2, 0);
        peer.send(ok());
    }
    // Audio binds first, from 50000; video takes the next free pair.
    EXPECT_GT(ports[0], ports[1]);
    peer.request(r);
    peer.send(ok());
    ASSERT_TRUE(r.waitEvent("ready", 1, 3000));

    QUdpSocket udp;
    ASSERT_TRUE(udp.bind(QHostAddress(QHostAddress::LocalHost), 0));
    udp.writeDatagram(QByteArray(), QHostAddress::LocalHost, ports[0]);  // empty: dropped
    udp.writeDatagram(rtp(7, "\x41uu"), QHostAddress::LocalHost, ports[0]);
    udp.writeDatagram(QByteArray(8, 'r'), QHostAddress::LocalHost, ports[0] + 1);
    ASSERT_TRUE(r.waitUntil([&] { return udp.hasPendingDatagrams(); }, 3000));
    QHostAddress from;
    quint16 fromPort = 0;
    QByteArray answer(100, '\0');
    answer.resize(int(udp.readDatagram(answer.data(), answer.size(), &from, &fromPort)));
    EXPECT_EQ(answer.size(), 60);
    EXPECT_EQ(answer.left(2), "\x81\xc9");
    EXPECT_EQ(fromPort, ports[0] + 1);
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) == 1; }, 3000));
    EXPECT_EQ(r.sink.units(true)[0].bytes, QByteArray("\0\0\0\1\x41uu", 7));
}

}  // namespace
