#include "input/VeskInputNet.h"

#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"
#include "input/VeskAvStream.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <QTimerEvent>
#include <climits>
#include <cstring>
#include <mutex>

VESK_REGISTER(VeskInputNet)

QThread* VeskInputNet::timerThread = nullptr;
QTimer* VeskInputNet::timerTimeout = nullptr;

namespace {

// In "sync" operation a packet is held until the host clock reaches its
// dts. A dts further ahead than this is a jump in the stream's time (or a
// sender's clock far from ours), not a rate to keep: waiting would stall the
// node for as long, so the packet goes at once.
constexpr int64_t kMaxPaceWaitUs = 5000000;
// The wait before the first frame is configuration; keep it from stalling
// the node for good.
constexpr int kMaxFirstFrameDelayMs = 10000;

int64_t hostNow()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

QString fferror(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

// Ends the shared timer's thread before the application's objects go, so
// that no tick runs into a process that is tearing down.
void stopTimerThread()
{
    QThread* t = VeskInputNet::timerThread;
    QTimer* timer = VeskInputNet::timerTimeout;
    if (!t || !t->isRunning()) return;
    QMetaObject::invokeMethod(
        timer, [timer] { timer->stop(); }, Qt::BlockingQueuedConnection);
    t->quit();
    t->wait();
}

bool startsWith4(const uint8_t* p, int size)
{
    return size >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1;
}

bool startsWith3(const uint8_t* p, int size)
{
    return size >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1;
}

}  // namespace

VeskInputNet::VeskInputNet(QObject* parent) : VeskObject(parent), timerRetry(this)
{
    data.insert(QStringLiteral("protocol"), QStringLiteral("tcp"));
    data.insert(QStringLiteral("timeout"), 10);
    data.insert(QStringLiteral("memSize"), 8192000);
    data.insert(QStringLiteral("timestampMode"), QStringLiteral("auto"));
    data.insert(QStringLiteral("state"), QStringLiteral("unknow"));
    data.insert(QStringLiteral("buffer"), true);
    data.insert(QStringLiteral("sync"), false);
    data.insert(QStringLiteral("maxDelay"), 5000);
    data.insert(QStringLiteral("minDelay"), -1);
    data.insert(QStringLiteral("skipError"), true);
    shareDepth = 2;

    timerRetry.setSingleShot(true);
    connect(&timerRetry, &QTimer::timeout, this, &VeskInputNet::reconnect, Qt::QueuedConnection);

    static std::once_flag once;
    std::call_once(once, [] {
        timerThread = new QThread;
        timerThread->setObjectName(QStringLiteral("VeskInputNet timer"));
        timerTimeout = new QTimer;
        timerTimeout->setInterval(1000);
        timerTimeout->moveToThread(timerThread);
        connect(timerThread, &QThread::started, timerTimeout,
                static_cast<void (QTimer::*)()>(&QTimer::start));
        qAddPostRoutine(stopTimerThread);
    });

    packet = av_packet_alloc();
    clock.firstFrameDelay = [this](int ms) {
        if (ms > kMaxFirstFrameDelayMs) {
            logLine(QStringLiteral("minDelay %1 ms is too long, waiting %2 ms")
                        .arg(ms)
                        .arg(kMaxFirstFrameDelayMs));
            ms = kMaxFirstFrameDelayMs;
        }
        QThread::usleep(static_cast<unsigned long>(ms) * 1000);
        logLine(QStringLiteral("delay %1 ms").arg(ms));
        // Our own wait is not silence of the stream.
        gotData.store(true, std::memory_order_relaxed);
        return hostNow();
    };
    refreshSettings();
}

VeskInputNet::~VeskInputNet()
{
    running = false;
    timerRetry.stop();
    closeNet();
    if (timerTimeout) {
        disconnect(timerTimeout, &QTimer::timeout, this, &VeskInputNet::onTimerTimeout);
        // A tick may be on its way through the node in the timer's thread;
        // one round trip through that thread waits it out.
        if (timerThread && timerThread->isRunning() && QThread::currentThread() != timerThread)
            QMetaObject::invokeMethod(
                timerTimeout, [] {}, Qt::BlockingQueuedConnection);
    }
    av_packet_free(&packet);
}

void VeskInputNet::logLine(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

void VeskInputNet::refreshSettings()
{
    syncOn = data.value(QStringLiteral("sync")).toBool();
    skipError = data.value(QStringLiteral("skipError")).toBool();
    clock.mode = timestampMode;
    clock.sync = syncOn;
    clock.driftControl = driftControl;
    clock.minDelayMs = data.value(QStringLiteral("minDelay")).toInt();
}

void VeskInputNet::onSetData(QMap<QString, QVariant> newData)
{
    const QString mode = data.value(QStringLiteral("timestampMode")).toString();
    if (mode == QLatin1String("auto"))
        timestampMode = 0;
    else if (mode == QLatin1String("local"))
        timestampMode = 2;
    else if (mode == QLatin1String("sync"))
        timestampMode = 3;
    // HLS carries the playlist's own time, and "sync" paces by the stream's
    // time: in both the offset must not be pulled towards the host clock.
    driftControl = !(data.value(QStringLiteral("sync")).toBool() ||
                     data.value(QStringLiteral("path")).toString().contains(QLatin1String("m3u8")));
    refreshSettings();
    if (data.value(QStringLiteral("state")).toString() == QLatin1String("opened") &&
        (newData.contains(QStringLiteral("path")) ||
         newData.contains(QStringLiteral("timestampMode"))))
        reconnect();
}

void VeskInputNet::onStart()
{
    running = true;
    if (timerThread && !timerThread->isRunning()) timerThread->start();
    if (context) return;
    if (!init()) {
        sendEvent(QStringLiteral("error"), data.value(QStringLiteral("path")).toString());
        reconnect();
    }
}

void VeskInputNet::onStop()
{
    running = false;
    timerRetry.stop();
    closeNet();
    clock.offsetA = clock.offsetV = 0;
    clock.driftCount = 0;
}

bool VeskInputNet::init()
{
    needKey = true;
    audioIndex = videoIndex = -1;
    clock.dropped = 0;
    lengthPrefixed = 0;
    gotData.store(false);
    silentTicks.store(0);
    clock.driftCount = 0;
    clock.offsetA = clock.offsetV = 0;
    paceWarned = false;
    lastVideoP = 0;
    closeNet();

    if (timerTimeout)
        connect(timerTimeout, &QTimer::timeout, this, &VeskInputNet::onTimerTimeout,
                static_cast<Qt::ConnectionType>(Qt::DirectConnection | Qt::UniqueConnection));

    data.insert(QStringLiteral("state"), QStringLiteral("opening"));
    context = avformat_alloc_context();
    if (!context) {
        logLine(QStringLiteral("out of memory for a format context"));
        return false;
    }

    AVDictionary* options = nullptr;
    const QString protocol = data.value(QStringLiteral("protocol")).toString().toLower();
    if (protocol == QLatin1String("tcp") || protocol == QLatin1String("udp"))
        av_dict_set(&options, "rtsp_transport", protocol.toLatin1().constData(), 0);
    if (!data.value(QStringLiteral("buffer")).toBool()) {
        av_dict_set(&options, "fflags", "nobuffer", 0);
    } else if (syncOn) {
        av_dict_set(&options, "buffer_size", "1024000", 0);
        av_dict_set(&options, "recv_buffer_size", "1024000", 0);
        context->max_delay = 80000;
    } else {
        const qint64 maxDelay = data.value(QStringLiteral("maxDelay")).toLongLong();
        const QByteArray size = QByteArray::number(qBound<qint64>(0, maxDelay * 10240, INT_MAX));
        av_dict_set(&options, "buffer_size", size.constData(), 0);
        av_dict_set(&options, "recv_buffer_size", size.constData(), 0);
        context->max_delay = static_cast<int>(qBound<qint64>(-1, maxDelay * 1000, INT_MAX));
    }

    timeoutSeconds.store(data.value(QStringLiteral("timeout")).toInt());
    context->interrupt_callback.callback = &VeskInputNet::interrupt_cb;
    context->interrupt_callback.opaque = this;

    if (data.contains(QStringLiteral("probesize")))
        av_dict_set(&options, "probesize",
                    data.value(QStringLiteral("probesize")).toString().toUtf8().constData(), 0);
    if (data.contains(QStringLiteral("analyze")))
        av_dict_set(&options, "analyzeduration",
                    data.value(QStringLiteral("analyze")).toString().toUtf8().constData(), 0);

    const QString path = data.value(QStringLiteral("path")).toString();
    const int opened = avformat_open_input(&context, path.toUtf8().constData(), nullptr, &options);
    av_dict_free(&options);
    if (opened < 0) {
        // FFmpeg has freed the context already.
        context = nullptr;
        logLine(QStringLiteral("can not open url: %1").arg(path));
        logLine(fferror(opened));
        return false;
    }
    if (!running) return false;
    if (avformat_find_stream_info(context, nullptr) < 0) {
        logLine(QStringLiteral("can not find info"));
        return false;
    }
    data.insert(QStringLiteral("state"), QStringLiteral("opened"));

    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream* st = context->streams[i];
        const AVMediaType kind = st->codecpar->codec_type;
        if (kind == AVMEDIA_TYPE_AUDIO && audioIndex < 0 && VeskAv::channelsOf(st) > 0)
            audioIndex = static_cast<int>(i);
        else if (kind == AVMEDIA_TYPE_VIDEO)
            videoIndex = static_cast<int>(i);
    }
    if (audioIndex < 0 && videoIndex < 0) {
        logLine(QStringLiteral("no vaild stream"));
        return false;
    }

    extradata.clear();
    if (videoIndex >= 0) {
        const AVCodecParameters* par = context->streams[videoIndex]->codecpar;
        if (par->extradata && par->extradata_size > 0)
            extradata = VeskAv::annexBParameterSets(
                QByteArray(reinterpret_cast<const char*>(par->extradata), par->extradata_size));
    }

    if (audioIndex >= 0) {
        const AVStream* st = context->streams[audioIndex];
        infoA.type = VeskAv::audioType(st->codecpar->codec_id, true, infoA.type);
        infoA.params = VeskAv::audioParams(st);
        if (infoA.type == TypeAAC &&
            infoA.params.value(QStringLiteral("extradata")).toByteArray().isEmpty()) {
            unsigned char dsi[2];
            make_dsi(get_sr_index(static_cast<unsigned>(st->codecpar->sample_rate)),
                     static_cast<unsigned>(VeskAv::channelsOf(st)), dsi);
            infoA.params.insert(QStringLiteral("extradata"),
                                QByteArray(reinterpret_cast<const char*>(dsi), 2));
        }
        sendInfoA(infoA);
    }
    if (videoIndex >= 0) {
        const AVStream* st = context->streams[videoIndex];
        infoV.type = VeskAv::videoType(st->codecpar->codec_id, infoV.type);
        infoV.params = VeskAv::videoParams(st);
        infoV.params.insert(QStringLiteral("time"), static_cast<qint64>(now));
        infoV.params.insert(QStringLiteral("sync"), timestampMode == 3);
        sendInfoV(infoV);
    }
    clock.hasVideo = videoIndex >= 0;
    clock.videoType = infoV.type;

    QThread::usleep(10000);
    if (timerId == -1) timerId = startTimer(0, Qt::CoarseTimer);
    logLine(QStringLiteral("open done %1").arg(path));

    QVariantMap ready;
    // What the node announced last, also for a kind this stream lacks.
    ready.insert(QStringLiteral("infoA"), VeskAv::withCodecName(infoA.params, infoA.type, true));
    ready.insert(QStringLiteral("infoV"), VeskAv::withCodecName(infoV.params, infoV.type, false));
    sendEvent(QStringLiteral("ready"), ready);
    return true;
}

void VeskInputNet::closeNet()
{
    data.insert(QStringLiteral("state"), QStringLiteral("closing"));
    if (timerId != -1) {
        killTimer(timerId);
        timerId = -1;
        if (timerTimeout)
            disconnect(timerTimeout, &QTimer::timeout, this, &VeskInputNet::onTimerTimeout);
    }
    if (context) {
        avformat_close_input(&context);
        avformat_free_context(context);  // null by now; kept for a context never opened
        context = nullptr;
    }
    data.insert(QStringLiteral("state"), QStringLiteral("closed"));
}

void VeskInputNet::reconnect()
{
    if (!running) return;
    timerRetry.stop();
    closeNet();
    clock.offsetA = clock.offsetV = 0;
    clock.driftCount = 0;
    if (init()) return;
    sendEvent(QStringLiteral("error"), data.value(QStringLiteral("path")).toString());
    closeNet();
    timerRetry.start(3000);
}

void VeskInputNet::onTimerTimeout()
{
    // Runs in the timer's thread while the node's thread may sit in FFmpeg.
    if (gotData.exchange(false, std::memory_order_relaxed))
        silentTicks.store(0, std::memory_order_relaxed);
    else
        silentTicks.fetch_add(1, std::memory_order_relaxed);
}

int VeskInputNet::interrupt_cb(void* opaque)
{
    auto* self = static_cast<VeskInputNet*>(opaque);
    return self->silentTicks.load(std::memory_order_relaxed) >
           self->timeoutSeconds.load(std::memory_order_relaxed);
}

QVariant VeskInputNet::getSpeed()
{
    const int64_t t = hostNow() / 1000;
    const int64_t elapsed = t - lastSpeedTime;
    lastSpeedTime = t;
    const int speed = VeskAv::bytesPerSecond(byteCount, elapsed);
    byteCount = 0;
    return QVariant(speed);
}

void VeskInputNet::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != timerId || timerId == -1) {
        VeskObject::timerEvent(event);
        return;
    }
    if (!context) return;
    readPacket();
}

void VeskInputNet::readPacket()
{
    const int r = av_read_frame(context, packet);
    if (r < 0) {
        if (!running) return;
        if (r == AVERROR_INVALIDDATA) {
            needKey = true;
            return;
        }
        logLine(QStringLiteral("timeout %1").arg(data.value(QStringLiteral("timeout")).toString()));
        logLine(fferror(r));
        sendEvent(QStringLiteral("timeout"), data.value(QStringLiteral("path")).toString());
        reconnect();
        return;
    }

    if (packet->flags > 1) logLine(QStringLiteral("packet.flags %1").arg(packet->flags));
    if (packet->flags & AV_PKT_FLAG_CORRUPT) logLine(QStringLiteral("AV_PKT_FLAG_CORRUPT PP"));
    if (packet->size < 1) {
        logLine(QStringLiteral("SIZE=0"));
        av_packet_unref(packet);
        return;
    }
    byteCount += packet->size;
    now = hostNow();

    if (packet->stream_index == audioIndex) {
        gotData.store(true, std::memory_order_relaxed);
        handleAudio(packet);
    } else if (packet->stream_index == videoIndex) {
        gotData.store(true, std::memory_order_relaxed);
        handleVideo(packet);
    }
    av_packet_unref(packet);
}

void VeskInputNet::handleAudio(AVPacket* pkt)
{
    const AVStream* st = context->streams[audioIndex];
    const int64_t ts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
    if (ts == AV_NOPTS_VALUE) return;  // a unit without any time cannot be placed
    const int64_t s = VeskAv::toMicros(ts, st->time_base.den);

    Packet out;
    if (!clock.audio(now, s, &out.pts)) return;
    out.data = bufferData(reinterpret_cast<char*>(pkt->data), pkt->size, 20);
    if (!out.data) return;
    out.len = pkt->size;
    out.dts = -1;
    out.frameType = 3;
    sendPacketA(out);
}

void VeskInputNet::handleVideo(AVPacket* pkt)
{
    if (pkt->flags & AV_PKT_FLAG_CORRUPT) {
        logLine(QStringLiteral("AV_PKT_FLAG_CORRUPT"));
        if (skipError) {
            needKey = true;
            return;
        }
    }

    const int type = infoV.type;
    const bool key = pkt->flags == AV_PKT_FLAG_KEY;
    if (type == TypeH264 || type == TypeH265) {
        if (av_packet_make_writable(pkt) < 0) {
            logLine(QStringLiteral("out of memory for a video packet"));
            return;
        }
        const bool four = startsWith4(pkt->data, pkt->size);
        const bool three = startsWith3(pkt->data, pkt->size);
        // Once a stream showed lengths, a packet that happens to begin
        // 0, 0, 1 is a length too.
        if (!four && !(three && lengthPrefixed != 2)) {
            lengthPrefixed = 2;
            VeskAv::lengthsToStartCodes(pkt->data, pkt->size);
        }
    }

    Packet out;
    const uint8_t* src = pkt->data;
    const int size = pkt->size;
    if (type == TypeH264 && key && size > 4 && (src[4] & 0x0f) != 7 && (src[4] & 0x0f) != 9 &&
        !extradata.isEmpty()) {
        const int total = extradata.size() + size;
        out.data = bufferData(nullptr, total, 20);
        if (!out.data) return;
        std::memcpy(out.data, extradata.constData(), extradata.size());
        std::memcpy(out.data + extradata.size(), src, size);
        out.len = total;
    } else if (type == TypeH265 && startsWith3(src, size)) {
        out.data = bufferData(nullptr, size + 1, 20);
        if (!out.data) return;
        out.data[0] = 0;
        std::memcpy(out.data + 1, src, size);
        out.len = size + 1;
    } else {
        out.data = bufferData(reinterpret_cast<char*>(pkt->data), size, 20);
        if (!out.data) return;
        out.len = size;
    }

    const int den = context->streams[videoIndex]->time_base.den;
    int64_t p = lastVideoP;
    if (pkt->pts != AV_NOPTS_VALUE)
        p = VeskAv::toMicros(pkt->pts, den);
    else if (pkt->dts != AV_NOPTS_VALUE)
        p = VeskAv::toMicros(pkt->dts, den);
    lastVideoP = p;
    const int64_t d = pkt->dts == AV_NOPTS_VALUE ? p : VeskAv::toMicros(pkt->dts, den);

    if (!clock.video(&now, p, d, key, reinterpret_cast<const uint8_t*>(out.data), out.len, &out.pts,
                     &out.dts))
        return;

    if (syncOn && now < out.dts) {
        if (out.dts - now > kMaxPaceWaitUs) {
            if (!paceWarned)
                logLine(QStringLiteral("dts %1 ms ahead of the clock, not waiting for it")
                            .arg((out.dts - now) / 1000));
            paceWarned = true;
        } else {
            // Busy on purpose: sleeping would overshoot by a scheduler tick,
            // and this wait is what paces a stream that comes too fast.
            while (now < out.dts) now = hostNow();
            gotData.store(true, std::memory_order_relaxed);
        }
    }

    if (!needKey) {
        out.frameType = key ? 0 : 1;
    } else {
        if (!key) return;
        out.frameType = 0;
        needKey = false;
    }
    sendPacketV(out);
}
