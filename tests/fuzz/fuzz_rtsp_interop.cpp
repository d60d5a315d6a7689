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
#include <algorithm>
#include <cstring>
#include <memory>

#include "input/RtspInterop.h"
#include "input/RtspReader.h"
#include "tests/fuzz/FuzzSink.h"

namespace {

class Segments : public RtspByteSource {
public:
    Segments(const char* d, size_t n) : data(d), size(n) {}
    bool connected() const override { return true; }
    int64_t available() const override { return int64_t(limit - pos); }
    bool canReadLine() const override { return memchr(data + pos, '\n', limit - pos) != nullptr; }
    QByteArray readLine(int64_t max) override
    {
        size_t n = 0;
        while (pos + n < limit && int64_t(n) < max) {
            if (data[pos + n++] == '\n') break;
        }
        QByteArray line(data + pos, int(n));
        pos += n;
        return line;
    }
    int64_t read(char* to, int64_t max) override
    {
        const size_t n = std::min<size_t>(size_t(max), limit - pos);
        memcpy(to, data + pos, n);
        pos += n;
        return int64_t(n);
    }
    QByteArray readAll() override
    {
        QByteArray rest(data + pos, int(limit - pos));
        pos = limit;
        return rest;
    }
    bool more(size_t segment)
    {
        if (limit == size) return false;
        limit = segment == 0 ? size : std::min(size, limit + segment);
        return true;
    }

private:
    const char* data;
    size_t size;
    size_t pos = 0;
    size_t limit = 0;
};

class Session : public RtspReaderClient {
public:
    Session(RtspMedia& m, FuzzSink& s) : media(m), sink(s) {}
    uint32_t sessionStep() const override { return step; }
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
    char* frameBuffer(int len) override
    {
        if (len < 0 || len > 65535) __builtin_trap();
        current.reset(new char[size_t(len) + 20]);
        return current.get() + 20;
    }
    void keepAliveDue() override { ++sum; }
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
    void log(const QString&) override {}

    uint32_t step = 0;
    unsigned sum = 0;
    int64_t now = 0;
    rtspinterop::RtpReorder reorderV, reorderA;

private:
    RtspMedia& media;
    FuzzSink& sink;
    rtspinterop::Auth auth;
    rtspinterop::RtpStats statsV, statsA;
    std::unique_ptr<char[]> current;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtLog();
    return 0;
}

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
    session.step = mode & 8 ? 5 : 0;
    RtspReader reader(session);
    reader.interop = true;
    const size_t segment = (mode & 7) ? size_t(1) << (mode & 7) : 0;
    Segments in(reinterpret_cast<const char*>(data + 1), size - 1);
    for (int n = 1; in.more(segment); ++n) {
        reader.read(in);
        if (sink.held > 64) sink.release();
        if ((mode & 32) && n % 8 == 0) {
            reader.reset();
            session.step = 0;
        }
    }
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
