#include "input/RtspInterop.h"

#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QStringList>
#include <cmath>

namespace rtspinterop {

namespace {

QString hashHex(const QString& text, bool sha256)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toUtf8(),
                                 sha256 ? QCryptographicHash::Sha256 : QCryptographicHash::Md5)
            .toHex());
}

void pair(const QString& text, int out[2])
{
    const QStringList parts = text.split(QLatin1Char('-'));
    bool ok = false;
    const int a = parts.value(0).trimmed().toInt(&ok);
    if (!ok) return;
    out[0] = a;
    const int b = parts.value(1).trimmed().toInt(&ok);
    out[1] = ok ? b : a + 1;
}

void put32(QByteArray& to, uint32_t v)
{
    to += char(v >> 24);
    to += char(v >> 16);
    to += char(v >> 8);
    to += char(v);
}

uint32_t get32(const char* p)
{
    const auto* u = reinterpret_cast<const uint8_t*>(p);
    return uint32_t(u[0]) << 24 | uint32_t(u[1]) << 16 | uint32_t(u[2]) << 8 | u[3];
}

// Host time as the middle 32 bits of an NTP time stamp (1/65536 s units);
// only differences of it are ever used.
uint32_t ntpMiddle(int64_t us)
{
    return uint32_t(us * 65536 / 1000000);
}

}  // namespace

Transport parseTransport(const QString& value)
{
    Transport t;
    // Several transports may be offered; the first is the one chosen.
    const QString first = value.section(QLatin1Char(','), 0, 0);
    const QStringList params = first.split(QLatin1Char(';'));
    t.interleaved = params.value(0).contains(QLatin1String("/TCP"), Qt::CaseInsensitive);
    for (const QString& raw : params) {
        const QString p = raw.trimmed();
        const int eq = p.indexOf(QLatin1Char('='));
        if (eq <= 0) continue;
        const QString key = p.left(eq).trimmed().toLower();
        const QString v = p.mid(eq + 1).trimmed();
        if (key == QLatin1String("interleaved")) {
            int ch[2] = {-1, -1};
            pair(v, ch);
            if (ch[0] >= 0 && ch[0] <= 255 && ch[1] >= 0 && ch[1] <= 255) {
                t.channel[0] = ch[0];
                t.channel[1] = ch[1];
                t.interleaved = true;
            }
        } else if (key == QLatin1String("server_port")) {
            int port[2] = {-1, -1};
            pair(v, port);
            if (port[0] > 0 && port[0] <= 65535 && port[1] > 0 && port[1] <= 65535) {
                t.serverPort[0] = uint16_t(port[0]);
                t.serverPort[1] = uint16_t(port[1]);
            }
        } else if (key == QLatin1String("ssrc")) {
            bool ok = false;
            const uint32_t s = v.toUInt(&ok, 16);
            if (ok) {
                t.ssrc = s;
                t.hasSsrc = true;
            }
        }
    }
    return t;
}

QString sessionId(const QString& value, int* timeoutSeconds)
{
    const QStringList parts = value.split(QLatin1Char(';'));
    *timeoutSeconds = 0;
    for (int i = 1; i < parts.size(); ++i) {
        const QString p = parts[i].trimmed();
        if (p.startsWith(QLatin1String("timeout="), Qt::CaseInsensitive)) {
            bool ok = false;
            const int s = p.mid(8).trimmed().toInt(&ok);
            if (ok && s > 0) *timeoutSeconds = s;
        }
    }
    return parts.value(0).trimmed();
}

QList<Challenge> parseChallenges(const QString& headers)
{
    QList<Challenge> out;
    for (const QString& line : headers.split(QLatin1Char('\n'))) {
        const int n = line.size();
        int i = 0;
        Challenge* current = nullptr;
        while (i < n) {
            while (i < n && (line[i] == QLatin1Char(' ') || line[i] == QLatin1Char(',') ||
                             line[i] == QLatin1Char('\t') || line[i] == QLatin1Char('\r')))
                ++i;
            const int start = i;
            while (i < n && line[i] != QLatin1Char(' ') && line[i] != QLatin1Char('=') &&
                   line[i] != QLatin1Char(',') && line[i] != QLatin1Char('\t'))
                ++i;
            const QString token = line.mid(start, i - start);
            int j = i;
            while (j < n && (line[j] == QLatin1Char(' ') || line[j] == QLatin1Char('\t'))) ++j;
            if (j < n && line[j] == QLatin1Char('=') && current) {
                // A parameter: a quoted string with its escapes, or a token.
                i = j + 1;
                while (i < n && line[i] == QLatin1Char(' ')) ++i;
                QString value;
                if (i < n && line[i] == QLatin1Char('"')) {
                    for (++i; i < n && line[i] != QLatin1Char('"'); ++i) {
                        if (line[i] == QLatin1Char('\\') && i + 1 < n) ++i;
                        value += line[i];
                    }
                    ++i;
                } else {
                    const int from = i;
                    while (i < n && line[i] != QLatin1Char(',')) ++i;
                    value = line.mid(from, i - from).trimmed();
                }
                current->params.insert(token.toLower(), value);
            } else if (!token.isEmpty()) {
                out.append(Challenge{token, {}});
                current = &out.last();
                // A token68 (Basic's, some Digest variants) is not needed.
            } else {
                ++i;  // a lone "=": nothing to take
            }
        }
    }
    return out;
}

bool Auth::challenge(const QString& headers, bool* stale)
{
    *stale = false;
    const QList<Challenge> all = parseChallenges(headers);
    const Challenge* digest = nullptr;
    const Challenge* basic = nullptr;
    for (const Challenge& c : all) {
        if (c.scheme.compare(QLatin1String("Digest"), Qt::CaseInsensitive) == 0 && !digest) {
            const QString alg = c.params.value(QStringLiteral("algorithm")).toUpper();
            if (alg.isEmpty() || alg == QLatin1String("MD5") || alg == QLatin1String("MD5-SESS") ||
                alg == QLatin1String("SHA-256"))
                digest = &c;
        }
        if (c.scheme.compare(QLatin1String("Basic"), Qt::CaseInsensitive) == 0 && !basic)
            basic = &c;
    }
    if (digest) {
        const QString newNonce = digest->params.value(QStringLiteral("nonce"));
        *stale = digest->params.value(QStringLiteral("stale"))
                     .compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
        scheme = Digest;
        realm = digest->params.value(QStringLiteral("realm"));
        opaque = digest->params.value(QStringLiteral("opaque"));
        algorithm = digest->params.value(QStringLiteral("algorithm"));
        qopAuth = false;
        for (const QString& q : digest->params.value(QStringLiteral("qop")).split(QLatin1Char(',')))
            qopAuth = qopAuth || q.trimmed() == QLatin1String("auth");
        if (newNonce != nonce) {
            nonce = newNonce;
            nc = 0;
            cnonce = QString::number(QRandomGenerator::global()->generate64(), 16);
        }
        return true;
    }
    if (basic) {
        scheme = Basic;
        return true;
    }
    return false;
}

QString Auth::header(const QString& method, const QString& uri, const QString& user,
                     const QString& password)
{
    if (scheme == Basic)
        return QStringLiteral("Basic ") +
               QString::fromLatin1((user + QLatin1Char(':') + password).toUtf8().toBase64());
    if (scheme != Digest) return QString();
    const QString alg = algorithm.toUpper();
    const bool sha = alg == QLatin1String("SHA-256");
    QString ha1 = hashHex(user + QLatin1Char(':') + realm + QLatin1Char(':') + password, sha);
    if (alg == QLatin1String("MD5-SESS"))
        ha1 = hashHex(ha1 + QLatin1Char(':') + nonce + QLatin1Char(':') + cnonce, false);
    const QString ha2 = hashHex(method + QLatin1Char(':') + uri, sha);
    QString text = QStringLiteral("Digest username=\"%1\", realm=\"%2\", nonce=\"%3\", uri=\"%4\"")
                       .arg(user, realm, nonce, uri);
    QString response;
    if (qopAuth) {
        const QString count = QStringLiteral("%1").arg(++nc, 8, 16, QLatin1Char('0'));
        response = hashHex(ha1 + QLatin1Char(':') + nonce + QLatin1Char(':') + count +
                               QLatin1Char(':') + cnonce + QStringLiteral(":auth:") + ha2,
                           sha);
        text += QStringLiteral(", qop=auth, nc=%1, cnonce=\"%2\"").arg(count, cnonce);
    } else {
        response = hashHex(ha1 + QLatin1Char(':') + nonce + QLatin1Char(':') + ha2, sha);
    }
    text += QStringLiteral(", response=\"%1\"").arg(response);
    if (!algorithm.isEmpty()) text += QStringLiteral(", algorithm=%1").arg(algorithm);
    if (!opaque.isEmpty()) text += QStringLiteral(", opaque=\"%1\"").arg(opaque);
    return text;
}

QString resolveControl(const QString& control, const QString& base)
{
    const QString c = control.trimmed();
    if (c.isEmpty() || c == QLatin1String("*")) return base;
    const int scheme = c.indexOf(QLatin1String("://"));
    if (scheme > 0 && c.left(scheme).startsWith(QLatin1String("rtsp"), Qt::CaseInsensitive))
        return c;
    if (c.startsWith(QLatin1Char('/'))) {
        const int hostAt = base.indexOf(QLatin1String("://"));
        const int pathAt = hostAt < 0 ? -1 : base.indexOf(QLatin1Char('/'), hostAt + 3);
        return (pathAt < 0 ? base : base.left(pathAt)) + c;
    }
    return base.endsWith(QLatin1Char('/')) ? base + c : base + QLatin1Char('/') + c;
}

SdpControls sdpControls(const QString& sdp)
{
    SdpControls out;
    enum { Session, Video, Audio, Other } section = Session;
    bool videoDone = false, audioDone = false;
    for (QString line : sdp.split(QLatin1Char('\n'))) {
        if (line.endsWith(QLatin1Char('\r'))) line.chop(1);
        if (line.startsWith(QLatin1String("m="))) {
            section = Other;
            if (line.startsWith(QLatin1String("m=video")) && !videoDone) {
                section = Video;
                out.hasVideo = videoDone = true;
            } else if (line.startsWith(QLatin1String("m=audio")) && !audioDone) {
                section = Audio;
                out.hasAudio = audioDone = true;
            }
            continue;
        }
        if (!line.startsWith(QLatin1String("a=control:"))) continue;
        const QString value = line.mid(10).trimmed();
        QString* to = section == Session ? &out.session
                      : section == Video ? &out.video
                      : section == Audio ? &out.audio
                                         : nullptr;
        if (to && to->isNull()) *to = value;
    }
    return out;
}

void RtpStats::packet(const char* buf, int len, int64_t nowUs, int64_t clock)
{
    if (len < 12) return;
    const uint16_t seq = uint16_t(uint8_t(buf[2]) << 8 | uint8_t(buf[3]));
    const uint32_t ts = get32(buf + 4);
    const uint32_t from = get32(buf + 8);
    if (!started || from != ssrc) {
        *this = RtpStats{};
        started = true;
        ssrc = from;
        maxSeq = seq;
        baseSeq = seq;
    } else {
        const uint16_t delta = uint16_t(seq - maxSeq);
        if (delta > 0 && delta < 0x8000) {
            if (seq < maxSeq) cycles += 0x10000;
            maxSeq = seq;
        }
    }
    ++received;
    if (clock > 0 && clock <= 10000000) {
        // Interarrival jitter in clock units, smoothed over 16 packets.
        const int64_t arrival = int64_t(uint64_t(nowUs) % (uint64_t(1) << 40) * clock / 1000000);
        const int64_t t = arrival - int64_t(ts);
        if (hasTransit) {
            const double d = std::abs(double(t - transit));
            if (d < 1e9) jitter += (d - jitter) / 16;
        }
        transit = t;
        hasTransit = true;
    }
}

void RtpStats::rtcp(const char* buf, int len, int64_t nowUs)
{
    for (int at = 0; at + 8 <= len;) {
        const auto* p = reinterpret_cast<const uint8_t*>(buf + at);
        if ((p[0] >> 6) != 2) return;
        const int size = (p[2] * 256 + p[3] + 1) * 4;
        if (size > len - at) return;
        if (p[1] == 200 && size >= 28) {
            lsr = get32(buf + at + 10);
            lsrAt = nowUs;
        }
        at += size;
    }
}

QByteArray RtpStats::report(uint32_t ourSsrc, const QByteArray& cname, int64_t nowUs)
{
    QByteArray out;
    if (started) {
        out += char(0x81);
        out += char(201);
        out += char(0);
        out += char(7);
        put32(out, ourSsrc);
        put32(out, ssrc);
        const uint32_t extended = cycles + maxSeq;
        const uint32_t expected = extended - baseSeq + 1;
        const int64_t lost = qBound<int64_t>(-0x800000, int64_t(expected) - received, 0x7fffff);
        const uint32_t expectedInterval = expected - expectedPrior;
        const uint32_t receivedInterval = received - receivedPrior;
        expectedPrior = expected;
        receivedPrior = received;
        const int64_t lostInterval = int64_t(expectedInterval) - receivedInterval;
        const uint32_t fraction = expectedInterval == 0 || lostInterval <= 0
                                      ? 0
                                      : uint32_t((lostInterval << 8) / expectedInterval) & 0xff;
        put32(out, fraction << 24 | (uint32_t(lost) & 0xffffff));
        put32(out, extended);
        put32(out, uint32_t(jitter));
        put32(out, lsr);
        put32(out, lsr ? ntpMiddle(nowUs) - ntpMiddle(lsrAt) : 0);
    } else {
        out += char(0x80);
        out += char(201);
        out += char(0);
        out += char(1);
        put32(out, ourSsrc);
    }
    const QByteArray name = cname.left(255);
    const int items = 4 + 2 + name.size() + 1;
    const int words = (items + 3) / 4;
    out += char(0x81);
    out += char(202);
    out += char(words >> 8);
    out += char(words);
    put32(out, ourSsrc);
    out += char(1);
    out += char(name.size());
    out += name;
    out += QByteArray(words * 4 - (items - 1), '\0');
    return out;
}

int64_t RtpReorder::due(int64_t nowUs) const
{
    if (count == 0) return -1;
    int64_t oldest = INT64_MAX;
    for (const Slot& s : ring)
        if (s.used) oldest = qMin(oldest, s.at);
    return qMax<int64_t>(0, oldest + kHoldUs - nowUs);
}

void RtpReorder::reset()
{
    for (Slot& s : ring) {
        s.used = false;
        s.bytes.clear();
    }
    count = 0;
    started = false;
    next = 0;
}

}  // namespace rtspinterop
