#include "input/VeskAvUtil.h"

#include <climits>
#include <cstring>

unsigned get_sr_index(unsigned sampleRate)
{
    switch (sampleRate) {
        case 88200:
            return 1;
        case 64000:
            return 2;
        case 48000:
            return 3;
        case 44100:
            return 4;
        case 32000:
            return 5;
        case 24000:
            return 6;
        case 22050:
            return 7;
        case 16000:
            return 8;
        case 12000:
            return 9;
        case 11025:
            return 10;
        case 8000:
            return 11;
        case 7350:
            return 12;
        default:
            return 0;
    }
}

void make_dsi(unsigned srIndex, unsigned channels, unsigned char* out)
{
    // Object type 2 (LC) in the top five bits, then the four-bit frequency
    // index across the byte boundary, then the channel configuration.
    out[0] = static_cast<unsigned char>((srIndex >> 1) | 0x10);
    out[1] = static_cast<unsigned char>((srIndex << 7) | (channels << 3));
}

namespace VeskAv {

namespace {

const uint8_t kUuidMicros[16] = {0xda, 0x3c, 0x78, 0xf6, 0x0c, 0x46, 0x4d, 0x30,
                                 0x94, 0xfe, 0x45, 0x0c, 0x49, 0xe2, 0x26, 0xea};
const uint8_t kUuidMillis[16] = {0x05, 0x17, 0x0d, 0xb4, 0xe9, 0xab, 0x44, 0xb0,
                                 0xb4, 0x1c, 0xcc, 0x8e, 0x4f, 0xe2, 0xf9, 0xc6};

// Far beyond any real stream time (about 36,000 years), yet sums of a few
// such values stay inside int64.
constexpr int64_t kMaxMicros = int64_t(1) << 60;

int64_t readLe64(const uint8_t* p)
{
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
    return static_cast<int64_t>(v);
}

uint32_t readBe32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

void writeStartCode(uint8_t* p)
{
    p[0] = 0;
    p[1] = 0;
    p[2] = 0;
    p[3] = 1;
}

int64_t clampMicros(int64_t v)
{
    return v > kMaxMicros ? kMaxMicros : v < -kMaxMicros ? -kMaxMicros : v;
}

}  // namespace

QByteArray annexBParameterSets(const QByteArray& e)
{
    if (e.isEmpty()) return QByteArray();
    if (e.at(0) == 0) return e;
    // The record's lengths are 16 bits wide; the appliance reads only their
    // low byte, and takes the PPS length from the PPS's own header byte,
    // which in practice yields the rest of the record.
    const int spsLen = e.size() >= 8 ? static_cast<uint8_t>(e.at(7)) : 0;
    const QByteArray sps = e.mid(8, spsLen);
    const int ppsAt = spsLen + 11;
    const int ppsLen = ppsAt < e.size() ? static_cast<uint8_t>(e.at(ppsAt)) : 0;
    const QByteArray pps = ppsAt < e.size() ? e.mid(ppsAt, ppsLen) : QByteArray();
    static const QByteArray startCode("\x00\x00\x00\x01", 4);
    return startCode + sps + startCode + pps;
}

void lengthsToStartCodes(uint8_t* p, int size)
{
    if (!p || size <= 4) return;
    int64_t i = 0;
    while (i < size - 4) {
        const uint32_t len = readBe32(p + i);
        writeStartCode(p + i);
        i += int64_t(len) + 4;
    }
}

bool lengthsToStartCodesStrict(uint8_t* p, int size)
{
    if (!p) return false;
    int64_t i = 0;
    while (i < size - 4) {
        const uint32_t len = readBe32(p + i);
        if (len < 1 || i + int64_t(len) > size) return false;
        writeStartCode(p + i);
        i += int64_t(len) + 4;
    }
    return true;
}

int firstNalByte(const uint8_t* p, int size)
{
    if (!p) return -1;
    if (size > 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1) return p[4];
    if (size > 3 && p[0] == 0 && p[1] == 0 && p[2] == 1) return p[3];
    return -1;
}

bool findStampedTime(const uint8_t* p, int size, int videoType, int64_t* us)
{
    if (!p || size <= 8 || (videoType != 4 && videoType != 5)) return false;
    for (int i = 0; i <= size - 9; ++i) {
        if (p[i] != 0 || p[i + 1] != 0 || p[i + 2] != 0 || p[i + 3] != 1) continue;
        int at = i;
        if (videoType == 4) {
            if ((p[at + 4] & 0x1f) != 6) continue;
        } else {
            if (((p[at + 4] >> 1) & 0x3f) != 39) continue;
            ++at;  // H.265 has a two-byte NAL header
        }
        if (at + 5 >= size || p[at + 5] != 5) continue;
        // A known SEI with its fields cut off by the end of the payload gives
        // no time: the walk ends here either way.
        if (at + 23 > size) return false;
        const uint8_t* uuid = p + at + 7;
        if (std::memcmp(uuid, kUuidMicros, 16) == 0) {
            if (at + 33 > size) return false;
            *us = readLe64(p + at + 25);
            return true;
        }
        if (std::memcmp(uuid, kUuidMillis, 16) == 0) {
            if (at + 39 > size) return false;
            const int64_t ms = readLe64(p + at + 31);
            // A stamp beyond the representable range is no stamp.
            if (ms > INT64_MAX / 1000 || ms < INT64_MIN / 1000) return false;
            *us = ms * 1000;
            return true;
        }
        return false;
    }
    return false;
}

int64_t toMicros(int64_t ts, int den)
{
    if (den <= 0) return 0;
    // ts * 1000000 / den without a 128-bit type (the board is 32-bit): the
    // whole units and the remainder apart. Quotient and remainder carry the
    // same sign, so the sum truncates as the single division would.
    const int64_t whole = ts / den, rest = ts % den;
    constexpr int64_t kMaxWhole = kMaxMicros / 1000000 + 1;
    if (whole >= kMaxWhole) return kMaxMicros;
    if (whole <= -kMaxWhole) return -kMaxMicros;
    const int64_t v = whole * 1000000 + rest * 1000000 / den;
    if (v > kMaxMicros) return kMaxMicros;
    if (v < -kMaxMicros) return -kMaxMicros;
    return v;
}

int bytesPerSecond(int64_t bytes, int64_t elapsedMs)
{
    if (elapsedMs <= 0 || elapsedMs > 10000 || bytes <= 0) return 0;
    // Past this the rate is far above INT_MAX whatever the time.
    if (bytes > INT64_MAX / 1000) return INT_MAX;
    const int64_t v = bytes * 1000 / elapsedMs;
    return v > INT_MAX ? INT_MAX : static_cast<int>(v);
}

void applyDrift(int64_t now, int64_t* pts, int64_t* dts, int64_t* offsetV, int64_t* offsetA,
                int* driftCount)
{
    const int64_t diff = *pts - now;
    const int64_t distance = diff < 0 ? -diff : diff;
    if (distance <= 50000) {
        *driftCount = 0;
        return;
    }
    *driftCount += 1;
    if (distance <= 50000000) {
        if (*driftCount > 10) {
            int64_t step = (now - *pts) / 30;
            if (step > 5000) step = 5000;
            if (step < -5000) step = -5000;
            *offsetV += step;
        }
    } else {
        *offsetV += now - *pts;
        *dts = now + (*dts - *pts);
        *pts = now;
    }
    *offsetA = *offsetV;
}

bool NetClock::audio(int64_t now, int64_t s, int64_t* pts)
{
    s = clampMicros(s);
    if (mode == Local) {
        *pts = now;
        return true;
    }
    if (mode != Auto && mode != Sync) {
        *pts = s;
        return true;
    }
    // Audio does not start before video has set the time.
    if (offsetV == 0 && hasVideo) return false;
    if (offsetA == 0 && mode != Sync) offsetA = now - s;
    if (offsetV != 0 && hasVideo) offsetA = offsetV;
    if (offsetA == 0) return false;
    *pts = s + offsetA;
    return true;
}

bool NetClock::video(int64_t* now, int64_t p, int64_t d, bool key, const uint8_t* payload, int size,
                     int64_t* pts, int64_t* dts)
{
    p = clampMicros(p);
    d = clampMicros(d);
    if (mode == Local) {
        *pts = *now;
        *dts = *now + (d - p);
        return true;
    }
    if (mode != Auto && mode != Sync) {
        *pts = p;
        *dts = d;
        return true;
    }

    if (offsetV == 0) {
        if (!key) {
            if (sync) dropped += 1;
            return false;
        }
        // With pacing, the first 50 packets go whatever they are: a player
        // that starts on the very first key frame starts on a stale one.
        if (sync && dropped < 50) {
            dropped += 1;
            return false;
        }
        if (mode == Auto) {
            if (sync && minDelayMs > 0 && firstFrameDelay) *now = firstFrameDelay(minDelayMs);
            offsetV = *now - p;
        }
    }

    if (mode == Sync) {
        if (offsetV == 0 || key) {
            int64_t t = *now;
            int64_t stamped = 0;
            if (findStampedTime(payload, size, videoType, &stamped)) t = clampMicros(stamped);
            offsetV = offsetA = t - p;
            if (offsetV == 0) return false;
        }
        *pts = p + offsetV;
        *dts = d + offsetV;
        return true;
    }

    *pts = p + offsetV;
    *dts = d + offsetV;
    if (!driftControl) return true;
    applyDrift(*now, pts, dts, &offsetV, &offsetA, &driftCount);
    return true;
}

}  // namespace VeskAv
