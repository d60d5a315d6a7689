// The RTSP node's "interop" mode on what a server could send: the reader
// reading replies whole (bodies across segments, replies between frames,
// stray bytes), and for every reply the Transport, Session and challenge
// parsers, the Digest and Basic answers, the SDP's controls resolved against
// Content-Base; every frame goes through the reordering window and the
// reception figures into the media half (all aggregated units), RTCP frames
// into the sender report reader. Input layout:
//   byte 0: bits 0-2 segment size (0: one segment, else 2^n bytes), bit 3
//           frame mode from the start (else replies until five 200s),
//           bit 4 H.265, bit 5 the session ends (reader reset) after every
//           8th segment
//   the rest: the bytes of the connection.
#include <QMap>
#include <QString>
#include <memory>

#include "input/RtspInterop.h"
#include "tests/fuzz/FuzzRtsp.h"

namespace {

class Session : public ReaderSession {
public:
    Session(RtspMedia& m, FuzzSink& s) : media(m), sink(s) {}
    void reply(const QMap<QString, QString>& msg) override
    {
        const rtspinterop::Transport t =
            rtspinterop::parseTransport(msg.value(QStringLiteral("Transport")));
        sum += unsigned(t.channel[0] + t.channel[1] + t.serverPort[1]) + t.ssrc;
        int timeout = 0;
        sum += rtspinterop::sessionId(msg.value(QStringLiteral("Session")), &timeout).size();
        bool stale = false;
        if (auth.challenge(msg.value(QStringLiteral("WWW-Authenticate")), &stale))
            sum += auth.header(QStringLiteral("SETUP"), QStringLiteral("rtsp://h/x"),
                               QStringLiteral("u"), QStringLiteral("p"))
                       .size();
        const QString base =
            msg.value(QStringLiteral("Content-Base"), QStringLiteral("rtsp://h/a?b"));
        const rtspinterop::SdpControls c =
            rtspinterop::sdpControls(msg.value(QStringLiteral("Content")));
        sum += rtspinterop::resolveControl(c.video, base).size() +
               rtspinterop::resolveControl(c.audio, base).size() +
               rtspinterop::resolveControl(c.session, base).size();
        if (msg.value(QStringLiteral("H2")) == QLatin1String("200") && step < 5) ++step;
    }
    void frame(uint8_t channel, char* buf, int len) override
    {
        if (!buf) return;
        if (len < 0) __builtin_trap();
        now += 7000;
        const bool video = channel == 0;
        if (channel == 1 || channel == 3) {
            (channel == 1 ? statsV : statsA).rtcp(buf, len, now);
            sum += (channel == 1 ? statsV : statsA).report(1, "fuzz", now).size();
            return;
        }
        if (channel != 0 && channel != 2) return;
        (video ? statsV : statsA).packet(buf, len, now, video ? 90000 : 48000);
        auto deliver = [&](char* b, int n, bool held) {
            if (held) b = sink.buffer(b, n, 20);
            if (video)
                media.parseV(b, n);
            else
                media.parseA(b, n);
        };
        (video ? reorderV : reorderA).push(buf, len, now, deliver);
        if ((video ? reorderV : reorderA).due(now) > 50000)
            (video ? reorderV : reorderA).expire(now + 50000, deliver);
    }
    int64_t now = 0;
    rtspinterop::RtpReorder reorderV, reorderA;

private:
    RtspMedia& media;
    FuzzSink& sink;
    rtspinterop::Auth auth;
    rtspinterop::RtpStats statsV, statsA;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    static FuzzSink sink;
    RtspMedia& media = freshMedia(sink);
    media.interop = true;
    const uint8_t mode = data[0];
    media.infoV.type = mode & 16 ? VeskObject::TypeH265 : VeskObject::TypeH264;
    media.infoA.type = VeskObject::TypePCMA;
    media.clockV = 90000;
    media.clockA = 8000;

    Session session(media, sink);
    RtspReader reader(session);
    reader.interop = true;
    readConnection(reader, session, sink, data, size);
    // Whatever still waits for its turn leaves at the end.
    auto flush = [&](bool video) {
        return [&, video](char* b, int n, bool held) {
            if (held) b = sink.buffer(b, n, 20);
            if (video)
                media.parseV(b, n);
            else
                media.parseA(b, n);
        };
    };
    session.reorderV.expire(session.now + 1000000, flush(true));
    session.reorderA.expire(session.now + 1000000, flush(false));
    return 0;
}
