#include "input/VeskInputFile.h"

#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"
#include "input/VeskAvUtil.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <QDebug>
#include <QThread>
#include <QTimerEvent>
#include <cstring>

VESK_REGISTER(VeskInputFile)

namespace {

// No single FFmpeg call on a file takes this long; a "path" that names a
// stalled network peer is given up after it instead of freezing the node.
constexpr int64_t kCallLimitMs = 10000;
// Seek targets beyond this (about 35 years) are nonsense; clamping keeps the
// arithmetic on them defined.
constexpr qint64 kMaxSeekMs = qint64(1) << 40;

int64_t hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

bool startsWith4(const char* p, int size)
{
    return size >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1;
}

}  // namespace

VeskInputFile::VeskInputFile(QObject* parent) : VeskObject(parent)
{
    data.insert(QStringLiteral("memSize"), 10240000);
    data.insert(QStringLiteral("sync"), true);
    shareDepth = 2;
    packet = av_packet_alloc();
}

VeskInputFile::~VeskInputFile()
{
    if (timerId != -1) killTimer(timerId);
    closeFile();
    av_packet_free(&packet);
}

void VeskInputFile::logLine(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

void VeskInputFile::closeFile()
{
    if (context) {
        avformat_close_input(&context);
        avformat_free_context(context);  // null by now
        context = nullptr;
    }
    startTime = position = firstPts = lastPts = -1;
    seekOffset = hostOffset = 0;
}

void VeskInputFile::onStart() {}

void VeskInputFile::onStop()
{
    data.insert(QStringLiteral("path"), QString());
    closeFile();
    if (timerId != -1) {
        killTimer(timerId);
        timerId = -1;
    }
}

void VeskInputFile::onSetData(QMap<QString, QVariant> newData)
{
    syncOn = data.value(QStringLiteral("sync")).toBool();
    if (!newData.contains(QStringLiteral("path"))) return;
    // A file that plays is replaced without a break: the timer goes on.
    if (context) closeFile();

    paused = false;
    audioIndex = videoIndex = -1;
    extradata.clear();
    context = avformat_alloc_context();
    if (!context) {
        logLine(QStringLiteral("out of memory for a format context"));
        return;
    }
    VeskAv::Deadline::install(context, &deadline);
    const QString path = data.value(QStringLiteral("path")).toString();
    deadline.arm(kCallLimitMs);
    const int opened = avformat_open_input(&context, path.toUtf8().constData(), nullptr, nullptr);
    if (opened < 0) {
        deadline.disarm();
        context = nullptr;  // freed by FFmpeg
        logLine(QStringLiteral("can not open url: %1").arg(path));
        return;
    }
    deadline.arm(kCallLimitMs);
    const int found = avformat_find_stream_info(context, nullptr);
    deadline.disarm();
    if (found < 0) {
        logLine(QStringLiteral("can not find info"));
        return;
    }

    // Cover art in an MP3 shows up as a video stream of one picture.
    const bool mp3 = path.endsWith(QLatin1String(".mp3"));
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVMediaType kind = context->streams[i]->codecpar->codec_type;
        if (kind == AVMEDIA_TYPE_AUDIO)
            audioIndex = static_cast<int>(i);
        else if (kind == AVMEDIA_TYPE_VIDEO && !mp3)
            videoIndex = static_cast<int>(i);
    }
    if (audioIndex < 0 && videoIndex < 0) {
        logLine(QStringLiteral("no vaild stream"));
        return;
    }

    if (audioIndex >= 0) {
        const AVStream* st = context->streams[audioIndex];
        infoA.type = VeskAv::audioType(st->codecpar->codec_id, false, infoA.type);
        infoA.params = VeskAv::audioParams(st);
        sendInfoA(infoA);
    }
    if (videoIndex >= 0) {
        const AVStream* st = context->streams[videoIndex];
        infoV.type = VeskAv::videoType(st->codecpar->codec_id, infoV.type);
        infoV.params = VeskAv::videoParams(st);
        infoV.params.insert(QStringLiteral("time"), static_cast<qint64>(hostNow()));
        const AVCodecParameters* par = st->codecpar;
        if (par->extradata && par->extradata_size > 0)
            extradata = VeskAv::annexBParameterSets(
                QByteArray(reinterpret_cast<const char*>(par->extradata), par->extradata_size));
        sendInfoV(infoV);
    }

    // Without pacing the first packets would reach downstream before it has
    // taken the announcement.
    if (!syncOn) QThread::usleep(20000);
    logLine(QStringLiteral("Open ok %1").arg(path));
    if (!syncOn) QThread::usleep(50000);

    deadline.arm(kCallLimitMs);
    av_read_play(context);
    if (videoIndex >= 0) av_seek_frame(context, videoIndex, 0, AVSEEK_FLAG_FRAME);
    deadline.disarm();
    if (timerId == -1) timerId = startTimer(5, Qt::CoarseTimer);
}

void VeskInputFile::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != timerId || timerId == -1) {
        VeskObject::timerEvent(event);
        return;
    }
    if (paused || !context) return;
    now = hostNow();
    // One packet a tick at most, and only once the host clock has run as
    // far as the file's time of the last packet read.
    if (syncOn && lastPts != -1 && now - startTime < lastPts - firstPts) return;

    deadline.arm(kCallLimitMs);
    const int r = av_read_frame(context, packet);
    deadline.disarm();
    if (r < 0) {
        if (!syncOn) QThread::usleep(50000);
        data.insert(QStringLiteral("path"), QString());
        sendEvent(QStringLiteral("EOF"), 0);
        killTimer(timerId);
        timerId = -1;
        return;
    }
    if (packet->size >= 1) {
        if (startTime == -1) startTime = now;
        if (packet->stream_index == audioIndex)
            handleAudio(packet);
        else if (packet->stream_index == videoIndex)
            handleVideo(packet);
    }
    av_packet_unref(packet);
}

void VeskInputFile::handleAudio(AVPacket* pkt)
{
    const int den = context->streams[audioIndex]->time_base.den;
    int64_t t = lastAudioT;
    if (pkt->pts != AV_NOPTS_VALUE)
        t = VeskAv::toMicros(pkt->pts, den) + seekOffset;
    else if (pkt->dts != AV_NOPTS_VALUE)
        t = VeskAv::toMicros(pkt->dts, den) + seekOffset;
    lastAudioT = t;

    if (videoIndex < 0) {
        // Audio alone is the master of the pacing.
        if (firstPts == -1) firstPts = t;
        lastPts = t;
        if (hostOffset == 0) hostOffset = hostNow() - t;
    } else if (hostOffset <= 0) {
        return;
    }
    Packet out;
    out.data = bufferData(reinterpret_cast<char*>(pkt->data), pkt->size, 20);
    if (!out.data) return;
    out.len = pkt->size;
    out.pts = t + hostOffset;
    out.dts = -1;
    out.frameType = 3;
    sendPacketA(out);
}

void VeskInputFile::handleVideo(AVPacket* pkt)
{
    const bool key = pkt->flags == AV_PKT_FLAG_KEY;
    const int size = pkt->size;
    const char* src = reinterpret_cast<const char*>(pkt->data);

    Packet out;
    int lead = 0;
    if (key && infoV.type == TypeH264 && size > 4 && (src[4] & 0x0f) != 7) lead = extradata.size();
    out.data = bufferData(lead ? nullptr : const_cast<char*>(src), lead + size, 20);
    if (!out.data) return;
    if (lead) {
        std::memcpy(out.data, extradata.constData(), lead);
        std::memcpy(out.data + lead, src, size);
    }
    out.len = lead + size;
    // Whatever the codec: a unit that does not open with a four-byte start
    // code is a run of lengths, and a broken length drops the packet.
    char* unit = out.data + lead;
    if (!startsWith4(unit, size) &&
        !VeskAv::lengthsToStartCodesStrict(reinterpret_cast<uint8_t*>(unit), size))
        return;
    out.frameType = key ? 0 : 1;

    const int den = context->streams[videoIndex]->time_base.den;
    if (pkt->pts != AV_NOPTS_VALUE)
        position = VeskAv::toMicros(pkt->pts, den);
    else if (pkt->dts != AV_NOPTS_VALUE)
        position = VeskAv::toMicros(pkt->dts, den);
    const int64_t t = position + seekOffset;
    const bool hasDts = pkt->dts != AV_NOPTS_VALUE;
    const int64_t u = hasDts ? VeskAv::toMicros(pkt->dts, den) + seekOffset : -1;

    if (firstPts == -1) firstPts = t;
    lastPts = t;
    if (hostOffset == 0) hostOffset = hostNow() - t;
    out.pts = t + hostOffset;
    out.dts = hasDts && u != -1 ? u + hostOffset : -1;
    sendPacketV(out);
}

QVariant VeskInputFile::seek(QVariant milliseconds)
{
    if (!context) return false;
    if (videoIndex < 0) {
        logLine(QStringLiteral("seek needs a video stream, none in this file"));
        return true;
    }
    const qint64 ms = qBound(-kMaxSeekMs, milliseconds.toLongLong(), kMaxSeekMs);
    const int den = context->streams[videoIndex]->time_base.den;
    // ms * den / 1000, split so that no product leaves 64 bits (the board has
    // no 128-bit type); both parts carry the sign of ms, so it truncates alike.
    const int64_t target = (ms / 1000) * den + (ms % 1000) * den / 1000;
    deadline.arm(kCallLimitMs);
    const int r = av_seek_frame(context, videoIndex, target, AVSEEK_FLAG_FRAME);
    deadline.disarm();
    if (r < 0) logLine(QStringLiteral("seek to %1 ms failed").arg(ms));
    seekOffset += position - ms * 1000;
    return true;
}

QVariant VeskInputFile::pause(QVariant value)
{
    paused = value.toBool();
    if (context) {
        if (paused) {
            if (timerId != -1) killTimer(timerId);
            timerId = -1;
        } else if (timerId == -1) {
            timerId = startTimer(5, Qt::CoarseTimer);
        }
    }
    return context != nullptr;
}

QVariant VeskInputFile::getPosition()
{
    return static_cast<qint64>(position / 1000);
}

QVariant VeskInputFile::getDuration(QVariant pathValue)
{
    const QString path = pathValue.toString();
    AVFormatContext* ctx = avformat_alloc_context();
    if (!ctx) return static_cast<qint64>(0);
    VeskAv::Deadline limit;
    VeskAv::Deadline::install(ctx, &limit);
    limit.arm(kCallLimitMs);
    if (avformat_open_input(&ctx, path.toUtf8().constData(), nullptr, nullptr) < 0) {
        logLine(QStringLiteral("can not open url: %1").arg(path));
        return static_cast<qint64>(0);
    }
    // These containers state the duration in their header.
    if (!path.endsWith(QLatin1String("mp4")) && !path.endsWith(QLatin1String("mov")) &&
        !path.endsWith(QLatin1String("mkv"))) {
        limit.arm(kCallLimitMs);
        if (avformat_find_stream_info(ctx, nullptr) < 0) {
            logLine(QStringLiteral("can not find info"));
            avformat_close_input(&ctx);
            return static_cast<qint64>(0);
        }
    }
    const int64_t duration = ctx->duration;
    avformat_close_input(&ctx);
    avformat_free_context(ctx);
    return static_cast<qint64>(duration / 1000);
}
