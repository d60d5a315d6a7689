// The RTSP node's reply and `$` frame reader on what a server could send,
// with the frames going on into the media half. Input layout:
//   byte 0: bits 0-2 segment size (0: one segment, else 2^n bytes), bit 3
//           frame mode from the start (else replies until five 200s),
//           bit 4 the pool refuses every tenth frame, bit 5 the session
//           ends (reader reset) after every 8th segment, bit 6 H.265
//   the rest: the bytes of the connection.
#include <QMap>
#include <QString>
#include <algorithm>
#include <cstring>
#include <memory>

#include "input/RtspReader.h"
#include "tests/fuzz/FuzzSink.h"

namespace {

// The connection: bytes become readable one segment at a time.
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

// The session as far as the reader sees it: 200s count the steps up to
// PLAY, frames go to the media half in buffers of exactly their size.
class Session : public RtspReaderClient {
public:
    Session(RtspMedia& m, bool refuse) : media(m), refuseSome(refuse) {}
    uint32_t sessionStep() const override { return step; }
    void reply(const QMap<QString, QString>& msg) override
    {
        sum += msg.size() + msg.value(QStringLiteral("Content")).size();
        if (msg.value(QStringLiteral("H2")) == QLatin1String("200") && step < 5) ++step;
    }
    char* frameBuffer(int len) override
    {
        if (len < 0 || len > 65535) __builtin_trap();
        if (refuseSome && ++frames % 10 == 0) return nullptr;
        current.reset(new char[size_t(len) + 20]);
        return current.get() + 20;
    }
    void keepAliveDue() override { ++sum; }
    void frame(uint8_t channel, char* buf, int len) override
    {
        if (!buf) return;
        if (len < 0) __builtin_trap();
        if (channel == 0) media.parseV(buf, len);
        if (channel == 2) media.parseA(buf, len);
    }
    void log(const QString&) override {}

    uint32_t step = 0;
    unsigned sum = 0;

private:
    RtspMedia& media;
    bool refuseSome;
    unsigned frames = 0;
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
    sink.release();
    RtspMedia& media = freshMedia(sink);
    const uint8_t mode = data[0];
    media.infoV.type = mode & 64 ? VeskObject::TypeH265 : VeskObject::TypeH264;
    media.infoA.type = VeskObject::TypeAAC;
    media.clockV = 90000;
    media.clockA = 48000;

    Session session(media, mode & 16);
    session.step = mode & 8 ? 5 : 0;
    RtspReader reader(session);
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
    return 0;
}
