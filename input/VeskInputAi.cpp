#include "input/VeskInputAi.h"

#include <QDebug>
#include <QThread>
#include <algorithm>
#include <cstring>

#include "driver/Driver.h"
#include "frame/Vesk.h"
#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskInputAi)

namespace {

// The unit refuses attributes for a device that another node already runs;
// that device then serves both as it is.
bool attrOk(int r)
{
    return r == 0 || r == OT_ERR_AI_DEV_ATTR_SET;
}

QVariantMap boardEntry(const QString& iface)
{
    return Vesk::getConfig().value("interfaceA").toMap().value(iface).toMap();
}

// The silence filler's loop runs rate / 1024 times a second; a rate no
// audio unit has must not turn it into a flood.
constexpr int64_t kMaxFillerRate = 384000;

}  // namespace

VeskInputAi::VeskInputAi(QObject* parent) : VeskObject(parent)
{
    data["samplerate"] = 48000;
    data["resamplerate"] = -1;
    data["mode"] = "i2ss";
    data["channels"] = 1;
    data["memSize"] = 1024000;
    data["chnCnt"] = 2;
    data["clkSel"] = false;
    data["nocopy"] = false;
    data["aec"] = false;
    data["agc"] = false;
    data["buf"] = 20;
    data["did"] = 0;
    data["cid"] = 0;
    data["anr"] = 0;
    data["delay"] = 0;
    data["delay2"] = 0;
    data["cid2"] = -1;
    data["time"] = 0;
    data["aecdid"] = 0;
    data["aeccid"] = 0;
    data["interface"] = "";
    data["source"] = "";
    data["num"] = 0;
    data["bufLenA"] = 50;
    data["track"] = 0;
    shareName = "shareA";
    shareDepth = 4;
}

void VeskInputAi::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

QVariant VeskInputAi::setDrvData(QVariant arg)
{
    return Driver::setDataA(data["interface"].toString(), arg.toMap());
}

void VeskInputAi::onSetData(QMap<QString, QVariant> newData)
{
    const QString newIface = newData.value("interface").toString();
    if (!newIface.isEmpty()) {
        Driver::initA();
        const QVariantMap board = boardEntry(newIface);
        if (board.contains("chip") && !timer.isActive()) {
            if (!timerConnected)
                connect(&timer, &QTimer::timeout, this, &VeskInputAi::onTimer,
                        Qt::QueuedConnection);
            timerConnected = true;
            timer.start(1000);
        }
        for (auto it = board.begin(); it != board.end(); ++it) data[it.key()] = it.value();
        // What the user asked for beats the board for these; the mixer is the
        // board's alone.
        for (const char* key : {"source", "type", "volumeIn", "volumeOut"})
            if (newData.contains(key)) data[key] = newData.value(key);
        if (board.contains("did") && board.value("did").toInt() == -1) return;
    }

    track = data["track"].toInt();
    const QString iface = data["interface"].toString();
    if (!iface.isEmpty() &&
        (newData.contains("volume") || newData.contains("source") || newData.contains("driver")))
        Driver::setDataA(iface, data);

    if (data["anr"].toInt() > 0 || data["agc"].toBool() || data["aec"].toBool()) {
        data["resamplerate"] = 16000;
        if (data["channels"].toInt() != 1) {
            data["channels"] = 1;
            data["cid2"] = data["cid"].toInt() + data["chnCnt"].toInt() / 2;
        }
    }

    if (dev == -1 || newData.contains("resamplerate") || newData.contains("samplerate") ||
        newData.contains("mode") || newData.contains("source") || newData.contains("type"))
        initAi();

    infoA.type = TypeRaw;
    const int resample = data["resamplerate"].toInt();
    infoA.params["samplerate"] = resample != -1 ? resample : data["samplerate"].toInt();
    infoA.params["channels"] = chn2 != -1 ? 2 : data["channels"].toInt();
    if (!newData.isEmpty()) sendInfoA(infoA);

    delayUs = data["delay"].toInt() * 1000;
    delayPackets = data["delay2"].toInt();
    const int keep = std::max(delayPackets, 0);
    if (packetsA.size() > keep) {
        while (!lockA.tryLockForWrite(10)) {
        }
        while (packetsA.size() > keep) packetsA.removeFirst();
        lockA.unlock();
    }
}

void VeskInputAi::initAi()
{
    if (dev != -1) {
        hi_mpi_ai_disable_chn(dev, chn);
        if (chn2 != -1) hi_mpi_ai_disable_chn(dev, chn2);
        hi_mpi_ai_disable(dev);
    }
    dev = data["did"].toInt();
    chn = data["cid"].toInt();

    const QString type = data["type"].toString();
    const QString iface = data["interface"].toString();
    if (type == "codec" && !iface.isEmpty()) {
        const QVariantMap board = boardEntry(iface);
        if (board.contains("samplerate")) data["samplerate"] = board.value("samplerate");
        data["clkSel"] = false;
    }

    const int samplerate = data["samplerate"].toInt();
    const int resamplerate = data["resamplerate"].toInt();
    const bool resampling = resamplerate != -1 && resamplerate != samplerate;
    if (resampling && data["channels"].toInt() != 1) {
        data["channels"] = 1;
        data["cid2"] = chn + data["chnCnt"].toInt() / 2;
    }
    chn2 = data["cid2"].toInt();

    const QString mode = data["mode"].toString();
    int workMode = OT_AIO_MODE_I2S_SLAVE;
    if (mode == "i2sm")
        workMode = OT_AIO_MODE_I2S_MASTER;
    else if (mode == "pcms")
        workMode = OT_AIO_MODE_PCM_SLAVE_STD;
    else if (mode == "pcmns")
        workMode = OT_AIO_MODE_PCM_SLAVE_NON_STD;
    else if (mode != "i2ss")
        log(QString("unknown \"mode\" %1, taking i2ss").arg(mode));
    const int channels = data["channels"].toInt();
    if (channels != 1 && channels != 2)
        log(QString("\"channels\" %1 is neither 1 nor 2, taking mono").arg(channels));

    ot_aio_attr attr{};
    attr.sample_rate = uint32_t(samplerate);
    attr.bit_width = OT_AUDIO_BIT_WIDTH_16;
    attr.work_mode = workMode;
    attr.snd_mode = channels == 2 ? OT_AUDIO_SOUND_MODE_STEREO : OT_AUDIO_SOUND_MODE_MONO;
    attr.expand_flag = 0;
    attr.frame_num = uint32_t(data["buf"].toInt());
    const int num = data["num"].toInt();
    attr.point_num_per_frame = uint32_t(num != 0 ? num : 1024);
    attr.chn_cnt = uint32_t(data["chnCnt"].toInt());
    attr.i2s_type = OT_AIO_I2STYPE_EXTERN;
    if (type == "codec") {
        attr.work_mode = OT_AIO_MODE_I2S_MASTER;
        attr.i2s_type = OT_AIO_I2STYPE_INNERCODEC;
        data["clkSel"] = true;
    } else if (type == "hdmi") {
        attr.i2s_type = OT_AIO_I2STYPE_INNERHDMI;
    }
    attr.clk_share = data["clkSel"].toBool() ? 1 : 0;

    infoA.params["num"] = uint(attr.point_num_per_frame);
    // The resampler turns a hardware frame into one of the wanted length.
    if (resampling && resamplerate > 0)
        attr.point_num_per_frame =
            uint32_t(int64_t(samplerate) * attr.point_num_per_frame / resamplerate);

    int r = hi_mpi_ai_set_pub_attr(dev, &attr);
    if (!attrOk(r)) {
        log(QString::asprintf(" zr_mpi_ai_set_pub_attr failed with %#x", unsigned(r)));
        return;
    }
    r = hi_mpi_ai_enable(dev);
    if (!attrOk(r)) {
        log(QString::asprintf(" zr_mpi_ai_enable failed with %#x", unsigned(r)));
        return;
    }

    ot_ai_chn_param param{};
    param.usr_frame_depth = uint32_t(data["buf"].toInt());
    const bool nocopy = data["nocopy"].toBool();
    auto startChn = [&](int c, const char* paramText) {
        int e = hi_mpi_ai_enable_chn(dev, c);
        if (e) {
            log(QString::asprintf(" zr_mpi_ai_enable_chn failed with %#x %d %d", unsigned(e), dev,
                                  c));
            return false;
        }
        hi_mpi_ai_disable_resample(dev, c);
        if (resampling) {
            e = hi_mpi_ai_enable_resample(dev, c, uint32_t(resamplerate));
            if (e) {
                log(QString::asprintf("zr_mpi_ai_enable_resample failed with %#x", unsigned(e)));
                return false;
            }
        }
        if (!nocopy) {
            e = hi_mpi_ai_set_chn_param(dev, c, &param);
            if (e) {
                log(QString::asprintf(paramText, unsigned(e)));
                return false;
            }
        }
        return true;
    };
    if (!startChn(chn, "HI_MPI_AI_SetChnParam failed with %#x")) return;
    if (chn2 != -1) startChn(chn2, "zr_mpi_ai_set_chn_param failed with %#x");
}

void VeskInputAi::onStart()
{
    if (notifier) return;
    if (dev == -1) onSetData(data);
    if (!timerAlive.isActive()) {
        if (!aliveConnected)
            connect(&timerAlive, &QTimer::timeout, this, &VeskInputAi::onTimerAlive);
        aliveConnected = true;
        timerAlive.start(500);
    }
    if (!data["nocopy"].toBool() && data["did"].toInt() != -1) {
        const int fd = hi_mpi_ai_get_fd(dev, chn);
        // A notifier on a failed descriptor never fires: the node lives on
        // the silence filler, and as the notifier exists, no later start
        // asks for a descriptor again.
        if (fd < 0) log("zr_mpi_ai_get_fd faild");
        notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(notifier, SIGNAL(activated(int)), this, SLOT(onRead(int)));
    }
}

void VeskInputAi::onRead(int)
{
    ot_audio_frame frame{};
    int r = hi_mpi_ai_get_frame(dev, chn, &frame, nullptr, -1);
    if (r) {
        log(QString::asprintf("HI_MPI_AI_GetFrame failed with %#x", unsigned(r)));
        return;
    }
    gotFrame = true;
    if (lastSeq != 0 && lastSeq + 1 != frame.seq && Vesk::debug) log("seq error");
    lastSeq = frame.seq;

    Packet packet;
    packet.pts = int64_t(frame.time_stamp) + delayUs;
    packet.dts = -1;
    packet.frameType = 3;
    packet.reserved = 0;

    // Held so that the doubled length of the stereo buffer stays an int.
    const int len = int(std::min<uint32_t>(frame.len, INT32_MAX / 2));
    const auto* left = reinterpret_cast<const int16_t*>(frame.virt_addr[0]);
    const auto* right = reinterpret_cast<const int16_t*>(frame.virt_addr[1]);
    char* buf = nullptr;
    int outLen = 0;
    if (chn2 == -1 && frame.snd_mode == OT_AUDIO_SOUND_MODE_STEREO) {
        outLen = len * 2;
        buf = bufferData(nullptr, outLen, 0);
        auto* out = reinterpret_cast<int16_t*>(buf);
        const int n = len / 2;
        if (buf && left && right) {
            for (int i = 0; i < n; ++i) {
                out[2 * i] = track == 2 ? right[i] : left[i];
                out[2 * i + 1] = track == 1 ? left[i] : right[i];
            }
            // An odd length leaves a half sample at the end: quiet.
            std::memset(buf + 4 * n, 0, size_t(outLen - 4 * n));
        }
    } else if (chn2 == -1) {
        outLen = len;
        buf = bufferData(reinterpret_cast<char*>(frame.virt_addr[0]), len, 0);
    } else {
        ot_audio_frame second{};
        r = hi_mpi_ai_get_frame(dev, chn2, &second, nullptr, -1);
        if (r) {
            log(QString::asprintf("HI_MPI_AI_GetFrame failed with %#x", unsigned(r)));
            hi_mpi_ai_release_frame(dev, chn, &frame, nullptr);
            return;
        }
        outLen = len * 2;
        buf = bufferData(nullptr, outLen, 0);
        auto* out = reinterpret_cast<int16_t*>(buf);
        const auto* other = reinterpret_cast<const int16_t*>(second.virt_addr[0]);
        // Two channels of one device come in frames of one length; should
        // they not, the shorter one ends the copy and the rest stays quiet.
        const int n = len / 2;
        const int m = other && left ? int(std::min<uint32_t>(second.len / 2, uint32_t(n))) : 0;
        if (buf) {
            for (int i = 0; i < m; ++i) {
                out[2 * i] = left[i];
                out[2 * i + 1] = other[i];
            }
            std::memset(buf + 4 * m, 0, size_t(outLen - 4 * m));
        }
        hi_mpi_ai_release_frame(dev, chn2, &second, nullptr);
    }
    hi_mpi_ai_release_frame(dev, chn, &frame, nullptr);
    if (!buf) return;

    packet.data = buf;
    packet.len = outLen;
    if (delayPackets < 1) {
        sendPacketA(packet);
        return;
    }
    bufferPacketA(packet);
    if (packetsA.size() > delayPackets) {
        const Packet oldest = packetsA.takeFirst();
        sendPacketA(oldest);
    }
}

void VeskInputAi::onTimerAlive()
{
    if (gotFrame) {
        if (timerAlive.interval() == 10) timerAlive.setInterval(500);
        silenceStart = 0;
        silenceSent = 0;
    } else {
        if (timerAlive.interval() == 500) timerAlive.setInterval(10);
        if (silenceStart == 0) {
            VeskHi::getPTS(&silenceStart, false);
            silenceBuf = bufferData(nullptr, 8192, 0);
            if (silenceBuf) std::memset(silenceBuf, 0, 8192);
        }
        int64_t now = 0;
        VeskHi::getPTS(&now, false);
        const uint64_t elapsed = uint64_t(now) - uint64_t(silenceStart);
        if (elapsed > 1000000) {
            silenceStart = 0;
            silenceSent = 0;
            gotFrame = false;
            return;
        }
        const int64_t rate = std::clamp<int64_t>(data["samplerate"].toInt(), 0, kMaxFillerRate);
        const int64_t target = int64_t(uint64_t(rate) * elapsed / 1000000);
        while (silenceBuf && silenceSent < target) {
            Packet packet;
            packet.data = silenceBuf;
            packet.len = 4096;
            packet.pts = silenceStart + silenceSent * 1000 / 48;
            packet.dts = -1;
            packet.frameType = 3;
            packet.reserved = 0;
            sendPacketA(packet);
            silenceSent += 1024;
        }
    }
    gotFrame = false;
}

void VeskInputAi::onTimer()
{
    const int rate = Driver::getSamplerate(data["interface"].toString());
    if (data["type"].toString() == "codec") return;
    if (rate > 0 && rate != data["samplerate"].toInt())
        setData(QMap<QString, QVariant>{{"samplerate", rate}});
}
