#include "output/VeskOutputAo.h"

#include <QDebug>
#include <QMetaObject>
#include <QtMath>
#include <cmath>
#include <cstring>

#include "frame/Vesk.h"
#include "frame/VeskRegister.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskOutputAo)

namespace {

constexpr uint32_t kBlockBytes = 4096;
// Frames queued for a device that stayed busy this many times in a row are
// dropped until it catches up.
constexpr int kBusyLimit = 200;
// Lets the device fill its buffer when playback starts.
constexpr int kStartGrace = -1000;
// A latency beyond this many packets would only pin the sender's buffers.
constexpr int kMaxDelayPackets = 2048;

int16_t toSample(float v)
{
    const double s = double(v) * 32767.0;
    if (!(s > -32768.0)) return s != s ? 0 : -32768;  // NaN is silence
    if (s >= 32767.0) return 32767;
    return int16_t(s);
}

}  // namespace

VeskOutputAo::VeskOutputAo(QObject* parent) : VeskObject(parent)
{
    data["samplerate"] = 48000;
    data["resamplerate"] = -1;
    data["mode"] = "i2ss";
    data["channels"] = 1;
    data["chnCnt"] = 2;
    data["clkSel"] = false;
    data["buf"] = 10;
    data["did"] = -1;
    data["cid"] = -1;
    data["num"] = 1024;
    data["timeout"] = 0;
    data["sync"] = false;
    data["type"] = "i2s";
    data["bufLenA"] = 50;
    data["delay"] = 0;
    shareName = "shareA";
    shareDepth = 4;

    started = false;
    delayPackets = busyCount = timeoutMs = 0;
    // The device reads the frame through its blocks for as long as the node
    // lives, so they are taken once, here.
    for (int i = 0; i < 2; ++i) {
        const ot_vb_blk blk = hi_mpi_vb_get_blk(OT_VB_INVALID_POOL_ID, kBlockBytes, nullptr);
        if (blk == OT_VB_INVALID_HANDLE) {
            log("HI_MPI_VB_GetBlock failed");
            return;
        }
        frame.pool_id[i] = hi_mpi_vb_handle_to_pool_id(blk);
        frame.phys_addr[i] = hi_mpi_vb_handle_to_phys_addr(blk);
        void* mapped = hi_mpi_sys_mmap(frame.phys_addr[i], kBlockBytes);
        if (!mapped) {
            log("HI_MPI_SYS_Mmap failed: the output stays silent");
            return;
        }
        frame.virt_addr[i] = reinterpret_cast<uint64_t>(mapped);
    }
    frame.bit_width = OT_AUDIO_BIT_WIDTH_16;
    frame.snd_mode = OT_AUDIO_SOUND_MODE_MONO;
    frame.seq = 0;
    frame.len = kBlockBytes;
    channels = 1;
    blocksMapped = true;
}

void VeskOutputAo::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

void VeskOutputAo::lockQueue()
{
    while (!lockA.tryLockForWrite(10)) {
    }
}

int VeskOutputAo::packetsFor(int delayMs) const
{
    const double frameMs = data["num"].toDouble() * 1000 / data["samplerate"].toDouble();
    if (!std::isfinite(frameMs) || frameMs <= 0) return 0;
    const double n = std::round(delayMs / frameMs);
    if (n > kMaxDelayPackets) {
        log(QStringLiteral("\"delay\" of %1 ms held to %2 packets")
                .arg(delayMs)
                .arg(kMaxDelayPackets));
        return kMaxDelayPackets;
    }
    return int(n);
}

void VeskOutputAo::onStart()
{
    if (!started && keptInfoA.type != 0) onNewInfoA(keptInfoA);
}

void VeskOutputAo::onNewInfoA(VeskObject::StreamInfo info)
{
    // A running device ignores every later announcement, a change of rate
    // included: only a stop and a new start build it again.
    if (started) return;
    if (info.type == 0) return;
    // Taken as it comes: a rate the device cannot convert from is the
    // platform's to refuse when the resampler is asked for it.
    data["resamplerate"] = info.params.value("samplerate");
    if (info.params.contains("num")) data["num"] = info.params["num"];
    devId = data["did"].toInt();
    chnId = data["cid"].toInt();
    if (devId == -1 || chnId == -1) return;
    if (!blocksMapped) {
        log("no frame blocks: the output stays silent");
        return;
    }

    const QString mode = data["mode"].toString();
    const int chans = data["channels"].toInt();
    if (mode != "i2ss" && mode != "i2sm") {
        log(QStringLiteral("\"mode\" is \"%1\", not \"i2ss\" or \"i2sm\": output not set up")
                .arg(mode));
        return;
    }
    if (chans != 1 && chans != 2) {
        log(QStringLiteral("\"channels\" is %1, not 1 or 2: output not set up")
                .arg(data["channels"].toString()));
        return;
    }

    hi_mpi_ao_disable_chn(devId, chnId);
    hi_mpi_ao_disable(devId);

    ot_aio_attr attr{};
    attr.sample_rate = data["samplerate"].toUInt();
    attr.bit_width = OT_AUDIO_BIT_WIDTH_16;
    attr.work_mode = mode == "i2ss" ? OT_AIO_MODE_I2S_SLAVE : OT_AIO_MODE_I2S_MASTER;
    attr.snd_mode = chans == 2 ? OT_AUDIO_SOUND_MODE_STEREO : OT_AUDIO_SOUND_MODE_MONO;
    frame.snd_mode = attr.snd_mode;
    attr.expand_flag = 0;
    attr.frame_num = data["buf"].toUInt();
    attr.point_num_per_frame = data["num"].toUInt();
    attr.chn_cnt = data["chnCnt"].toUInt();
    attr.clk_share = data["clkSel"].toBool();
    const QString type = data.contains("type") ? data["type"].toString() : QStringLiteral("i2s");
    attr.i2s_type = type == "codec"  ? OT_AIO_I2STYPE_INNERCODEC
                    : type == "hdmi" ? OT_AIO_I2STYPE_INNERHDMI
                                     : OT_AIO_I2STYPE_EXTERN;
    frame.len = data["num"].toUInt();

    int r = hi_mpi_ao_set_pub_attr(devId, &attr);
    if (r) {
        log(QString::asprintf(" HI_MPI_AO_SetPubAttr failed with %#x", unsigned(r)));
        return;
    }
    r = hi_mpi_ao_enable(devId);
    if (r) {
        log(QString::asprintf(" HI_MPI_AO_Enable failed with %#x", unsigned(r)));
        return;
    }
    r = hi_mpi_ao_enable_chn(devId, chnId);
    if (r) {
        log(QString::asprintf(" HI_MPI_AO_EnableChn failed with %#x", unsigned(r)));
        return;
    }
    // The platform converts the stream's rate to the device's.
    if (data["resamplerate"].toInt() != data["samplerate"].toInt()) {
        r = hi_mpi_ao_enable_resample(devId, chnId, data["resamplerate"].toUInt());
        if (r) log(QString::asprintf(" HI_MPI_AO_EnableReSmp failed with %#x", unsigned(r)));
    }
    if (data["delay"].toInt() > 0) {
        delayPackets = packetsFor(data["delay"].toInt());
        busyCount = kStartGrace;
    }
    started = true;
}

void VeskOutputAo::onNewPacketA(VeskObject::Packet packet)
{
    if (!started) return;
    if (!bufferPacketA(packet)) return;
    // "sync" lets the device's pace hold the sender back: the send blocks on
    // the sender's thread.
    if (data["sync"].toBool())
        doSend();
    else
        QMetaObject::invokeMethod(this, "doSend", Qt::AutoConnection);
}

bool VeskOutputAo::fill(const Packet& packet)
{
    char* block0 = reinterpret_cast<char*>(frame.virt_addr[0]);
    char* block1 = reinterpret_cast<char*>(frame.virt_addr[1]);
    const uint32_t len = uint32_t(packet.len);
    if (keptInfoA.type == VeskObject::TypeFloat) {
        // The sender's counts: a frame of len / 4 bytes, from the samples
        // packed at the payload's start. Only the floats inside the payload
        // are converted; the frame never reaches further than those.
        if (len / 4 > kBlockBytes) return false;
        const uint32_t values = len / 4;
        for (uint32_t i = 0; i < values; ++i) {
            float v;
            std::memcpy(&v, packet.data + 4 * i, 4);
            const int16_t s = toSample(v);
            std::memcpy(packet.data + 2 * i, &s, 2);
        }
        frame.len = len / 4;
        std::memcpy(block0, packet.data, frame.len);
        std::memcpy(block1, packet.data, frame.len);
    } else if (channels == 2) {
        if (len / 2 > kBlockBytes) return false;
        frame.len = len / 2;
        for (uint32_t i = 0; i < len / 4; ++i) {
            std::memcpy(block0 + 2 * i, packet.data + 4 * i, 2);
            std::memcpy(block1 + 2 * i, packet.data + 4 * i + 2, 2);
        }
    } else {
        if (len > kBlockBytes) return false;
        frame.len = len;
        std::memcpy(block0, packet.data, len);
    }
    return true;
}

void VeskOutputAo::doSend()
{
    // Once filled, the queue always keeps delayPackets packets back: that is
    // the node's fixed latency.
    for (;;) {
        lockQueue();
        if (packetsA.size() <= delayPackets || packetsA.isEmpty()) {
            lockA.unlock();
            return;
        }
        const Packet packet = packetsA.takeFirst();
        lockA.unlock();

        frame.time_stamp = uint64_t(packet.pts);
        ++frame.seq;
        if (!blocksMapped) continue;
        if (!fill(packet)) {
            log(QStringLiteral("packet of %1 bytes does not fit the frame blocks: dropped")
                    .arg(packet.len));
            continue;
        }

        ot_ao_chn_state status{};
        hi_mpi_ao_query_chn_status(devId, chnId, &status);
        if (status.chn_busy_num <= 1) {
            busyCount = 0;
        } else if (++busyCount > kBusyLimit) {
            // A device slower than the stream would otherwise build up a
            // backlog that plays ever later.
            continue;
        }

        const int r = hi_mpi_ao_send_frame(devId, chnId, &frame, timeoutMs);
        if (r == 0) {
            ++frame.seq;
        } else {
            log(QString::asprintf("HI_MPI_AO_SendFrame failed with %#x %d", unsigned(r), devId));
            hi_mpi_ao_clr_chn_buf(devId, chnId);
        }
    }
}

void VeskOutputAo::onSetData(QMap<QString, QVariant>)
{
    // A board names its outputs: a preset overwrites the keys the node knows.
    if (data.contains("interface")) {
        const QVariantMap presets = Vesk::getConfig().value("interfaceA").toMap();
        const QVariantMap preset = presets.value(data["interface"].toString()).toMap();
        for (auto it = preset.begin(); it != preset.end(); ++it)
            if (data.contains(it.key())) data[it.key()] = it.value();
    }

    const int delay = data["delay"].toInt();
    if (delay > 0) {
        delayPackets = packetsFor(delay);
    } else {
        if (delay < 0) log(QStringLiteral("\"delay\" is %1: no packet is kept back").arg(delay));
        delayPackets = delay;
    }
    // Packets beyond the new latency are dropped unplayed.
    lockQueue();
    while (!packetsA.isEmpty() && delayPackets < packetsA.size()) packetsA.removeFirst();
    lockA.unlock();

    timeoutMs = data["timeout"].toInt();
    if (data["sync"].toBool()) timeoutMs = -1;

    const int chans = data["channels"].toInt();
    if (chans == 1 || chans == 2)
        channels = chans;
    else
        log(QStringLiteral("\"channels\" is %1, not 1 or 2: packets keep being read as %2")
                .arg(data["channels"].toString())
                .arg(channels));
}

void VeskOutputAo::onStop()
{
    started = false;
    if (devId == -1 || chnId == -1) return;
    hi_mpi_ao_disable_chn(devId, chnId);
    hi_mpi_ao_disable(devId);
    devId = chnId = -1;
}
