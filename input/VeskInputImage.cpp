#include "input/VeskInputImage.h"

#include <QDebug>
#include <QFile>
#include <QRect>
#include <cstring>

#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskInputImage)

namespace {

// The send timer's interval is 1000 / "framerate" ms: above 1000 it would be
// 0, a timer that never lets the thread rest.
constexpr int kMaxFramerate = 1000;

}  // namespace

VeskInputImage::VeskInputImage(QObject* parent) : VeskObject(parent)
{
    data["width"] = 1920;
    data["height"] = 1080;
    data["framerate"] = 1;
    data["path"] = QString();
    shareName = "share";
    shareDepth = 2;
    std::memset(&frame, 0, sizeof frame);
    connect(&timer, &QTimer::timeout, this, &VeskInputImage::onTimer);
}

// The decoder channel stays as it is: another node may be about to take the
// number, and a running channel costs nothing while nobody sends.
VeskInputImage::~VeskInputImage()
{
    timer.stop();
}

void VeskInputImage::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

int VeskInputImage::requestID()
{
    for (int i = 0; i < OT_VDEC_MAX_CHN_NUM; ++i) {
        ot_vdec_chn_attr attr;
        if (hi_mpi_vdec_get_chn_attr(i, &attr) != 0) return i;
    }
    return -1;
}

void VeskInputImage::onSetData(QMap<QString, QVariant>)
{
    // Refused settings leave the channel, the picture and the timer of the
    // last good ones running.
    bool ok = false;
    const int framerate = data.value("framerate").toInt(&ok);
    if (!ok || framerate < 1 || framerate > kMaxFramerate) {
        log(QStringLiteral("\"framerate\" %1 refused (1 to %2 frames a second): keeping the "
                           "last picture and rate")
                .arg(data.value("framerate").toString())
                .arg(kMaxFramerate));
        return;
    }
    bool okW = false, okH = false;
    const int width = data.value("width").toInt(&okW);
    const int height = data.value("height").toInt(&okH);
    if (!okW || !okH || width < 1 || height < 1 || width > OT_VDEC_MAX_WIDTH ||
        height > OT_VDEC_MAX_HEIGHT) {
        log(QStringLiteral("picture size %1x%2 refused (at most %3x%4): keeping the last "
                           "picture and rate")
                .arg(data.value("width").toString(), data.value("height").toString())
                .arg(int(OT_VDEC_MAX_WIDTH))
                .arg(int(OT_VDEC_MAX_HEIGHT)));
        return;
    }

    // 1. The channel number is kept and used again.
    if (vdecChn == -1) {
        vdecChn = requestID();
        if (vdecChn == -1)
            log(QStringLiteral("all %1 decoder channels are in use: no picture")
                    .arg(int(OT_VDEC_MAX_CHN_NUM)));
    } else {
        hi_mpi_vdec_stop_recv_stream(vdecChn);
        hi_mpi_vdec_destroy_chn(vdecChn);
    }

    // 2. A new width needs new memory; a new height alone does not. The
    // current frame keeps going out until the new picture is in.
    ot_video_frame_info target = frame;
    ot_video_frame_info targetMade = made;
    if (frame.video_frame.width != uint32_t(width)) {
        targetMade = VeskHi::makeFrame(width, height, nullptr);
        if (!targetMade.video_frame.virt_addr[0]) {
            log(QStringLiteral("no frame memory for %1x%2: keeping the last picture")
                    .arg(width)
                    .arg(height));
            return;
        }
        target = targetMade;
    }

    // 3.
    ot_vdec_chn_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.type = OT_PT_JPEG;
    attr.mode = OT_VDEC_SEND_MODE_FRAME;
    attr.pic_width = uint32_t(width);
    attr.pic_height = uint32_t(height);
    attr.stream_buf_size = uint32_t(width) * uint32_t(height);
    attr.frame_buf_size = uint32_t(double(width) * height * 1.5 + 102400);
    attr.frame_buf_cnt = 8;

    // 4, 5.
    int r = hi_mpi_vdec_create_chn(vdecChn, &attr);
    if (r) {
        log(QString::asprintf("zr_mpi_vdec_create_chn %#x", unsigned(r)));
        return;
    }
    r = hi_mpi_vdec_start_recv_stream(vdecChn);
    if (r) {
        log(QString::asprintf("HI_MPI_VDEC_StartRecvStream %#x", unsigned(r)));
        return;
    }

    // 6. Unreadable reads as empty; the decoder then has nothing to show.
    QByteArray bytes;
    {
        QFile file(vsys::path(data.value("path").toString()));
        if (file.open(QIODevice::ReadOnly)) {
            bytes = file.readAll();
            file.close();
        }
    }

    // 7.
    VeskObject::Packet packet;
    packet.data = bytes.data();
    packet.len = bytes.size();
    packet.pts = 0;
    packet.dts = -1;
    const ot_vdec_stream stream = zr_vdec_stream_init(packet);
    r = hi_mpi_vdec_send_stream(vdecChn, &stream, 0);
    if (r) log(QString::asprintf("HI_MPI_VDEC_SendStream %d %x ", vdecChn, unsigned(r)));

    // 8.
    ot_video_frame_info decoded;
    std::memset(&decoded, 0, sizeof decoded);
    r = hi_mpi_vdec_get_frame(vdecChn, &decoded, nullptr, 300);
    if (r) {
        log(QString::asprintf("HI_MPI_VDEC_GetImage %#x", unsigned(r)));
        return;
    }

    // 9. The frame takes the picture's size and line strides; its memory
    // stays where it is, so the picture must fit in what was made. What
    // does not fit is cut off at the bottom.
    const ot_video_frame& d = decoded.video_frame;
    const ot_video_frame& m = targetMade.video_frame;
    uint32_t rows = d.height;
    if (d.stride[0] < d.width || d.stride[1] < d.width || d.stride[0] == 0 || d.stride[1] == 0) {
        rows = 0;
    } else {
        const uint64_t lumaRoom = uint64_t(m.stride[0]) * m.height;
        const uint64_t chromaRoom = uint64_t(m.stride[1]) * ((m.height + 1) / 2);
        rows = uint32_t(qMin<uint64_t>(rows, lumaRoom / d.stride[0]));
        rows = uint32_t(qMin<uint64_t>(rows, chromaRoom / d.stride[1] * 2));
        if (rows < d.height) rows &= ~1u;
    }
    if (rows < d.height)
        log(QStringLiteral("picture %1x%2 does not fit the frame made for %3x%4: %5")
                .arg(d.width)
                .arg(d.height)
                .arg(m.width)
                .arg(m.height)
                .arg(rows ? QStringLiteral("cut to %1 lines").arg(rows)
                          : QStringLiteral("left out")));
    bool copied = false;
    if (rows) {
        ot_video_frame& t = target.video_frame;
        t.width = d.width;
        t.height = rows;
        t.stride[0] = d.stride[0];
        t.stride[1] = d.stride[1];
        MemInfo src, dst;
        src.fromFrame(decoded);
        dst.fromFrame(target);
        int handle = 0;
        const int c1 =
            IVE::copy(&handle, &src, &dst, QRect(0, 0, int(t.width), int(rows)), TD_FALSE);
        const int c2 = c1 ? c1 : IVE::copyUV(&handle, &src, &dst, TD_FALSE);
        if (c1 || c2)
            log(QString::asprintf("IVE copy of the picture failed %#x", unsigned(c1 ? c1 : c2)));
        copied = !c1 && !c2;
    }
    if (copied) {
        // The running time reference and stamp carry on across pictures.
        target.video_frame.time_ref = frame.video_frame.time_ref;
        target.video_frame.pts = frame.video_frame.pts;
        frame = target;
        made = targetMade;
    }

    // 10.
    r = hi_mpi_vdec_release_frame(vdecChn, &decoded);
    if (r) {
        log(QString::asprintf("zr_mpi_vdec_release_frame %#x", unsigned(r)));
        return;
    }
    if (!copied) return;

    // 11. Announced once; later pictures go out through the same tee.
    if (!tee) {
        tee = VeskHi::newTee(OT_ID_USER, 0, 0);
        if (!tee) {
            log("no tee for the picture: nothing to offer downstream");
            return;
        }
        teeChn = tee->newChn(false, true);
        infoV.type = TypeFrames;
        infoV.params["tee"] = tee->getId();
        infoV.params["width"] = data.value("width");
        infoV.params["height"] = data.value("height");
        infoV.params["framerate"] = data.value("framerate");
        sendInfoV(infoV);
    }

    // 12, 13.
    onTimer();
    timer.stop();
    timer.start(1000 / framerate);
}

void VeskInputImage::onTimer()
{
    if (!teeChn) return;
    int64_t now = 0;
    VeskHi::getPTS(&now, false);
    frame.video_frame.pts = uint64_t(now);
    frame.video_frame.time_ref += 2;
    // A busy channel just misses this frame.
    hi_mpi_vpss_send_frame(teeChn->getChn().dev_id, &frame, 0);
}
