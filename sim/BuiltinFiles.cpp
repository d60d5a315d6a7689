// Files the virtual board makes itself: too big, or too binary, to spell out
// in a scenario.
#include <cstring>

#include "sim/VirtualBoard.h"

// Generated at build time from the JPEG that ffmpeg made (sim/embed.cmake).
extern const unsigned char veskTestsrcJpeg[];
extern const unsigned int veskTestsrcJpegSize;

namespace vsim {

namespace {

// The no-signal picture: grey squares with a light frame around the middle,
// neutral chroma. Laid out as VeskHi::makeFrame lays out a 1920x1080 frame:
// 1080 luma lines of 1920 bytes, then 540 lines of interleaved V/U.
QByteArray noSignalPicture()
{
    constexpr int w = 1920, h = 1080, square = 120, border = 8;
    QByteArray out(w * h * 3 / 2, char(128));
    auto* y = reinterpret_cast<unsigned char*>(out.data());
    for (int row = 0; row < h; ++row) {
        for (int col = 0; col < w; ++col) {
            const bool dark = ((row / square) + (col / square)) % 2 == 0;
            unsigned char v = dark ? 72 : 88;
            const bool inOuter = col >= w / 4 - border && col < 3 * w / 4 + border &&
                                 row >= h / 4 - border && row < 3 * h / 4 + border;
            const bool inInner = col >= w / 4 && col < 3 * w / 4 && row >= h / 4 && row < 3 * h / 4;
            if (inOuter && !inInner) v = 200;
            y[row * w + col] = v;
        }
    }
    return out;
}

// A plain 1080p60 monitor's EDID: the header, the maker, a first detailed
// timing of 1920x1080 at 148.5 MHz, and the checksum that makes it valid.
QByteArray monitorEdid()
{
    QByteArray e(256, 0);
    const unsigned char head[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x59, 0x53,
                                  0x11, 0x76, 0x01, 0x00, 0x00, 0x00, 0x01, 0x1E, 0x01, 0x03,
                                  0x80, 0x50, 0x2D, 0x78, 0x0A, 0x0D, 0xC9, 0xA0, 0x57, 0x47,
                                  0x98, 0x27, 0x12, 0x48, 0x4C, 0x00, 0x00, 0x00};
    for (size_t i = 0; i < sizeof head; i++) e[int(i)] = char(head[i]);
    const unsigned char dtd[] = {0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58,
                                 0x2C, 0x45, 0x00, 0x20, 0xC2, 0x31, 0x00, 0x00, 0x1E};
    for (size_t i = 0; i < sizeof dtd; i++) e[int(54 + i)] = char(dtd[i]);
    unsigned sum = 0;
    for (int i = 0; i < 127; i++) sum += uint8_t(e[i]);
    e[127] = char((256 - sum % 256) % 256);
    return e;
}

}  // namespace

QStringList builtinFiles()
{
    return {"nosignal.yuv", "testsrc.jpg", "monitor.edid"};
}

QByteArray builtinFile(const QString& name)
{
    if (name == QLatin1String("nosignal.yuv")) {
        static const QByteArray picture = noSignalPicture();
        return picture;
    }
    if (name == QLatin1String("monitor.edid")) return monitorEdid();
    if (name == QLatin1String("testsrc.jpg"))
        return QByteArray(reinterpret_cast<const char*>(veskTestsrcJpeg), int(veskTestsrcJpegSize));
    return QByteArray();
}

}  // namespace vsim
