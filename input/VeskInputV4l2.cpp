#include "input/VeskInputV4l2.h"

#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <QDebug>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskInputV4l2)

namespace {

constexpr int kRetryMs = 500;
constexpr int kCompressedHeadroom = 20;
// A blocking descriptor never answers EAGAIN; one that does for this long
// would hold the node's thread for good.
constexpr int kMaxAgain = 1000;
// More formats than any camera lists: a device that never ends the list
// must not keep the node here.
constexpr uint32_t kMaxFormats = 64;

// Source bytes the YUYV conversion reads, and chroma bytes it writes, for a
// picture of w by h: the last read is the V of the last chroma pair.
void yuyvNeeds(int w, int h, int64_t* srcBytes, int64_t* chromaBytes)
{
    *srcBytes = *chromaBytes = 0;
    if (w <= 0 || h <= 0) return;
    const int64_t n = int64_t(w) * h / 2;
    const int64_t evens = (n + 1) / 2;
    const int64_t jumps =
        w % 2 ? (n + 2 * int64_t(w) - 1) / (2 * int64_t(w)) : (n + int64_t(w) - 1) / int64_t(w);
    const int64_t lastK = evens ? 1 + 4 * (evens - 1) + 2 * int64_t(w) * jumps : 0;
    *srcBytes = std::max<int64_t>(evens ? lastK + 3 : 0, 2 * int64_t(w) * h - 1);
    *chromaBytes = evens ? 2 * (evens - 1) + 2 : 0;
}

}  // namespace

VeskInputV4l2::VeskInputV4l2(QObject* parent) : VeskObject(parent)
{
    data["width"] = 1280;
    data["height"] = 720;
    data["framerate"] = 30;
    data["format"] = "mjpeg";
    data["path"] = "/dev/video0";
    data["v4l2BufLen"] = 4;
    data["memSize"] = 4096000;
    data["timestampMode"] = "local";
    data["drop"] = 1;
    shareName = "v4l2";
    shareDepth = 2;
    connect(&retryTimer, &QTimer::timeout, this, &VeskInputV4l2::onTimerRetry);
}

VeskInputV4l2::~VeskInputV4l2()
{
    retryTimer.stop();
    onStop();
    delete[] buffers;
}

void VeskInputV4l2::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

bool VeskInputV4l2::knownFormat() const
{
    const QString f = data.value("format").toString();
    return f == "mjpeg" || f == "h264" || f == "h265" || f == "yuv";
}

void VeskInputV4l2::onStart()
{
    width = data["width"].toInt();
    height = data["height"].toInt();
    path = data["path"].toString();
    if (!knownFormat())
        log(QStringLiteral("format \"%1\" refused: \"mjpeg\", \"h264\", \"h265\" or \"yuv\"")
                .arg(data.value("format").toString()));
    if (data["format"].toString() == "yuv" && !tee) makeRawTarget();
    retryTimer.start(kRetryMs);
}

void VeskInputV4l2::makeRawTarget()
{
    frame = VeskHi::makeFrame(width, height, nullptr);
    frameWidth = width;
    frameHeight = height;
    tee = VeskHi::newTee(OT_ID_USER, 0, 0);
    if (tee) teeChn = tee->newChn(false, true);
}

void VeskInputV4l2::onSetData(QMap<QString, QVariant> newData)
{
    if (newData.contains("format") && !knownFormat())
        log(QStringLiteral("format \"%1\" refused: \"mjpeg\", \"h264\", \"h265\" or \"yuv\"")
                .arg(data.value("format").toString()));
    onStop();
    opened = false;
    retryTimer.start(kRetryMs);
}

void VeskInputV4l2::onTimerRetry()
{
    const bool present = vsys::exists(path);
    if (!opened && present) {
        opened = init();
    } else if (opened && !present) {
        onStop();
        opened = false;
        sendEvent("CameraOpen", false);
    }
}

bool VeskInputV4l2::init()
{
    // Nothing of an unknown format could be sent; the camera stays closed.
    if (!knownFormat()) return false;
    const QByteArray dev = path.toLocal8Bit();
    struct stat st;
    if (vsys::stat(dev.constData(), &st) != 0) {
        log(QStringLiteral("Cannot identify '%1': %2").arg(path).arg(errno));
        return false;
    }
    fd = vsys::open(dev.constData(), O_RDWR);
    if (fd < 0) {
        log(QStringLiteral("Cannot open '%1': %2").arg(path).arg(errno));
        fd = -1;
        return false;
    }
    const QString format = data["format"].toString();
    // A size that is not the frame's any more, or a frame made by nobody,
    // is told once an opening rather than for every picture.
    rawWarned = false;

    log("Checking Device Info......");
    log(QStringLiteral("camera_fd = %1").arg(fd));

    v4l2_capability cap;
    std::memset(&cap, 0, sizeof cap);
    if (vsys::ioctl(fd, VIDIOC_QUERYCAP, &cap) != 0) {
        log(QStringLiteral("VIDIOC_QUERYCAP failed %1").arg(errno));
    } else {
        auto text = [](const __u8* s, size_t n) {
            return QString::fromLatin1(reinterpret_cast<const char*>(s),
                                       int(qstrnlen(reinterpret_cast<const char*>(s), uint(n))));
        };
        log("VIDIOC_QUERYCAP OK");
        log(QStringLiteral("device name : %1").arg(text(cap.card, sizeof cap.card)));
        log(QStringLiteral("device driver : %1").arg(text(cap.driver, sizeof cap.driver)));
        log(QStringLiteral("device bus_info : %1").arg(text(cap.bus_info, sizeof cap.bus_info)));
        log(QStringLiteral("KERNEL_VERSION : %1.%2.%3")
                .arg((cap.version >> 16) & 0xFF)
                .arg((cap.version >> 8) & 0xFF)
                .arg(cap.version & 0xFF));
        log(QString::asprintf("device capabilities : %#x", cap.capabilities));
        log(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE
                ? "This device DO supports iamge captureing"
                : "This device DO NOT support iamge captureing");
        log(cap.capabilities & V4L2_CAP_STREAMING
                ? "This device DO supports iamge captureing STREAMING"
                : "This device DO NOT support iamge captureing STREAMING");
    }

    log("Checking Device Supported Format......");
    log("Supported Formats:");
    for (uint32_t i = 0;; ++i) {
        if (i == kMaxFormats) {
            log(QStringLiteral("more than %1 formats listed: the rest is not read")
                    .arg(kMaxFormats));
            break;
        }
        v4l2_fmtdesc desc;
        std::memset(&desc, 0, sizeof desc);
        desc.index = i;
        desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (vsys::ioctl(fd, VIDIOC_ENUM_FMT, &desc) != 0) break;
        const char* d = reinterpret_cast<const char*>(desc.description);
        log(QStringLiteral("\t%1.%2").arg(i + 1).arg(
            QString::fromLatin1(d, int(qstrnlen(d, sizeof desc.description)))));
    }

    v4l2_format fmt;
    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (vsys::ioctl(fd, VIDIOC_G_FMT, &fmt) != 0)
        log(QStringLiteral("VIDIOC_G_FMT failed %1").arg(errno));
    else
        log("VIDIOC_G_FMT OK");

    std::memset(&fmt, 0, sizeof fmt);
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    fmt.fmt.pix.width = uint32_t(data["width"].toInt());
    fmt.fmt.pix.height = uint32_t(data["height"].toInt());
    // "h265" asks for YUYV and still treats what comes as H.265.
    fmt.fmt.pix.pixelformat = format == "mjpeg"  ? V4L2_PIX_FMT_MJPEG
                              : format == "h264" ? V4L2_PIX_FMT_H264
                                                 : V4L2_PIX_FMT_YUYV;
    if (vsys::ioctl(fd, VIDIOC_S_FMT, &fmt) != 0)
        log(QStringLiteral("VIDIOC_S_FMT failed %1").arg(errno));
    else
        log("VIDIOC_S_FMT OK");

    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe.numerator = 1;
    parm.parm.capture.timeperframe.denominator = uint32_t(data["framerate"].toInt());
    if (vsys::ioctl(fd, VIDIOC_S_PARM, &parm) != 0) log("VIDIOC_S_PARM failed");

    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (vsys::ioctl(fd, VIDIOC_G_PARM, &parm) != 0) {
        log(QStringLiteral("VIDIOC_G_PARM failed %1").arg(errno));
    } else {
        data["framerate"] = int(parm.parm.capture.timeperframe.denominator);
        log(QStringLiteral("device framerate : %1").arg(data["framerate"].toInt()));
    }

    initMmap();

    infoV.params["width"] = data["width"];
    infoV.params["height"] = data["height"];
    infoV.params["framerate"] = data["framerate"];
    if (format == "mjpeg") {
        infoV.type = TypeMJPEG;
    } else if (format == "h264") {
        infoV.type = TypeH264;
    } else if (format == "h265") {
        infoV.type = TypeH265;
    } else {
        // The frame and tee are made by the start alone: "yuv" given after it
        // announces tee 0, and its frames are dropped until the next start.
        infoV.type = TypeFrames;
        infoV.params["tee"] = tee ? tee->getId() : 0;
    }
    sendInfoV(infoV);

    if (!notifier) {
        notifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        connect(notifier, SIGNAL(activated(int)), this, SLOT(onRead(int)));
    }
    sendEvent("CameraOpen", true);
    return true;
}

void VeskInputV4l2::initMmap()
{
    v4l2_requestbuffers req;
    std::memset(&req, 0, sizeof req);
    req.count = uint32_t(data["v4l2BufLen"].toInt());
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    req.memory = V4L2_MEMORY_MMAP;
    if (vsys::ioctl(fd, VIDIOC_REQBUFS, &req) != 0) return;
    if (req.count < 2) log("Insufficient buffer memory");
    uint32_t count = req.count;
    if (count > VIDEO_MAX_FRAME) {
        log(QStringLiteral("the device granted %1 buffers: using %2")
                .arg(count)
                .arg(VIDEO_MAX_FRAME));
        count = VIDEO_MAX_FRAME;
    }

    // The table of the last opening is done with: its buffers were unmapped
    // when that opening closed.
    delete[] buffers;
    buffers = new Buffer[count ? count : 1];
    bufferCount = 0;
    for (uint32_t i = 0; i < count; ++i) {
        v4l2_buffer buf;
        std::memset(&buf, 0, sizeof buf);
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.index = i;
        if (vsys::ioctl(fd, VIDIOC_QUERYBUF, &buf) != 0) {
            log("VIDIOC_QUERYBUF error");
            return;
        }
        buffers[i].length = buf.length;
        buffers[i].start = vsys::mmap(nullptr, buf.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                                      off_t(buf.m.offset));
        if (buffers[i].start == MAP_FAILED) log("mmap failed");
        ++bufferCount;
    }
    for (uint32_t i = 0; i < bufferCount; ++i) {
        v4l2_buffer buf;
        std::memset(&buf, 0, sizeof buf);
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.index = i;
        if (vsys::ioctl(fd, VIDIOC_QBUF, &buf) != 0) {
            log("VIDIOC_QBUF failed");
            return;
        }
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (vsys::ioctl(fd, VIDIOC_STREAMON, &type) != 0)
        log(QStringLiteral("VIDIOC_STREAMON failed %1").arg(errno));
}

void VeskInputV4l2::onRead(int)
{
    read_frame();
}

int VeskInputV4l2::read_frame()
{
    v4l2_buffer buf;
    for (int tries = 0;; ++tries) {
        std::memset(&buf, 0, sizeof buf);
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        if (vsys::ioctl(fd, VIDIOC_DQBUF, &buf) == 0) break;
        const int e = errno;
        if (e != EAGAIN || tries == kMaxAgain) {
            log(QStringLiteral("VIDIOC_DQBUF %1").arg(e));
            return 0;
        }
    }
    if (buf.index >= bufferCount) {
        log(QStringLiteral("buffer error %1 of %2").arg(buf.index).arg(bufferCount));
        return 0;
    }

    Packet packet;
    VeskHi::getPTS(&packet.pts, false);
    packet.dts = packet.pts;
    packet.frameType = 0;
    packet.reserved = 0;
    // Every frame counts, an empty one too. A "drop" the count has passed is
    // never met again; the count must still not run past what it can hold.
    frameCounter = frameCounter == INT32_MAX ? 0 : frameCounter + 1;
    if (frameCounter == data["drop"].toInt()) {
        frameCounter = 0;
        // What the device says it filled must lie inside what was mapped.
        const Buffer& b = buffers[buf.index];
        if (b.start == MAP_FAILED || !b.start)
            log(QStringLiteral("buffer %1 is not mapped: frame dropped").arg(buf.index));
        else if (buf.bytesused > b.length)
            log(QStringLiteral("frame of %1 bytes in a buffer of %2: frame dropped")
                    .arg(buf.bytesused)
                    .arg(b.length));
        else
            sendFrame(b, buf.bytesused, &packet);
    }

    for (int tries = 0;; ++tries) {
        if (vsys::ioctl(fd, VIDIOC_QBUF, &buf) == 0) break;
        if (errno != EAGAIN || tries == kMaxAgain) break;
    }
    return 1;
}

void VeskInputV4l2::sendFrame(const Buffer& b, uint32_t used, Packet* packet)
{
    char* src = static_cast<char*>(b.start);
    packet->len = int32_t(used);
    packet->data = bufferData(src, packet->len, v4l2frame::kDhtHeadroom);
    const QString format = data["format"].toString();
    if (format == "mjpeg" || format == "h264" || format == "h265") {
        if (format == "mjpeg" && packet->data)
            packet->data = v4l2frame::mjpegUnit(packet->data, &packet->len, &hasDHT);
        else if (format != "mjpeg")
            packet->data = bufferData(src, packet->len, kCompressedHeadroom);
        if (packet->data)
            sendPacketV(*packet);
        else
            log("no buffer for the frame: dropped");
    } else {
        // The picture is read from the mapped buffer as far as the frame's
        // size takes it, whatever the device says it filled.
        sendRaw(static_cast<const uint8_t*>(b.start), b.length, packet->pts);
    }
}

void VeskInputV4l2::sendRaw(const uint8_t* src, size_t bytes, int64_t pts)
{
    ot_video_frame& f = frame.video_frame;
    int64_t need = 0, chromaNeed = 0;
    yuyvNeeds(width, height, &need, &chromaNeed);
    const int64_t lumaRoom = int64_t(f.stride[0]) * frameHeight;
    const int64_t chromaRoom = int64_t(f.stride[1]) * ((frameHeight + 1) / 2);
    QString problem;
    if (!teeChn || !f.virt_addr[0] || !f.virt_addr[1])
        problem = QStringLiteral("no frame to send YUYV into");
    else if (width <= 0 || height <= 0 || int64_t(width) * height > lumaRoom ||
             chromaNeed > chromaRoom)
        problem = QStringLiteral("%1x%2 does not fit the frame made for %3x%4")
                      .arg(width)
                      .arg(height)
                      .arg(frameWidth)
                      .arg(frameHeight);
    else if (int64_t(bytes) < need)
        problem = QStringLiteral("buffer of %1 bytes is short of the %2 that %3x%4 takes")
                      .arg(bytes)
                      .arg(need)
                      .arg(width)
                      .arg(height);
    if (!problem.isEmpty()) {
        if (!rawWarned) log(problem + ": frames dropped");
        rawWarned = true;
        return;
    }

    auto* luma = reinterpret_cast<uint8_t*>(f.virt_addr[0]);
    auto* plane = reinterpret_cast<uint8_t*>(f.virt_addr[1]);
    const int64_t pixels = int64_t(width) * height;
    for (int64_t i = 0; i < pixels; ++i) luma[i] = src[2 * i];
    // Chroma from the odd lines: each chroma line skips one source line.
    const int64_t n = pixels / 2;
    int64_t k = 1;
    for (int64_t i = 0; i < n; i += 2) {
        if (i % width == 0) k += 2 * int64_t(width);
        plane[i + 1] = src[k];
        plane[i] = src[k + 2];
        k += 4;
    }
    f.time_ref += 2;
    f.pts = uint64_t(pts);
    hi_mpi_vpss_send_frame(teeChn->vpss ? teeChn->vpss->getId() : 0, &frame, 0);
}

void VeskInputV4l2::onStop()
{
    if (fd == -1) return;
    if (notifier) {
        disconnect(notifier, SIGNAL(activated(int)), this, SLOT(onRead(int)));
        notifier->setEnabled(false);
        notifier->deleteLater();
        notifier = nullptr;
    }
    for (uint32_t i = 0; i < bufferCount; ++i) {
        if (buffers[i].start == MAP_FAILED || !buffers[i].start) continue;
        if (vsys::munmap(buffers[i].start, buffers[i].length) != 0) std::printf("munmap error\n");
        buffers[i].start = nullptr;
    }
    // Closing ends the stream; no STREAMOFF.
    bufferCount = 0;
    vsys::close(fd);
    fd = -1;
    hasDHT = -1;
}

// ---------------------------------------------------------------- control

void VeskInputV4l2::setControl(uint32_t id, int value)
{
    v4l2_control c;
    c.id = id;
    c.value = value;
    vsys::ioctl(fd, VIDIOC_S_CTRL, &c);
}

int VeskInputV4l2::getControl(uint32_t id)
{
    v4l2_control c;
    c.id = id;
    c.value = 0;
    vsys::ioctl(fd, VIDIOC_G_CTRL, &c);
    return c.value;
}

void VeskInputV4l2::relative(uint32_t id, const QVariant& step)
{
    // A failed read leaves the record's 0, and the step lands on that.
    setControl(id, getControl(id) + step.toInt());
}

void VeskInputV4l2::xuQuery(uint8_t selector, uint8_t query, uint16_t size, uint8_t* bytes)
{
    uvc_xu_control_query q;
    std::memset(&q, 0, sizeof q);
    q.unit = 9;
    q.selector = selector;
    q.query = query;
    q.size = size;
    q.data = bytes;
    vsys::ioctl(fd, UVCIOC_CTRL_QUERY, &q);
}

bool VeskInputV4l2::ptz_set(QVariant args)
{
    const QVariantList l = args.toList();
    if (l.size() != 3) return false;
    setControl(V4L2_CID_PAN_ABSOLUTE, l[0].toInt());
    setControl(V4L2_CID_TILT_ABSOLUTE, l[1].toInt());
    setControl(V4L2_CID_ZOOM_ABSOLUTE, l[2].toInt());
    return true;
}

QVariantList VeskInputV4l2::ptz_get()
{
    const int p = getControl(V4L2_CID_PAN_ABSOLUTE);
    const int t = getControl(V4L2_CID_TILT_ABSOLUTE);
    const int z = getControl(V4L2_CID_ZOOM_ABSOLUTE);
    return {p, t, z};
}

bool VeskInputV4l2::ptz_abs_p(QVariant v)
{
    setControl(V4L2_CID_PAN_ABSOLUTE, v.toInt());
    return true;
}

bool VeskInputV4l2::ptz_abs_t(QVariant v)
{
    setControl(V4L2_CID_TILT_ABSOLUTE, v.toInt());
    return true;
}

bool VeskInputV4l2::ptz_abs_z(QVariant v)
{
    setControl(V4L2_CID_ZOOM_ABSOLUTE, v.toInt());
    return true;
}

bool VeskInputV4l2::ptz_rlt_p(QVariant v)
{
    relative(V4L2_CID_PAN_ABSOLUTE, v);
    return true;
}

bool VeskInputV4l2::ptz_rlt_t(QVariant v)
{
    relative(V4L2_CID_TILT_ABSOLUTE, v);
    return true;
}

bool VeskInputV4l2::ptz_rlt_z(QVariant v)
{
    relative(V4L2_CID_ZOOM_ABSOLUTE, v);
    return true;
}

QVariantMap VeskInputV4l2::insta360_get()
{
    // Zeroed, so that a camera without the unit reads as all off.
    uint8_t buf[52] = {};
    xuQuery(0x02, UVC_GET_CUR, 52, buf);
    QVariantMap m;
    m["tracking"] = buf[0] == 1;
    m["whiteboard"] = buf[0] == 4;
    m["overhead"] = buf[0] == 5;
    m["deskview"] = buf[0] == 6;
    xuQuery(0x1B, UVC_GET_CUR, 2, buf);
    m["hdr"] = (buf[0] & 0x04) != 0;
    m["mirror"] = (buf[0] & 0x08) != 0;
    return m;
}

bool VeskInputV4l2::insta360_set(QVariant args)
{
    const QVariantMap m = args.toMap();
    uint8_t buf[52] = {};
    xuQuery(0x02, UVC_GET_CUR, 52, buf);
    buf[0] = m.value("tracking").toBool()     ? 1
             : m.value("whiteboard").toBool() ? 4
             : m.value("overhead").toBool()   ? 5
             : m.value("deskview").toBool()   ? 6
                                              : 0;
    xuQuery(0x02, UVC_SET_CUR, 52, buf);
    xuQuery(0x1B, UVC_GET_CUR, 2, buf);
    buf[0] = uint8_t(m.value("hdr").toBool() ? buf[0] | 0x04 : buf[0] & ~0x04);
    buf[0] = uint8_t(m.value("mirror").toBool() ? buf[0] | 0x08 : buf[0] & ~0x08);
    xuQuery(0x1B, UVC_SET_CUR, 2, buf);
    return true;
}
