#include "input/RtspReader.h"

#include <QStringList>
#include <cstring>

namespace {

// Bytes thrown away per read while discarding.
constexpr int kScratch = 16 * 1024;

void discardAll(RtspByteSource& in)
{
    char scratch[kScratch];
    while (in.available() > 0)
        if (in.read(scratch, sizeof scratch) <= 0) break;
}

}  // namespace

RtspReader::Result RtspReader::read(RtspByteSource& in)
{
    if (client.sessionStep() <= 4) readReplies(in);
    // A reply just read may have been the answer to PLAY: the frames behind
    // it are often in the same segment.
    if (client.sessionStep() == 5) return readFrames(in);
    return Done;
}

void RtspReader::reset()
{
    remaining = 0;
    frameBuf = nullptr;
    frameLen = 0;
    skippingLine = false;
    discarding = false;
    if (interop) {
        msg.clear();
        replyBytes = 0;
        bodyNeed = bodySkip = 0;
        body.clear();
        inMessage = false;
        carry.clear();
        frameHeaderLen = 0;
        resyncLogged = false;
    }
}

void RtspReader::readReplies(RtspByteSource& in)
{
    while ((client.sessionStep() <= 4 || inMessage) && in.connected()) {
        if (bodySkip > 0 || bodyNeed > 0) {
            // The body of a reply in interop mode, as long as it says.
            char scratch[kScratch];
            const int64_t want = qMin<int64_t>(bodySkip > 0 ? bodySkip : bodyNeed, kScratch);
            const int64_t n = in.read(scratch, want);
            if (n <= 0) return;
            if (bodySkip > 0) {
                bodySkip -= n;
                if (bodySkip == 0) inMessage = false;
                continue;
            }
            body.append(scratch, int(n));
            bodyNeed -= n;
            if (bodyNeed == 0) deliver();
            continue;
        }
        if (!in.canReadLine()) {
            // A server that sends and sends without a line end is not going
            // to finish the line; holding it all would only grow memory.
            if (skippingLine) {
                discardAll(in);
            } else if (in.available() > kMaxLine) {
                client.log(QStringLiteral("reply line over %1 bytes without an end, dropped")
                               .arg(kMaxLine));
                discardAll(in);
                skippingLine = true;
            }
            return;
        }
        const QByteArray line = in.readLine(kMaxLine);
        if (line.isEmpty()) return;
        const bool whole = line.endsWith('\n');
        if (skippingLine) {
            skippingLine = !whole;
            continue;
        }
        if (!whole) {
            client.log(QStringLiteral("reply line over %1 bytes, dropped").arg(kMaxLine));
            skippingLine = true;
            continue;
        }
        if (interop)
            takeInteropLine(carry.isEmpty() ? line : carry + line);
        else
            takeLine(in, line);
        carry.clear();
    }
}

void RtspReader::takeInteropLine(const QByteArray& line)
{
    if (line == "\r\n" || line == "\n") {
        if (msg.contains(QStringLiteral("H1"))) endOfHeaders();
        return;
    }
    QString text = QString::fromUtf8(line);
    while (text.endsWith(QLatin1Char('\n')) || text.endsWith(QLatin1Char('\r'))) text.chop(1);
    if (!msg.contains(QStringLiteral("H1"))) {
        const QStringList parts = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (parts.size() < 2) return;
        msg.insert(QStringLiteral("H1"), parts[0]);
        msg.insert(QStringLiteral("H2"), parts[1]);
        msg.insert(QStringLiteral("H3"), parts.mid(2).join(QLatin1Char(' ')));
    } else {
        const int colon = text.indexOf(QLatin1Char(':'));
        if (colon <= 0) return;
        QString key = text.left(colon).trimmed();
        // Devices spell header names as they please.
        static const char* const known[] = {"Content-Length", "Content-Base", "Content-Location",
                                            "Session",        "Transport",    "WWW-Authenticate",
                                            "Public",         "CSeq",         "RTP-Info"};
        for (const char* k : known)
            if (key.compare(QLatin1String(k), Qt::CaseInsensitive) == 0) key = QLatin1String(k);
        const QString value = text.mid(colon + 1).trimmed();
        if (msg.contains(key)) {
            // Every challenge counts: the best scheme is chosen from all.
            if (key == QLatin1String("WWW-Authenticate")) msg[key] += QLatin1Char('\n') + value;
        } else {
            msg.insert(key, value);
        }
    }
    replyBytes += line.size();
    if (replyBytes > kMaxReply) {
        client.log(QStringLiteral("reply headers over %1 bytes, dropped").arg(kMaxReply));
        msg.clear();
        replyBytes = 0;
        inMessage = false;
    }
}

void RtspReader::endOfHeaders()
{
    bool ok = false;
    const int64_t length = msg.value(QStringLiteral("Content-Length")).toLongLong(&ok);
    if (!ok || length <= 0) {
        deliver();
        return;
    }
    if (length > kMaxBody) {
        client.log(
            QStringLiteral("reply body of %1 bytes over %2, dropped").arg(length).arg(kMaxBody));
        msg.clear();
        replyBytes = 0;
        bodySkip = length;
        return;
    }
    body.clear();
    body.reserve(int(length));
    bodyNeed = length;
}

void RtspReader::deliver()
{
    QMap<QString, QString> whole = msg;
    if (!body.isEmpty()) whole.insert(QStringLiteral("Content"), QString::fromUtf8(body));
    msg.clear();
    body.clear();
    replyBytes = 0;
    inMessage = false;
    client.reply(whole);
}

bool RtspReader::strayHeader()
{
    if (std::memcmp(frameHeader, "RTSP", 4) == 0) {
        carry = QByteArray(frameHeader, 4);
        frameHeaderLen = 0;
        msg.clear();
        replyBytes = 0;
        inMessage = true;
        return true;
    }
    // Step over one byte and look again: the next '$' starts a frame.
    if (!resyncLogged) client.log(QStringLiteral("stray bytes between frames, skipped"));
    resyncLogged = true;
    std::memmove(frameHeader, frameHeader + 1, 3);
    frameHeaderLen = 3;
    return false;
}

void RtspReader::takeLine(RtspByteSource& in, const QByteArray& line)
{
    if (line != "\r\n") {
        const QString text = QString::fromUtf8(line);
        if (!msg.contains(QStringLiteral("H1"))) {
            // A reason phrase of two words makes four parts and loses the
            // status line; the header lines behind it are tried as first
            // lines in its place.
            const QStringList parts = text.split(QLatin1Char(' '));
            if (parts.size() != 3) return;
            msg.insert(QStringLiteral("H1"), parts[0].trimmed());
            msg.insert(QStringLiteral("H2"), parts[1].trimmed());
            msg.insert(QStringLiteral("H3"), parts[2].trimmed());
        } else {
            // A value that holds a colon (a URL, a time of day) makes three
            // parts or more and the header is not seen.
            const QStringList parts = text.split(QLatin1Char(':'));
            if (parts.size() != 2) return;
            const QString key = parts[0].trimmed();
            if (msg.contains(key)) return;  // the first of a repeated header wins
            msg.insert(key, parts[1].trimmed());
        }
        replyBytes += line.size();
        if (replyBytes > kMaxReply) {
            client.log(QStringLiteral("reply headers over %1 bytes, dropped").arg(kMaxReply));
            msg.clear();
            replyBytes = 0;
        }
        return;
    }

    // The body is whatever came with the header; its length isn't checked
    // and a body in a later segment isn't waited for.
    if (msg.contains(QStringLiteral("Content-Length"))) {
        QByteArray body = in.readAll();
        const int zero = body.indexOf('\0');
        if (zero >= 0) body.truncate(zero);
        msg.insert(QStringLiteral("Content"), QString::fromUtf8(body));
    }
    const QMap<QString, QString> whole = msg;
    msg.clear();
    replyBytes = 0;
    client.reply(whole);
}

RtspReader::Result RtspReader::readFrames(RtspByteSource& in)
{
    if (inMessage) {
        readReplies(in);
        if (inMessage) return Done;
    }
    char scratch[kScratch];
    while (client.sessionStep() == 5 && in.connected() && in.available() > 0) {
        if (remaining == 0 && !discarding) {
            const int need = 4 - frameHeaderLen;
            if (need > 0) {
                const int64_t n = in.read(frameHeader + frameHeaderLen, need);
                if (n <= 0) break;
                frameHeaderLen += int(qMin<int64_t>(n, need));
                if (frameHeaderLen < 4) continue;
            }
            // The header stays as it is: every later read, in this session
            // and the next, stops here again.
            if (frameHeader[0] != '$') {
                if (interop) {
                    if (strayHeader()) {
                        readReplies(in);
                        if (inMessage) return Done;
                    }
                    continue;
                }
                client.log(QStringLiteral("ERROR"));
                return BadFrame;
            }
            const auto* h = reinterpret_cast<const uint8_t*>(frameHeader);
            frameChannel = h[1];
            remaining = h[2] * 256 + h[3];
            frameLen = 0;
            frameBuf = client.frameBuffer(remaining);
            if (!frameBuf && remaining > 0) {
                client.log(QStringLiteral("no buffer for a frame of %1 bytes on channel %2, "
                                          "dropped")
                               .arg(remaining)
                               .arg(frameChannel));
                discarding = true;
            }
            if (frameChannel == 3) client.keepAliveDue();
            frameHeaderLen = 0;
        }
        if (remaining > 0) {
            const int64_t n = discarding
                                  ? in.read(scratch, qMin<int64_t>(remaining, sizeof scratch))
                                  : in.read(frameBuf + frameLen, remaining);
            if (n <= 0) break;
            remaining -= int32_t(n);
            if (!discarding) frameLen += int32_t(n);
            if (remaining == 0) finishFrame();
        }
    }
    return Done;
}

void RtspReader::finishFrame()
{
    const uint8_t channel = frameChannel;
    if (discarding) {
        discarding = false;
        client.frame(channel, nullptr, 0);
        return;
    }
    char* buf = frameBuf;
    int len = frameLen;
    if (static_cast<uint8_t>(buf[0]) & 0x20) {
        const int pad = static_cast<uint8_t>(buf[len - 1]);
        if (pad > len) {
            client.log(QStringLiteral("%1 bytes of padding in a frame of %2 on channel %3, "
                                      "dropped")
                           .arg(pad)
                           .arg(len)
                           .arg(channel));
            client.frame(channel, nullptr, 0);
            return;
        }
        len -= pad;
    }
    client.frame(channel, buf, len);
}
