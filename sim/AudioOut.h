// The audio output unit of the virtual board's media platform, and the
// common pool of video buffer blocks with its physical memory.
//
// Each output device plays at its own clock: once the first frame came after
// an enable, it consumes sample_rate samples a second of real time from each
// enabled channel's buffer, mixing the channels, and a channel with nothing
// queued plays silence (counted as underrun). What a device plays goes into a
// WAV file of its own when a path is set for it: 16 bits, the device's rate,
// one channel or two as its sound mode says. Frames are read through the
// physical addresses they carry, as the hardware reads them, so a frame that
// does not lie inside a block is refused.
//
// The hi_mpi_ao_*, hi_mpi_vb_* and hi_mpi_sys_mmap functions of
// frame/hi_mpi.h are implemented on this class; their calls go through the
// platform's call log and failure switches (MediaPlatform::runCall).
#pragma once

#include <QString>
#include <cstdint>

#include "frame/hi_mpi.h"

namespace vsim {

class AudioOut {
public:
    static AudioOut& instance();

    // Where device `dev` writes what it plays; an empty path writes nothing.
    // The file is made anew at each enable of the device. Paths are a setting
    // of the bench, not of the platform: reset() keeps them.
    void setWavPath(int dev, const QString& path);
    QString wavPath(int dev) const;

    // Stops the device's clock while `hold` is true, as a codec whose clock
    // stalled: nothing drains and blocked senders wait.
    void setHold(int dev, bool hold);

    struct Dev {
        bool configured = false;
        bool enabled = false;
        ot_aio_attr attr{};
        bool chnEnabled[OT_AIO_MAX_CHN_NUM] = {};
        uint32_t resampleFrom[OT_AIO_MAX_CHN_NUM] = {};  // 0: not resampling
        int busy[OT_AIO_MAX_CHN_NUM] = {};
        uint64_t framesAccepted = 0;   // since power-on
        uint64_t clears = 0;           // clr_chn_buf calls that emptied a buffer
        uint64_t samplesPlayed = 0;    // per channel, since the last enable
        uint64_t underrunSamples = 0;  // of those, played as silence for want of frames
    };
    // Out-of-range numbers give a default record. Brings the device's clock
    // up to now first.
    Dev device(int dev) const;

    // Wait for the device's state; false when `timeoutMs` ran out first.
    bool waitBusyAtMost(int dev, int chn, int busy, int timeoutMs) const;
    bool waitAccepted(int dev, uint64_t frames, int timeoutMs) const;

    int blocksInUse() const;

    struct Impl;
    static Impl& impl();

private:
    AudioOut();
    Impl* d;
};

}  // namespace vsim
