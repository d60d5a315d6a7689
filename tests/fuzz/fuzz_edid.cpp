// The receivers' EDID and colour mode files on whatever the configuration
// folder could hold: "/vesk/config/edid.bin" as the 7611 driver loads it into
// its chip, and "/vesk/config/edid/edid.bin" and
// "/vesk/config/edid/colorMode" as the TC7509 driver reads them for its
// receiver thread at its start, where a "colorMode" of the board description
// (of any type) wins over the file. Each file may be missing, short, long or
// anything else.
// Input (read with FuzzedDataProvider): which files exist, their bytes, the
// board's value.
#include <fuzzer/FuzzedDataProvider.h>

#include <QVariantList>
#include <cstdio>
#include <cstdlib>

#include "driver/video/Driver7611.h"
#include "driver/video/DriverTC7509.h"
#include "driver/video/ms7200/ms7200_app.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/FuzzSys.h"

namespace {

QVariant value(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange(0, 4)) {
        case 0:
            return in.ConsumeIntegral<int>();
        case 1:
            return QString::fromLatin1(bytes(in, 24));
        case 2:
            return in.ConsumeFloatingPoint<double>();
        case 3:
            return QVariantList{in.ConsumeIntegral<int>()};
        default:
            return QVariant();
    }
}

// The 7611's EDID RAM (device 0x36) must get 256 writes, register n taking
// byte n of the file, and 0 past its end.
void check7611(const QByteArray& file, bool present)
{
    int n = 0;
    for (const fuzzsys::Write& w : fuzzsys::writes()) {
        if (w.path != QLatin1String("/dev/i2c-1") || w.address != 0x36 >> 1) continue;
        const char expected = present && n < file.size() ? file.at(n) : 0;
        if (w.bytes.size() != 2 || uint8_t(w.bytes.at(0)) != n || w.bytes.at(1) != expected)
            std::abort();
        ++n;
    }
    if (n != 256) std::abort();
}

void load(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const uint8_t has = in.ConsumeIntegral<uint8_t>();
    const QByteArray edid7611 = bytes(in, 600);
    const QByteArray colorMode = bytes(in, 64);
    const QByteArray edid = bytes(in, 600);
    QVariantMap settings;
    if (has & 8) settings["colorMode"] = value(in);
    if (has & 1) fuzzsys::putFile("/vesk/config/edid.bin", edid7611);
    if (has & 2) fuzzsys::putFile("/vesk/config/edid/colorMode", colorMode, true);
    if (has & 4) fuzzsys::putFile("/vesk/config/edid/edid.bin", edid, true);
    // The 7611's bus takes every write.
    fuzzsys::putDevice("/dev/i2c-1");

    {
        // The file and the call of the driver's bring-up; the rest of the
        // bring-up is fixed register writes.
        Driver7611 chip;
        chip.loadEDID("/vesk/config/edid.bin");
        check7611(edid7611, has & 1);
    }

    // What the TC7509's bring-up hands its receiver thread.
    const QByteArray builtIn(reinterpret_cast<const char*>(Default_Edid_Block.data()), 256);
    const QByteArray wanted = (has & 4) && edid.size() >= 256 ? edid.left(256) : builtIn;
    if (DriverTC7509::edidOf() != wanted) std::abort();
    int mode = 0;
    if (has & 8) {
        mode = settings.value("colorMode").toInt();
    } else if (has & 2) {
        bool ok = false;
        const int v = QString::fromLatin1(colorMode).trimmed().toInt(&ok);
        if (ok) mode = v;
    }
    if (DriverTC7509::colorModeOf(settings) != mode) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtLog();
    // The bus layer reports failed transfers with printf.
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzsys::reset();
    load(data, size);
    fuzzsys::reset();
    return 0;
}
