// The picture side of the virtual board's media platform: processing groups
// and their channels, bindings between units, the display devices with their
// layers, channels, write-back and HDMI transmitter, the graphics planes
// behind "/dev/fb" N, and a sink that the scenario plugs into the HDMI
// connector. The hi_mpi_* calls of frame/hi_mpi.h for these units are
// implemented on top of this class and run through MediaPlatform::runCall, so
// the call log and the failure switches cover them.
//
// compose() paints what a display device sends to its monitor at this moment:
// the background colour, the picture of whatever feeds its layer's channel
// (the input unit's capture or user picture, the last frame a node sent to a
// processing group, or another device's write-back) through the processing
// channel's size, flip and mirror and the display channel's rotation and
// rectangle, and the graphics plane over it.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QList>
#include <QString>
#include <QVariantMap>
#include <memory>

#include "frame/hi_fb.h"
#include "frame/hi_mpi.h"

namespace vsim {

class Device;

// A picture as the units keep it: 4:2:0, a luma plane of width bytes per
// line and a plane of interleaved V/U pairs of (height + 1) / 2 lines.
struct Nv21Picture {
    int width = 0, height = 0;
    QByteArray luma, chroma;
    QImage toImage() const;
};
// A copy of what a frame's memory holds now, as the unit would fetch it;
// null for a frame no unit takes (see MediaPlatform's checks).
std::shared_ptr<const Nv21Picture> copyPicture(const ot_video_frame& frame);

class VideoOut {
public:
    static VideoOut& instance();

    // ---- processing groups and bindings
    struct VpssChn {
        bool configured = false;
        bool enabled = false;
        ot_vpss_chn_attr attr{};
    };
    struct VpssGrp {
        bool created = false;
        bool started = false;
        ot_vpss_grp_attr attr{};
        ot_vpss_grp_param param{};  // applied to what every channel hands on
        VpssChn chn[OT_VPSS_MAX_CHN_NUM];
        quint64 framesIn = 0;  // pictures sent by a node
    };
    VpssGrp vpssGrp(int grp) const;
    // The input unit calls this for each picture a node sends to a group.
    void keepPicture(int grp, std::shared_ptr<const Nv21Picture> picture);
    // The source bound to a sink; mod_id -1 when nothing is.
    ot_mpp_chn boundTo(const ot_mpp_chn& dst) const;

    // ---- display devices
    struct VoDev {
        bool configured = false;  // public attributes set
        bool enabled = false;
        ot_vo_pub_attr attr{};
        ot_vo_user_sync_info userSync{};
        bool userSyncSet = false;
        ot_vo_hdmi_param hdmiParam{};
        ot_vo_bt_param bt{};
        int enables = 0;  // times the device went from disabled to enabled
    };
    struct VoLayer {
        bool configured = false;
        bool enabled = false;
        ot_vo_video_layer_attr attr{};
        ot_vo_csc csc{};
        // Channel 0.
        bool chnConfigured = false;
        bool chnEnabled = false;
        bool chnShown = true;
        ot_vo_chn_attr chnAttr{};
        ot_rotation rotation = OT_ROTATION_0;
    };
    struct Wbc {
        bool enabled = false;
        bool srcSet = false, attrSet = false;
        ot_vo_wbc_src src{};
        ot_vo_wbc_attr attr{};
    };
    // Out-of-range numbers give a default record.
    VoDev voDev(int dev) const;
    VoLayer voLayer(int layer) const;
    Wbc wbc() const;
    // The device a layer belongs to.
    static int layerDevice(int layer);
    // Output size and rate of a device's timing (user timing: the sync
    // record's active size); 0 by 0 for an unknown code.
    static QSize timingSize(int intfSync, const ot_vo_sync_info& sync, int* rate = nullptr);
    // Pixel clock in kHz of a user-defined timing's clock record.
    static uint32_t userPixelClock(const ot_vo_user_sync_info& info);

    // ---- HDMI transmitter and its sink
    struct Hdmi {
        bool inited = false;
        bool opened = false;
        bool started = false;
        ot_hdmi_attr attr{};
        int starts = 0;  // times it went from stopped to started
    };
    Hdmi hdmi() const;
    // A sink on the connector, with its EDID (1 to 512 bytes); an empty
    // EDID is a sink that gives none.
    void plugSink(const QByteArray& edid);
    void unplugSink();
    bool sinkPlugged() const;

    // ---- graphics planes ("/dev/fb0", "/dev/fb1")
    struct Fb {
        int opens = 0;
        bool shown = false;
        ot_fb_alpha alpha{};
        fb_var_screeninfo var{};
        ot_fb_layer_info layer{};
        QList<unsigned long> requests;  // every request, in order
    };
    Fb fb(int index) const;
    std::shared_ptr<Device> fbDevice(int index);
    // What a graphics plane holds, as the application would have drawn it
    // (ARGB8888 at the plane's visible size); tests and scenarios paint it.
    void paintFb(int index, const QImage& image);

    // ---- the input unit's pictures
    // What a video input device's source shows when captured: an image file
    // or a built-in pattern ("bars", "ramp", or a colour "#RRGGBB"), drawn
    // at the capture channel's size. The default is "bars".
    void setCapturePicture(int viDev, const QString& picture);

    // ---- what the monitors see
    // The output frame of a display device now, at its timing's size; a null
    // image while the device is off.
    QImage compose(int dev) const;
    bool snapshot(int dev, const QString& pngPath, QString* error) const;

    // Scenario steps: {"hdmi": "plug", "edid": HEX | {"builtin": ...}},
    // {"hdmi": "unplug"}, {"vi": DEV, "picture": TEXT}.
    bool applyStep(const QVariantMap& step, QString* error);

    void reset();

    struct Impl;

private:
    VideoOut();
    ~VideoOut();
    Impl* d;
    friend struct VideoOutAccess;
};

}  // namespace vsim
