#include "sim/UsbCamera.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/version.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <QDebug>
#include <QMap>
#include <QProcess>
#include <QSet>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
}

namespace vsim {

namespace {

// Pictures the camera cycles through; few, since each is made at start-up of
// a stream and kept.
constexpr int kCycle = 8;
constexpr int kMaxWidth = 1920, kMaxHeight = 1080, kMinSide = 16;
constexpr int kDefaultBuffers = 8;
constexpr uint8_t kExtensionUnit = 9;
constexpr uint8_t kModeSelector = 0x02, kFlagsSelector = 0x1B;
constexpr int kModeSize = 52, kFlagsSize = 2;
constexpr size_t kPage = 4096;

int64_t monoNs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Picture {  // planar 4:2:0
    int w = 0, h = 0;
    QByteArray y, u, v;
};

// Colour bars (BT.601, limited range) over a dark strip with a light block
// that moves one eighth of the width a frame.
const uint8_t kBars[8][3] = {{235, 128, 128}, {210, 16, 146}, {170, 166, 16}, {145, 54, 34},
                             {106, 202, 222}, {81, 90, 240},  {41, 240, 110}, {16, 128, 128}};

void barAt(int x, int y, int w, int h, int index, uint8_t out[3])
{
    if (y < h * 3 / 4) {
        std::memcpy(out, kBars[std::min(7, x * 8 / w)], 3);
        return;
    }
    const bool block = x * kCycle / w == index % kCycle;
    out[0] = block ? 200 : 40;
    out[1] = out[2] = 128;
}

Picture drawPattern(int w, int h, int index)
{
    Picture p;
    p.w = w;
    p.h = h;
    p.y.resize(w * h);
    p.u.resize((w / 2) * (h / 2));
    p.v.resize((w / 2) * (h / 2));
    uint8_t c[3];
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            barAt(x, y, w, h, index, c);
            p.y[y * w + x] = char(c[0]);
            if (!(x & 1) && !(y & 1)) {
                p.u[(y / 2) * (w / 2) + x / 2] = char(c[1]);
                p.v[(y / 2) * (w / 2) + x / 2] = char(c[2]);
            }
        }
    return p;
}

// The first frames of a video file, brought to the size by picking the
// nearest sample. Empty when the file gives no 4:2:0 pictures.
std::vector<Picture> decodeFile(const QString& path, int w, int h)
{
    std::vector<Picture> out;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.toLocal8Bit().constData(), nullptr, nullptr) < 0) return out;
    const AVCodec* codec = nullptr;
    int stream = -1;
    AVCodecContext* ctx = nullptr;
    if (avformat_find_stream_info(fmt, nullptr) >= 0)
        stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream >= 0 && codec && (ctx = avcodec_alloc_context3(codec)) &&
        avcodec_parameters_to_context(ctx, fmt->streams[stream]->codecpar) >= 0 &&
        avcodec_open2(ctx, codec, nullptr) >= 0) {
        AVPacket* pkt = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        auto take = [&] {
            while (int(out.size()) < kCycle && avcodec_receive_frame(ctx, frame) == 0) {
                if (frame->format != AV_PIX_FMT_YUV420P && frame->format != AV_PIX_FMT_YUVJ420P)
                    return false;
                Picture p;
                p.w = w;
                p.h = h;
                p.y.resize(w * h);
                p.u.resize((w / 2) * (h / 2));
                p.v.resize((w / 2) * (h / 2));
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x)
                        p.y[y * w + x] = char(frame->data[0][size_t(y * frame->height / h) *
                                                                 size_t(frame->linesize[0]) +
                                                             x * frame->width / w]);
                const int cw = (frame->width + 1) / 2, ch = (frame->height + 1) / 2;
                for (int y = 0; y < h / 2; ++y)
                    for (int x = 0; x < w / 2; ++x) {
                        const size_t sy = size_t(y * ch / (h / 2)), sx = size_t(x * cw / (w / 2));
                        p.u[y * (w / 2) + x] = char(frame->data[1][sy * frame->linesize[1] + sx]);
                        p.v[y * (w / 2) + x] = char(frame->data[2][sy * frame->linesize[2] + sx]);
                    }
                out.push_back(p);
                av_frame_unref(frame);
            }
            return true;
        };
        bool ok = true;
        while (ok && int(out.size()) < kCycle && av_read_frame(fmt, pkt) >= 0) {
            if (pkt->stream_index == stream && avcodec_send_packet(ctx, pkt) >= 0) ok = take();
            av_packet_unref(pkt);
        }
        if (ok && avcodec_send_packet(ctx, nullptr) >= 0) ok = take();
        if (!ok) {
            qWarning().noquote() << "virtual camera:" << path
                                 << "is not 4:2:0: test pattern instead";
            out.clear();
        }
        av_frame_free(&frame);
        av_packet_free(&pkt);
    }
    avcodec_free_context(&ctx);
    avformat_close_input(&fmt);
    return out;
}

std::vector<QByteArray> encode(AVCodecID id, const std::vector<Picture>& pics)
{
    std::vector<QByteArray> out;
    const AVCodec* codec = avcodec_find_encoder(id);
    if (!codec || pics.empty()) return out;
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    ctx->width = pics[0].w;
    ctx->height = pics[0].h;
    ctx->time_base = AVRational{1, 30};
    ctx->framerate = AVRational{30, 1};
    if (id == AV_CODEC_ID_MJPEG) {
        ctx->pix_fmt = AV_PIX_FMT_YUVJ420P;
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        // The typical tables, as cameras that leave them out rely on.
        av_opt_set(ctx->priv_data, "huffman", "default", 0);
    } else {
        ctx->pix_fmt = AV_PIX_FMT_YUV420P;
        ctx->gop_size = kCycle;  // the cycle starts again on an IDR picture
        ctx->max_b_frames = 0;
        ctx->bit_rate = 2000000;
        av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
        av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
        av_opt_set(ctx->priv_data, "x264-params", "log=-1", 0);
    }
    if (avcodec_open2(ctx, codec, nullptr) < 0) {
        avcodec_free_context(&ctx);
        return out;
    }
    AVFrame* f = av_frame_alloc();
    AVPacket* pkt = av_packet_alloc();
    auto drain = [&] {
        while (avcodec_receive_packet(ctx, pkt) == 0) {
            out.emplace_back(reinterpret_cast<const char*>(pkt->data), pkt->size);
            av_packet_unref(pkt);
        }
    };
    for (size_t i = 0; i < pics.size(); ++i) {
        const Picture& p = pics[i];
        f->format = ctx->pix_fmt;
        f->width = p.w;
        f->height = p.h;
        f->data[0] = reinterpret_cast<uint8_t*>(const_cast<char*>(p.y.constData()));
        f->data[1] = reinterpret_cast<uint8_t*>(const_cast<char*>(p.u.constData()));
        f->data[2] = reinterpret_cast<uint8_t*>(const_cast<char*>(p.v.constData()));
        f->linesize[0] = p.w;
        f->linesize[1] = f->linesize[2] = p.w / 2;
        f->pts = int64_t(i);
        f->quality = FF_QP2LAMBDA * 4;
        f->pict_type = i == 0 ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        if (avcodec_send_frame(ctx, f) >= 0) drain();
    }
    avcodec_send_frame(ctx, nullptr);
    drain();
    av_packet_free(&pkt);
    av_frame_free(&f);
    avcodec_free_context(&ctx);
    return out;
}

// Without an H.264 encoder in the library, the ffmpeg program may have one:
// its test pattern as an Annex B stream, cut at the access unit delimiters.
std::vector<QByteArray> h264FromTool(int w, int h)
{
    std::vector<QByteArray> out;
    QProcess p;
    p.start("ffmpeg", {"-v",        "error",
                       "-f",        "lavfi",
                       "-i",        QString("testsrc=size=%1x%2:rate=30").arg(w).arg(h),
                       "-frames:v", QString::number(kCycle),
                       "-g",        QString::number(kCycle),
                       "-bf",       "0",
                       "-pix_fmt",  "yuv420p",
                       "-c:v",      "h264",
                       "-bsf:v",    "h264_metadata=aud=insert",
                       "-f",        "h264",
                       "-"});
    if (!p.waitForFinished(20000) || p.exitCode() != 0) return out;
    const QByteArray all = p.readAllStandardOutput();
    const QByteArray aud("\0\0\0\1\x09", 5);
    for (int at = all.indexOf(aud); at >= 0;) {
        const int next = all.indexOf(aud, at + 5);
        out.push_back(all.mid(at, next < 0 ? -1 : next - at));
        at = next;
    }
    return out;
}

// YUYV as the camera sends it; chroma only on odd lines, so that a reader
// that takes it from the wrong lines sees grey.
QByteArray toYuyv(const Picture& p)
{
    QByteArray out(p.w * p.h * 2, Qt::Uninitialized);
    for (int y = 0; y < p.h; ++y)
        for (int x = 0; x < p.w; x += 2) {
            char* o = out.data() + (y * p.w + x) * 2;
            o[0] = p.y[y * p.w + x];
            o[2] = p.y[y * p.w + x + 1];
            const bool odd = y & 1;
            const int ci = (y / 2) * (p.w / 2) + x / 2;
            o[1] = odd ? p.u[ci] : char(128);
            o[3] = odd ? p.v[ci] : char(128);
        }
    return out;
}

// A JPEG cut at its scan: the segments before it, and the scan to the end.
struct Jpeg {
    QByteArray head;  // everything before the scan, tables placed as asked
    QByteArray tail;  // from the SOS marker on
};

QByteArray segment(uint8_t marker, const QByteArray& body)
{
    QByteArray s;
    s.append(char(0xFF)).append(char(marker));
    const int len = body.size() + 2;
    s.append(char(len >> 8)).append(char(len & 0xFF)).append(body);
    return s;
}

Jpeg arrange(const QByteArray& jpeg, bool tables, int dhtAt)
{
    Jpeg j;
    QByteArray dht, other;
    int p = 2;  // past SOI
    while (p + 4 <= jpeg.size() && uint8_t(jpeg[p]) == 0xFF) {
        const uint8_t m = uint8_t(jpeg[p + 1]);
        if (m == 0xDA) break;
        const int len = 2 + (uint8_t(jpeg[p + 2]) << 8 | uint8_t(jpeg[p + 3]));
        (m == 0xC4 ? dht : other).append(jpeg.mid(p, len));
        p += len;
    }
    j.tail = jpeg.mid(p);
    j.head = QByteArray("\xFF\xD8", 2);
    if (!tables) {
        j.head += other;
    } else if (dhtAt < 0) {
        // Where the encoder had them: ahead of the frame header, after the
        // quantisation tables.
        int q = 0;
        while (q + 4 <= other.size() && uint8_t(other[q + 1]) != 0xC0)
            q += 2 + (uint8_t(other[q + 2]) << 8 | uint8_t(other[q + 3]));
        j.head += other.left(q) + dht + other.mid(q);
    } else {
        if (dhtAt >= 6) j.head += segment(0xFE, QByteArray(dhtAt - 6, '\0'));
        j.head += dht + other;
    }
    return j;
}

const QMap<unsigned long, QString>& requestNames()
{
    static const QMap<unsigned long, QString> names{
        {VIDIOC_QUERYCAP, "VIDIOC_QUERYCAP"},   {VIDIOC_ENUM_FMT, "VIDIOC_ENUM_FMT"},
        {VIDIOC_G_FMT, "VIDIOC_G_FMT"},         {VIDIOC_S_FMT, "VIDIOC_S_FMT"},
        {VIDIOC_REQBUFS, "VIDIOC_REQBUFS"},     {VIDIOC_QUERYBUF, "VIDIOC_QUERYBUF"},
        {VIDIOC_QBUF, "VIDIOC_QBUF"},           {VIDIOC_DQBUF, "VIDIOC_DQBUF"},
        {VIDIOC_STREAMON, "VIDIOC_STREAMON"},   {VIDIOC_STREAMOFF, "VIDIOC_STREAMOFF"},
        {VIDIOC_G_PARM, "VIDIOC_G_PARM"},       {VIDIOC_S_PARM, "VIDIOC_S_PARM"},
        {VIDIOC_G_CTRL, "VIDIOC_G_CTRL"},       {VIDIOC_S_CTRL, "VIDIOC_S_CTRL"},
        {VIDIOC_QUERYCTRL, "VIDIOC_QUERYCTRL"}, {UVCIOC_CTRL_QUERY, "UVCIOC_CTRL_QUERY"}};
    return names;
}

struct Ctrl {
    const char* name;
    int min, max, step, def;
};
const QMap<uint32_t, Ctrl>& controls()
{
    static const QMap<uint32_t, Ctrl> c{
        {V4L2_CID_PAN_ABSOLUTE, {"Pan, Absolute", -36000, 36000, 3600, 0}},
        {V4L2_CID_TILT_ABSOLUTE, {"Tilt, Absolute", -36000, 36000, 3600, 0}},
        {V4L2_CID_ZOOM_ABSOLUTE, {"Zoom, Absolute", 100, 500, 1, 100}}};
    return c;
}

}  // namespace

// ---------------------------------------------------------------- state

struct UsbCamera::Impl {
    struct Stream {
        int timer = -1;  // the descriptor handed out; readable when a frame is due
        bool dead = false;
        int memfd = -1;
        uint8_t* mem = nullptr;  // the camera's own view of the buffers
        size_t bufSize = 0;
        uint32_t count = 0;
        std::vector<bool> queuedFlag;
        std::deque<uint32_t> queued;
        bool streaming = false;
        int64_t nextDue = 0;
        uint32_t sequence = 0;
        ~Stream() { freeBuffers(); }
        void freeBuffers()
        {
            if (mem) ::munmap(mem, bufSize * count);
            if (memfd >= 0) ::close(memfd);
            mem = nullptr;
            memfd = -1;
            count = 0;
            queued.clear();
            queuedFlag.clear();
        }
    };

    mutable std::mutex lock;
    bool plugged = true;
    QString offer = "all";
    QString source = "testsrc";
    int maxBuffers = kDefaultBuffers;
    QList<int> rates{30, 25, 15, 10, 5};
    int rate = 30;
    int dhtAt = -1;
    bool extensionOn = true;
    QSet<QString> failing;
    QString fault;
    int faultCount = 0;
    v4l2_pix_format fmt{};
    QMap<uint32_t, int> ctrl;
    QByteArray mode, flags;
    QStringList log;
    quint64 delivered = 0;
    QMap<int, std::shared_ptr<Stream>> streams;  // by descriptor, replaced on reuse

    // Frames made for the stream that runs, by sequence modulo the cycle.
    std::vector<Jpeg> jpegs;
    std::vector<QByteArray> raw;  // H.264 access units or YUYV pictures

    QList<uint32_t> offered() const
    {
        if (offer == "mjpeg" || offer == "mjpeg-nodht") return {V4L2_PIX_FMT_MJPEG};
        if (offer == "h264") return {V4L2_PIX_FMT_H264};
        if (offer == "yuyv") return {V4L2_PIX_FMT_YUYV};
        return {V4L2_PIX_FMT_MJPEG, V4L2_PIX_FMT_H264, V4L2_PIX_FMT_YUYV};
    }

    void setFormat(uint32_t pixel, int w, int h)
    {
        const QList<uint32_t> ok = offered();
        fmt = v4l2_pix_format{};
        fmt.pixelformat = ok.contains(pixel) ? pixel : ok.first();
        fmt.width = uint32_t(std::clamp(w, kMinSide, kMaxWidth) & ~1);
        fmt.height = uint32_t(std::clamp(h, kMinSide, kMaxHeight) & ~1);
        fmt.field = V4L2_FIELD_NONE;
        fmt.bytesperline = fmt.pixelformat == V4L2_PIX_FMT_YUYV ? fmt.width * 2 : 0;
        fmt.sizeimage = fmt.width * fmt.height * 2;
        fmt.colorspace = V4L2_COLORSPACE_SRGB;
    }

    void makeFrames()
    {
        const int w = int(fmt.width), h = int(fmt.height);
        std::vector<Picture> pics;
        if (source != "testsrc") pics = decodeFile(Board::instance().hostPath(source), w, h);
        const bool pattern = pics.empty();
        if (pattern)
            for (int i = 0; i < kCycle; ++i) pics.push_back(drawPattern(w, h, i));
        jpegs.clear();
        raw.clear();
        if (fmt.pixelformat == V4L2_PIX_FMT_MJPEG) {
            for (const QByteArray& j : encode(AV_CODEC_ID_MJPEG, pics))
                jpegs.push_back(arrange(j, offer != "mjpeg-nodht", dhtAt));
        } else if (fmt.pixelformat == V4L2_PIX_FMT_H264) {
            raw = encode(AV_CODEC_ID_H264, pics);
            if (raw.empty()) raw = h264FromTool(w, h);
            if (raw.empty()) qWarning("virtual camera: no H.264 encoder: the camera sends nothing");
        } else {
            for (size_t i = 0; i < pics.size(); ++i) raw.push_back(toYuyv(pics[i]));
            if (!pattern)  // a file's chroma lies on every line
                for (size_t i = 0; i < pics.size(); ++i)
                    for (int y = 0; y < h; y += 2)
                        for (int x = 0; x < w; x += 2) {
                            char* o = raw[i].data() + (y * w + x) * 2;
                            o[1] = pics[i].u[(y / 2) * (w / 2) + x / 2];
                            o[3] = pics[i].v[(y / 2) * (w / 2) + x / 2];
                        }
        }
    }

    // Writes frame `seq` into `dst`; the bytes it takes (cut at `room`).
    size_t writeFrame(uint32_t seq, uint8_t* dst, size_t room) const
    {
        QByteArray bytes;
        if (!jpegs.empty()) {
            const Jpeg& j = jpegs[seq % jpegs.size()];
            bytes = j.head + segment(0xFE, QByteArray("frame ") + QByteArray::number(seq)) + j.tail;
        } else if (!raw.empty()) {
            bytes = raw[seq % raw.size()];
        }
        const size_t n = std::min(size_t(bytes.size()), room);
        std::memcpy(dst, bytes.constData(), n);
        return n;
    }

    void arm(Stream& s, int64_t atNs)
    {
        itimerspec when{};
        if (atNs > 0) {
            when.it_value.tv_sec = atNs / 1000000000;
            when.it_value.tv_nsec = atNs % 1000000000;
        }
        ::timerfd_settime(s.timer, atNs > 0 ? TFD_TIMER_ABSTIME : 0, &when, nullptr);
    }

    int64_t periodNs() const { return 1000000000LL / std::max(1, rate); }

    long dqbuf(std::unique_lock<std::mutex>& l, Stream& s, v4l2_buffer* b);
    long request(Stream& s, unsigned long req, void* arg, std::unique_lock<std::mutex>& l);
};

long UsbCamera::Impl::dqbuf(std::unique_lock<std::mutex>& l, Stream& s, v4l2_buffer* b)
{
    if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    // The descriptor is blocking: wait for the frame that is due next.
    for (;;) {
        if (s.dead) return -ENODEV;
        if (!s.streaming) return -EINVAL;
        if (s.queued.empty()) return -EIO;  // would wait for ever
        const int64_t wait = s.nextDue - monoNs();
        if (wait <= 0) break;
        l.unlock();
        std::this_thread::sleep_for(std::chrono::nanoseconds(std::min(wait, periodNs())));
        l.lock();
    }
    const int64_t now = monoNs();
    s.nextDue += periodNs();
    // A reader that fell far behind does not get the missed frames in a rush.
    if (s.nextDue < now - periodNs()) s.nextDue = now + periodNs();
    arm(s, s.nextDue);

    QString f;
    if (faultCount > 0) {
        f = fault;
        if (--faultCount == 0) fault.clear();
    }
    std::memset(b, 0, sizeof *b);
    b->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b->memory = V4L2_MEMORY_MMAP;
    b->field = V4L2_FIELD_NONE;
    b->timestamp.tv_sec = now / 1000000000;
    b->timestamp.tv_usec = (now % 1000000000) / 1000;
    if (f == "badIndex") {
        b->index = s.count + 3;
        b->sequence = s.sequence;
        return 0;
    }
    const uint32_t i = s.queued.front();
    s.queued.pop_front();
    s.queuedFlag[i] = false;
    b->index = i;
    b->length = uint32_t(s.bufSize);
    b->m.offset = uint32_t(i * s.bufSize);
    b->flags = V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    b->sequence = s.sequence;
    b->bytesused = uint32_t(writeFrame(s.sequence, s.mem + i * s.bufSize, s.bufSize));
    if (f == "empty") b->bytesused = 0;
    if (f == "oversize") b->bytesused = uint32_t(s.bufSize + kPage);
    ++s.sequence;
    ++delivered;
    return 0;
}

long UsbCamera::Impl::request(Stream& s, unsigned long req, void* arg,
                              std::unique_lock<std::mutex>& l)
{
    switch (req) {
        case VIDIOC_QUERYCAP: {
            auto* c = static_cast<v4l2_capability*>(arg);
            std::memset(c, 0, sizeof *c);
            std::strncpy(reinterpret_cast<char*>(c->driver), "uvcvideo", sizeof c->driver - 1);
            std::strncpy(reinterpret_cast<char*>(c->card), "Virtual USB Camera",
                         sizeof c->card - 1);
            std::strncpy(reinterpret_cast<char*>(c->bus_info), "usb-vesk-1.2",
                         sizeof c->bus_info - 1);
            c->version = KERNEL_VERSION(5, 10, 0);
            c->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
            c->capabilities = c->device_caps | V4L2_CAP_DEVICE_CAPS;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* e = static_cast<v4l2_fmtdesc*>(arg);
            const QList<uint32_t> ok = offered();
            if (e->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || e->index >= uint32_t(ok.size()))
                return -EINVAL;
            const uint32_t pf = ok[int(e->index)];
            const char* text = pf == V4L2_PIX_FMT_MJPEG  ? "Motion-JPEG"
                               : pf == V4L2_PIX_FMT_H264 ? "H.264"
                                                         : "YUYV 4:2:2";
            std::memset(e->description, 0, sizeof e->description);
            std::strncpy(reinterpret_cast<char*>(e->description), text, sizeof e->description - 1);
            e->pixelformat = pf;
            e->flags = pf == V4L2_PIX_FMT_YUYV ? 0 : V4L2_FMT_FLAG_COMPRESSED;
            return 0;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT: {
            auto* f = static_cast<v4l2_format*>(arg);
            if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return -EINVAL;
            if (req == VIDIOC_S_FMT) {
                if (s.count) return -EBUSY;
                setFormat(f->fmt.pix.pixelformat, int(f->fmt.pix.width), int(f->fmt.pix.height));
            }
            f->fmt.pix = fmt;
            return 0;
        }
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM: {
            auto* p = static_cast<v4l2_streamparm*>(arg);
            if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return -EINVAL;
            if (req == VIDIOC_S_PARM) {
                const v4l2_fract t = p->parm.capture.timeperframe;
                const double want = t.numerator ? double(t.denominator) / t.numerator : 30;
                int best = 0;
                for (int r : rates)
                    if (r <= want + 1e-6 && r > best) best = r;
                if (!best) best = *std::min_element(rates.begin(), rates.end());
                rate = best;
            }
            std::memset(&p->parm, 0, sizeof p->parm);
            p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
            p->parm.capture.timeperframe = v4l2_fract{1, uint32_t(rate)};
            p->parm.capture.readbuffers = uint32_t(maxBuffers);
            return 0;
        }
        case VIDIOC_REQBUFS: {
            auto* r = static_cast<v4l2_requestbuffers*>(arg);
            if (r->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || r->memory != V4L2_MEMORY_MMAP)
                return -EINVAL;
            if (s.streaming) return -EBUSY;
            s.freeBuffers();
            const uint32_t n = std::min(r->count, uint32_t(maxBuffers));
            r->count = n;
            if (!n) return 0;
            s.bufSize = (size_t(fmt.sizeimage) + kPage - 1) & ~(kPage - 1);
            s.memfd = ::memfd_create("vesk-camera", MFD_CLOEXEC);
            if (s.memfd < 0 || ::ftruncate(s.memfd, off_t(s.bufSize * n)) != 0) {
                s.freeBuffers();
                return -ENOMEM;
            }
            void* m =
                ::mmap(nullptr, s.bufSize * n, PROT_READ | PROT_WRITE, MAP_SHARED, s.memfd, 0);
            if (m == MAP_FAILED) {
                s.freeBuffers();
                return -ENOMEM;
            }
            s.mem = static_cast<uint8_t*>(m);
            s.count = n;
            s.queuedFlag.assign(n, false);
            return 0;
        }
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF: {
            auto* b = static_cast<v4l2_buffer*>(arg);
            if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->memory != V4L2_MEMORY_MMAP ||
                b->index >= s.count)
                return -EINVAL;
            const uint32_t i = b->index;
            if (req == VIDIOC_QBUF) {
                if (s.queuedFlag[i]) return -EINVAL;
                s.queuedFlag[i] = true;
                s.queued.push_back(i);
            }
            b->length = uint32_t(s.bufSize);
            b->m.offset = uint32_t(i * s.bufSize);
            b->flags = V4L2_BUF_FLAG_MAPPED | (s.queuedFlag[i] ? V4L2_BUF_FLAG_QUEUED : 0);
            return 0;
        }
        case VIDIOC_DQBUF:
            return dqbuf(l, s, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF: {
            if (*static_cast<int*>(arg) != V4L2_BUF_TYPE_VIDEO_CAPTURE) return -EINVAL;
            if (req == VIDIOC_STREAMOFF) {
                s.streaming = false;
                s.queued.clear();
                s.queuedFlag.assign(s.count, false);
                arm(s, 0);
                return 0;
            }
            if (!s.count) return -EINVAL;
            if (s.streaming) return 0;
            makeFrames();
            s.streaming = true;
            s.sequence = 0;
            s.nextDue = monoNs() + periodNs();
            arm(s, s.nextDue);
            return 0;
        }
        case VIDIOC_QUERYCTRL: {
            auto* q = static_cast<v4l2_queryctrl*>(arg);
            if (!controls().contains(q->id)) return -EINVAL;
            const Ctrl& c = controls()[q->id];
            std::memset(q->name, 0, sizeof q->name);
            std::strncpy(reinterpret_cast<char*>(q->name), c.name, sizeof q->name - 1);
            q->type = V4L2_CTRL_TYPE_INTEGER;
            q->minimum = c.min;
            q->maximum = c.max;
            q->step = c.step;
            q->default_value = c.def;
            q->flags = 0;
            return 0;
        }
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL: {
            auto* c = static_cast<v4l2_control*>(arg);
            if (!controls().contains(c->id)) return -EINVAL;
            if (req == VIDIOC_G_CTRL) {
                c->value = ctrl.value(c->id);
                return 0;
            }
            const Ctrl& r = controls()[c->id];
            if (c->value < r.min || c->value > r.max) return -ERANGE;
            ctrl[c->id] = c->value;
            return 0;
        }
        case UVCIOC_CTRL_QUERY: {
            auto* q = static_cast<uvc_xu_control_query*>(arg);
            if (!extensionOn || q->unit != kExtensionUnit) return -ENOENT;
            QByteArray* store = q->selector == kModeSelector    ? &mode
                                : q->selector == kFlagsSelector ? &flags
                                                                : nullptr;
            if (!store) return -ENOENT;
            if (q->query == UVC_GET_LEN) {
                if (q->size != 2 || !q->data) return -EINVAL;
                q->data[0] = uint8_t(store->size() & 0xFF);
                q->data[1] = uint8_t(store->size() >> 8);
                return 0;
            }
            if (q->query != UVC_GET_CUR && q->query != UVC_SET_CUR) return -EINVAL;
            if (q->size != store->size()) return -ENOBUFS;
            if (!q->data) return -EFAULT;
            if (q->query == UVC_GET_CUR)
                std::memcpy(q->data, store->constData(), size_t(q->size));
            else
                std::memcpy(store->data(), q->data, size_t(q->size));
            return 0;
        }
        default:
            return -ENOTTY;
    }
}

// ---------------------------------------------------------------- device

UsbCamera::UsbCamera() : d(new Impl)
{
    d->setFormat(V4L2_PIX_FMT_MJPEG, 640, 480);
    for (auto it = controls().begin(); it != controls().end(); ++it) d->ctrl[it.key()] = it->def;
    // Bytes past the mode and flag bits hold something other than zero, so
    // that a writer that does not carry them over shows.
    d->mode = QByteArray(kModeSize, '\0');
    for (int i = 1; i < kModeSize; ++i) d->mode[i] = char(0x30 + i);
    d->flags = QByteArray("\x11\x5A", kFlagsSize);
}

UsbCamera::~UsbCamera() = default;

int UsbCamera::makeFd()
{
    std::lock_guard<std::mutex> g(d->lock);
    if (!d->plugged) {
        errno = ENODEV;
        return -1;
    }
    if (d->failing.contains("open")) {
        errno = EIO;
        return -1;
    }
    return ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
}

uint64_t UsbCamera::cookieFor(int fd)
{
    std::lock_guard<std::mutex> g(d->lock);
    auto s = std::make_shared<Impl::Stream>();
    s->timer = fd;
    // The number came back from the kernel, so whoever had it closed it.
    d->streams[fd] = s;
    return uint64_t(fd);
}

void UsbCamera::release(uint64_t cookie)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->streams.remove(int(cookie));
}

long UsbCamera::ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long)
{
    std::unique_lock<std::mutex> l(d->lock);
    auto s = d->streams.value(int(cookie));
    if (!s) return -EBADF;
    const QString name = requestNames().value(request);
    if (request != VIDIOC_QBUF && request != VIDIOC_DQBUF) {
        d->log << (name.isEmpty() ? QString::number(request, 16) : name);
        if (d->log.size() > 10000) d->log.removeFirst();
    }
    if (s->dead) return -ENODEV;
    if (!name.isEmpty() && d->failing.contains(name)) return -EIO;
    if (!arg) return -EFAULT;
    return d->request(*s, request, arg, l);
}

void* UsbCamera::mmap(uint64_t& cookie, void* addr, size_t len, int prot, int flags, off_t offset)
{
    std::lock_guard<std::mutex> g(d->lock);
    auto s = d->streams.value(int(cookie));
    int err = 0;
    if (!s || s->dead)
        err = ENODEV;
    else if (d->failing.contains("mmap"))
        err = EIO;
    else if (!s->count || offset < 0 || size_t(offset) % s->bufSize ||
             size_t(offset) / s->bufSize >= s->count || len == 0 || len > s->bufSize)
        err = EINVAL;
    if (err) {
        errno = err;
        return MAP_FAILED;
    }
    return ::mmap(addr, len, prot, flags, s->memfd, offset);
}

bool UsbCamera::applyStep(const QVariantMap& step, QString* error)
{
    auto fail = [&](const QString& text) {
        if (error) *error = "scenario: camera: " + text;
        return false;
    };
    std::lock_guard<std::mutex> g(d->lock);
    if (step.contains("format")) {
        const QString f = step.value("format").toString();
        if (!QStringList{"all", "mjpeg", "mjpeg-nodht", "h264", "yuyv"}.contains(f))
            return fail(QString("no format \"%1\"").arg(f));
        d->offer = f;
        d->setFormat(d->fmt.pixelformat, int(d->fmt.width), int(d->fmt.height));
    }
    if (step.contains("source")) d->source = step.value("source").toString();
    if (step.contains("buffers")) {
        const int n = step.value("buffers").toInt();
        if (n < 1 || n > 32) return fail("\"buffers\" is 1 to 32");
        d->maxBuffers = n;
    }
    if (step.contains("rates")) {
        QList<int> r;
        for (const QVariant& v : step.value("rates").toList())
            if (v.toInt() >= 1 && v.toInt() <= 240) r << v.toInt();
        if (r.isEmpty()) return fail("\"rates\" needs rates of 1 to 240");
        d->rates = r;
    }
    if (step.contains("dhtAt")) {
        const int at = step.value("dhtAt").toInt();
        if (at != -1 && at != 2 && (at < 6 || at > 65000))
            return fail("\"dhtAt\" is -1, 2, or 6 to 65000");
        d->dhtAt = at;
    }
    if (step.contains("fail")) {
        d->failing.clear();
        const QVariant f = step.value("fail");
        const QStringList names =
            f.type() == QVariant::List ? f.toStringList() : QStringList{f.toString()};
        for (const QString& n : names)
            if (!n.isEmpty()) d->failing.insert(n);
    }
    if (step.contains("fault")) {
        const QString f = step.value("fault").toString();
        if (!QStringList{"badIndex", "empty", "oversize"}.contains(f))
            return fail(QString("no fault \"%1\"").arg(f));
        d->fault = f;
        d->faultCount = step.value("count", 1).toInt();
    }
    if (step.contains("extension")) d->extensionOn = step.value("extension").toBool();
    if (step.contains("plug")) {
        d->plugged = step.value("plug").toBool();
        if (!d->plugged)
            for (auto& s : d->streams) {
                s->dead = true;
                s->streaming = false;
                d->arm(*s, 0);
            }
    }
    return true;
}

int UsbCamera::control(uint32_t id) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->ctrl.value(id);
}

void UsbCamera::setControl(uint32_t id, int value)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->ctrl[id] = value;
}

QByteArray UsbCamera::extension(uint8_t selector) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return selector == kModeSelector    ? d->mode
           : selector == kFlagsSelector ? d->flags
                                        : QByteArray();
}

void UsbCamera::setExtension(uint8_t selector, const QByteArray& bytes)
{
    std::lock_guard<std::mutex> g(d->lock);
    QByteArray* store = selector == kModeSelector    ? &d->mode
                        : selector == kFlagsSelector ? &d->flags
                                                     : nullptr;
    if (store) *store = bytes.leftJustified(store->size(), '\0', true);
}

QStringList UsbCamera::requests() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->log;
}

quint64 UsbCamera::framesDelivered() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->delivered;
}

bool UsbCamera::streaming() const
{
    std::lock_guard<std::mutex> g(d->lock);
    for (const auto& s : d->streams)
        if (s->streaming) return true;
    return false;
}

bool UsbCamera::plugged() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->plugged;
}

// ---------------------------------------------------------------- board part

namespace {

struct Cameras {
    std::mutex lock;
    QMap<QString, std::shared_ptr<UsbCamera>> byName;
};
Cameras& cameras()
{
    static Cameras* c = new Cameras;
    return *c;
}

void install(QMap<QString, std::shared_ptr<Device>>& devices, const QString&)
{
    auto cam = std::make_shared<UsbCamera>();
    {
        std::lock_guard<std::mutex> g(cameras().lock);
        cameras().byName.clear();
        cameras().byName["video0"] = cam;
    }
    devices["/dev/video0"] = cam;
}

bool step(const QVariantMap& s, QString* error, bool* handled)
{
    if (!s.contains("camera")) return false;
    *handled = true;
    const QString name = s.value("camera").toString();
    if (name.isEmpty() || name.contains('/')) {
        if (error) *error = "scenario: \"camera\" names a device under /dev";
        return false;
    }
    std::shared_ptr<UsbCamera> cam;
    bool fresh = false;
    {
        std::lock_guard<std::mutex> g(cameras().lock);
        cam = cameras().byName.value(name);
        if (!cam) {
            cam = cameras().byName[name] = std::make_shared<UsbCamera>();
            fresh = true;
        }
    }
    if (!cam->applyStep(s, error)) return false;
    const QString path = "/dev/" + name;
    if (fresh || s.contains("plug")) {
        if (cam->plugged())
            Board::instance().addDevice(path, cam);
        else
            Board::instance().removeDevice(path);
    }
    return true;
}

[[maybe_unused]] const bool registered = registerBoardPart("usbCamera", BoardPart{install, step});

}  // namespace

std::shared_ptr<UsbCamera> UsbCamera::find(const QString& name)
{
    std::lock_guard<std::mutex> g(cameras().lock);
    return cameras().byName.value(name);
}

}  // namespace vsim
