#include "input/VeskInputVi.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <QDebug>
#include <QThread>
#include <cmath>
#include <cstring>

#include "driver/Driver.h"
#include "frame/Vesk.h"
#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "frame/hi_mipi.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskInputVi)

bool VeskInputVi::picInited = false;
bool VeskInputVi::mipiHsModeSet = false;

namespace {

// The capture window inside a picture of width x height: the top edge moves
// down to a multiple of four lines and the height shrinks to one, as the
// unit's line buffers want.
struct Crop {
    int64_t x = 0, y = 0, width = 0, height = 0;
};

Crop cropOf(const QVariantMap& crop, int64_t width, int64_t height)
{
    const int64_t l = crop.value("L").toInt(), r = crop.value("R").toInt();
    const int64_t t = crop.value("T").toInt(), b = crop.value("B").toInt();
    Crop c;
    c.x = l;
    c.y = int64_t(std::ceil(double(t) * 0.25)) * 4;
    c.width = width - l - r;
    c.height = int64_t(std::floor(double(height - t - b) * 0.25)) * 4;
    return c;
}

uint32_t asWord(int64_t v)
{
    return v < 0 ? 0u : uint32_t(qMin<int64_t>(v, INT32_MAX));
}

}  // namespace

VeskInputVi::VeskInputVi(QObject* parent) : VeskObject(parent)
{
    data["width"] = 1920;
    data["height"] = 1080;
    data["interleaved"] = false;
    data["srcFramerate"] = 30;
    data["dstFramerate"] = 60;
    data["interlace"] = false;
    data["avalible"] = false;
    data["mode"] = "bt1120";
    data["rotate"] = 0;
    data["mux"] = 1;
    data["422"] = false;
    data["contrast"] = 0;
    data["double"] = false;
    data["pic"] = "/vesk/config/nosignal.yuv";
    data["interface"] = "";
    data["swapYC"] = false;
    data["interlaceMode"] = "auto";
    data["crop"] = QVariantMap{{"L", 0}, {"R", 0}, {"T", 0}, {"B", 0}};
    data["mirror"] = false;
    data["flip"] = false;
    shareName = "share";
    shareDepth = 2;
    // Queued: the driver's check and the rebuild it may cause must not run
    // inside whoever happened to be on the stack when the timer fired.
    connect(&timer, &QTimer::timeout, this, &VeskInputVi::onTimer, Qt::QueuedConnection);
}

VeskInputVi::~VeskInputVi()
{
    if (dev != -1) {
        hi_mpi_vi_disable_chn(chn);
        hi_mpi_vi_disable_dev(dev);
    }
    if (tee) VeskHi::delTee(tee);
}

void VeskInputVi::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

QVariant VeskInputVi::callFunc(QVariant arg)
{
    const QVariantList list = arg.toList();
    return Driver::callFuncV(data.value("interface").toString(), list.value(0).toString(),
                             list.value(1));
}

QVariant VeskInputVi::getReport()
{
    return QVariant(info);
}

QVariant VeskInputVi::test()
{
    return QVariant(true);
}

// ---------------------------------------------------------------- start and poll

void VeskInputVi::onStart()
{
    const QString iface = data.value("interface").toString();
    if (!iface.isEmpty()) {
        const QVariantMap board =
            Vesk::getConfig().value("interfaceV").toMap().value(iface).toMap();
        if (board.contains("chip")) {
            Driver::initV();
            if (!timer.isActive()) timer.start(1000);
        }
    }

    // Started again: the tee that downstream already knows stays.
    if (!tee) {
        tee = VeskHi::newTee(OT_ID_VI, 0, chn);
        if (!tee) {
            log("no tee for the capture: nothing to offer downstream");
            return;
        }
        tee->sourceFlag = true;
        tee->newChn(false, true);
    }
    tee->setMax(data.value("width").toInt(), data.value("height").toInt());
    tee->contrast = data.value("contrast").toInt();
    tee->updateParam();

    infoV.type = TypeFrames;
    infoV.params["tee"] = tee->getId();
    infoV.params["framerate"] = data.value("dstFramerate");
    infoV.params["width"] = data.value("width");
    infoV.params["height"] = data.value("height");
    infoV.params["avalible"] = data.value("avalible");
    const int rotate = data.value("rotate").toInt();
    if (rotate == 90 || rotate == 270) {
        infoV.params["width"] = data.value("height");
        infoV.params["height"] = data.value("width");
    }
    sendInfoV(infoV);
}

void VeskInputVi::onTimer()
{
    info = Driver::getInfoV(data.value("interface").toString());
    QMap<QString, QVariant> copy = info;
    info["name"] = data.value("interface");

    if (copy.value("avalible").toBool()) {
        copy["srcFramerate"] = copy.value("framerate");
        if (copy.value("interlace").toBool()) {
            if (data.value("interlaceMode").toString() == QLatin1String("auto")) {
                // Two fields are woven into one frame.
                copy["srcFramerate"] = copy.value("framerate").toInt() / 2;
            } else {
                // Each field is a picture of its own.
                copy["interlace"] = false;
                copy["height"] = copy.value("height").toInt() / 2;
            }
        }
        setData(copy);
    } else if (!copy.isEmpty()) {
        setData({{"avalible", false}, {"width", 1920}, {"height", 1080}, {"avs", false}});
    }
}

// ---------------------------------------------------------------- rebuild

void VeskInputVi::onSetData(QMap<QString, QVariant> newData)
{
    // 1. The rebuild always starts from a stopped unit.
    if (dev != -1) {
        hi_mpi_vi_disable_user_pic(chn);
        hi_mpi_vi_disable_chn(chn);
        hi_mpi_vi_disable_dev(dev);
    }

    // 2. The board description wins over what the user set.
    const QString iface = data.value("interface").toString();
    if (!iface.isEmpty()) {
        const QVariantMap interfaces = Vesk::getConfig().value("interfaceV").toMap();
        auto it = interfaces.constFind(iface);
        if (it == interfaces.constEnd()) {
            log("Do not have interface named " + iface);
            return;
        }
        const QVariantMap board = it.value().toMap();
        for (auto b = board.constBegin(); b != board.constEnd(); ++b)
            data.insert(b.key(), b.value());
    }

    // 3. Device and channel. Whatever they are, the unit judges them.
    if (data.contains("did")) {
        dev = data.value("did").toInt();
        chn = data.value("cid").toInt();
    }

    // 4. MIPI and LVDS lanes.
    const QString mode = data.value("mode").toString();
    if (mode == QLatin1String("mipi") || mode == QLatin1String("lvds")) initMipi(dev);

    // 5. Never more frames out than come in; once lowered it stays lowered.
    if (data.value("dstFramerate").toInt() > data.value("srcFramerate").toInt())
        data["dstFramerate"] = data.value("srcFramerate");

    // 6.
    devPair = dev / 2;
    if (dev == -1) return;

    // 7. Whether downstream must hear of it.
    const bool avalible = data.value("avalible").toBool();
    bool changed =
        newData.contains("avs") || infoV.params.value("avalible") != data.value("avalible");
    if (avalible && infoV.type != 0) {
        if (infoV.params.value("width") != data.value("width") ||
            infoV.params.value("height") != data.value("height") ||
            infoV.params.value("framerate") != data.value("dstFramerate") ||
            infoV.params.value("interlace") != info.value("interlace") ||
            newData.contains("rotate"))
            changed = true;
    }

    // 8.
    const int rotate = data.value("rotate").toInt();
    if (changed) {
        infoV.params["width"] = data.value("width");
        infoV.params["height"] = data.value("height");
        infoV.params["framerate"] = data.value("dstFramerate");
        if (newData.contains("avs")) infoV.params["avs"] = data.value("avs").toInt();
        infoV.params["interlace"] = info.value("interlace");
        infoV.params["avalible"] = data.value("avalible");
        if (rotate == 90 || rotate == 270) {
            infoV.params["width"] = data.value("height");
            infoV.params["height"] = data.value("width");
        }
        if (tee) tee->setMax(data.value("width").toInt(), data.value("height").toInt());
        sendInfoV(infoV);
    }

    // 9. A new crop announces the cropped size.
    if (newData.contains("crop")) {
        const QVariantMap crop = data.value("crop").toMap();
        const int height =
            data.value("height").toInt() - crop.value("T").toInt() - crop.value("B").toInt();
        infoV.params["width"] =
            data.value("width").toInt() - crop.value("L").toInt() - crop.value("R").toInt();
        infoV.params["height"] = height - height % 4;
        sendInfoV(infoV);
    }

    // 10.
    if (newData.contains("contrast") && tee) {
        tee->contrast = data.value("contrast").toInt();
        tee->updateParam();
    }

    // 11, 12. A failure leaves the unit without frames until the next change.
    initVi(dev, data.value("interleaved").toBool());
    initChn(chn, data.value("width").toInt(), data.value("height").toInt(),
            data.value("srcFramerate").toInt(), data.value("dstFramerate").toInt(),
            data.value("interlace").toBool());

    // 13.
    if (!data.value("pic").toString().isEmpty()) initPic();

    // 14.
    if (info.value("avalible").toBool()) {
        log(QStringLiteral("VI set %1x%2%3%4@%5,%6")
                .arg(infoV.params.value("width").toInt())
                .arg(infoV.params.value("height").toInt())
                .arg(infoV.params.value("interlace").toBool() ? "I" : "P")
                .arg(infoV.params.value("framerate").toInt())
                .arg(dev)
                .arg(chn));
    }

    // 15.
    sendEvent("signal", info);

    // 16. The picture covers for a missing signal.
    if (picInited) {
        if (!data.value("avalible").toBool()) {
            const int r = hi_mpi_vi_enable_user_pic(chn);
            if (r) log(QString::asprintf("HI_MPI_VI_EnableUserPic %#x", unsigned(r)));
        } else {
            hi_mpi_vi_disable_user_pic(chn);
        }
    }
}

// ---------------------------------------------------------------- the unit

void VeskInputVi::setMask(int dev, ot_vi_dev_attr* attr)
{
    if (attr->intf_mode == OT_VI_INTF_MODE_BT1120) {
        const bool swap = data.value("swapYC").toBool();
        attr->component_mask[0] = swap ? 0xFF000 : 0xFF0;
        attr->component_mask[1] = swap ? 0xFF0 : 0xFF000;
    } else {
        // The two devices of a pair share one 16-bit bus: the odd one takes
        // the upper byte.
        attr->component_mask[0] = dev % 2 == 1 ? 0xFF000 : 0xFF0;
        attr->component_mask[1] = 0;
    }
}

bool VeskInputVi::initVi(int dev, bool interleaved)
{
    ot_vi_dev_attr attr;
    std::memset(&attr, 0, sizeof attr);
    const QString mode = data.value("mode").toString();
    if ((mode == QLatin1String("bt1120") && !interleaved) || mode == QLatin1String("bt1120s"))
        attr.intf_mode = OT_VI_INTF_MODE_BT1120;
    else if ((mode == QLatin1String("bt1120") && interleaved) || mode == QLatin1String("bt1120i"))
        attr.intf_mode = OT_VI_INTF_MODE_BT1120_INTERLEAVED;
    else if (mode == QLatin1String("bt656"))
        attr.intf_mode = OT_VI_INTF_MODE_BT656;
    else if (mode == QLatin1String("mipi"))
        attr.intf_mode = OT_VI_INTF_MODE_MIPI;
    attr.work_mode = data.value("mux").toInt() / 2;
    if (data.value("double").toBool()) attr.clk_edge = OT_VI_CLK_EDGE_DOUBLE;
    if (data.value("reverse").toBool()) attr.data_reverse = 1;
    if (attr.intf_mode == OT_VI_INTF_MODE_BT656) attr.data_seq = OT_VI_DATA_SEQ_UYVY;
    setMask(dev, &attr);

    int r = hi_mpi_vi_set_dev_attr(dev, &attr);
    if (r) {
        log(QString::asprintf("Set dev attributes failed with error %d code %#x", dev,
                              unsigned(r)));
        return false;
    }
    r = hi_mpi_vi_enable_dev(dev);
    if (r) {
        log(QString::asprintf("Enable dev failed with error code %#x", unsigned(r)));
        return false;
    }
    return true;
}

bool VeskInputVi::initChn(int chn, int width, int height, int srcFramerate, int dstFramerate,
                          bool interlace)
{
    ot_vi_chn_attr attr;
    std::memset(&attr, 0, sizeof attr);
    const Crop c = cropOf(data.value("crop").toMap(), width, height);
    attr.crop.x = int32_t(qBound<int64_t>(INT32_MIN, c.x, INT32_MAX));
    attr.crop.y = int32_t(qBound<int64_t>(INT32_MIN, c.y, INT32_MAX));
    attr.crop.width = asWord(c.width);
    attr.crop.height = asWord(c.height);
    attr.size.width = attr.crop.width;
    attr.size.height = attr.crop.height;
    attr.capture_select = OT_VI_CAPTURE_SELECT_BOTH;
    attr.scan_mode = OT_VIDEO_SCAN_MODE_PROGRESSIVE;
    attr.pixel_format = data.value("422").toBool() ? OT_PIXEL_FORMAT_YVU_SEMIPLANAR_422
                                                   : OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;
    attr.mirror = data.value("mirror").toBool() ? 1 : 0;
    attr.flip = data.value("flip").toBool() ? 1 : 0;
    attr.depth = 0;
    if (srcFramerate >= 1 && dstFramerate >= 1 && srcFramerate > dstFramerate) {
        attr.frame_rate_ctrl.src_frame_rate = srcFramerate;
        attr.frame_rate_ctrl.dst_frame_rate = dstFramerate;
    } else {
        attr.frame_rate_ctrl.src_frame_rate = -1;
        attr.frame_rate_ctrl.dst_frame_rate = -1;
    }

    int r = 0;
    if (!interlace) {
        r = hi_mpi_vi_set_chn_attr(chn, &attr);
        if (r) {
            log(QString::asprintf("HI_MPI_VI_SetChnAttr failed with %d %#x!", chn, unsigned(r)));
            return false;
        }
    } else {
        // An interlaced input locks onto its fields only after the channel
        // has run once as progressive.
        ot_vi_chn_attr priming = attr;
        attr.scan_mode = OT_VIDEO_SCAN_MODE_INTERLACED;
        r = hi_mpi_vi_set_chn_attr(chn, &priming);
        if (r) {
            log(QString::asprintf("HI_MPI_VI_SetChnAttr failed with %d %#x!", chn, unsigned(r)));
            return false;
        }
        hi_mpi_vi_enable_chn(chn);
        QThread::msleep(50);
        hi_mpi_vi_disable_chn(chn);
    }

    r = hi_mpi_vi_set_rotation(chn, data.value("rotate").toInt() / 90);
    if (r) log(QString::asprintf("HI_MPI_VI_SetRotate1 failed with %d %#x!", chn, unsigned(r)));

    if (interlace) {
        r = hi_mpi_vi_set_chn_attr(chn, &attr);
        if (r) {
            log(QString::asprintf("HI_MPI_VI_SetChnAttr failed with %d %#x!", chn, unsigned(r)));
            return false;
        }
    }

    r = hi_mpi_vi_enable_chn(chn);
    if (r) {
        log(QString::asprintf("HI_MPI_VI_EnableChn failed with %#x!", unsigned(r)));
        return false;
    }

    if (data.value("mode").toString() == QLatin1String("bt1120i")) {
        // The interleaved bus needs the channel's input sequence register
        // patched by hand; the unit has one per group of four channels.
        const char* line = nullptr;
        switch (chn) {
            case 0:
                line = "bspmm 0x17410314 0xFF000008 > /dev/null";
                break;
            case 4:
                line = "bspmm 0x17414314 0xFF000008 > /dev/null";
                break;
            case 8:
                line = "bspmm 0x17418314 0xFF000008 > /dev/null";
                break;
            case 12:
                line = "bspmm 0x1741C314 0xFF000008 > /dev/null";
                break;
            default:
                break;
        }
        if (line) vsys::system(line);
    }
    return true;
}

int VeskInputVi::initMipi(int dev)
{
    const int fd = vsys::open(OT_MIPI_DEV_NAME, O_RDWR);
    if (fd < 0) {
        log("open hi_mipi dev failed");
        return 0;
    }
    // LVDS boards use the same lane split as MIPI ones. The flag is set
    // before the request, so a failed one is not repeated.
    if (!mipiHsModeSet) {
        mipiHsModeSet = true;
        ot_lane_divide_mode laneMode = 0;
        if (vsys::ioctl(fd, OT_MIPI_SET_HS_MODE, &laneMode) < 0) {
            log("HI_MIPI_SET_HS_MODE failed");
            vsys::close(fd);
            return 0;
        }
    }
    ot_combo_dev combo = ot_combo_dev(dev);
    if (vsys::ioctl(fd, OT_MIPI_ENABLE_MIPI_CLOCK, &combo) < 0) {
        log(QString::asprintf("MIPI_ENABLE_CLOCK %d failed", dev));
        vsys::close(fd);
        return 0;
    }
    if (vsys::ioctl(fd, OT_MIPI_RESET_MIPI, &combo) < 0) {
        log(QString::asprintf("HI_MIPI_RESET_MIPI %d failed", dev));
        vsys::close(fd);
        return 0;
    }
    ot_combo_dev_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.devno = combo;
    attr.img_rect.width = uint32_t(data.value("width").toInt());
    attr.img_rect.height = uint32_t(data.value("height").toInt());
    attr.input_data_type = 1;
    for (int i = 0; i < OT_MIPI_LANE_NUM; ++i) attr.lane_id[i] = int16_t(dev * 4 + i);
    if (vsys::ioctl(fd, OT_MIPI_SET_DEV_ATTR, &attr) < 0) {
        log("MIPI_SET_DEV_ATTR failed3");
        vsys::close(fd);
        return 0;
    }
    if (vsys::ioctl(fd, OT_MIPI_UNRESET_MIPI, &combo) < 0) {
        log("HI_MIPI_UNRESET_MIPI failed");
        vsys::close(fd);
        return 0;
    }
    vsys::close(fd);
    return 1;
}

// ---------------------------------------------------------------- no-signal picture

bool VeskInputVi::readPicture(const QString& path, const ot_video_frame& frame)
{
    // Where the frame's memory is, plane by plane; the file fills it in that
    // order and no further.
    struct Plane {
        char* at;
        size_t size;
    } planes[2] = {
        {reinterpret_cast<char*>(frame.virt_addr[0]), size_t(frame.stride[0]) * frame.height},
        {reinterpret_cast<char*>(frame.virt_addr[1]),
         size_t(frame.stride[1]) * ((frame.height + 1) / 2)},
    };
    if (!planes[1].at) planes[1].size = 0;
    const size_t room = planes[0].size + planes[1].size;

    const QByteArray file = path.toLocal8Bit();
    struct stat st;
    const int fd = vsys::open(file.constData(), O_RDONLY);
    if (fd < 0 || vsys::stat(file.constData(), &st) != 0) {
        log(QStringLiteral("cannot read the no-signal picture %1").arg(path));
        if (fd >= 0) vsys::close(fd);
        return false;
    }
    const size_t size = st.st_size > 0 ? size_t(st.st_size) : 0;
    if (size != room)
        log(QStringLiteral("%1 holds %2 bytes, a %3x%4 frame %5: %6")
                .arg(path)
                .arg(qulonglong(size))
                .arg(frame.width)
                .arg(frame.height)
                .arg(qulonglong(room))
                .arg(size > room ? QStringLiteral("the rest of the file is left out")
                                 : QStringLiteral("the rest of the frame stays black")));

    size_t want = qMin(size, room);
    for (const Plane& p : planes) {
        size_t done = 0;
        const size_t part = qMin(want, p.size);
        while (done < part) {
            const ssize_t n = vsys::read(fd, p.at + done, part - done);
            if (n <= 0) break;
            done += size_t(n);
        }
        want -= part;
        if (done < part) break;
    }
    vsys::close(fd);
    return true;
}

void VeskInputVi::initPic()
{
    if (picInited) return;
    const QString path = data.value("pic").toString();
    // Not there yet: the next change of signal looks again.
    if (!vsys::exists(path)) return;

    ot_vi_user_pic_attr pic;
    std::memset(&pic, 0, sizeof pic);
    pic.pic_mode = OT_VI_USER_PIC_MODE_PIC;
    pic.bg_color = 0;
    pic.frame_info = VeskHi::makeFrame(1920, 1080, nullptr);
    const ot_video_frame& f = pic.frame_info.video_frame;
    if (!f.virt_addr[0]) {
        log("no frame memory for the no-signal picture");
        return;
    }
    readPicture(path, f);
    if (hi_mpi_vi_set_user_pic(0, &pic) == 0)
        picInited = true;
    else
        log("zr_mpi_vi_set_user_pic faild");
}
