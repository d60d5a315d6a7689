#include "output/VeskOutputVo.h"

#include <fcntl.h>

#include <QDebug>
#include <QStringList>
#include <climits>
#include <cmath>
#include <cstring>

#include "driver/mcu/DriverVesk.h"
#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "frame/hi_fb.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskOutputVo)

bool VeskOutputVo::firstRun = true;

namespace {

// Module number of the display unit in every binding and tee.
constexpr int kVoModule = 15;
constexpr int kUserSync = 48;
constexpr int kUserHdmiFormat = 41;
constexpr int kPixelFormat = OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;

// A fraction of the output size as the platform takes it: cut to an integer
// inside the int range (a wild "w" must not overflow), then toward zero to a
// multiple of 4.
int toQuad(double v)
{
    if (!std::isfinite(v)) return 0;
    v = std::trunc(v);
    if (v > INT_MAX - 3) v = INT_MAX - 3;
    if (v < INT_MIN + 4) v = INT_MIN + 4;
    int i = int(v);
    if (i < 0) i += 3;
    return i & ~3;
}

// The channel rectangle rounds down instead (floor), as the device expects
// a rectangle that never reaches past the output.
int floorQuad(double v)
{
    if (!std::isfinite(v)) return 0;
    double q = std::floor(v / 4) * 4;
    if (q > INT_MAX - 3) q = INT_MAX - 3;
    if (q < INT_MIN) q = INT_MIN;
    return int(q);
}

int matrixWord(const QString& matrix)
{
    static const QMap<QString, int> words{
        {"709limit_709full", 14}, {"601limit_601full", 8}, {"709limit_709limit", 6},
        {"601limit_601limit", 0}, {"709full_709full", 15}, {"601full_601full", 9},
        {"709full_rgbfull", 19},  {"601full_rgbfull", 17}, {"709limit_rgbfull", 18},
        {"601limit_rgbfull", 16},
    };
    return words.value(matrix, 6);
}

// The sync record of a user-defined timing, field by field from the map.
ot_vo_sync_info syncFromMap(const QVariantMap& m)
{
    ot_vo_sync_info s{};
    s.syncm = m.value("syncm").toBool();
    s.iop = m.value("iop").toBool();
    s.intfb = uint8_t(m.value("intfb").toUInt());
    s.vact = uint16_t(m.value("vact").toUInt());
    s.vbb = uint16_t(m.value("vbb").toUInt());
    s.vfb = uint16_t(m.value("vfb").toUInt());
    s.hact = uint16_t(m.value("hact").toUInt());
    s.hbb = uint16_t(m.value("hbb").toUInt());
    s.hfb = uint16_t(m.value("hfb").toUInt());
    s.hmid = uint16_t(m.value("hmid").toUInt());
    s.bvact = uint16_t(m.value("bvact").toUInt());
    s.bvbb = uint16_t(m.value("bvbb").toUInt());
    s.bvfb = uint16_t(m.value("bvfb").toUInt());
    s.hpw = uint16_t(m.value("hpw").toUInt());
    s.vpw = uint16_t(m.value("vpw").toUInt());
    s.idv = m.value("idv").toBool();
    s.ihs = m.value("ihs").toBool();
    s.ivs = m.value("ivs").toBool();
    return s;
}

// The panel of 960 by 544 that boards ship with, when no timing is given.
ot_vo_sync_info panel960x544()
{
    ot_vo_sync_info s{};
    s.syncm = 0;
    s.iop = 1;
    s.intfb = 1;
    s.vact = 544;
    s.vbb = 22;
    s.vfb = 10;
    s.hact = 960;
    s.hbb = 36;
    s.hfb = 190;
    s.hmid = 1;
    s.bvact = 1;
    s.bvbb = 1;
    s.bvfb = 1;
    s.hpw = 4;
    s.vpw = 4;
    s.idv = 0;
    s.ihs = 1;
    s.ivs = 1;
    return s;
}

QString hex(int code)
{
    return QString::asprintf("%#x", unsigned(code));
}

}  // namespace

VeskOutputVo::VeskOutputVo(QObject* parent) : VeskObject(parent), timer(this)
{
    modes = {
        {1920, 1080, 60, false, 23, 0},  {1920, 1080, 50, false, 22, 1},
        {1920, 1080, 30, false, 19, 2},  {1920, 1080, 25, false, 18, 3},
        {1920, 1080, 24, false, 17, 4},  {1920, 1080, 60, true, 21, 5},
        {1920, 1080, 50, true, 20, 6},   {1280, 720, 60, false, 10, 7},
        {1280, 720, 50, false, 9, 8},    {720, 576, 50, false, 6, 9},
        {720, 480, 60, false, 5, 10},    {720, 576, 25, false, 0, 11},
        {720, 486, 30, false, 1, 12},    {800, 600, 60, false, 7, 14},
        {1280, 800, 60, false, 11, 16},  {1280, 1024, 60, false, 12, 17},
        {1366, 768, 60, false, 13, 18},  {1024, 768, 60, false, 8, 15},
        {1440, 900, 60, false, 15, 19},  {1600, 1200, 60, false, 24, 21},
        {1680, 1050, 60, false, 16, 22}, {1920, 1200, 60, false, 25, 23},
        {2560, 1440, 30, false, 27, 24}, {2560, 1440, 60, false, 28, 25},
        {2560, 1600, 60, false, 29, 26}, {1920, 2160, 30, false, 26, 27},
        {3840, 2160, 24, false, 30, 28}, {3840, 2160, 25, false, 31, 29},
        {3840, 2160, 30, false, 32, 30}, {3840, 2160, 50, false, 33, 31},
        {3840, 2160, 60, false, 34, 32}, {-1, -1, 60, false, kUserSync, kUserHdmiFormat},
    };

    data["type"] = "hdmi";
    data["mode"] = -1;
    data["output"] = "1080P60";
    data["ui"] = true;
    data["color"] = 0;
    data["x"] = 0.0;
    data["y"] = 0.0;
    data["w"] = 1.0;
    data["h"] = 1.0;
    data["flip"] = false;
    data["mirror"] = false;
    data["rotate"] = 0;
    data["width"] = 480;
    data["height"] = 800;
    data["lowLatency"] = false;
    data["scaleUp"] = false;
    data["wbc"] = false;
    data["share"] = -1;
    data["swapYC"] = false;
    data["chip"] = "";
    shareName = "share";
    shareDepth = 2;

    connect(&timer, &QTimer::timeout, this, &VeskOutputVo::onTimer);
}

void VeskOutputVo::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

int VeskOutputVo::layerId() const
{
    return data.contains("lid") ? data.value("lid").toInt() : vid;
}

VeskOutputVo::MyInf VeskOutputVo::findInf(QString name)
{
    width = 1920;
    height = 1080;
    framerate = 60;
    interlaced = false;
    const MyInf fallback = modes.first();

    if (name == "user") {
        MyInf row = modes.last();
        if (data.contains("width")) row.width = data.value("width").toInt();
        if (data.contains("height")) row.height = data.value("height").toInt();
        if (data.contains("framerate")) row.framerate = data.value("framerate").toInt();
        width = row.width;
        height = row.height;
        framerate = row.framerate;
        interlaced = row.interlaced;
        return row;
    }

    if (name == "pal") {
        width = 720;
        height = 576;
        framerate = 25;
    } else if (name == "ntsc") {
        width = 720;
        height = 486;
        framerate = 30;
    } else if (name.contains('p') || name.contains('i')) {
        interlaced = name.contains('i');
        const QStringList parts = name.split(interlaced ? 'i' : 'p');
        if (parts.size() != 2) return fallback;
        height = parts[0].toInt();
        framerate = parts[1].toInt();
        width = height < 720 ? 720 : height < 1080 ? 1280 : 1920;
    } else {
        const QStringList parts = name.split('_');
        if (parts.size() != 2) return fallback;
        const QStringList size = parts[0].split('x');
        if (size.size() != 2) return fallback;
        width = size[0].toInt();
        height = size[1].toInt();
        framerate = parts[1].toInt();
    }

    // A name without a row shows the first row's timing while the members
    // keep the parsed size, which the channel and the planes then use.
    for (const MyInf& row : qAsConst(modes)) {
        if (row.width == width && row.height == height && row.framerate == framerate &&
            row.interlaced == interlaced)
            return row;
    }
    return fallback;
}

void VeskOutputVo::initMipi() {}

void VeskOutputVo::initFB(int w, int h, int devId)
{
    // One plane for the whole process: a second instance with "ui" takes it
    // over from the first.
    static int fd = -1;
    uint32_t show = 0;
    if (fd >= 0) {
        vsys::ioctl(fd, FBIOPUT_SHOW_LAYER, &show);
        vsys::close(fd);
        fd = -1;
    }
    const QByteArray path = ("/dev/fb" + QString::number(devId)).toLocal8Bit();
    fd = vsys::open(path.constData(), O_RDWR);

    // The plane's answers are not needed: a plane that refuses a setting
    // only draws wrongly, the video below it still shows.
    vsys::ioctl(fd, FBIOPUT_SHOW_LAYER, &show);

    ot_fb_alpha alpha{};
    alpha.alpha_en = 1;
    alpha.alpha_chn_en = 0;
    alpha.alpha0 = 0x00;
    alpha.alpha1 = 0xFF;
    alpha.global_alpha = 0;
    vsys::ioctl(fd, FBIOPUT_ALPHA_LAYER, &alpha);

    fb_var_screeninfo var{};
    vsys::ioctl(fd, FBIOGET_VSCREENINFO, &var);
    var.xres = var.xres_virtual = uint32_t(w);
    var.yres = var.yres_virtual = uint32_t(h);
    var.bits_per_pixel = 32;
    var.red = {16, 8, 0};
    var.green = {8, 8, 0};
    var.blue = {0, 8, 0};
    var.transp = {24, 8, 0};
    var.activate = 0;
    vsys::ioctl(fd, FBIOPUT_VSCREENINFO, &var);

    ot_fb_layer_info layer{};
    vsys::ioctl(fd, FBIOGET_LAYER_INFO, &layer);
    layer.buf_mode = OT_FB_LAYER_BUF_ONE;
    layer.mask = 1;
    vsys::ioctl(fd, FBIOPUT_LAYER_INFO, &layer);

    show = 1;
    vsys::ioctl(fd, FBIOPUT_SHOW_LAYER, &show);
}

void VeskOutputVo::startHDMI()
{
    const QString type = data["type"].toString();
    const bool dvi = type.contains("dvi");

    hi_mpi_hdmi_deinit();
    hi_mpi_hdmi_init();
    hi_mpi_hdmi_open(0);
    ot_hdmi_attr a{};
    hi_mpi_hdmi_get_attr(0, &a);
    a.hdmi_en = !dvi;
    a.video_format = info.hdmiFormat;
    a.audio_en = 1;
    a.sample_rate = 9;
    a.bit_depth = 2;
    a.infoframe_en = !dvi;

    ot_vo_hdmi_param p{};
    hi_mpi_vo_get_hdmi_param(0, &p);
    if (dvi) {
        p.csc.csc_matrix = 16;
        hi_mpi_vo_set_hdmi_param(0, &p);
    } else {
        p.csc.csc_matrix = 6;
        if (data.contains("csc"))
            p.csc.csc_matrix =
                matrixWord(data.value("csc").toMap().value("matrix").toString().toLower());
        const int r = hi_mpi_vo_set_hdmi_param(0, &p);
        if (r) log("hi_mpi_vo_set_hdmi_param failed " + hex(r));
    }

    if (info.hdmiFormat == kUserHdmiFormat) {
        a.pix_clk = uint32_t(data.value("pixel_clk").toLongLong());
        if (width == 960) {
            log("HI_HDMI_VIDEO_MODE_RGB444");
            a.pix_clk = 41000;
        }
    }

    int r = hi_mpi_hdmi_set_attr(0, &a);
    if (r) log("zr_mpi_hdmi_set_attr failed " + hex(r));
    r = hi_mpi_hdmi_start(0);
    if (r) log("zr_mpi_hdmi_start failed " + hex(r));
    hdmiStarted = true;
}

void VeskOutputVo::resizeTeeChn()
{
    const int w = toQuad(width * data["w"].toDouble());
    const int h = toQuad(height * data["h"].toDouble());
    const int rotate = data["rotate"].toInt();
    if (rotate == 90 || rotate == 270)
        teeChn->resizeChn(h, w, false);
    else
        teeChn->resizeChn(w, h, false);
}

void VeskOutputVo::forgetDeadChn()
{
    // A deleted tee takes its channels with it.
    if (teeChn && !VeskHi::getTee(teeId)) teeChn = nullptr;
}

void VeskOutputVo::onSetData(QMap<QString, QVariant> newData)
{
    const QString type = data["type"].toString();
    if (type.contains("cvbs") && !data.contains("vid")) {
        data["vid"] = 2;
        data["lid"] = 3;
        data["output"] = "PAL";
        data["framerate"] = 50;
    }

    if (data["chip"].toString().toLower() == "gs2972") timer.start(2000);

    info = findInf(data["output"].toString().toLower());
    int sync = info.intfSync;
    if (data["mode"].toInt() != -1) sync = data["mode"].toInt();

    vid = data["ui"].toBool() ? 0 : 1;
    if (data.contains("vid")) vid = data.value("vid").toInt();
    const int layer = layerId();

    // The device goes down whole, whichever layer is in use.
    hi_mpi_vo_disable_chn(vid, 0);
    hi_mpi_vo_disable_video_layer(vid);
    hi_mpi_vo_disable(vid);

    ot_vo_pub_attr attr{};
    int r = hi_mpi_vo_get_pub_attr(vid, &attr);
    if (r) {
        log(QString::asprintf("zr_mpi_vo_get_pub_attr failed with %#x! %d", unsigned(r), vid));
        return;
    }
    attr.bg_color = data["color"].toUInt();
    attr.intf_type = 0;
    if (type.contains("hdmi") || type.contains("dvi")) attr.intf_type |= OT_VO_INTF_HDMI;
    if (type.contains("vga")) attr.intf_type |= OT_VO_INTF_VGA;
    if (type.contains("cvbs")) attr.intf_type |= OT_VO_INTF_CVBS;
    if (type.contains("bt1120")) attr.intf_type |= OT_VO_INTF_BT1120;
    if (type.contains("bt656")) attr.intf_type |= OT_VO_INTF_BT656;
    if (type.contains("mipi")) {
        attr.intf_type |= OT_VO_INTF_MIPI;
        initMipi();
    }
    attr.intf_sync = sync;

    forgetDeadChn();
    if (teeChn) {
        resizeTeeChn();
        teeChn->setFlip(data["flip"].toBool());
        teeChn->setMirror(data["mirror"].toBool());
    }

    hi_mpi_vo_set_chn_rotation(layer, 0, ot_rotation(data["rotate"].toInt() / 90));

    log(QStringLiteral("show %1x%2 vid%3").arg(width).arg(height).arg(vid));

    if (info.intfSync == kUserSync) {
        if (data.contains("syncInfo")) {
            attr.sync_info = syncFromMap(data.value("syncInfo").toMap());
        } else if (width == 960 && height == 544) {
            attr.sync_info = panel960x544();
        } else {
            // Without a timing of its own a user size has nothing defined to
            // drive the device with; handing on whatever the record held
            // could put any signal on the connector. The device stays down.
            return;
        }
    }

    r = hi_mpi_vo_set_pub_attr(vid, &attr);
    if (r) {
        log(QString::asprintf("VO zr_mpi_vo_set_pub_attr failed with %#x! %d", unsigned(r), vid));
        return;
    }

    if (info.intfSync == kUserSync) {
        ot_vo_user_sync_info rec{};
        hi_mpi_vo_get_user_sync_info(vid, &rec);
        rec.clk_source = 0;
        rec.fb_div = uint32_t(data.value("pixel_clk").toLongLong() / 1500);
        rec.frac = 0;
        rec.ref_div = 1;
        rec.post_div1 = 4;
        rec.post_div2 = 1;
        rec.dev_div = 4;
        rec.pre_div = 1;
        rec.clk_reverse_en = 1;
        hi_mpi_vo_set_user_sync_info(vid, &rec);
    }

    r = hi_mpi_vo_enable(vid);
    if (r) {
        log("zr_mpi_vo_enable failed with " + hex(r) + "!");
        return;
    }

    ot_vo_video_layer_attr la{};
    hi_mpi_vo_get_video_layer_attr(layer, &la);
    la.display_rect = {0, 0, uint32_t(info.width), uint32_t(info.height)};
    la.img_width = uint32_t(info.width);
    la.img_height = uint32_t(info.height);
    la.display_frame_rate = uint32_t(info.framerate);
    if (data.contains("framerate")) la.display_frame_rate = data.value("framerate").toUInt();
    la.pixel_format = kPixelFormat;
    la.double_frame_en = 0;
    la.cluster_mode_en = 0;
    if (!type.contains("cvbs")) {
        if (data["lowLatency"].toBool())
            zr_mpi_vo_set_low_Latency(la, vid);
        else
            zr_mpi_vo_set_normal_Latency(la, vid);
    }
    r = hi_mpi_vo_set_video_layer_attr(layer, &la);
    if (r) {
        log("zr_mpi_vo_set_video_layer_attr failed with " + hex(r) + "!");
        return;
    }

    if (data.contains("csc")) {
        const QVariantMap m = data.value("csc").toMap();
        ot_vo_csc c{};
        hi_mpi_vo_get_layer_csc(layer, &c);
        c.csc_matrix = 0;
        c.luma = m.value("luma").toUInt();
        c.contrast = m.value("contrast").toUInt();
        c.hue = m.value("hue").toUInt();
        c.saturation = m.value("saturation").toUInt();
        hi_mpi_vo_set_layer_csc(layer, &c);
    }

    if (data["ui"].toBool()) initFB(width, height, vid);

    r = hi_mpi_vo_enable_video_layer(layer);
    if (r) {
        log("zr_mpi_vo_enable_video_layer failed with " + hex(r) + "!");
        return;
    }

    ot_vo_chn_attr chn{};
    chn.priority = 0;
    chn.rect.x = floorQuad(data["x"].toDouble() * width);
    chn.rect.y = floorQuad(data["y"].toDouble() * height);
    chn.rect.width = uint32_t(floorQuad(data["w"].toDouble() * width));
    chn.rect.height = uint32_t(floorQuad(data["h"].toDouble() * height));
    chn.deflicker_en = 0;
    r = hi_mpi_vo_set_chn_attr(layer, 0, &chn);
    if (r) {
        log("HI_MPI_VO_SetChnAttr failed with " + hex(r) + "!");
        return;
    }
    r = hi_mpi_vo_enable_chn(layer, 0);
    if (r) {
        log("zr_mpi_vo_enable_chn failed with " + hex(r) + "!");
        return;
    }

    if (type.contains("hdmi") || type.contains("dvi")) {
        // The sink sees a transmitter restart as a new connection, so only a
        // new interface or timing earns one.
        if (!hdmiStarted || newData.contains("type") || newData.contains("output")) startHDMI();
        ot_vo_hdmi_param p{};
        hi_mpi_vo_get_hdmi_param(vid, &p);
        p.csc.luma = p.csc.contrast = p.csc.hue = p.csc.saturation = 50;
        hi_mpi_vo_set_hdmi_param(vid, &p);
    }

    if (data["wbc"].toBool() && !setUpWbc()) return;

    if (type.contains("bt1120")) {
        const bool swap = data.value("swapYC", false).toBool();
        const bool wide = data["chip"].toString() == "lt8618sx" && width > 1920;
        zr_mpi_vo_bt_set_param(vid, swap, wide);
    }

    // The stream bound before the rebuild goes onto the new channel.
    if (keptInfoV.type != 0) onNewInfoV(keptInfoV);
}

bool VeskOutputVo::setUpWbc()
{
    hi_mpi_vo_disable_wbc(0);
    ot_vo_wbc_src src{};
    src.src_type = 0;
    src.src_id = vid;
    int r = hi_mpi_vo_set_wbc_src(0, &src);
    if (r) {
        log("HI_MPI_VO_SetWBCSource failed with " + hex(r));
        return false;
    }
    ot_vo_wbc_attr a{};
    a.target_size = {uint32_t(width), uint32_t(height)};
    a.pixel_format = kPixelFormat;
    a.frame_rate = 60;
    a.dynamic_range = 0;
    a.compress_mode = 0;
    r = hi_mpi_vo_set_wbc_attr(0, &a);
    if (r) {
        log("hi_mpi_vo_set_wbc_attr failed with " + hex(r));
        return false;
    }
    r = hi_mpi_vo_enable_wbc(0);
    if (r) {
        log("hi_mpi_vo_enable_wbc failed with " + hex(r));
        return false;
    }

    if (!wbcTee) {
        wbcTee = VeskHi::newTee(kVoModule, vid, 0);
        infoV.type = TypeFrames;
        infoV.params["tee"] = wbcTee->getId();
    }
    // What the display shows goes on as a source of its own, always at 60.
    infoV.params["framerate"] = 60;
    infoV.params["width"] = width;
    infoV.params["height"] = height;
    sendInfoV(infoV);
    return true;
}

void VeskOutputVo::onStart()
{
    if (vid == -1) onSetData(data);
    if (firstRun) {
        firstRun = false;
        onStop();
        onStart();
    }
}

void VeskOutputVo::onStop()
{
    if (vid == -1) return;
    if (data["wbc"].toBool()) hi_mpi_vo_disable_wbc(0);
    hi_mpi_vo_disable_chn(vid, 0);
    hi_mpi_vo_disable_video_layer(vid);
    hi_mpi_vo_disable(vid);
    vid = -1;
}

void VeskOutputVo::onNewInfoV(VeskObject::StreamInfo info)
{
    if (info.type != TypeFrames || !info.params.contains("tee")) return;
    const int id = info.params.value("tee").toInt();
    VeskTee* tee = VeskHi::getTee(id);

    if (data.contains("vid")) vid = data.value("vid").toInt();
    const int layer = layerId();

    forgetDeadChn();
    if (id != teeId) {
        teeId = id;
        if (!tee) log("Can not find tee");
        delete teeChn;
        teeChn = nullptr;
        if (tee) {
            if (data["scaleUp"].toBool())
                teeChn = tee->newChnIPC();
            else
                teeChn = tee->newChn(false, data["share"].toInt() >= 0);
        }
        if (teeChn) {
            teeChn->setFlip(data["flip"].toBool());
            teeChn->setMirror(data["mirror"].toBool());
            if (width != -1) resizeTeeChn();
        }
    }

    // A stream ahead of the device keeps its channel; the bring-up binds it.
    if (vid == -1 || !teeChn) return;

    if (!data["lowLatency"].toBool()) {
        if (!VeskHi::bindFromTee(teeChn, kVoModule, layer, 0)) log("bind error");
        return;
    }
    // Straight from the source to the device, past the tee's channel; the
    // target is the device, whatever "lid" says.
    if (!tee) {
        log("Can not find tee");
        return;
    }
    const ot_mpp_chn src = tee->getSource();
    if (!VeskHi::bind(src.mod_id, src.dev_id, src.chn_id, kVoModule, vid, 0)) log("bind error2");
}

QVariant VeskOutputVo::show()
{
    if (vid != -1) hi_mpi_vo_show_chn(vid, 0);
    return true;
}

QVariant VeskOutputVo::hide()
{
    if (vid != -1) hi_mpi_vo_hide_chn(vid, 0);
    return true;
}

void VeskOutputVo::onTimer()
{
    timer.stop();
    const QString output = data["output"].toString().toLower();

    if (!DriverVesk::instance || !DriverVesk::com) {
        const char* sel0 = "echo 0 > /sys/class/gpio/gpio124/value";
        const char* sel1 = "echo 0 > /sys/class/gpio/gpio125/value";
        if (output == "1080p60" || output == "1080p50") {
            sel1 = "echo 1 > /sys/class/gpio/gpio125/value";
        } else if (output == "pal") {
            sel0 = "echo 1 > /sys/class/gpio/gpio124/value";
        }
        vsys::system(sel0);
        vsys::system(sel1);
        return;
    }

    int rate0 = 0, rate1 = 0;
    if (output == "1080p60" || output == "1080p50" || output == "user") {
        rate1 = 1;
    } else if (output == "pal" || width < 1280) {
        rate0 = 1;
    }
    QMap<QString, QVariant> cmd;
    cmd["Cmd"] = "2972Cfg";
    cmd["SeqNum"] = 100;
    cmd["RateSel0"] = rate0;
    cmd["RateSel1"] = rate1;
    DriverVesk::instance->sendCmd(cmd);
}

QVariant VeskOutputVo::saveEDID(QVariant path)
{
    ot_hdmi_edid rec;
    std::memset(&rec, 0, sizeof rec);
    hi_mpi_hdmi_force_get_edid(0, &rec);
    if (rec.edid_valid != 1) return false;

    uint32_t len = rec.edid_len;
    if (len > sizeof rec.edid) {
        log(QStringLiteral("EDID of %1 bytes cut to %2").arg(len).arg(sizeof rec.edid));
        len = sizeof rec.edid;
    }
    // Whether the file opened is not looked at: a file that cannot be made
    // takes nothing, and the EDID still counts as read.
    const QByteArray file = path.toString().toLocal8Bit();
    const int fd = vsys::open(file.constData(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    vsys::write(fd, rec.edid, len);
    vsys::close(fd);
    return true;
}
