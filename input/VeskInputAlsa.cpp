#include "input/VeskInputAlsa.h"

#include <QDebug>
#include <QFile>
#include <QTimerEvent>
#include <algorithm>
#include <mutex>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
}

#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "input/AlsaResolver.h"

VESK_REGISTER(VeskInputAlsa)

namespace {

// Each held packet pins a buffer of the pool; a line longer than this
// would only starve the sender.
constexpr int kMaxDelayPackets = 4096;

const AVInputFormat* alsaFormat()
{
    static std::once_flag once;
    std::call_once(once, [] { avdevice_register_all(); });
    return av_find_input_format("alsa");
}

}  // namespace

VeskInputAlsa::VeskInputAlsa(QObject* parent) : VeskObject(parent)
{
    data["memSize"] = 1024000;
    data["samplerate"] = 48000;
    data["channels"] = 1;
    data["delay"] = 0;
    data["path"] = "hw:0,0";
    data["bufLenA"] = 400;
    shareDepth = 4;
    connect(&retryTimer, &QTimer::timeout, this, &VeskInputAlsa::onTimerRetry);
}

VeskInputAlsa::~VeskInputAlsa()
{
    closeAlsa();
}

void VeskInputAlsa::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

bool VeskInputAlsa::findAlsaDev()
{
    return AlsaResolver::findAlsaDev(data, card);
}

QString VeskInputAlsa::busToPath(QString bus)
{
    return AlsaResolver::busToPath(data["path"].toString(), bus, card);
}

QString VeskInputAlsa::idToPath(QString id)
{
    return AlsaResolver::idToPath(data["path"].toString(), id, card);
}

QString VeskInputAlsa::lkToPath(QString lnk)
{
    return AlsaResolver::lkToPath(data["path"].toString(), lnk, card);
}

void VeskInputAlsa::trimQueue()
{
    const int keep = std::max(delayPackets, 0);
    if (packetsA.size() <= keep) return;
    while (!lockA.tryLockForWrite(10)) {
    }
    while (packetsA.size() > keep) packetsA.removeFirst();
    lockA.unlock();
}

void VeskInputAlsa::onSetData(QMap<QString, QVariant>)
{
    AlsaResolver::applyInterface(data);
    // Held inside what the stamp's member can carry (about 35 minutes).
    delayUs = int32_t(qBound<qint64>(INT32_MIN, qint64(data["delay"].toInt()) * 1000, INT32_MAX));
    if (data.contains("delay2")) {
        const qint64 packets = qint64(data["delay2"].toInt()) * 8;
        if (packets > kMaxDelayPackets)
            log(QStringLiteral("\"delay2\" of %1 held to %2 packets")
                    .arg(data["delay2"].toString())
                    .arg(kMaxDelayPackets));
        delayPackets = int32_t(std::min<qint64>(packets, kMaxDelayPackets));
    }
    trimQueue();
}

void VeskInputAlsa::onStart()
{
    if (opened) return;
    init();
    if (!retryTimer.isActive()) retryTimer.start(2000);
}

void VeskInputAlsa::init()
{
    // A context left by an earlier attempt that stopped short is used again.
    if (!ctx) ctx = avformat_alloc_context();
    const AVInputFormat* format = alsaFormat();
    if (!format) {
        log("no alsa");
        return;
    }
    if (!findAlsaDev()) return;

    if (card != -1 && data["channels"].toInt() == -1) {
        const QString stream0 = QStringLiteral("/proc/asound/card%1/stream0").arg(card);
        if (vsys::exists(stream0)) {
            QFile f(vsys::path(stream0));
            AlsaResolver::captureFormat(
                f.open(QIODevice::ReadOnly) ? f.read(1 << 16) : QByteArray(), data);
        }
    }

    AVDictionary* options = nullptr;
    av_dict_set(&options, "sample_rate", data["samplerate"].toString().toLatin1().constData(), 0);
    av_dict_set(&options, "channels", data["channels"].toString().toLatin1().constData(), 0);
    const QByteArray path = data["path"].toString().toLocal8Bit();
    const int r = avformat_open_input(&ctx, path.constData(), format, &options);
    av_dict_free(&options);
    if (r < 0) {
        log(QStringLiteral("can not open device: %1").arg(QString::fromLocal8Bit(path)));
        avformat_free_context(ctx);  // already gone when the open failed
        ctx = nullptr;
        return;
    }
    if (ctx->nb_streams > 0) ctx->streams[0]->codecpar->format = AV_SAMPLE_FMT_S16;

    infoA.type = TypeRaw;
    infoA.params["samplerate"] = data["samplerate"];
    infoA.params["channels"] = data["channels"];
    sendInfoA(infoA);

    if (timerId == -1) timerId = startTimer(0, Qt::CoarseTimer);
    opened = true;
    log(QStringLiteral("ALSA open done %1").arg(QString::fromLocal8Bit(path)));
}

void VeskInputAlsa::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != timerId) {
        VeskObject::timerEvent(event);
        return;
    }
    if (!ctx) return;
    AVPacket* read = av_packet_alloc();
    if (!read) return;
    // A read error is not the end: the retry timer decides from the card's
    // entry whether it is gone.
    if (av_read_frame(ctx, read) < 0 || read->size <= 0) {
        av_packet_free(&read);
        return;
    }
    Packet packet;
    packet.data = bufferData(reinterpret_cast<char*>(read->data), read->size, 10);
    packet.len = read->size;
    packet.frameType = 3;
    packet.dts = -1;
    packet.pts = VeskHi::getPTS(nullptr, false) + delayUs;
    av_packet_free(&read);
    if (!packet.data) return;

    if (delayPackets < 1) {
        sendPacketA(packet);
        return;
    }
    bufferPacketA(packet);
    if (packetsA.size() > delayPackets) {
        while (!lockA.tryLockForWrite(10)) {
        }
        const Packet oldest = packetsA.takeFirst();
        lockA.unlock();
        sendPacketA(oldest);
    }
}

void VeskInputAlsa::onTimerRetry()
{
    if (!findAlsaDev() || card == -1) return;
    const bool present = vsys::exists(QStringLiteral("/sys/class/sound/card%1").arg(card));
    if (!opened && present) {
        init();
    } else if (opened && !present) {
        log(QStringLiteral("card %1 is gone: capture closed").arg(card));
        closeAlsa();
    }
}

void VeskInputAlsa::closeAlsa()
{
    if (timerId != -1) {
        killTimer(timerId);
        timerId = -1;
    }
    if (ctx) {
        avformat_close_input(&ctx);
        avformat_free_context(ctx);
        ctx = nullptr;
    }
    card = -1;
    opened = false;
}

void VeskInputAlsa::onStop()
{
    if (retryTimer.isActive()) retryTimer.stop();
    closeAlsa();
}
