// The sound device resolver on whatever the kernel's entries could hold: up
// to eleven cards, each with or without its "usbbus" and "usbid" text under
// /proc/asound and its link under /sys/class/sound; the node's "bus", "id",
// "lnk" and "path" as text or as values of another type; a board entry named
// by "interface"; a card number left from an earlier lookup; then a card's
// "stream0" text for the capture format. Input (read with
// FuzzedDataProvider): the cards, the keys, the board entry, and the rest of
// the input as the "stream0" text.
#include <fuzzer/FuzzedDataProvider.h>

#include <QVariantList>
#include <cstdlib>

#include "host/VeskHost.h"
#include "input/AlsaResolver.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/FuzzSys.h"

namespace {

// What a board description or a caller may put under a key.
QVariant value(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange(0, 5)) {
        case 0:
        case 1:
            return QString::fromLocal8Bit(bytes(in, 64));
        case 2:
            return in.ConsumeIntegral<int>();
        case 3:
            return in.ConsumeFloatingPoint<double>();
        case 4:
            return QVariantList{QString::fromLocal8Bit(bytes(in, 16)), in.ConsumeBool()};
        default:
            return QVariant();
    }
}

void resolve(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const int cards = in.ConsumeIntegralInRange(0, AlsaResolver::kCards + 1);
    for (int n = 0; n < cards; ++n) {
        const uint8_t has = in.ConsumeIntegral<uint8_t>();
        const QString proc = QStringLiteral("/proc/asound/card%1/").arg(n);
        if (has & 1) fuzzsys::putFile(proc + "usbbus", bytes(in, 80));
        if (has & 2) fuzzsys::putFile(proc + "usbid", bytes(in, 80));
        if (has & 4)
            fuzzsys::putLink(QStringLiteral("/sys/class/sound/card%1").arg(n), bytes(in, 200));
    }

    QVariantMap node;
    const uint8_t given = in.ConsumeIntegral<uint8_t>();
    static const char* keys[] = {"bus", "id", "lnk", "path"};
    for (int k = 0; k < 4; ++k)
        if (given & (1 << k)) node[keys[k]] = value(in);
    QVariantMap entry;
    if (given & 16) {
        node["interface"] = "usb";
        static const char* boardKeys[] = {"alsa", "bus", "id", "lnk", "channels"};
        const uint8_t has = in.ConsumeIntegral<uint8_t>();
        for (int k = 0; k < 5; ++k)
            if (has & (1 << k)) entry[boardKeys[k]] = value(in);
    }
    VeskHost::setConfig({{"interfaceA", QVariantMap{{"usb", entry}}}});
    int32_t card = given & 32 ? in.ConsumeIntegralInRange(-1, 20) : -1;
    const int32_t before = card;

    AlsaResolver::applyInterface(node);
    const bool known = AlsaResolver::findAlsaDev(node, card);
    if (!known && card != -1) std::abort();
    if (before != -1 && card != before) std::abort();  // a known card is not looked up again

    AlsaResolver::captureFormat(
        QByteArray(reinterpret_cast<const char*>(data) + size - in.remaining_bytes(),
                   int(in.remaining_bytes())),
        node);
    // One digit and five characters, whatever the text.
    const int channels = node["channels"].toInt();
    const int rate = node["samplerate"].toInt();
    if (channels < 0 || channels > 9 || rate < -9999 || rate > 99999) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzsys::reset();
    resolve(data, size);
    VeskHost::setConfig({});
    fuzzsys::reset();
    return 0;
}
