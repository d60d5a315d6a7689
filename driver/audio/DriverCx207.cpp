#include "driver/audio/DriverCx207.h"

#include <QDebug>
#include <QThread>
#include <cmath>

int DriverCx207::curVal = -1;
int DriverCx207::lastAecLevel = -1;

namespace {

// Writing it makes the chip take over the group of settings written before.
constexpr unsigned kCommit = 0x117D;

QVariantList line(const char* name, bool level)
{
    return {QString(name), level};
}

// Channel gains go in steps of 1.5 dB from -34.5 dB.
int channel(int db)
{
    return int((db + 34.5) / 1.5);
}

}  // namespace

DriverCx207::DriverCx207(QObject* parent) : DriverBase(parent) {}

void DriverCx207::write16(unsigned int reg, unsigned int value)
{
    write(0, 40, reg, value, 2, 1);
}

void DriverCx207::init()
{
    QThread::msleep(100);
    gpio.setGPIO(line("GPIO0_1", true));
    gpio.setGPIO(line("GPIO0_2", false));
    QThread::msleep(200);
    gpio.setGPIO(line("GPIO0_2", true));
    QThread::msleep(100);

    write16(0x040A, 0x80);
    QThread::msleep(100);
    write16(0x040A, 0x81);
    QThread::msleep(500);
    write16(kCommit, 0xFF);
    QThread::msleep(100);

    QMap<QString, QVariant> pending;
    {
        QMutexLocker l(&holdLock);
        ready = true;
        pending.swap(held);
    }
    if (!pending.isEmpty()) onSetData(pending);
}

void DriverCx207::onSetData(QMap<QString, QVariant> newData)
{
    {
        QMutexLocker l(&holdLock);
        if (!ready) {
            held = newData;
            return;
        }
    }

    // Each group is written only when its key is in the map: a map without
    // "eq", say, leaves the chip's bands as they were, and of maps given
    // before start-up ended only the last is applied.
    if (newData.contains("main")) {
        const QVariantMap main = newData.value("main").toMap();
        int gain = main.value("gain").toInt();
        write16(0x1013, unsigned(gain));
        write16(0x1014, unsigned(gain));
        for (int ch = 0; ch < 2; ch++) {
            int c = channel(main.value(QString("gain%1").arg(ch)).toInt());
            if (main.value(QString("mute%1").arg(ch)).toBool()) c |= 0x80;
            write16(0x101B + ch, unsigned(c));
        }
    }

    if (newData.contains("omni")) {
        const QVariantMap omni = newData.value("omni").toMap();
        // The second microphone's mute and the automatic gain share bit 3:
        // either sets it.
        int word = (omni.value("mute0").toBool() ? 0x10 : 0) |
                   (omni.value("mute1").toBool() || omni.value("agc").toBool() ? 0x08 : 0) |
                   (omni.value("aec").toBool() ? 0x01 : 0);
        int a = omni.value("aecgain").toInt();
        if (word != curVal || a != lastAecLevel) {
            curVal = word;
            lastAecLevel = a;
            // 64-bit so that a level beyond 0..100 cannot overflow.
            qint64 g = qint64(a) * 30 / 100 + 5, s = qint64(a) * 32767 / 100;
            write16(0x11B5, unsigned(g & 0xFF));
            write16(0x11B6, unsigned(g & 0xFF));
            write16(0x10FA, unsigned(s & 0xFF));
            write16(0x10FB, unsigned((s >> 8) & 0xFF));
            write16(0x117A, unsigned(word));
            QThread::msleep(500);
            write16(kCommit, 0xFF);
        }
        int gain0 = omni.value("gain0").toInt();
        write16(0x1015, unsigned(gain0));
        write16(0x1016, unsigned(omni.contains("gain1") ? omni.value("gain1").toInt() : gain0));
        int boost = omni.value("boost").toInt();
        write16(0x101E, boost == 1 ? 4 : boost == 2 ? 6 : 2);
    }

    if (newData.contains("eq")) {
        const QVariantMap eq = newData.value("eq").toMap();
        for (unsigned n = 0; n < 12; n++) {
            double db = eq.value(QString("eq%1").arg(n)).toDouble();
            double v = std::pow(10.0, db / 20) * 1024;
            if (!std::isfinite(v) || v >= 2147483647.0) {
                qDebug() << "cx207: band" << n << "at" << db
                         << "dB is out of range, left as it was";
                continue;
            }
            unsigned value = unsigned(v);
            write16(0x1138 + 2 * n, value & 0xFF);
            write16(0x1139 + 2 * n, (value >> 8) & 0xFF);
        }
        write16(kCommit, 0xFF);
    }

    if (newData.contains("output")) {
        const QVariantMap out = newData.value("output").toMap();
        int gain0 = out.value("gain0").toInt();
        write16(0x100D, unsigned(gain0));
        write16(0x100E, unsigned(gain0));
        write16(0x1012, unsigned(out.value("gain1").toInt()));
        int mute =
            (out.value("mute0").toBool() ? 0x03 : 0) | (out.value("mute1").toBool() ? 0x04 : 0);
        write16(0x1018, unsigned(mute));
    }
}
