// The microcontroller line on whatever a peer could send, cut into reads of
// any size, every frame dispatched to the real driver's slots and the status
// then checked by a video and an audio instance. Input layout:
//   byte 0: n = low three bits; the next n bytes are read sizes (each + 1),
//           used in turn; n = 0: the whole stream in one read
//   byte 0 bit 3: the video side publishes unfiltered ("check" false)
//   byte 0 bits 4-5: boot mode "", "standby", "on", "off"
//   the rest: the bytes of the line.
#include <QCoreApplication>
#include <QSerialPort>
#include <cstdint>

#include "driver/mcu/DriverVesk.h"
#include "driver/mcu/McuLine.h"
#include "tests/fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static DriverVesk* video = [] {
        silenceQtLog();
        // Never opened: what the slots send goes nowhere.
        DriverVesk::com = new QSerialPort;
        auto* d = new DriverVesk;
        DriverVesk::instance = d;
        d->setData({{"name", "hdmi1"}, {"protocols", QStringList{"HDMI", "SDI"}}});
        return d;
    }();
    static DriverVesk* audio = [] {
        auto* d = new DriverVesk;
        d->setData({{"name", "hdmi1"}, {"samplerate", 0}});
        return d;
    }();
    if (size < 1) return 0;
    const unsigned n = data[0] & 7;
    if (size < 1 + n) return 0;
    const uint8_t* sizes = data + 1;
    video->setData({{"check", !(data[0] & 8)}});
    static const char* modes[] = {"", "standby", "on", "off"};
    video->bootMode = modes[(data[0] >> 4) & 3];

    const char* stream = reinterpret_cast<const char*>(data + 1 + n);
    const size_t len = size - 1 - n;
    McuFramer framer;
    QString text;
    for (size_t at = 0, i = 0; at < len; ++i) {
        const size_t piece = n ? std::min<size_t>(len - at, size_t(sizes[i % n]) + 1) : len;
        framer.append(QByteArray(stream + at, int(piece)));
        at += piece;
        while (framer.next(&text)) mcu::dispatch(video, text);
        if (framer.pending().size() > McuFramer::kCap) __builtin_trap();
    }
    video->onCheck();
    audio->onCheck();

    QMutexLocker lock(&DriverVesk::mutex);
    DriverVesk::infoMap.clear();
    video->info.clear();
    audio->info.clear();
    return 0;
}
