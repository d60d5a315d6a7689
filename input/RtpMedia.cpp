#include "input/RtpMedia.h"

#include <QByteArray>
#include <QDebug>
#include <QStringList>
#include <climits>
#include <cmath>
#include <cstring>

namespace {

constexpr int kHeadroom = 20;
constexpr int kRtpHeader = 12;
constexpr uint8_t kH265FragmentHeader = 98;  // type 49, layer 0, tid 0

unsigned saturate(uint64_t v)
{
    return v > UINT_MAX ? UINT_MAX : unsigned(v);
}

// Bits a cursor can reach; a unit longer than that reads as if cut there.
uint64_t bitCount(unsigned len)
{
    const uint64_t bits = uint64_t(len) * 8;
    return bits > UINT_MAX ? UINT_MAX : bits;
}

unsigned bitAt(const unsigned char* data, uint64_t pos)
{
    return (data[pos >> 3] >> (7 - (pos & 7))) & 1;
}

uint32_t readBe32(const char* p)
{
    const auto* b = reinterpret_cast<const unsigned char*>(p);
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

void putStartCode(char* p)
{
    p[0] = 0;
    p[1] = 0;
    p[2] = 0;
    p[3] = 1;
}

// From pos to the next CR. Without a CR the line runs to the end of the text.
QString lineAt(const QString& text, int pos)
{
    const int end = text.indexOf(QLatin1Char('\r'), pos);
    return text.mid(pos, end < 0 ? -1 : end - pos);
}

QString lastWord(const QString& line)
{
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return words.isEmpty() ? QString() : words.last();
}

// The track's URL. A section without a control of its own stands for the
// presentation as a whole, so it gets the base URL.
QString trackControl(const QString& sdp, int from, const QString& url)
{
    const int at = sdp.indexOf(QLatin1String("control:"), from);
    if (at < 0) return url;
    QString control = lineAt(sdp, at + 8);
    if (!control.startsWith(QLatin1String("rtsp"))) control = url + QLatin1Char('/') + control;
    return control;
}

// Fields of "a=rtpmap:PT name/clock[/channels]"; empty when there is none.
QStringList rtpmapFields(const QString& sdp, int from)
{
    const int at = sdp.indexOf(QLatin1String("a=rtpmap"), from);
    if (at < 0) return {};
    return lastWord(lineAt(sdp, at)).split(QLatin1Char('/'));
}

QString fmtpText(const QString& sdp, int from)
{
    const int at = sdp.indexOf(QLatin1String("a=fmtp"), from);
    if (at < 0) return QString();
    const QString line = lineAt(sdp, at);
    const int blank = line.indexOf(QLatin1Char(' '));
    return blank < 0 ? QString() : line.mid(blank + 1);
}

// The attribute's value up to the first cut, Base64-decoded.
QByteArray spropNal(const QString& sdp, int at, int keyLength, QChar cut)
{
    QString text = lineAt(sdp, at + keyLength);
    const int c = text.indexOf(cut);
    if (c >= 0) text = text.left(c);
    return QByteArray::fromBase64(text.toLatin1());
}

}  // namespace

uint32_t u(unsigned n, const unsigned char* data, unsigned len, unsigned& pos, bool* overrun)
{
    const uint64_t bits = bitCount(len);
    const uint64_t stop = uint64_t(pos) + n;
    if (n > 0 && stop > bits && overrun) *overrun = true;
    // Only the last 32 bits survive in the result, so earlier ones aren't read.
    uint32_t v = 0;
    for (uint64_t b = n > 32 ? stop - 32 : pos; b < stop; ++b)
        v = v << 1 | (b < bits ? bitAt(data, b) : 0);
    pos = saturate(stop);
    return v;
}

uint32_t Ue(const unsigned char* data, unsigned len, unsigned& pos, bool* overrun)
{
    const uint64_t bits = bitCount(len);
    if (pos >= bits || bitAt(data, pos)) {
        pos = saturate(uint64_t(pos) + 1);
        return 0;
    }
    unsigned zeros = 0;
    while (pos < bits && !bitAt(data, pos)) {
        ++zeros;
        ++pos;
    }
    pos = saturate(uint64_t(pos) + 1);
    const uint32_t v = u(zeros, data, len, pos, overrun);
    const uint32_t base = zeros >= 32 ? 0 : uint32_t(1) << zeros;
    return base - 1 + v;
}

int64_t Se(const unsigned char* data, unsigned len, unsigned& pos, bool* overrun)
{
    const uint32_t k = Ue(data, len, pos, overrun);
    const int64_t magnitude = (int64_t(k) + 1) / 2;
    return k % 2 == 0 ? -magnitude : magnitude;
}

// One pass in place. A removal moves everything behind it down and leaves the
// last byte doubled at the tail; the scan still covers the original length,
// so those doubled bytes take part in matches just as when shifting byte by
// byte, which is what decides *len for a unit that ends in 0,0,3 runs.
void de_emulation_prevention(unsigned char* data, unsigned* len)
{
    if (!data || !len || *len < 3) return;
    const unsigned total = *len;
    unsigned removed = 0;
    auto current = [&](unsigned k) {
        const uint64_t at = uint64_t(k) + removed;
        return data[at < total ? at : total - 1];
    };
    for (unsigned i = 0; i + 2 < total; ++i) {
        unsigned char third = current(i + 2);
        if (data[i] == 0 && data[i + 1] == 0 && third == 3) {
            ++removed;
            --*len;
            third = current(i + 2);
        }
        data[i + 2] = third;
    }
}

int h264_decode_sps(unsigned char* data, unsigned len, int& width, int& height)
{
    if (!data) return 0;
    de_emulation_prevention(data, &len);
    unsigned pos = 0;
    bool over = false;
    auto U = [&](unsigned n) { return u(n, data, len, pos, &over); };
    auto UE = [&] { return Ue(data, len, pos, &over); };
    auto SE = [&] { return Se(data, len, pos, &over); };
    auto truncated = [&] {
        qDebug().noquote()
            << QStringLiteral("H.264 SPS of %1 bytes ends early, not parsed").arg(len);
        return 0;
    };

    U(1);
    U(2);
    if (U(5) != 7) return over ? truncated() : 0;
    const uint32_t profile = U(8);
    for (int i = 0; i < 4; ++i) U(1);
    U(4);
    U(8);
    UE();
    switch (profile) {
        case 100:
        case 110:
        case 122:
        case 244:
        case 44:
        case 83:
        case 86:
        case 118: {
            if (UE() == 3) U(1);
            UE();
            UE();
            U(1);
            if (U(1)) {
                for (int i = 0; i < 8; ++i) {
                    if (!U(1)) continue;
                    const int size = i < 6 ? 16 : 64;
                    int64_t last = 8, next = 8;
                    for (int j = 0; j < size && next != 0; ++j) {
                        next = (last + SE() + 256) % 256;
                        if (next != 0) last = next;
                    }
                }
            }
            break;
        }
        default:
            break;
    }
    UE();
    const uint32_t pocType = UE();
    if (pocType == 0) {
        UE();
    } else if (pocType == 1) {
        U(1);
        SE();
        SE();
        const uint32_t cycle = UE();
        // The count comes from the stream; once the data is used up every
        // further code reads nothing and the bit behind the loop overruns.
        for (uint32_t i = 0; i < cycle; ++i) {
            if (pos >= bitCount(len)) {
                over = true;
                break;
            }
            SE();
        }
    }
    UE();
    U(1);
    if (over) return truncated();
    const uint32_t w = (UE() + 1) * 16;
    const uint32_t h = (UE() + 1) * 16;
    if (over) return truncated();
    width = int(w);
    height = int(h);
    // Coded 1080p is 1088 high; no other crop is applied.
    if (height == 1088) height = 1080;
    return 1;
}

// Reads from the first bit it is given as if the NAL header were already gone,
// while callers pass the unit with its header. The header of an SPS then reads
// as one sublayer, whose two flags fall on reserved zero bits and whose padding
// takes up 16 bits: for a single-layer stream the read is back in step before
// the size.
int h265_decode_sps(unsigned char* data, unsigned len, int& width, int& height)
{
    if (!data || len < 20) return 0;
    de_emulation_prevention(data, &len);
    unsigned pos = 0;
    bool over = false;
    auto U = [&](unsigned n) { return u(n, data, len, pos, &over); };
    auto UE = [&] { return Ue(data, len, pos, &over); };
    auto truncated = [&] {
        qDebug().noquote()
            << QStringLiteral("H.265 SPS of %1 bytes ends early, not parsed").arg(len);
        return 0;
    };
    auto profileBlock = [&] {
        U(2);
        U(1);
        U(5);
        U(32);
        for (int i = 0; i < 4; ++i) U(1);
        U(44);
    };

    U(4);
    const uint32_t sublayers = U(3);
    if (sublayers > 6) return 0;
    U(1);
    profileBlock();
    U(8);
    if (sublayers > 0) {
        bool profilePresent[7] = {}, levelPresent[7] = {};
        for (uint32_t i = 0; i < sublayers; ++i) {
            profilePresent[i] = U(1);
            levelPresent[i] = U(1);
        }
        for (uint32_t i = sublayers; i < 8; ++i) U(2);
        for (uint32_t i = 0; i < sublayers; ++i) {
            if (profilePresent[i]) profileBlock();
            if (levelPresent[i]) U(8);
        }
    }
    const uint32_t id = UE();
    if (id > 15) return over ? truncated() : 0;
    const uint32_t chroma = UE();
    if (id > 3) return over ? truncated() : 0;
    if (chroma == 3) U(1);
    const uint32_t w = UE();
    const uint32_t h = UE();
    if (over) return truncated();
    width = int(w);
    height = int(h);
    if (U(1))
        for (int i = 0; i < 4; ++i) UE();
    const uint32_t lumaDepth = UE();
    const uint32_t chromaDepth = UE();
    if (over) return truncated();
    return lumaDepth == chromaDepth;
}

int64_t mapClock(int64_t s, int64_t now, int64_t& offset, int32_t& count)
{
    if (offset == 0) {
        offset = now - s;
        count = 0;
        return now;
    }
    const int64_t pts = offset + s;
    const int64_t d = pts > now ? pts - now : now - pts;
    if (d <= 50000) {
        count = 0;
        return pts;
    }
    if (count < INT32_MAX) ++count;
    // A restart of the server or a wrap of the 32-bit timestamp: follow it.
    if (d > 5000000) {
        offset += now - pts;
        return now;
    }
    if (count <= 10) return pts;
    int64_t slew = (now - pts) / 80;
    if (slew > 5000) slew = 5000;
    if (slew < -5000) slew = -5000;
    offset += slew;
    return pts;
}

int rtpUnpaddedLength(const char* buf, int len)
{
    if (!buf || len <= 0 || !(buf[0] & 0x20)) return len;
    return len - static_cast<unsigned char>(buf[len - 1]);
}

RtspMedia::RtspMedia(RtspMediaSink& sink) : fuBuf(new char[kFuBufSize]), sink(sink)
{
    putStartCode(fuBuf.get());
}

void RtspMedia::reset()
{
    ptsOffsetA = ptsOffsetV = -1;
    driftCountA = driftCountV = 0;
    fuLen = 4;
    fuDropping = false;
    controlA.clear();
    controlV.clear();
}

void RtspMedia::log(const QString& text) const
{
    const QString name = sink.logName();
    if (name.isEmpty())
        qDebug().noquote() << text;
    else
        qDebug().noquote() << QLatin1Char('[') + name + QLatin1Char(']') << text;
}

void RtspMedia::parseSDP(const QString& sdp, const QString& url)
{
    const int video = sdp.indexOf(QLatin1String("m=video"));
    if (video >= 0) {
        payloadV = lastWord(lineAt(sdp, video)).toInt();
        controlV = trackControl(sdp, video, url);
        const QStringList map = rtpmapFields(sdp, video);
        const QString codec = map.value(0);
        if (codec == QLatin1String("H264")) infoV.type = VeskObject::TypeH264;
        if (codec == QLatin1String("H265")) infoV.type = VeskObject::TypeH265;
        clockV = map.value(1).toLongLong();

        const int rate = sdp.indexOf(QLatin1String("a=framerate:"));
        if (rate > 0) {
            const double fps = lineAt(sdp, rate + 12).toDouble();
            if (std::isfinite(fps) && fps > double(INT_MIN) - 1 && fps < double(INT_MAX) + 1)
                infoV.params[QStringLiteral("framerate")] = int(fps);
            else
                log(QStringLiteral("framerate out of range, ignored"));
        }
        fmtpV = fmtpText(sdp, video);

        // The parameter sets serve only for the picture size; the stream
        // carries its own in band.
        const int h264 = sdp.indexOf(QLatin1String("sprop-parameter-sets="), video);
        if (h264 >= 0) {
            QByteArray sps = spropNal(sdp, h264, 21, QLatin1Char(','));
            int width = 0, height = 0;
            h264_decode_sps(reinterpret_cast<unsigned char*>(sps.data()), unsigned(sps.size()),
                            width, height);
            infoV.params[QStringLiteral("width")] = width;
            infoV.params[QStringLiteral("height")] = height;
        }
        const int h265 = sdp.indexOf(QLatin1String("sprop-sps="), video);
        if (h265 >= 0) {
            QByteArray sps = spropNal(sdp, h265, 10, QLatin1Char(';'));
            int width = 0, height = 0;
            h265_decode_sps(reinterpret_cast<unsigned char*>(sps.data()), unsigned(sps.size()),
                            width, height);
            infoV.params[QStringLiteral("width")] = width;
            infoV.params[QStringLiteral("height")] = height;
        }
        sink.sendInfo(true, infoV);
    }

    const int audio = sdp.indexOf(QLatin1String("m=audio"));
    if (audio >= 0) {
        payloadA = lastWord(lineAt(sdp, audio)).toInt();
        controlA = trackControl(sdp, audio, url);
        const QStringList map = rtpmapFields(sdp, audio);
        const QString codec = map.value(0).toLower();
        if (codec.startsWith(QLatin1String("mpeg4")))
            infoA.type = VeskObject::TypeAAC;
        else if (codec.startsWith(QLatin1String("pcma")))
            infoA.type = VeskObject::TypePCMA;
        else if (codec.startsWith(QLatin1String("pcmu")))
            infoA.type = VeskObject::TypePCMU;
        else if (codec.startsWith(QLatin1String("mpa")))
            infoA.type = VeskObject::TypeMP3;
        clockA = map.value(1).toLongLong();
        infoA.params[QStringLiteral("samplerate")] = qint64(clockA);
        // Given channels stay text; the default is a number.
        if (map.size() == 3)
            infoA.params[QStringLiteral("channels")] = map.at(2);
        else
            infoA.params[QStringLiteral("channels")] = 1;
        fmtpA = fmtpText(sdp, audio);
        sink.sendInfo(false, infoA);
    }
}

int64_t RtspMedia::streamTime(const char* ts, int64_t clock) const
{
    if (clock == 0) return 0;
    return int64_t(readBe32(ts)) * 1000000 / clock;
}

void RtspMedia::parseV(char* buf, int len)
{
    if (!buf || len <= kRtpHeader) {
        log(QStringLiteral("video packet of %1 bytes has no payload, dropped").arg(len));
        return;
    }
    const auto b = static_cast<uint8_t>(buf[12]);
    if (infoV.type == VeskObject::TypeH265) {
        // Aggregation packets aren't told apart: they go out as one unit.
        if (b == kH265FragmentHeader)
            fragment(buf, len, 14, 1);
        else if (interop && (b >> 1 & 63) == 48)
            aggregateAll(buf, len, 14);
        else
            singleNal(buf, len);
        return;
    }
    const int type = b & 31;
    if (type <= 22)
        singleNal(buf, len);
    else if (type == 28)
        fragment(buf, len, 13, 0);
    else if (type == 24 && interop)
        aggregateAll(buf, len, 13);
    else if (type == 24 && len != 13)
        aggregate(buf, len);
}

// Units of [16-bit size][NAL unit] from `first` on. Each start code goes
// over the size and the two bytes in front of it, which belong to the RTP
// header or to the unit before, already copied out by videoReady.
void RtspMedia::aggregateAll(char* buf, int len, int first)
{
    int at = first;
    while (at + 2 <= len) {
        const int size = static_cast<uint8_t>(buf[at]) * 256 + static_cast<uint8_t>(buf[at + 1]);
        if (size == 0 || size > len - at - 2) {
            log(QStringLiteral("aggregated unit of %1 bytes runs past the packet's end, dropped")
                    .arg(size));
            return;
        }
        putStartCode(buf + at - 2);
        videoReady(buf + at - 2, size + 4, buf + 4);
        at += 2 + size;
    }
}

// The start code goes over the SSRC, so the unit leaves without a move.
void RtspMedia::singleNal(char* buf, int len)
{
    putStartCode(buf + 8);
    videoReady(buf + 8, len - 8, buf + 4);
}

// STAP-A. The cursor steps two bytes back after each unit: the first unit is
// delivered whole, and each further pass reads a size of 0 from the start
// code just written and sends it as a 4-byte unit, until the remainder
// reaches 0. That walk would run on in front of the packet when the remainder
// is odd or large, so it stops at the packet's first byte.
void RtspMedia::aggregate(char* buf, int len)
{
    char* p = buf + 11;
    int remaining = len - 13;
    for (;;) {
        const int room = len - int(p - buf) - 4;
        if (room < 0) {
            log(QStringLiteral("STAP-A of %1 bytes has no room for a size, dropped").arg(len));
            return;
        }
        const int size = static_cast<uint8_t>(p[2]) * 256 + static_cast<uint8_t>(p[3]);
        if (size > room) {
            log(QStringLiteral("STAP-A unit of %1 bytes runs past the packet's end, dropped")
                    .arg(size));
            return;
        }
        putStartCode(p);
        remaining -= size + 2;
        videoReady(p, size + 4, buf + 4);
        if (remaining == 0) return;
        if (p - buf < 2) {
            log(QStringLiteral("STAP-A walk reached the packet's start, rest dropped"));
            return;
        }
        p -= 2;
    }
}

bool RtspMedia::appendFragment(const char* src, int n)
{
    if (n > kFuBufSize - fuLen) {
        log(QStringLiteral("fragmented unit over %1 bytes, dropped").arg(kFuBufSize));
        fuLen = 4;
        fuDropping = true;
        return false;
    }
    memcpy(fuBuf.get() + fuLen, src, size_t(n));
    fuLen += n;
    return true;
}

// FU-A (h 0, header at 13) and H.265 FU (h 1, header at 14). The start
// fragment's NAL header is rebuilt in the byte(s) in front of its payload so
// that one copy takes header and payload together.
void RtspMedia::fragment(char* buf, int len, int fuHeader, int h)
{
    if (len <= fuHeader) {
        log(QStringLiteral("fragment of %1 bytes without its header, dropped").arg(len));
        return;
    }
    const int f = static_cast<uint8_t>(buf[fuHeader]) & 0xE0;
    if (f == 0x80) {
        if (fuLen != 4) {
            log(QStringLiteral("miss end"));
            fuLen = 4;
        }
        fuDropping = false;
        if (h == 0) {
            buf[13] = char((buf[13] & 0x1F) | (buf[12] & 0x60));
        } else {
            buf[13] = char((buf[14] * 2) & 0x7E);
            buf[14] = 1;
        }
        appendFragment(buf + 13, len - 13);
        return;
    }
    const bool end = f == 0x40;
    if (fuDropping) {
        if (end) fuDropping = false;
        return;
    }
    if (!appendFragment(buf + 14 + h, len - 14 - h)) {
        if (end) fuDropping = false;
        return;
    }
    if (end) {
        videoReady(fuBuf.get(), fuLen, buf + 4);
        fuLen = 4;
    }
}

void RtspMedia::videoReady(char* nal, int len, const char* ts)
{
    if (!nal || !ts || len <= 0) return;
    int64_t pts = streamTime(ts, clockV);
    if (timestampMode == QLatin1String("auto"))
        pts = mapClock(pts, sink.now(), ptsOffsetV, driftCountV);

    // Only plain slices (type 1) count as delta frames; parameter sets and
    // SEI go out as 0 like intra slices.
    int frameType = 0;
    if (len > 4) {
        const auto header = static_cast<uint8_t>(nal[4]);
        if (infoV.type == VeskObject::TypeH264) frameType = (header & 31) == 1;
        if (infoV.type == VeskObject::TypeH265) frameType = ((header >> 1) & 63) == 1;
    }

    VeskObject::Packet packet;
    packet.data = sink.buffer(nal, len, kHeadroom);
    if (!packet.data) {
        log(QStringLiteral("no buffer for a video unit of %1 bytes, dropped").arg(len));
        return;
    }
    packet.len = len;
    packet.pts = pts;
    packet.dts = -1;
    packet.frameType = frameType;
    packet.reserved = 0;
    sink.sendPacket(true, packet);
}

// Only one access unit per packet is understood: the 4 bytes behind the RTP
// header of AAC and MPEG audio are skipped, not parsed.
void RtspMedia::parseA(char* buf, int len)
{
    const int type = infoA.type;
    const int skip =
        (type == VeskObject::TypeAAC || type == VeskObject::TypeMP2 || type == VeskObject::TypeMP3)
            ? 16
            : 12;
    if (!buf || len < skip) {
        log(QStringLiteral("audio packet of %1 bytes shorter than its headers, dropped").arg(len));
        return;
    }
    int64_t pts = streamTime(buf + 4, clockA);
    if (timestampMode == QLatin1String("auto"))
        pts = mapClock(pts, sink.now(), ptsOffsetA, driftCountA);

    VeskObject::Packet packet;
    packet.data = buf + skip;
    packet.len = len - skip;
    packet.pts = pts;
    packet.dts = -1;
    packet.frameType = 3;
    packet.reserved = 0;
    sink.sendPacket(false, packet);
}
