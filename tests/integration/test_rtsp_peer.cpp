// VeskInputRtsp against a real RTSP server (gst-rtsp-server, started by the
// tests through scripts/rtsp-server.py on 127.0.0.1). What is checked is what
// a user of the appliance would see: the "ready" map, pictures and audio
// frames that decode, times on the host clock, Digest, what a server's
// restart does to the node, the UDP and aggregation outcomes this client
// settles for, and `veskhost probe` on rtsp:// URLs.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QSet>
#include <algorithm>

#include "rtsp_rig.h"

namespace {

using rtsp::Unit;

// scripts/rtsp-server.py on a free port of 127.0.0.1, gone with the object.
// The first GStreamer run on a machine builds its registry: it may take a
// while to listen. --seconds: a safety net. The payloaders send single units
// unless a test is about aggregation: the client delivers only the first
// unit of a STAP-A.
struct Server {
    explicit Server(const QStringList& serverArgs) : args(serverArgs) { EXPECT_TRUE(start()); }
    bool start()
    {
        QStringList call = {"--seconds", "300", "--aggregate-mode", "none", "--port"};
        call.prepend(VESK_SOURCE_DIR "/scripts/rtsp-server.py");
        peer = std::make_unique<srcrig::Peer>("/usr/bin/python3",
                                              call << QString::number(port) << args);
        return srcrig::waitListening(port, 60000);
    }
    QString url(const QString& path, const QString& user = {}) const
    {
        const QString who = user.isEmpty() ? user : user + '@';
        return "rtsp://" + who + QStringLiteral("127.0.0.1:%1%2").arg(port).arg(path);
    }

    const QStringList args;
    const int port = srcrig::freePort();
    std::unique_ptr<srcrig::Peer> peer;
};

int nalType(const Unit& u, bool h265)
{
    const int b = u.bytes.size() > 4 ? uint8_t(u.bytes[4]) : -1;
    return b < 0 ? -1 : h265 ? (b >> 1) & 63 : b & 31;
}

// The units of one picture share its pts; a picture counts when a slice
// of it came (H.264 types 1 and 5, H.265 types 0-31).
int pictures(const QList<Unit>& video, bool h265 = false)
{
    QSet<qint64> pts;
    for (const Unit& u : video) {
        const int t = nalType(u, h265);
        if (h265 ? t >= 0 && t < 32 : t == 1 || t == 5) pts << u.pts;
    }
    return pts.size();
}

// On the host clock the video pts never goes back, audio always goes on,
// and both lie close to when they arrived: the band is 50 ms, and stream
// time (its origin anywhere in 13 hours) would be far off. The rest is a
// busy machine, where an encoder that falls behind delivers late and the
// mapping slews by 5 ms a packet.
void expectOnHostClock(const QList<Unit>& video, const QList<Unit>& audio)
{
    for (int i = 1; i < video.size(); ++i) ASSERT_GE(video[i].pts, video[i - 1].pts) << i;
    for (int i = 1; i < audio.size(); ++i) ASSERT_GT(audio[i].pts, audio[i - 1].pts) << i;
    for (const Unit& u : video + audio) ASSERT_LT(qAbs(u.ahead()), 1500000);
}

// Every picture that came decodes, at the size the SDP announced.
void expectDecodes(const QList<Unit>& video, bool h265, int minPictures)
{
    QByteArray annexB;
    for (const Unit& u : video) annexB += u.bytes;
    const QString codec = h265 ? "hevc" : "h264";
    const int n = pictures(video, h265);
    EXPECT_GE(n, minPictures);
    EXPECT_EQ(srcrig::pick(srcrig::ffprobe(annexB, codec).toVariantMap(),
                           {"codec_name", "width", "frames", "errors"}),
              QStringLiteral("%1 320 %2 ").arg(codec).arg(n).toStdString());
}

class RtspTransport : public ::testing::TestWithParam<bool> {};

// Digest: the right password plays; each 401 to a wrong one is answered with
// the same wrong digest at once, until the alive timer ends that session,
// and the next one fares no better.
TEST_P(RtspTransport, H264AndAacDecodeOnTheHostClockAndWhatEndsASessionIsRetried)
{
    const bool udp = GetParam();
    Server server({"--stream", "/live=h264+aac", "--user", "admin", "--password", "s3cret"});
    const QString url = server.url("/live", "admin:s3cret");
    rtsp::Rig r({{"path", url}, {"protocol", udp ? "udp" : "tcp"}, {"timeout", 2}});
    rtsp::Rig wrong({{"path", server.url("/live", "admin:wrong")}, {"timeout", 2}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
    EXPECT_EQ(srcrig::pick(r.ready()["infoV"].toMap(), {"codec", "width", "height", "framerate"}),
              "h264 320 240 25");
    EXPECT_EQ(srcrig::pick(r.ready()["infoA"].toMap(), {"codec", "samplerate", "channels"}),
              "aac 48000 2");
    ASSERT_TRUE(r.waitUntil([&] { return pictures(r.sink.units(true)) >= 25; }, 10000));

    // A session begins with an IDR and its parameter sets in band; only a
    // unit of type 1 is a delta.
    const QList<Unit> video = r.sink.units(true), audio = r.sink.units(false);
    QList<int> types;
    for (const Unit& u : video) types << nalType(u, false);
    for (const Unit& u : video) ASSERT_EQ(u.frameType, nalType(u, false) == 1);
    const int slice = std::min(types.indexOf(1), types.indexOf(5));
    EXPECT_EQ(types.value(slice), 5);
    EXPECT_TRUE(types.mid(0, slice).contains(7) && types.mid(0, slice).contains(8));
    expectDecodes(video, false, 25);
    expectOnHostClock(video, audio);
    // AAC frames behind the 16 bytes of RTP and AU headers: whole frames, one
    // per packet. Behind ADTS headers (AAC-LC, 48 kHz, stereo, a frame below
    // 2 kB) they decode.
    QByteArray adts;
    for (const Unit& u : audio) {
        const int n = u.bytes.size() + 7;
        adts += QByteArray::fromHex("fff14c80") + char(n >> 3) + char(n << 5 | 0x1f) + '\xfc';
        adts += u.bytes;
    }
    EXPECT_EQ(srcrig::pick(srcrig::ffprobe(adts, "aac").toVariantMap(), {"frames", "errors"}),
              std::to_string(audio.size()) + ' ');
    EXPECT_TRUE(wrong.waitEvent("timeout", 1, 6000) && wrong.events("ready").isEmpty());

    if (udp) {
        // Datagrams are no sign of life: each session ends at the first tick
        // of the alive timer although media flowed, the next 3 s later.
        ASSERT_TRUE(r.waitEvent("timeout", 2, 12000));
        const QList<rtsp::Event> ends = r.events("timeout"), readies = r.events("ready");
        // 3 s of retry and one or two periods of 2 s; the events are stamped
        // where the test sees them, which a loaded machine delays unevenly.
        EXPECT_NEAR(double(ends[1].at - ends[0].at) / 1e6, 5.75, 1.75);
        ASSERT_TRUE(readies.size() > 1 && readies[1].at > ends[0].at);
        int played = 0;
        for (const Unit& u : r.sink.units(true)) played += u.arrival > readies[1].at;
        EXPECT_GT(played, 10) << "the second session played";
        return;
    }

    // veskhost probe beside the node: the ready map, and pictures (not
    // units) as the frame rate.
    int code = -1;
    const QJsonObject probe = srcrig::veskhostProbe(VESKHOST, url, 2, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(probe["class"], "VeskInputRtsp");
    EXPECT_EQ(probe["ready"]["infoV"]["codec"], "h264");
    EXPECT_EQ(probe["ready"]["infoA"]["codec"], "aac");
    EXPECT_GT(probe["video"]["keyPackets"].toInt(), 0);
    EXPECT_GT(probe["audio"]["packets"].toInt(), 25);
    EXPECT_NEAR(probe["video"]["framerate"].toDouble(), 25, 5);
    EXPECT_EQ(probe["events"], QJsonArray({"ready"}));

    // The server dies: the session ends at once and every retry is refused,
    // 3 s apart; so is the probe.
    server.peer.reset();  // at once, like a crash: no goodbye
    const qint64 killed = srcrig::hostNow();
    ASSERT_TRUE(r.waitEvent("error", 2, 10000));
    const QList<rtsp::Event> ends = r.events("timeout"), errors = r.events("error");
    ASSERT_EQ(ends.size(), 1);
    EXPECT_LT(ends[0].at - killed, 1000000);
    EXPECT_TRUE(ends[0].value == url && errors[0].value == url);
    EXPECT_NEAR(double(errors[1].at - errors[0].at) / 1e6, 3.0, 0.7);
    const QJsonObject refused = srcrig::veskhostProbe(VESKHOST, url, 1, &code);
    EXPECT_NE(code, 0);
    EXPECT_TRUE(refused["ready"].isNull() && refused["events"][0] == "error");

    // It comes back on the same port, having lost its sessions. The node
    // carries its old session id into every new attempt, which this server
    // refuses before any step succeeds: the node keeps trying quietly, and
    // never plays again.
    ASSERT_TRUE(server.start());
    r.pump(4500);
    EXPECT_EQ(r.events("ready").size(), 1);
}

INSTANTIATE_TEST_SUITE_P(, RtspTransport, ::testing::Bool(),
                         [](const auto& i) { return i.param ? "Udp" : "Tcp"; });

TEST(RtspH265, SizeComesFromTheSdpAndPicturesDecodeFromTheFirstIdr)
{
    Server server({"--stream", "/hevc=h265"});
    rtsp::Rig r({{"path", server.url("/hevc")}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
    EXPECT_EQ(srcrig::pick(r.ready()["infoV"].toMap(), {"codec", "width", "height"}),
              "h265 320 240");
    ASSERT_TRUE(r.waitUntil([&] { return pictures(r.sink.units(true), true) >= 40; }, 10000));

    // Later key frames are CRA without parameter sets: a decoder starts at
    // the first IDR (type 19 or 20) and the parameter sets in front of it.
    const QList<Unit> all = r.sink.units(true);
    int idr = 0;
    while (idr < all.size() && nalType(all[idr], true) != 19 && nalType(all[idr], true) != 20)
        ++idr;
    ASSERT_LT(idr, all.size()) << "no IDR picture came";
    int from = idr;
    while (from > 0 && nalType(all[from - 1], true) >= 32) --from;
    EXPECT_EQ(nalType(all[from], true), 32) << "the IDR comes without its VPS";
    expectDecodes(all.mid(from), true, 30);
    expectOnHostClock(all, {});
}

// G.711 behind a plain 12-byte RTP header: 20 ms, 160 samples, per packet,
// and they are the server's 440 Hz tone, whose sign (the top bit in either
// law) turns twice a period.
TEST(RtspG711, PcmaBesideVideoAndPcmuAloneCarryWholeSamples)
{
    Server server({"--stream", "/pcma=h264+pcma", "--stream", "/pcmu=none+pcmu"});
    for (const QString law : {"pcma", "pcmu"}) {
        rtsp::Rig r({{"path", server.url("/" + law)}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
        EXPECT_EQ(srcrig::pick(r.ready()["infoA"].toMap(), {"codec", "samplerate", "channels"}),
                  (law + " 8000 1").toStdString());
        EXPECT_EQ(r.ready()["infoV"].toMap()["codec"], law == "pcma" ? "h264" : QVariant());
        ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(false) >= 16; }, 10000));
        const QList<Unit> audio = r.sink.units(false);
        int turns = 0;
        for (const Unit& u : audio) {
            ASSERT_EQ(u.bytes.size(), 160);
            for (int k = 1; k < 160; ++k) turns += (u.bytes[k] ^ u.bytes[k - 1]) >> 7 & 1;
        }
        EXPECT_NEAR((audio.last().pts - audio[0].pts) / (audio.size() - 1.0), 20000, 1000);
        EXPECT_NEAR(turns / 2 / (audio.size() * 0.02), 440, 15);
        expectOnHostClock(r.sink.units(true), audio);
        EXPECT_EQ(r.sink.count(true) > 0, law == "pcma");
    }
}

// In zero-latency mode the payloaders pack the units in front of a picture
// into one aggregation packet: [AUD, SPS, PPS, SEI] or [AUD, slice]. The
// settled walk of a STAP-A delivers its first unit whole and then start
// codes alone, so the parameter sets never arrive and nothing decodes; an
// H.265 AP passes as one unit, aggregation header and all.
TEST(RtspAggregation, OnlyTheFirstUnitOfAStapAArrivesAndAnApPassesAsOneUnit)
{
    Server server(
        {"--stream", "/avc=h264", "--stream", "/hevc=h265", "--aggregate-mode", "zero-latency"});
    rtsp::Rig avc({{"path", server.url("/avc")}}), hevc({{"path", server.url("/hevc")}});
    ASSERT_TRUE(avc.waitUntil([&] { return avc.sink.count(true) >= 60; }, 15000));
    int delimiters = 0, parameterSets = 0, bare = 0;
    QByteArray annexB;
    for (const Unit& u : avc.sink.units(true)) {
        const int t = nalType(u, false);
        annexB += u.bytes;
        bare += u.bytes == QByteArray("\0\0\0\1", 4);
        parameterSets += t == 7 || t == 8;
        delimiters += t == 9;
        EXPECT_TRUE(t != 9 || u.bytes.size() == 6) << "a first unit that did not arrive whole";
    }
    EXPECT_GE(delimiters, 10);
    EXPECT_GE(bare, delimiters);
    EXPECT_EQ(parameterSets, 0) << "a unit behind the first of a STAP-A arrived";
    EXPECT_EQ(srcrig::ffprobe(annexB, "h264")["frames"], 0);
    ASSERT_TRUE(hevc.waitUntil([&] { return hevc.sink.count(true) >= 20; }, 10000));
    const QList<Unit> units = hevc.sink.units(true);
    EXPECT_TRUE(
        std::any_of(units.begin(), units.end(), [](auto& u) { return nalType(u, true) == 48; }));
}

// The "interop" mode against the same server, with sessions that expire
// after 3 s without a sign of life, Digest, and the payloaders packing units
// as they do for low latency. Over UDP with an alive period of 2 s one
// session runs on, where the settled client beside it is rebuilt; every
// unit of an aggregation packet arrives; a server restarted on the same
// port is played again at the next retry.
TEST(RtspInterop, OneUdpSessionOutlivesTheServerTimeoutAggregatesWholeAndComesBackAfterARestart)
{
    Server server({"--stream", "/live=h264+aac", "--stream", "/hevc=h265", "--user", "admin",
                   "--password", "s3cret", "--aggregate-mode", "zero-latency", "--session-timeout",
                   "3"});
    const QString url = server.url("/live", "admin:s3cret");
    rtsp::Rig r({{"path", url}, {"protocol", "udp"}, {"timeout", 2}, {"interop", true}});
    rtsp::Rig settled({{"path", url}, {"protocol", "udp"}, {"timeout", 2}});
    rtsp::Rig hevc({{"path", server.url("/hevc", "admin:s3cret")}, {"interop", true}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
    EXPECT_EQ(r.ready()["transport"], "udp");
    EXPECT_EQ(srcrig::pick(r.ready()["infoV"].toMap(), {"codec", "width", "height"}),
              "h264 320 240");
    r.pump(10000);
    EXPECT_EQ(r.events("ready").size(), 1);
    EXPECT_TRUE(r.events("timeout").isEmpty());
    EXPECT_FALSE(settled.events("timeout").isEmpty());
    const qint64 lately = srcrig::hostNow() - 1000000;
    const QList<Unit> video = r.sink.units(true);
    int recent = 0, parameterSets = 0, bare = 0;
    QByteArray annexB;
    for (const Unit& u : video) {
        recent += u.arrival > lately;
        parameterSets += nalType(u, false) == 7 || nalType(u, false) == 8;
        bare += u.bytes.size() <= 4;
        annexB += u.bytes;
    }
    EXPECT_GT(recent, 10) << "media still flows past three server timeouts";
    EXPECT_GT(parameterSets, 2);
    EXPECT_EQ(bare, 0);
    EXPECT_GT(pictures(video), 200);
    EXPECT_GT(srcrig::ffprobe(annexB, "h264")["frames"].toInt(), 200);
    expectOnHostClock(video, r.sink.units(false));

    // An AP gives its parameter sets one by one, and a decoder starts.
    const QList<Unit> units = hevc.sink.units(true);
    EXPECT_TRUE(
        std::none_of(units.begin(), units.end(), [](auto& u) { return nalType(u, true) == 48; }));
    int from = 0;
    while (from < units.size() && nalType(units[from], true) != 32) ++from;
    expectDecodes(units.mid(from), true, 100);

    server.peer.reset();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 5000));
    ASSERT_TRUE(server.start());
    const qint64 back = srcrig::hostNow();
    ASSERT_TRUE(r.waitEvent("ready", 2, 10000));
    EXPECT_LT(r.events("ready")[1].at - back, 5000000) << "not played again at the next retry";
}

}  // namespace
