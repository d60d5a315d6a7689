// The audio input unit of the virtual board's media platform: devices with
// their public attributes, channels with resampling and user frame depth,
// and what each device hears, set by scenario steps. The hi_mpi_ai_* calls
// of frame/hi_mpi.h are answered here and logged, and made to fail, through
// MediaPlatform like every other platform call.
//
// Timing: a device that runs delivers one frame per channel every
// point_num_per_frame / rate seconds from the moment it is enabled; a slave
// device (every work mode but I2S master) runs at the rate of its source when
// a scenario gave one, a master at its configured rate. Frames wait in the
// channel up to its user frame depth (older ones are dropped), and the
// channel's descriptor polls readable from the moment one is due.
//
// Scenario steps, each with "ai": DEVICE and any of
//   "tone": [HZ, ...]   a sine per lane (stereo channel c has lanes 2c and
//                       2c + 1, mono channel c lane c); 0 or missing: silence
//   "level": 0..1       amplitude of the tones (default 0.25)
//   "silence": BOOL     zeros in place of the tones while true
//   "stop": BOOL        no frames at all while true
//   "samplerate": HZ    the source's rate (0: none; slave devices follow it)
#pragma once

#include <QString>
#include <QVariantMap>
#include <QVector>
#include <cstdint>

#include "frame/hi_mpi.h"

namespace vsim {

class AudioIn {
public:
    static AudioIn& instance();

    struct Dev {
        bool configured = false;
        bool enabled = false;
        ot_aio_attr attr{};
        uint32_t sourceRate = 0;
        bool stopped = false;
        bool silent = false;
        QVector<double> tones;
    };
    struct Chn {
        bool enabled = false;
        bool resample = false;
        uint32_t outRate = 0;
        uint32_t depth = 0;
        uint32_t nextSeq = 0;
        int ready = 0;        // frames waiting for get_frame
        int held = 0;         // frames the user has not released
        quint64 made = 0;     // frames the channel delivered since enabled
        quint64 dropped = 0;  // frames lost to a full queue
        int fd = -1;
    };
    // Out-of-range numbers give a default record.
    Dev dev(int dev) const;
    Chn chn(int dev, int chn) const;

    bool applyStep(const QVariantMap& step, QString* error);
    void reset();

    struct Impl;

private:
    AudioIn();
    Impl* d;
    friend struct AudioInAccess;
};

}  // namespace vsim
