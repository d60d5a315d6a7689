#include "output/VeskOutputAlsa.h"

#include <alsa/asoundlib.h>

#include <QDebug>
#include <QMetaObject>
#include <algorithm>
#include <cstring>

#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "input/AlsaResolver.h"

VESK_REGISTER(VeskOutputAlsa)

namespace {

constexpr int kBufferBytes = 12288;
// Silence written ahead of the stream, counted as 16-bit samples.
constexpr int kPrimeBytes = 4096;
constexpr unsigned kMaxBufferUs = 500000;
// Each kept packet pins a buffer of the sender's pool.
constexpr int kMaxDelayPackets = 2048;

}  // namespace

VeskOutputAlsa::VeskOutputAlsa(QObject* parent) : VeskObject(parent), buffer(kBufferBytes, 0)
{
    data["path"] = "hw:0,0";
    data["bufLenA"] = 50;
    shareName = "shareA";
    shareDepth = 4;
    connect(&retryTimer, &QTimer::timeout, this, &VeskOutputAlsa::onTimerRetry);
}

VeskOutputAlsa::~VeskOutputAlsa()
{
    closeAlsa();
}

void VeskOutputAlsa::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

bool VeskOutputAlsa::findAlsaDev()
{
    return AlsaResolver::findAlsaDev(data, card);
}

QString VeskOutputAlsa::busToPath(QString bus)
{
    return AlsaResolver::busToPath(data["path"].toString(), bus, card);
}

QString VeskOutputAlsa::idToPath(QString id)
{
    return AlsaResolver::idToPath(data["path"].toString(), id, card);
}

QString VeskOutputAlsa::lkToPath(QString lnk)
{
    return AlsaResolver::lkToPath(data["path"].toString(), lnk, card);
}

void VeskOutputAlsa::onNewInfoA(VeskObject::StreamInfo info)
{
    if (info.type != TypeRaw) return;
    rate = info.params["samplerate"].toInt();
    if (info.params.contains("channels")) channels = info.params["channels"].toInt();
    if (!opened && rate != 0 && channels != 0) {
        init();
        if (!retryTimer.isActive()) retryTimer.start(2000);
    }
}

void VeskOutputAlsa::onStart()
{
    // A raw stream opens the device by its own announcement.
    if (keptInfoA.type == TypeRaw) return;
    if (opened || rate == 0 || channels == 0) return;
    init();
    if (!retryTimer.isActive()) retryTimer.start(2000);
}

void VeskOutputAlsa::init()
{
    if (!findAlsaDev()) return;
    if (handle) closeAlsa();
    deviceChannels = 0;

    const QByteArray path = data["path"].toString().toLocal8Bit();
    int r = snd_pcm_open(&handle, path.constData(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (r < 0) {
        log(QStringLiteral("unable to open pcm device: %1").arg(snd_strerror(r)));
        handle = nullptr;
        return;
    }
    auto fail = [this](const char* what, int err) {
        log(QStringLiteral("%1%2").arg(QLatin1String(what),
                                       QString::fromLocal8Bit(snd_strerror(err))));
    };

    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    snd_pcm_hw_params_any(handle, params);
    if ((r = snd_pcm_hw_params_set_access(handle, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0)
        return fail("unable to set access: ", r);

    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    snd_pcm_hw_params_get_format(params, &format);
    if ((r = snd_pcm_hw_params_set_format(handle, params, SND_PCM_FORMAT_S16_LE)) < 0) {
        if (format != SND_PCM_FORMAT_S24_3LE) return fail("unable to set format: ", r);
        packed24 = true;
    }
    if ((r = snd_pcm_hw_params_set_channels(handle, params, unsigned(channels))) < 0)
        return fail("unable to set hw channels: ", r);
    unsigned wantRate = unsigned(rate);
    if ((r = snd_pcm_hw_params_set_rate_near(handle, params, &wantRate, nullptr)) < 0)
        return fail("unable to set hw rate_near: ", r);

    periodFrames = data.value("num").toInt();
    if (periodFrames < 1) {
        unsigned bufferUs = 0, periodUs = 0;
        snd_pcm_hw_params_get_buffer_time_max(params, &bufferUs, nullptr);
        if (bufferUs <= kMaxBufferUs) {
            periodUs = bufferUs / 4;
        } else {
            bufferUs = kMaxBufferUs;
            periodUs = kMaxBufferUs / 4;
        }
        if ((r = snd_pcm_hw_params_set_buffer_time_near(handle, params, &bufferUs, nullptr)) < 0)
            return fail("Failed to set PCM device to buffer time: ", r);
        if ((r = snd_pcm_hw_params_set_period_time_near(handle, params, &periodUs, nullptr)) < 0)
            return fail("Failed to set PCM device to period time: ", r);
    } else {
        snd_pcm_uframes_t frames = snd_pcm_uframes_t(periodFrames) * 10;
        if ((r = snd_pcm_hw_params_set_period_size_near(handle, params, &frames, nullptr)) < 0)
            return fail("unable to set hw period size: ", r);
    }
    if ((r = snd_pcm_hw_params(handle, params)) < 0)
        return fail("unable to set hw parameters: ", r);

    deviceChannels = channels;
    clampWarned = false;
    // A cushion against the first underrun.
    std::fill(buffer.begin(), buffer.end(), 0);
    for (int i = 0; i < 3; ++i)
        snd_pcm_writei(handle, buffer.data(), snd_pcm_uframes_t((kPrimeBytes / channels) / 2));
    opened = true;
}

void VeskOutputAlsa::onNewPacketA(VeskObject::Packet packet)
{
    if (!handle) return;
    if (bufferPacketA(packet)) QMetaObject::invokeMethod(this, "doSend", Qt::AutoConnection);
}

void VeskOutputAlsa::doSend()
{
    while (packetsA.size() > delayPackets) {
        if (!handle) return;
        while (!lockA.tryLockForWrite(10)) {
        }
        if (packetsA.isEmpty()) {
            lockA.unlock();
            return;
        }
        const Packet packet = packetsA.takeFirst();
        lockA.unlock();

        if (packet.len < 0 || !packet.data) continue;
        // Frames as the stream announced its channels (at least one, so that
        // nothing divides by zero). The device reads as many samples a frame
        // as it was set up with: a count that would take it past the payload
        // (or its widened copy) is held to what is there.
        const int samples = packet.len / 2;
        const snd_pcm_uframes_t want = snd_pcm_uframes_t((packet.len / std::max(channels, 1)) / 2);
        const snd_pcm_uframes_t frames =
            std::min(want, snd_pcm_uframes_t(samples / std::max(deviceChannels, 1)));
        if (frames < want && !clampWarned) {
            log(QStringLiteral("stream of %1 channels on a device of %2: frames beyond the "
                               "packet dropped")
                    .arg(channels)
                    .arg(deviceChannels));
            clampWarned = true;
        }
        snd_pcm_sframes_t r;
        if (packed24) {
            if (int64_t(samples) * 3 > int64_t(buffer.size())) {
                log(QStringLiteral("packet of %1 bytes is too long for 24-bit output: dropped")
                        .arg(packet.len));
                continue;
            }
            const auto* in = reinterpret_cast<const unsigned char*>(packet.data);
            char* out = buffer.data();
            for (int i = 0; i < samples; ++i) {
                out[3 * i] = 0;
                out[3 * i + 1] = char(in[2 * i]);
                out[3 * i + 2] = char(in[2 * i + 1]);
            }
            r = snd_pcm_writei(handle, buffer.data(), frames);
        } else {
            r = snd_pcm_writei(handle, packet.data, frames);
        }
        if (r < 0) {
            log(QStringLiteral("write failed: %1").arg(snd_strerror(int(r))));
            closeAlsa();
            init();
            break;
        }
    }
}

void VeskOutputAlsa::onSetData(QMap<QString, QVariant>)
{
    AlsaResolver::applyInterface(data);
    const int delay = data.value("delay").toInt();
    if (delay > kMaxDelayPackets)
        log(QStringLiteral("\"delay\" of %1 packets held to %2").arg(delay).arg(kMaxDelayPackets));
    delayPackets = std::min(delay, kMaxDelayPackets);
    const int keep = std::max(delayPackets, 0);
    if (packetsA.size() > keep) {
        while (!lockA.tryLockForWrite(10)) {
        }
        while (packetsA.size() > keep) packetsA.removeFirst();
        lockA.unlock();
    }
}

void VeskOutputAlsa::onTimerRetry()
{
    if (!findAlsaDev() || card == -1) return;
    const bool present = vsys::exists(QStringLiteral("/sys/class/sound/card%1").arg(card));
    if (!opened && present) {
        init();
    } else if (opened && !present) {
        log(QStringLiteral("card %1 is gone: playback closed").arg(card));
        closeAlsa();
    }
}

void VeskOutputAlsa::closeAlsa()
{
    if (handle) {
        // The board's ALSA also wanted snd_pcm_hw_free here; a stock library
        // has freed the handle in snd_pcm_close already.
        snd_pcm_drain(handle);
        snd_pcm_close(handle);
        handle = nullptr;
    }
    opened = false;
    card = -1;
}

void VeskOutputAlsa::onStop()
{
    if (retryTimer.isActive()) retryTimer.stop();
    closeAlsa();
}
