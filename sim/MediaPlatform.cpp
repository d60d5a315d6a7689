#include "sim/MediaPlatform.h"

#include <QMap>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "sim/VideoOut.h"
#include "sim/VirtualBoard.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace vsim {

namespace {

constexpr int kVpssKept = 256;

uint32_t align16(uint32_t v)
{
    return (v + 15u) & ~15u;
}

bool inRange(int v, int lo, int hi)
{
    return v >= lo && v <= hi;
}

// One decoded picture in memory of its own, laid out as VeskHi::makeFrame
// lays out frames.
struct Picture {
    uint8_t* mem = nullptr;
    ot_video_frame_info info{};
};

void freePicture(Picture& p)
{
    std::free(p.mem);
    p.mem = nullptr;
}

// Reads the frame the way the hardware would fetch it, so that a frame whose
// description promises more than its memory holds shows up in a sanitizer
// run rather than going unnoticed. Returns false for a frame no unit would
// take.
bool fetchFrame(const ot_video_frame& f, uint64_t* lumaSum, uint64_t* chromaSum)
{
    if (f.width == 0 || f.height == 0 || f.width > 8192 || f.height > 8192) return false;
    if (!f.virt_addr[0] || f.stride[0] < f.width) return false;
    const bool semiPlanar = f.pixel_format >= OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420 &&
                            f.pixel_format <= OT_PIXEL_FORMAT_YUV_SEMIPLANAR_422;
    if (!semiPlanar) return false;
    const uint32_t pairBytes = (f.width + 1) & ~1u;
    if (!f.virt_addr[1] || f.stride[1] < pairBytes) return false;
    const bool is422 = f.pixel_format >= OT_PIXEL_FORMAT_YVU_SEMIPLANAR_422;
    const uint32_t chromaRows = is422 ? f.height : (f.height + 1) / 2;
    uint64_t y = 0, c = 0;
    const auto* luma = reinterpret_cast<const uint8_t*>(f.virt_addr[0]);
    for (uint32_t r = 0; r < f.height; ++r) {
        const uint8_t* row = luma + size_t(r) * f.stride[0];
        for (uint32_t x = 0; x < f.width; ++x) y += row[x];
    }
    const auto* chroma = reinterpret_cast<const uint8_t*>(f.virt_addr[1]);
    for (uint32_t r = 0; r < chromaRows; ++r) {
        const uint8_t* row = chroma + size_t(r) * f.stride[1];
        for (uint32_t x = 0; x < pairBytes; ++x) c += row[x];
    }
    if (lumaSum) *lumaSum = y;
    if (chromaSum) *chromaSum = c;
    return true;
}

class MipiDevice : public Device {
public:
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;
};

}  // namespace

// ---------------------------------------------------------------- state

struct MediaPlatform::Impl {
    struct Failure {
        int code = 0;
        int times = 0;  // < 0: until cleared
    };
    struct Vdec {
        bool created = false;
        bool receiving = false;
        ot_vdec_chn_attr attr{};
        AVCodecContext* ctx = nullptr;
        std::deque<Picture> ready;
        std::vector<Picture> held;
        uint32_t timeRef = 0;
        MediaPlatform::VdecChn stats;
    };

    mutable std::mutex lock;
    std::condition_variable changed;  // frames became ready or were released

    QMap<QString, Failure> failures;
    QList<MediaPlatform::Call> log;
    std::vector<std::function<void()>> resetHooks;

    MediaPlatform::ViDev dev[OT_VI_MAX_DEV_NUM];
    MediaPlatform::ViChn chn[OT_VI_MAX_CHN_NUM];
    bool userPicSet = false;
    ot_vi_user_pic_attr userPic{};
    uint64_t userPicLumaSum = 0;
    std::shared_ptr<const Nv21Picture> userPicture;

    MediaPlatform::MipiDev mipi[OT_MIPI_MAX_DEV_NUM];
    int hsMode = -1;
    std::shared_ptr<Device> mipiNode = std::make_shared<MipiDevice>();

    Vdec vdec[OT_VDEC_MAX_CHN_NUM];
    uint64_t nextPhys = 0x80000000ull;

    std::deque<MediaPlatform::VpssFrame> vpss;
    quint64 vpssCount = 0;

    // The system's media clock runs from power-on; the PTS calls move it.
    int64_t ptsBase = 0;
    int64_t ptsSetAt = steadyUs();
    bool ptsInited = false;

    static int64_t steadyUs()
    {
        using namespace std::chrono;
        return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
    }
    uint64_t ptsNow() const { return uint64_t(ptsBase + (steadyUs() - ptsSetAt)); }
    void setPts(uint64_t base)
    {
        ptsBase = int64_t(base);
        ptsSetAt = steadyUs();
    }

    // Caller holds `lock`. True (with the code in *code) when the call is to
    // fail now.
    bool takeFailure(const QString& name, int* code)
    {
        auto it = failures.find(name);
        if (it == failures.end()) return false;
        *code = it->code;
        if (it->times > 0 && --it->times == 0) failures.erase(it);
        return true;
    }

    // Runs one platform call under the lock, unless a failure was asked for,
    // and logs it with its result.
    template <typename Body>
    int run(const char* name, QVariantList args, Body body)
    {
        std::unique_lock<std::mutex> l(lock);
        int result = 0;
        if (!takeFailure(QLatin1String(name), &result)) result = body(l);
        log.append(MediaPlatform::Call{QLatin1String(name), std::move(args), result});
        return result;
    }

    void clearVdec(Vdec& v)
    {
        for (Picture& p : v.ready) freePicture(p);
        for (Picture& p : v.held) freePicture(p);
        v.ready.clear();
        v.held.clear();
        if (v.ctx) avcodec_free_context(&v.ctx);
        v = Vdec();
    }

    void resetAll()
    {
        failures.clear();
        log.clear();
        for (auto& d : dev) d = MediaPlatform::ViDev();
        for (auto& c : chn) c = MediaPlatform::ViChn();
        userPicSet = false;
        userPic = ot_vi_user_pic_attr{};
        userPicLumaSum = 0;
        userPicture.reset();
        for (auto& m : mipi) m = MediaPlatform::MipiDev();
        hsMode = -1;
        for (auto& v : vdec) clearVdec(v);
        vpss.clear();
        vpssCount = 0;
        setPts(0);
        ptsInited = false;
    }

    // ---- decoding

    // Turns one JPEG into a frame; on failure says why and leaves *out alone.
    bool decode(Vdec& v, const uint8_t* data, size_t len, uint64_t pts, Picture* out,
                bool* oversize)
    {
        *oversize = false;
        // A JPEG stream starts with its start-of-image marker; the hardware
        // parser rejects anything else before it looks further.
        if (len < 4 || data[0] != 0xFF || data[1] != 0xD8) return false;
        // Nor does it show half a picture: a stream cut short, without its
        // end-of-image marker near the end, is an error.
        bool ended = false;
        for (size_t i = len - 1; i >= 1 && i + 64 >= len && !ended; --i)
            ended = data[i - 1] == 0xFF && data[i] == 0xD9;
        if (!ended || !v.ctx) return false;

        // The parser may read a little past the end of what it is given.
        std::vector<uint8_t> padded(len + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        std::memcpy(padded.data(), data, len);
        AVPacket* pkt = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        bool ok = false;
        if (pkt && frame) {
            pkt->data = padded.data();
            pkt->size = int(len);
            int r = avcodec_send_packet(v.ctx, pkt);
            if (r >= 0) {
                r = avcodec_receive_frame(v.ctx, frame);
                if (r == AVERROR(EAGAIN)) {
                    avcodec_send_packet(v.ctx, nullptr);
                    r = avcodec_receive_frame(v.ctx, frame);
                    avcodec_flush_buffers(v.ctx);
                }
            } else {
                avcodec_flush_buffers(v.ctx);
            }
            if (r >= 0) ok = toFrame(v, frame, pts, out, oversize);
        }
        av_frame_free(&frame);
        av_packet_free(&pkt);
        return ok;
    }

    bool toFrame(Vdec& v, const AVFrame* src, uint64_t pts, Picture* out, bool* oversize)
    {
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(AVPixelFormat(src->format));
        if (!desc || src->width <= 0 || src->height <= 0) return false;
        const uint64_t unsupported = AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL |
                                     AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL;
        if (desc->flags & unsupported) return false;
        const bool gray = desc->nb_components == 1;
        if (!gray && (desc->nb_components < 3 || !(desc->flags & AV_PIX_FMT_FLAG_PLANAR)))
            return false;
        for (int i = 0; i < (gray ? 1 : 3); ++i)
            if (desc->comp[i].depth != 8 || desc->comp[i].step != 1) return false;

        const uint32_t width = uint32_t(src->width), height = uint32_t(src->height);
        const uint32_t stride = align16(width);
        const size_t lumaBytes = size_t(stride) * height;
        const size_t chromaBytes = size_t(stride) * ((height + 1) / 2);
        if (width > v.attr.pic_width || height > v.attr.pic_height ||
            lumaBytes + chromaBytes > v.attr.frame_buf_size) {
            *oversize = true;
            return false;
        }
        auto* mem = static_cast<uint8_t*>(std::malloc(lumaBytes + chromaBytes));
        if (!mem) return false;

        const uint8_t* ys = src->data[desc->comp[0].plane];
        for (uint32_t y = 0; y < height; ++y)
            std::memcpy(mem + size_t(y) * stride, ys + ptrdiff_t(y) * src->linesize[0], width);
        uint8_t* vu = mem + lumaBytes;
        if (gray) {
            std::memset(vu, 128, chromaBytes);
        } else {
            // 4:2:0 sites from whatever subsampling the picture has: the
            // sample that covers the top-left luma pixel of each 2x2 block.
            const int pu = desc->comp[1].plane, pv = desc->comp[2].plane;
            const uint32_t cw = (width + (1u << desc->log2_chroma_w) - 1) >> desc->log2_chroma_w;
            const uint32_t ch = (height + (1u << desc->log2_chroma_h) - 1) >> desc->log2_chroma_h;
            for (uint32_t y = 0; y < (height + 1) / 2; ++y) {
                const uint32_t sy = qMin((2 * y) >> desc->log2_chroma_h, ch - 1);
                const uint8_t* us = src->data[pu] + ptrdiff_t(sy) * src->linesize[pu];
                const uint8_t* vs = src->data[pv] + ptrdiff_t(sy) * src->linesize[pv];
                uint8_t* row = vu + size_t(y) * stride;
                for (uint32_t x = 0; x < (width + 1) / 2; ++x) {
                    const uint32_t sx = qMin((2 * x) >> desc->log2_chroma_w, cw - 1);
                    row[2 * x] = vs[sx];
                    row[2 * x + 1] = us[sx];
                }
            }
        }

        Picture p;
        p.mem = mem;
        ot_video_frame& f = p.info.video_frame;
        f.width = width;
        f.height = height;
        f.pixel_format = OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;
        f.stride[0] = stride;
        f.stride[1] = stride;
        f.phys_addr[0] = nextPhys;
        f.phys_addr[1] = nextPhys + lumaBytes;
        f.virt_addr[0] = reinterpret_cast<uint64_t>(mem);
        f.virt_addr[1] = reinterpret_cast<uint64_t>(mem + lumaBytes);
        f.pts = pts;
        v.timeRef += 2;
        f.time_ref = v.timeRef;
        p.info.mod_id = OT_ID_VDEC;
        nextPhys += (lumaBytes + chromaBytes + 0xFFFu) & ~uint64_t(0xFFF);
        *out = p;
        return true;
    }

    // ---- MIPI

    long mipiIoctl(unsigned long request, const void* arg)
    {
        const char* name = nullptr;
        switch (request) {
            case OT_MIPI_SET_DEV_ATTR:
                name = "mipi_set_dev_attr";
                break;
            case OT_MIPI_RESET_MIPI:
                name = "mipi_reset";
                break;
            case OT_MIPI_UNRESET_MIPI:
                name = "mipi_unreset";
                break;
            case OT_MIPI_SET_HS_MODE:
                name = "mipi_set_hs_mode";
                break;
            case OT_MIPI_ENABLE_MIPI_CLOCK:
                name = "mipi_enable_clock";
                break;
            default:
                return -ENOTTY;
        }
        std::unique_lock<std::mutex> l(lock);
        QVariantList args;
        long result = 0;
        int forced = 0;
        if (!arg) {
            result = -EFAULT;
        } else if (request == OT_MIPI_SET_DEV_ATTR) {
            ot_combo_dev_attr a;
            std::memcpy(&a, arg, sizeof a);
            args << int(a.devno);
            result = takeFailure(QLatin1String(name), &forced) ? -std::abs(forced) : setAttr(a);
        } else {
            int32_t value = 0;
            std::memcpy(&value, arg, sizeof value);
            args << value;
            if (takeFailure(QLatin1String(name), &forced)) {
                result = -std::abs(forced);
            } else if (request == OT_MIPI_SET_HS_MODE) {
                if (!inRange(value, 0, 8))
                    result = -EINVAL;
                else
                    hsMode = value;
            } else if (!inRange(value, 0, OT_MIPI_MAX_DEV_NUM - 1)) {
                result = -EINVAL;
            } else if (request == OT_MIPI_ENABLE_MIPI_CLOCK) {
                mipi[value].clockOn = true;
            } else if (request == OT_MIPI_RESET_MIPI) {
                mipi[value].inReset = true;
            } else if (!mipi[value].configured) {  // unreset
                result = -EPERM;
            } else {
                mipi[value].inReset = false;
            }
        }
        log.append(MediaPlatform::Call{QLatin1String(name), args, int(result)});
        return result;
    }

    long setAttr(const ot_combo_dev_attr& a)
    {
        if (a.devno >= uint32_t(OT_MIPI_MAX_DEV_NUM)) return -EINVAL;
        MediaPlatform::MipiDev& m = mipi[a.devno];
        // Lanes are moved between devices only while the receiver is held.
        if (!m.inReset || !m.clockOn) return -EBUSY;
        if (a.img_rect.width == 0 || a.img_rect.height == 0 || a.img_rect.width > 8192 ||
            a.img_rect.height > 8192 || a.img_rect.x < 0 || a.img_rect.y < 0)
            return -EINVAL;
        int used = 0;
        for (int i = 0; i < OT_MIPI_LANE_NUM; ++i) {
            const int lane = a.lane_id[i];
            if (lane == -1) continue;
            if (!inRange(lane, 0, OT_MIPI_MAX_LANE_ID)) return -EINVAL;
            for (int j = 0; j < i; ++j)
                if (a.lane_id[j] == lane) return -EINVAL;
            ++used;
        }
        if (!used) return -EINVAL;
        m.attr = a;
        m.configured = true;
        return 0;
    }
};

struct PlatformAccess {
    static MediaPlatform::Impl& impl() { return *MediaPlatform::instance().d; }
};

namespace {

long MipiDevice::ioctl(uint64_t&, unsigned long request, void* arg, unsigned long)
{
    return PlatformAccess::impl().mipiIoctl(request, arg);
}

}  // namespace

// ---------------------------------------------------------------- observation

MediaPlatform& MediaPlatform::instance()
{
    static MediaPlatform* platform = new MediaPlatform;  // outlives every node
    return *platform;
}

MediaPlatform::MediaPlatform() : d(new Impl) {}

MediaPlatform::~MediaPlatform()
{
    delete d;
}

void MediaPlatform::reset()
{
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> g(d->lock);
        d->resetAll();
        d->changed.notify_all();
        hooks = d->resetHooks;
    }
    for (auto& hook : hooks) hook();
}

int MediaPlatform::runCall(const char* name, QVariantList args, const std::function<int()>& body)
{
    int result = 0;
    bool failed;
    {
        std::lock_guard<std::mutex> g(d->lock);
        failed = d->takeFailure(QLatin1String(name), &result);
    }
    if (!failed) result = body();
    std::lock_guard<std::mutex> g(d->lock);
    d->log.append(Call{QLatin1String(name), std::move(args), result});
    return result;
}

void MediaPlatform::onReset(std::function<void()> hook)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->resetHooks.push_back(std::move(hook));
}

void MediaPlatform::failNext(const QString& call, int code, int times)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->failures[call] = Impl::Failure{code, qMax(1, times)};
}

void MediaPlatform::failAlways(const QString& call, int code)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->failures[call] = Impl::Failure{code, -1};
}

void MediaPlatform::clearFailures()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->failures.clear();
}

QList<MediaPlatform::Call> MediaPlatform::calls() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->log;
}

QStringList MediaPlatform::callNames() const
{
    std::lock_guard<std::mutex> g(d->lock);
    QStringList out;
    for (const Call& c : d->log) out << c.name;
    return out;
}

void MediaPlatform::clearCalls()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->log.clear();
}

MediaPlatform::ViDev MediaPlatform::viDev(int dev) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(dev, 0, OT_VI_MAX_DEV_NUM - 1) ? d->dev[dev] : ViDev();
}

MediaPlatform::ViChn MediaPlatform::viChn(int chn) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(chn, 0, OT_VI_MAX_CHN_NUM - 1) ? d->chn[chn] : ViChn();
}

bool MediaPlatform::userPicSet() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->userPicSet;
}

ot_vi_user_pic_attr MediaPlatform::userPic() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->userPic;
}

uint64_t MediaPlatform::userPicLumaSum() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->userPicLumaSum;
}

std::shared_ptr<const Nv21Picture> MediaPlatform::userPicture() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->userPicture;
}

QString MediaPlatform::viOutput(int chn) const
{
    std::lock_guard<std::mutex> g(d->lock);
    if (!inRange(chn, 0, OT_VI_MAX_CHN_NUM - 1) || !d->chn[chn].enabled) return "off";
    return d->chn[chn].userPicOn && d->userPicSet ? "picture" : "capture";
}

MediaPlatform::MipiDev MediaPlatform::mipiDev(int dev) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(dev, 0, OT_MIPI_MAX_DEV_NUM - 1) ? d->mipi[dev] : MipiDev();
}

int MediaPlatform::mipiHsMode() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->hsMode;
}

std::shared_ptr<Device> MediaPlatform::mipiDevice()
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->mipiNode;
}

MediaPlatform::VdecChn MediaPlatform::vdecChn(int chn) const
{
    std::lock_guard<std::mutex> g(d->lock);
    if (!inRange(chn, 0, OT_VDEC_MAX_CHN_NUM - 1)) return VdecChn();
    const Impl::Vdec& v = d->vdec[chn];
    VdecChn s = v.stats;
    s.created = v.created;
    s.receiving = v.receiving;
    s.attr = v.attr;
    s.ready = int(v.ready.size());
    s.held = int(v.held.size());
    return s;
}

int MediaPlatform::vdecChnsCreated() const
{
    std::lock_guard<std::mutex> g(d->lock);
    int n = 0;
    for (const auto& v : d->vdec) n += v.created ? 1 : 0;
    return n;
}

QList<MediaPlatform::VpssFrame> MediaPlatform::vpssFrames() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return QList<VpssFrame>(d->vpss.begin(), d->vpss.end());
}

quint64 MediaPlatform::vpssFrameCount() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->vpssCount;
}

uint64_t MediaPlatform::sysPts() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->ptsNow();
}

bool MediaPlatform::sysPtsInited() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->ptsInited;
}

}  // namespace vsim

// ---------------------------------------------------------------- the calls

using vsim::PlatformAccess;
using Lock = std::unique_lock<std::mutex>;

namespace {

vsim::MediaPlatform::Impl& P()
{
    return PlatformAccess::impl();
}

bool validDev(int dev)
{
    return vsim::inRange(dev, 0, OT_VI_MAX_DEV_NUM - 1);
}
bool validChn(int chn)
{
    return vsim::inRange(chn, 0, OT_VI_MAX_CHN_NUM - 1);
}
bool validVdec(int chn)
{
    return vsim::inRange(chn, 0, OT_VDEC_MAX_CHN_NUM - 1);
}

bool devAttrValid(const ot_vi_dev_attr& a)
{
    using vsim::inRange;
    if (!inRange(a.intf_mode, OT_VI_INTF_MODE_BT656, OT_VI_INTF_MODE_MIPI)) return false;
    if (!inRange(a.work_mode, OT_VI_WORK_MODE_1MUX, OT_VI_WORK_MODE_4MUX)) return false;
    if (!inRange(a.clk_edge, OT_VI_CLK_EDGE_SINGLE_UP, OT_VI_CLK_EDGE_DOUBLE)) return false;
    if (!inRange(a.data_seq, OT_VI_DATA_SEQ_VUVU, OT_VI_DATA_SEQ_YVYU)) return false;
    if (a.data_reverse > 1) return false;
    // Luma needs bus bits; plain BT.1120 carries chroma on bits of its own,
    // the interleaved form shares one byte lane like BT.656.
    if (a.component_mask[0] == 0) return false;
    if (a.intf_mode == OT_VI_INTF_MODE_BT1120 && a.component_mask[1] == 0) return false;
    return true;
}

bool chnAttrValid(const ot_vi_chn_attr& a)
{
    using vsim::inRange;
    const int64_t right = int64_t(a.crop.x) + a.crop.width;
    const int64_t bottom = int64_t(a.crop.y) + a.crop.height;
    if (a.crop.x < 0 || a.crop.y < 0 || a.crop.width == 0 || a.crop.height == 0) return false;
    if (right > OT_VI_MAX_WIDTH || bottom > OT_VI_MAX_HEIGHT) return false;
    // The channel scales down, never up.
    if (a.size.width == 0 || a.size.height == 0 || a.size.width > a.crop.width ||
        a.size.height > a.crop.height)
        return false;
    if (!inRange(a.capture_select, OT_VI_CAPTURE_SELECT_TOP, OT_VI_CAPTURE_SELECT_BOTH))
        return false;
    if (!inRange(a.scan_mode, OT_VIDEO_SCAN_MODE_INTERLACED, OT_VIDEO_SCAN_MODE_PROGRESSIVE))
        return false;
    if (a.pixel_format != OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420 &&
        a.pixel_format != OT_PIXEL_FORMAT_YVU_SEMIPLANAR_422 &&
        a.pixel_format != OT_PIXEL_FORMAT_YUV_SEMIPLANAR_420 &&
        a.pixel_format != OT_PIXEL_FORMAT_YUV_SEMIPLANAR_422)
        return false;
    if (a.mirror > 1 || a.flip > 1 || !inRange(a.depth, 0, 8)) return false;
    const int src = a.frame_rate_ctrl.src_frame_rate, dst = a.frame_rate_ctrl.dst_frame_rate;
    if (src == -1 && dst == -1) return true;
    return src >= 1 && dst >= 1 && dst <= src && src <= 240;
}

}  // namespace

extern "C" {

// ---- video input

td_s32 hi_mpi_vi_set_dev_attr(ot_vi_dev dev, const ot_vi_dev_attr* attr)
{
    return P().run("hi_mpi_vi_set_dev_attr", {dev}, [&](Lock&) {
        if (!validDev(dev)) return OT_ERR_VI_INVALID_DEV_ID;
        if (!attr) return OT_ERR_VI_NULL_PTR;
        auto& d = P().dev[dev];
        if (d.enabled) return OT_ERR_VI_NOT_PERM;
        if (!devAttrValid(*attr)) return OT_ERR_VI_ILLEGAL_PARAM;
        d.attr = *attr;
        d.configured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_enable_dev(ot_vi_dev dev)
{
    return P().run("hi_mpi_vi_enable_dev", {dev}, [&](Lock&) {
        if (!validDev(dev)) return OT_ERR_VI_INVALID_DEV_ID;
        auto& d = P().dev[dev];
        if (!d.configured) return OT_ERR_VI_NOT_CONFIG;
        d.enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_disable_dev(ot_vi_dev dev)
{
    return P().run("hi_mpi_vi_disable_dev", {dev}, [&](Lock&) {
        if (!validDev(dev)) return OT_ERR_VI_INVALID_DEV_ID;
        for (int c = dev * OT_VI_CHN_PER_DEV; c < (dev + 1) * OT_VI_CHN_PER_DEV; ++c)
            if (P().chn[c].enabled) return OT_ERR_VI_NOT_PERM;
        P().dev[dev].enabled = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_set_chn_attr(ot_vi_chn chn, const ot_vi_chn_attr* attr)
{
    // The scan mode goes into the log: the interlaced set-up sets the
    // channel twice, and only the log shows the first one.
    return P().run("hi_mpi_vi_set_chn_attr", {chn, attr ? attr->scan_mode : -1}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VI_NULL_PTR;
        auto& c = P().chn[chn];
        if (c.enabled) return OT_ERR_VI_NOT_PERM;
        if (!chnAttrValid(*attr)) return OT_ERR_VI_ILLEGAL_PARAM;
        c.attr = *attr;
        c.configured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_enable_chn(ot_vi_chn chn)
{
    return P().run("hi_mpi_vi_enable_chn", {chn}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        auto& c = P().chn[chn];
        if (!c.configured) return OT_ERR_VI_NOT_CONFIG;
        if (!P().dev[chn / OT_VI_CHN_PER_DEV].enabled) return OT_ERR_VI_NOT_PERM;
        if (!c.enabled) ++c.enables;
        c.enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_disable_chn(ot_vi_chn chn)
{
    return P().run("hi_mpi_vi_disable_chn", {chn}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        P().chn[chn].enabled = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_set_rotation(ot_vi_chn chn, ot_rotation rotation)
{
    return P().run("hi_mpi_vi_set_rotation", {chn, rotation}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        if (!vsim::inRange(rotation, OT_ROTATION_0, OT_ROTATION_270))
            return OT_ERR_VI_ILLEGAL_PARAM;
        P().chn[chn].rotation = rotation;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_set_user_pic(ot_vi_chn chn, const ot_vi_user_pic_attr* pic)
{
    return P().run("hi_mpi_vi_set_user_pic", {chn}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        if (!pic) return OT_ERR_VI_NULL_PTR;
        uint64_t luma = 0;
        if (pic->pic_mode == OT_VI_USER_PIC_MODE_PIC) {
            // The unit copies the picture in now, so it must be whole.
            if (!vsim::fetchFrame(pic->frame_info.video_frame, &luma, nullptr))
                return OT_ERR_VI_ILLEGAL_PARAM;
        } else if (pic->pic_mode != OT_VI_USER_PIC_MODE_BG) {
            return OT_ERR_VI_ILLEGAL_PARAM;
        }
        P().userPic = *pic;
        P().userPicSet = true;
        P().userPicLumaSum = luma;
        P().userPicture = pic->pic_mode == OT_VI_USER_PIC_MODE_PIC
                              ? vsim::copyPicture(pic->frame_info.video_frame)
                              : nullptr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_enable_user_pic(ot_vi_chn chn)
{
    return P().run("hi_mpi_vi_enable_user_pic", {chn}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        if (!P().userPicSet) return OT_ERR_VI_NOT_CONFIG;
        P().chn[chn].userPicOn = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vi_disable_user_pic(ot_vi_chn chn)
{
    return P().run("hi_mpi_vi_disable_user_pic", {chn}, [&](Lock&) {
        if (!validChn(chn)) return OT_ERR_VI_INVALID_CHN_ID;
        P().chn[chn].userPicOn = false;
        return TD_SUCCESS;
    });
}

// ---- video decoder

td_s32 hi_mpi_vdec_create_chn(ot_vdec_chn chn, const ot_vdec_chn_attr* attr)
{
    return P().run("hi_mpi_vdec_create_chn", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VDEC_NULL_PTR;
        auto& v = P().vdec[chn];
        if (v.created) return OT_ERR_VDEC_EXIST;
        if (attr->type != OT_PT_JPEG) return OT_ERR_VDEC_NOT_SUPPORT;
        if (attr->mode != OT_VDEC_SEND_MODE_FRAME) return OT_ERR_VDEC_NOT_SUPPORT;
        const uint64_t w = attr->pic_width, h = attr->pic_height;
        if (w == 0 || h == 0 || w > OT_VDEC_MAX_WIDTH || h > OT_VDEC_MAX_HEIGHT)
            return OT_ERR_VDEC_ILLEGAL_PARAM;
        if (attr->stream_buf_size == 0 || attr->frame_buf_cnt == 0 || attr->frame_buf_cnt > 32)
            return OT_ERR_VDEC_ILLEGAL_PARAM;
        if (attr->frame_buf_size < w * h * 3 / 2) return OT_ERR_VDEC_ILLEGAL_PARAM;
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        AVCodecContext* ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
        if (!ctx) return OT_ERR_VDEC_NO_MEM;
        ctx->thread_count = 1;
        ctx->err_recognition = AV_EF_EXPLODE;
        if (avcodec_open2(ctx, codec, nullptr) < 0) {
            avcodec_free_context(&ctx);
            return OT_ERR_VDEC_NO_MEM;
        }
        v.created = true;
        v.attr = *attr;
        v.ctx = ctx;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_destroy_chn(ot_vdec_chn chn)
{
    return P().run("hi_mpi_vdec_destroy_chn", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        if (v.receiving) return OT_ERR_VDEC_NOT_PERM;
        P().clearVdec(v);
        P().changed.notify_all();
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_get_chn_attr(ot_vdec_chn chn, ot_vdec_chn_attr* attr)
{
    return P().run("hi_mpi_vdec_get_chn_attr", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VDEC_NULL_PTR;
        const auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        *attr = v.attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_start_recv_stream(ot_vdec_chn chn)
{
    return P().run("hi_mpi_vdec_start_recv_stream", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        v.receiving = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_stop_recv_stream(ot_vdec_chn chn)
{
    return P().run("hi_mpi_vdec_stop_recv_stream", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        v.receiving = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_query_status(ot_vdec_chn chn, ot_vdec_chn_status* status)
{
    return P().run("hi_mpi_vdec_query_status", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!status) return OT_ERR_VDEC_NULL_PTR;
        const auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        *status = ot_vdec_chn_status{};
        status->type = v.attr.type;
        status->left_decoded_frames = uint32_t(v.ready.size());
        status->is_started = v.receiving ? 1 : 0;
        status->recv_stream_frames = uint32_t(v.stats.streams);
        status->dec_stream_frames = uint32_t(v.stats.decoded);
        status->stream_errors = uint32_t(v.stats.streamErrors);
        status->oversize_errors = uint32_t(v.stats.oversize);
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_send_stream(ot_vdec_chn chn, const ot_vdec_stream* stream, td_s32 milli_sec)
{
    return P().run("hi_mpi_vdec_send_stream", {chn}, [&](Lock& l) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!stream) return OT_ERR_VDEC_NULL_PTR;
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        if (!v.receiving) return OT_ERR_VDEC_NOT_PERM;
        if (stream->len == 0 || !stream->addr || stream->len > (1u << 28))
            return OT_ERR_VDEC_ILLEGAL_PARAM;
        if (stream->len > v.attr.stream_buf_size) return OT_ERR_VDEC_BUF_FULL;
        // One frame buffer per picture: wait for the user to give one back.
        auto full = [&] {
            const auto& c = P().vdec[chn];
            return c.created && c.ready.size() + c.held.size() >= c.attr.frame_buf_cnt;
        };
        if (full()) {
            if (milli_sec == 0) return OT_ERR_VDEC_BUF_FULL;
            auto hasRoom = [&] { return !full(); };
            if (milli_sec < 0)
                P().changed.wait(l, hasRoom);
            else if (!P().changed.wait_for(l, std::chrono::milliseconds(milli_sec), hasRoom))
                return OT_ERR_VDEC_BUF_FULL;
            if (!v.created || !v.receiving) return OT_ERR_VDEC_UNEXIST;
        }
        ++v.stats.streams;
        vsim::Picture pic;
        bool oversize = false;
        if (P().decode(v, stream->addr, stream->len, stream->pts, &pic, &oversize)) {
            v.ready.push_back(pic);
            ++v.stats.decoded;
            P().changed.notify_all();
        } else if (oversize) {
            ++v.stats.oversize;
        } else {
            ++v.stats.streamErrors;
        }
        // The stream was taken; what the decoder made of it shows at get_frame.
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_get_frame(ot_vdec_chn chn, ot_video_frame_info* frame_info,
                             ot_vdec_supplement_info* supplement, td_s32 milli_sec)
{
    return P().run("hi_mpi_vdec_get_frame", {chn}, [&](Lock& l) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!frame_info) return OT_ERR_VDEC_NULL_PTR;
        if (!P().vdec[chn].created) return OT_ERR_VDEC_UNEXIST;
        auto ready = [&] {
            const auto& c = P().vdec[chn];
            return !c.created || !c.ready.empty();
        };
        if (milli_sec < 0)
            P().changed.wait(l, ready);
        else if (milli_sec > 0)
            P().changed.wait_for(l, std::chrono::milliseconds(milli_sec), ready);
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        if (v.ready.empty()) return OT_ERR_VDEC_BUF_EMPTY;
        vsim::Picture p = v.ready.front();
        v.ready.pop_front();
        v.held.push_back(p);
        *frame_info = p.info;
        if (supplement) *supplement = ot_vdec_supplement_info{};
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vdec_release_frame(ot_vdec_chn chn, const ot_video_frame_info* frame_info)
{
    return P().run("hi_mpi_vdec_release_frame", {chn}, [&](Lock&) {
        if (!validVdec(chn)) return OT_ERR_VDEC_INVALID_CHN_ID;
        if (!frame_info) return OT_ERR_VDEC_NULL_PTR;
        auto& v = P().vdec[chn];
        if (!v.created) return OT_ERR_VDEC_UNEXIST;
        for (auto it = v.held.begin(); it != v.held.end(); ++it) {
            if (it->info.video_frame.virt_addr[0] != frame_info->video_frame.virt_addr[0]) continue;
            vsim::freePicture(*it);
            v.held.erase(it);
            P().changed.notify_all();
            return TD_SUCCESS;
        }
        return OT_ERR_VDEC_ILLEGAL_PARAM;  // not a frame of this channel
    });
}

// ---- video processing

td_s32 hi_mpi_vpss_send_frame(ot_vpss_grp grp, const ot_video_frame_info* frame, td_s32)
{
    return P().run("hi_mpi_vpss_send_frame", {grp}, [&](Lock&) {
        if (!vsim::inRange(grp, 0, OT_VPSS_MAX_GRP_NUM - 1)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!frame) return OT_ERR_VPSS_NULL_PTR;
        if (!vsim::VideoOut::instance().vpssGrp(grp).started) return OT_ERR_VPSS_UNEXIST;
        vsim::MediaPlatform::VpssFrame rec;
        const ot_video_frame& f = frame->video_frame;
        if (!vsim::fetchFrame(f, &rec.lumaSum, &rec.chromaSum)) return OT_ERR_VPSS_ILLEGAL_PARAM;
        rec.grp = grp;
        rec.width = f.width;
        rec.height = f.height;
        rec.stride = f.stride[0];
        rec.pts = f.pts;
        rec.timeRef = f.time_ref;
        rec.virtAddr = f.virt_addr[0];
        auto& q = P().vpss;
        q.push_back(rec);
        while (q.size() > size_t(vsim::kVpssKept)) q.pop_front();
        ++P().vpssCount;
        vsim::VideoOut::instance().keepPicture(grp, vsim::copyPicture(f));
        return TD_SUCCESS;
    });
}

// ---- system

td_s32 hi_mpi_sys_init_pts_base(td_u64 pts_base)
{
    return P().run("hi_mpi_sys_init_pts_base", {qulonglong(pts_base)}, [&](Lock&) {
        P().setPts(pts_base);
        P().ptsInited = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_sys_sync_pts(td_u64 pts_base)
{
    return P().run("hi_mpi_sys_sync_pts", {qulonglong(pts_base)}, [&](Lock&) {
        P().setPts(pts_base);
        return TD_SUCCESS;
    });
}

}  // extern "C"
