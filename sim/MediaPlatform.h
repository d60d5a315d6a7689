// The SoC's media platform on the virtual board: the video input unit, the
// MIPI receiver behind "/dev/ot_mipi", the picture decoder and the entry of
// the video processing unit. The hi_mpi_* functions of frame/hi_mpi.h are
// implemented on top of this class; it keeps what a platform keeps (device
// and channel settings, enable state, the user picture, decoder channels and
// their frames), checks calls as a platform does, and lets tests look at all
// of it, read the ordered log of calls and make any call fail on demand.
//
// Frames the decoder hands out have the layout of VeskHi::makeFrame: NV21
// (OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420), each line padded to 16 bytes, the
// interleaved V/U plane of (height + 1) / 2 lines right after the luma.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <functional>
#include <memory>

#include "frame/hi_mipi.h"
#include "frame/hi_mpi.h"

namespace vsim {

class Device;
struct Nv21Picture;

class MediaPlatform {
public:
    static MediaPlatform& instance();

    // Back to power-on: every setting, enable state, decoder channel, frame,
    // log entry and failure switch goes. Board::activate/reset/deactivate
    // call it.
    void reset();

    // The next `times` calls of `call` (a function name such as
    // "hi_mpi_vi_enable_chn", or one of the MIPI requests "mipi_set_hs_mode",
    // "mipi_enable_clock", "mipi_reset", "mipi_set_dev_attr", "mipi_unreset")
    // fail with `code` and change nothing. For MIPI requests `code` is an
    // errno value.
    void failNext(const QString& call, int code, int times = 1);
    void failAlways(const QString& call, int code);
    void clearFailures();

    struct Call {
        QString name;
        QVariantList args;  // device, channel or group first
        int result = 0;
    };
    // Units kept in files of their own (the audio units) run each of their
    // calls through here, so that the failure switches and the call log
    // cover them as they cover the rest. `body` runs without the platform's
    // lock; such a unit keeps its own.
    int runCall(const char* name, QVariantList args, const std::function<int()>& body);
    // Such units go back to power-on with reset() through these.
    void onReset(std::function<void()> hook);

    QList<Call> calls() const;
    QStringList callNames() const;
    void clearCalls();

    struct ViDev {
        bool configured = false;
        bool enabled = false;
        ot_vi_dev_attr attr{};
    };
    struct ViChn {
        bool configured = false;
        bool enabled = false;
        ot_vi_chn_attr attr{};
        ot_rotation rotation = OT_ROTATION_0;
        bool userPicOn = false;
        int enables = 0;  // times the channel went from disabled to enabled
    };
    // Out-of-range numbers give a default record.
    ViDev viDev(int dev) const;
    ViChn viChn(int chn) const;
    bool userPicSet() const;
    ot_vi_user_pic_attr userPic() const;
    // Sum of the luma bytes of the user picture as the unit read them when it
    // was set.
    uint64_t userPicLumaSum() const;
    // The user picture as the unit copied it in; null in colour mode or
    // before it is set.
    std::shared_ptr<const Nv21Picture> userPicture() const;
    // What the channel delivers now: "off" (channel disabled), "capture" or
    // "picture".
    QString viOutput(int chn) const;

    struct MipiDev {
        bool clockOn = false;
        bool inReset = false;
        bool configured = false;
        ot_combo_dev_attr attr{};
    };
    MipiDev mipiDev(int dev) const;
    int mipiHsMode() const;  // -1 until set
    // The device node; Board puts it at OT_MIPI_DEV_NAME.
    std::shared_ptr<Device> mipiDevice();

    struct VdecChn {
        bool created = false;
        bool receiving = false;
        ot_vdec_chn_attr attr{};
        int streams = 0;  // accepted by send_stream
        int decoded = 0;  // pictures that became frames
        int streamErrors = 0;
        int oversize = 0;
        int ready = 0;  // frames waiting for get_frame
        int held = 0;   // frames the user has not released
    };
    VdecChn vdecChn(int chn) const;
    int vdecChnsCreated() const;

    struct VpssFrame {
        int grp = 0;
        uint32_t width = 0, height = 0;
        uint32_t stride = 0;
        uint64_t pts = 0;
        uint32_t timeRef = 0;
        uint64_t virtAddr = 0;
        uint64_t lumaSum = 0;  // of the visible luma, as the unit read it
        uint64_t chromaSum = 0;
    };
    // The most recent frames (up to 256), oldest first, and the total count.
    QList<VpssFrame> vpssFrames() const;
    quint64 vpssFrameCount() const;

    // The system's media clock in microseconds: from 0 at power-on, set by
    // hi_mpi_sys_init_pts_base and moved again by hi_mpi_sys_sync_pts.
    uint64_t sysPts() const;
    bool sysPtsInited() const;

    struct Impl;

private:
    MediaPlatform();
    ~MediaPlatform();
    Impl* d;
    friend struct PlatformAccess;
};

}  // namespace vsim
