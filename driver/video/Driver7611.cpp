#include "driver/video/Driver7611.h"

#include <fcntl.h>

#include <QDebug>
#include <QThread>

#include "frame/VeskSys.h"

Driver7611::Driver7611(QObject* parent) : DriverBase(parent) {}

void Driver7611::onCheck()
{
    int width = 0, height = 0, framerate = 0;
    bool interlace = false;
    info["avalible"] = check7611(width, height, framerate, interlace);
    // The last format stays published while there is no signal.
    if (!info["avalible"].toBool()) return;
    info["width"] = width;
    info["height"] = height;
    info["framerate"] = framerate;
    info["interlace"] = interlace;
    info["full"] = isFullRange();
}

bool Driver7611::check7611(int& width, int& height, int& framerate, bool& interlace)
{
    width = (read1_8(0x34, 7) & 0x1F) << 8 | (read1_8(0x34, 8) & 0xFF);
    height = (read1_8(0x34, 9) & 0x1F) << 8 | (read1_8(0x34, 10) & 0xFF);
    int divisor = (read1_8(0x22, 0xB8) & 0x1F) << 8 | (read1_8(0x22, 0xB9) & 0xFF);
    // The reference clock constant is fixed: no snapping to a standard rate.
    framerate = divisor ? int(111861.0f / float(divisor)) : 0;
    interlace = read1_8(0x34, 11) & 0x20;
    if (interlace) height *= 2;
    return framerate && width && height;
}

bool Driver7611::isFullRange()
{
    int range = read1_8(0x34, 0x53) & 0x0F;
    return range == 1 || range == 6 || range == 7;
}

void Driver7611::loadEDID(QString path)
{
    // Zeroed so that a missing or short file gives the chip zeros, never
    // whatever the stack held.
    unsigned char edid[256] = {};
    int f = vsys::open(path.toLocal8Bit().constData(), O_RDONLY);
    if (f >= 0) {
        size_t got = 0;
        while (got < sizeof edid) {
            ssize_t n = vsys::read(f, edid + got, sizeof edid - got);
            if (n <= 0) break;
            got += size_t(n);
        }
        vsys::close(f);
    }
    for (int n = 0; n < 256; n++) write1_8(0x36, n, edid[n]);
}

void Driver7611::init()
{
    qDebug() << "init 7611";
    struct Write {
        unsigned char reg, value;
    };
    auto writeAll = [this](unsigned dev, std::initializer_list<Write> list) {
        for (const Write& w : list) write1_8(dev, w.reg, w.value);
    };
    auto wait = [] { QThread::msleep(100); };

    writeAll(0x4C, {{0x01, 0x06},
                    {0x02, 0xF5},
                    {0x03, 0x80},
                    {0x05, 0x2C},
                    {0x06, 0xA6},
                    {0x0B, 0x44},
                    {0x0C, 0x42},
                    {0x14, 0x3F},
                    {0x15, 0xBE},
                    {0x19, 0x94},
                    {0x33, 0x40},
                    {0xF4, 0x80},
                    {0xF5, 0x7C},
                    {0xF8, 0x4C},
                    {0xF9, 0x64},
                    {0xFA, 0x6C},
                    {0xFB, 0x68},
                    {0xFD, 0x44}});
    writeAll(0x22, {{0xBA, 0x01}});
    writeAll(0x32, {{0x40, 0x81}});
    writeAll(0x34, {{0x9B, 0x03}});
    for (unsigned reg = 0xC1; reg <= 0xCC; reg++) write1_8(0x34, reg, 0x01);
    writeAll(0x34, {{0x00, 0x00},
                    {0x83, 0xFE},
                    {0x6F, 0x08},
                    {0x85, 0x1F},
                    {0x87, 0x70},
                    {0x8D, 0x04},
                    {0x8E, 0x1E},
                    {0x1A, 0x8A},
                    {0x57, 0xDA},
                    {0x58, 0x01},
                    {0x75, 0x10}});
    writeAll(0x32, {{0x77, 0x00}});
    loadEDID("/vesk/config/edid.bin");
    writeAll(0x32, {{0x77, 0x00}, {0x52, 0x20}, {0x53, 0x00}, {0x70, 0x9E}, {0x74, 0x03}});
    writeAll(0x34, {{0x6C, 0xA7}});
    wait();
    writeAll(0x4C, {{0x20, 0x70}});
    wait();
    writeAll(0x4C, {{0x20, 0xF0}});
    wait();
    writeAll(0x34, {{0x6C, 0xA6}});
    wait();
    writeAll(0x4C, {{0x15, 0xA0}});
    qDebug() << "init 7611 done";
}
