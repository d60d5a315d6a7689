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

}  // namespace

QStringList builtinFiles()
{
    return {"nosignal.yuv", "testsrc.jpg"};
}

QByteArray builtinFile(const QString& name)
{
    if (name == QLatin1String("nosignal.yuv")) {
        static const QByteArray picture = noSignalPicture();
        return picture;
    }
    if (name == QLatin1String("testsrc.jpg"))
        return QByteArray(reinterpret_cast<const char*>(veskTestsrcJpeg), int(veskTestsrcJpegSize));
    return QByteArray();
}

}  // namespace vsim
