// Pieces of the FFmpeg-based sources that work on plain bytes and numbers:
// parameter sets, start codes, stamped times, the clock mapping of network
// streams and the speed reading. They touch neither FFmpeg nor the host, so
// that they can be checked on hand-made buffers.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <functional>

// AAC sampling frequency index, in the lookup order the appliance always
// used: 96000 and every unknown rate give 0.
unsigned get_sr_index(unsigned sampleRate);
// Two-byte AudioSpecificConfig (AAC LC) for streams that carry none.
void make_dsi(unsigned srIndex, unsigned channels, unsigned char* out);

namespace VeskAv {

// Parameter sets of a video stream's extradata in start-code form, for
// putting in front of H.264 key frames. Extradata that begins with a 0 byte
// is taken as start-code form already; anything else is read as an AVC
// configuration record with one-byte lengths. Never reads past `e`.
QByteArray annexBParameterSets(const QByteArray& e);

// Network rule: overwrites each 4-byte big-endian length with a start code,
// as long as a whole length field lies before the last four bytes. A length
// that points past the end simply ends the walk.
void lengthsToStartCodes(uint8_t* p, int size);

// File rule: the same walk, but a length below 1 or reaching past the end
// rejects the whole packet (returns false; the bytes are then undefined).
bool lengthsToStartCodesStrict(uint8_t* p, int size);

// First byte of the NAL unit behind a leading start code (3 or 4 bytes), or
// -1 when the payload does not begin with one.
int firstNalByte(const uint8_t* p, int size);

// Looks for a time stamped into the stream by an SEI of type 5 (user data
// unregistered) under one of the two known UUIDs. `videoType` is the stream
// type (4 H.264, 5 H.265); other types carry no such SEI. The walk ends at
// the first SEI of type 5. Returns true and sets `*us` (microseconds) only
// when that SEI has a known UUID and its time lies inside the payload.
bool findStampedTime(const uint8_t* p, int size, int videoType, int64_t* us);

// Stream time to microseconds: ts * 1e6 / den. The appliance's sources take
// the time base numerator as 1. Saturates well inside int64, so that sums
// of a few such values cannot overflow; den <= 0 gives 0.
int64_t toMicros(int64_t ts, int den);

// Bytes per second for getSpeed: 0 when the last reading is more than 10 s
// old (or the clock did not move), saturated to int.
int bytesPerSecond(int64_t bytes, int64_t elapsedMs);

// Slow correction of the stream-to-host offset of a network stream, applied
// to a packet whose pts (and dts) are already mapped. Within 50 ms of the
// host clock nothing happens; beyond it, after ten packets in a row the
// offset slews by a thirtieth of the error, at most 5 ms a packet; beyond
// 50 s the packet is pulled onto the clock at once.
void applyDrift(int64_t now, int64_t* pts, int64_t* dts, int64_t* offsetV, int64_t* offsetA,
                int* driftCount);

// Stream time to host time for a network source (VeskInputNet).
class NetClock {
public:
    enum Mode { Auto = 0, Local = 2, Sync = 3 };

    int mode = Auto;
    bool sync = false;  // the node's "sync" key: lead-in drops and pacing
    bool driftControl = true;
    bool hasVideo = false;
    int videoType = 0;  // stream type, for the SEI search in Sync mode
    int minDelayMs = -1;
    int64_t offsetA = 0;
    int64_t offsetV = 0;
    int dropped = 0;
    int driftCount = 0;

    // Waits `ms` before the first frame and returns a fresh clock reading.
    // The node sleeps; tests pretend. Unset: no wait, clock unchanged.
    std::function<int64_t(int ms)> firstFrameDelay;

    void reset()
    {
        offsetA = offsetV = 0;
        dropped = 0;
        driftCount = 0;
    }

    // Audio time `s` (microseconds) at host time `now`. False: drop it.
    bool audio(int64_t now, int64_t s, int64_t* pts);

    // Video times `p`, `d` (microseconds); `payload` is what will be sent,
    // searched for a stamped time in Sync mode. `now` may be read anew
    // (minimum delay). False: drop it.
    bool video(int64_t* now, int64_t p, int64_t d, bool key, const uint8_t* payload, int size,
               int64_t* pts, int64_t* dts);
};

}  // namespace VeskAv
