// The RTSP node's reply and `$` frame reader on what a server could send,
// with the frames going on into the media half. Input layout:
//   byte 0: bits 0-2 segment size (0: one segment, else 2^n bytes), bit 3
//           frame mode from the start (else replies until five 200s),
//           bit 4 the pool refuses every tenth frame, bit 5 the session
//           ends (reader reset) after every 8th segment, bit 6 H.265
//   the rest: the bytes of the connection.
#include <QMap>
#include <QString>

#include "tests/fuzz/FuzzRtsp.h"

namespace {

// 200s count the steps up to PLAY; frames go on to the media half.
class Session : public ReaderSession {
public:
    Session(RtspMedia& m, bool refuse) : media(m) { refuseSome = refuse; }
    void reply(const QMap<QString, QString>& msg) override
    {
        sum += msg.size() + msg.value(QStringLiteral("Content")).size();
        if (msg.value(QStringLiteral("H2")) == QLatin1String("200") && step < 5) ++step;
    }
    void frame(uint8_t channel, char* buf, int len) override
    {
        if (!buf) return;
        if (len < 0) __builtin_trap();
        if (channel == 0) media.parseV(buf, len);
        if (channel == 2) media.parseA(buf, len);
    }

private:
    RtspMedia& media;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    static FuzzSink sink;
    RtspMedia& media = freshMedia(sink);
    const uint8_t mode = data[0];
    media.infoV.type = mode & 64 ? VeskObject::TypeH265 : VeskObject::TypeH264;
    media.infoA.type = VeskObject::TypeAAC;
    media.clockV = 90000;
    media.clockA = 48000;

    Session session(media, mode & 16);
    RtspReader reader(session);
    readConnection(reader, session, sink, data, size);
    return 0;
}
