#include "driver/video/DriverTC7509.h"

#include <QDebug>
#include <QFile>
#include <QThread>
#include <atomic>
#include <cmath>

#include "driver/video/IT6602.h"
#include "driver/video/TC7509.h"
#include "driver/video/ms7200/ms7200_app.h"
#include "frame/VeskSys.h"

DriverTC7509::DriverTC7509(QObject* parent) : DriverBase(parent)
{
    info["avalible"] = false;
}

DriverTC7509::~DriverTC7509()
{
    delete worker;
}

void DriverTC7509::init()
{
    if (worker) return;
    worker = new TC7509(this);
    it6602_dev_data& dev = worker->dev;
    IT6602Class& it = worker->it6602;
    dev.gpio_i2c = data.value("gpio_i2c", false).toBool() ? 1 : 0;
    if (data.contains("chip_addr")) dev.chip_addr = data.value("chip_addr").toInt();
    // The unnumbered bit-banged bus unless a number is given.
    dev.i2c_num = data.value("i2c_num", dev.gpio_i2c ? -1 : 0).toInt();
    if (data.contains("chip_swapYC")) it.swapYC = data.value("chip_swapYC").toBool();
    it.mode = data.value("mode").toString();
    it.colorMode = colorModeOf(data);
    it.edid = edidOf();
    worker->start(QThread::Priority(7));
}

int DriverTC7509::colorModeOf(const QMap<QString, QVariant>& data)
{
    if (data.contains("colorMode")) return data.value("colorMode").toInt();
    QFile f(vsys::path("/vesk/config/edid/colorMode"));
    if (!f.open(QIODevice::ReadOnly)) return 0;
    bool ok = false;
    const int v = QString::fromLatin1(f.readAll()).trimmed().toInt(&ok);
    if (ok) return v;
    qDebug() << "TC7509: /vesk/config/edid/colorMode holds no number; colour mode 0";
    return 0;
}

QByteArray DriverTC7509::edidOf()
{
    const QByteArray builtIn(reinterpret_cast<const char*>(Default_Edid_Block.data()), 256);
    QFile f(vsys::path("/vesk/config/edid/edid.bin"));
    if (!f.open(QIODevice::ReadOnly)) return builtIn;
    const QByteArray bytes = f.read(256);
    if (bytes.size() == 256) return bytes;
    qDebug("TC7509: /vesk/config/edid/edid.bin holds %d bytes, not 256; the built-in EDID is used",
           int(bytes.size()));
    return builtIn;
}

int DriverTC7509::GetVideoState()
{
    return worker ? worker->dev.m_VState : VSTATE_Off;
}

int DriverTC7509::rateFromCode(int code)
{
    switch (code) {
        case 0:
            return 44100;
        case 2:
            return 48000;
        case 3:
            return 32000;
        case 6:
            return 24000;
        case 8:
            return 88200;
        case 10:
            return 96000;
        case 12:
            return 176000;
        case 14:
            return 192000;
        default:
            return 0;
    }
}

int DriverTC7509::GetAudioSamplingRate()
{
    if (!worker) return 0;
    const it6602_dev_data& dev = worker->dev;
    return dev.ms7200 ? dev.audio_samplerate : rateFromCode(dev.m_AudioCode);
}

int DriverTC7509::snapRate(int rate)
{
    if (rate >= 100 && rate <= 130) return 120;
    if (rate > 28) rate = (rate + 5) / 10 * 10;
    if (rate > 60 && rate <= 70) rate = 60;
    return rate;
}

void DriverTC7509::onCheck()
{
    // The audio side's poll runs on this thread; the video side does the work.
    if (QThread::currentThread()->objectName() == QLatin1String("shareA")) return;
    QMutexLocker guard(&lock);
    if (!worker) return;
    const it6602_dev_data& dev = worker->dev;
    const bool ms = dev.ms7200;
    const bool avalible = ms ? dev.lock == 1 : (dev.m_VState == VSTATE_VideoOn && dev.width > 200);
    work["avalible"] = avalible;
    if (dev.hold == 1) return;
    std::atomic_thread_fence(std::memory_order_seq_cst);

    int rate = 0;
    if (ms) {
        rate = dev.pclk;
    } else {
        double r = double(dev.pclk) * 1000.0;
        if (dev.htotal && dev.vtotal) r = r / dev.htotal / dev.vtotal;
        rate = snapRate(int(std::lround(r)));
    }
    const bool interlace = dev.flags & 1;
    const int width = dev.width;
    // The IT6602 measures a field. The MS7200 timing has already doubled its
    // field to a frame, so an interlaced MS7200 input is doubled twice here
    // (1080i reads 2160): settled arithmetic that boards rely on, kept.
    const int height = interlace ? dev.height * 2 : dev.height;
    work["width"] = width;
    work["height"] = height;
    work["framerate"] = rate;
    work["interlace"] = interlace;
    work["full"] = dev.range == 1;

    if (data.value("check", true).toBool() &&
        !(rate >= 20 && rate <= 140 && widths.contains(dev.width) && heights.contains(height)))
        return;

    samplerate = avalible ? GetAudioSamplingRate() : 0;
    work["samplerate"] = samplerate;
    work["protocol"] = "HDMI";
    info = work;
    info.setSharable(false);
}

QVariant DriverTC7509::callFunc(QString func, QVariant arg)
{
    if (func != QLatin1String("CEC")) return DriverBase::callFunc(func, arg);
    if (!worker) return true;
    IT6602Class& it = worker->it6602;
    // User Control Pressed then Released, to the playback device.
    it.CECSend(4, 0x44, 9);
    it.CECTransmit();
    it.CECSend(4, 0x45, 9);
    it.CECTransmit();
    it.IT6602_CECInit();
    return true;
}

QMap<QString, QVariant> DriverTC7509::diagnostics()
{
    QMap<QString, QVariant> d;
    if (!worker) return d;
    const it6602_dev_data& dev = worker->dev;
    switch (worker->path.load()) {
        case TC7509::Starting:
            d["path"] = "starting";
            return d;
        case TC7509::Ended:
            d["path"] = "no chip answers";
            return d;
        case TC7509::PathMS7200:
            d["path"] = "MS7200";
            if (CMs7200App* app = worker->ms7200.load()) {
                d["stable"] = app->stableCount();
                QVariantList gains;
                for (int g : app->eqGains()) gains << g;
                d["eqGains"] = gains;
            }
            d["lock"] = int(dev.lock);
            return d;
        default:
            break;
    }
    d["path"] = "IT6602";
    d["video"] = videoStateName(dev.m_VState);
    d["audio"] = audioStateName(dev.m_AState);
    d["scdt"] = int(dev.m_ucSCDTOffCount);
    d["hpd"] = dev.m_HPD[0] != 0;
    d["eq"] = dev.m_EQActive[0] ? QVariant(QString("step %1").arg(dev.m_EQStep[0]))
                                : QVariant(int(dev.m_EQBest[0]));
    return d;
}
