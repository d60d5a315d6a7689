#include "sim/VideoOut.h"

#include <sys/mman.h>
#include <unistd.h>

#include <QDebug>
#include <QFile>
#include <QMap>
#include <QTransform>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <tuple>

#include "sim/MediaPlatform.h"
#include "sim/VirtualBoard.h"

namespace vsim {

namespace {

constexpr int kFbCount = 2;
// The graphics plane's memory: enough for one 4K ARGB picture.
constexpr size_t kFbBytes = size_t(3840) * 2160 * 4;
// Write-back of a device that shows another device's write-back that shows
// ... stops here: the hardware would show a stale frame, we show nothing.
constexpr int kMaxDepth = 4;

bool inRange(int v, int lo, int hi)
{
    return v >= lo && v <= hi;
}

uint8_t clamp8(int v)
{
    return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

// The platform's timing codes with their active size and rate.
struct Timing {
    int code, width, height, rate;
};
const Timing kTimings[] = {
    {0, 720, 576, 25},    {1, 720, 486, 30},    {2, 960, 576, 25},    {3, 960, 480, 30},
    {4, 640, 480, 60},    {5, 720, 480, 60},    {6, 720, 576, 50},    {7, 800, 600, 60},
    {8, 1024, 768, 60},   {9, 1280, 720, 50},   {10, 1280, 720, 60},  {11, 1280, 800, 60},
    {12, 1280, 1024, 60}, {13, 1366, 768, 60},  {14, 1280, 768, 60},  {15, 1440, 900, 60},
    {16, 1680, 1050, 60}, {17, 1920, 1080, 24}, {18, 1920, 1080, 25}, {19, 1920, 1080, 30},
    {20, 1920, 1080, 50}, {21, 1920, 1080, 60}, {22, 1920, 1080, 50}, {23, 1920, 1080, 60},
    {24, 1600, 1200, 60}, {25, 1920, 1200, 60}, {26, 1920, 2160, 30}, {27, 2560, 1440, 30},
    {28, 2560, 1440, 60}, {29, 2560, 1600, 60}, {30, 3840, 2160, 24}, {31, 3840, 2160, 25},
    {32, 3840, 2160, 30}, {33, 3840, 2160, 50}, {34, 3840, 2160, 60},
};

// Interfaces each device can drive: the standard definition device only the
// analogue and BT.656 ones.
uint32_t interfacesOf(int dev)
{
    const uint32_t hd = OT_VO_INTF_HDMI | OT_VO_INTF_VGA | OT_VO_INTF_BT1120 | OT_VO_INTF_MIPI;
    return dev == 2 ? (OT_VO_INTF_CVBS | OT_VO_INTF_BT656) : hd;
}

bool semiPlanar(int format)
{
    return format >= OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420 &&
           format <= OT_PIXEL_FORMAT_YUV_SEMIPLANAR_422;
}

class FbDevice;

}  // namespace

// ---------------------------------------------------------------- pictures

std::shared_ptr<const Nv21Picture> copyPicture(const ot_video_frame& f)
{
    if (f.width == 0 || f.height == 0 || f.width > 8192 || f.height > 8192) return nullptr;
    if (!semiPlanar(f.pixel_format) || !f.virt_addr[0] || !f.virt_addr[1]) return nullptr;
    const uint32_t pairBytes = (f.width + 1) & ~1u;
    if (f.stride[0] < f.width || f.stride[1] < pairBytes) return nullptr;
    const bool is422 = f.pixel_format >= OT_PIXEL_FORMAT_YVU_SEMIPLANAR_422;
    const bool uFirst = f.pixel_format == OT_PIXEL_FORMAT_YUV_SEMIPLANAR_420 ||
                        f.pixel_format == OT_PIXEL_FORMAT_YUV_SEMIPLANAR_422;
    auto p = std::make_shared<Nv21Picture>();
    p->width = int(f.width);
    p->height = int(f.height);
    p->luma.resize(int(f.width * f.height));
    const auto* y = reinterpret_cast<const char*>(f.virt_addr[0]);
    for (uint32_t r = 0; r < f.height; ++r)
        std::memcpy(p->luma.data() + size_t(r) * f.width, y + size_t(r) * f.stride[0], f.width);
    const uint32_t rows = (f.height + 1) / 2;
    p->chroma.resize(int(pairBytes * rows));
    const auto* c = reinterpret_cast<const char*>(f.virt_addr[1]);
    for (uint32_t r = 0; r < rows; ++r) {
        // 4:2:2 has a chroma line per luma line; every other one will do.
        const char* from = c + size_t(is422 ? r * 2 : r) * f.stride[1];
        char* to = p->chroma.data() + size_t(r) * pairBytes;
        std::memcpy(to, from, pairBytes);
        if (uFirst)
            for (uint32_t x = 0; x + 1 < pairBytes; x += 2) std::swap(to[x], to[x + 1]);
    }
    return p;
}

QImage Nv21Picture::toImage() const
{
    if (width <= 0 || height <= 0) return QImage();
    const int pairBytes = (width + 1) & ~1;
    if (luma.size() < width * height || chroma.size() < pairBytes * ((height + 1) / 2))
        return QImage();
    QImage out(width, height, QImage::Format_RGB32);
    const auto* y = reinterpret_cast<const uint8_t*>(luma.constData());
    const auto* vu = reinterpret_cast<const uint8_t*>(chroma.constData());
    for (int r = 0; r < height; ++r) {
        auto* line = reinterpret_cast<QRgb*>(out.scanLine(r));
        const uint8_t* cl = vu + size_t(r / 2) * pairBytes;
        for (int x = 0; x < width; ++x) {
            const int c = 298 * (y[size_t(r) * width + x] - 16);
            const int v = cl[x & ~1] - 128, u = cl[(x & ~1) + 1] - 128;
            line[x] =
                qRgb(clamp8((c + 409 * v + 128) >> 8), clamp8((c - 100 * u - 208 * v + 128) >> 8),
                     clamp8((c + 516 * u + 128) >> 8));
        }
    }
    return out;
}

namespace {

// Colour bars over a grey ramp: which way up and which way round a picture
// arrives is plain to see.
QImage barsPicture(int w, int h)
{
    static const QRgb bars[] = {0xFFFFFF, 0xFFFF00, 0x00FFFF, 0x00FF00,
                                0xFF00FF, 0xFF0000, 0x0000FF, 0x000000};
    QImage img(w, h, QImage::Format_RGB32);
    const int split = h * 3 / 4;
    for (int r = 0; r < h; ++r) {
        auto* line = reinterpret_cast<QRgb*>(img.scanLine(r));
        for (int x = 0; x < w; ++x) {
            if (r < split) {
                line[x] = 0xFF000000u | bars[std::min(7, x * 8 / w)];
            } else {
                const int g = x * 255 / std::max(1, w - 1);
                line[x] = qRgb(g, g, g);
            }
        }
    }
    return img;
}

QImage rampPicture(int w, int h)
{
    QImage img(w, h, QImage::Format_RGB32);
    for (int r = 0; r < h; ++r) {
        auto* line = reinterpret_cast<QRgb*>(img.scanLine(r));
        for (int x = 0; x < w; ++x)
            line[x] = qRgb(x * 255 / std::max(1, w - 1), r * 255 / std::max(1, h - 1), 128);
    }
    return img;
}

// A group's contrast: each component spread around mid-grey by
// (100 + contrast) percent.
QImage withContrast(const QImage& src, int contrast)
{
    QImage img = src.convertToFormat(QImage::Format_RGB32);
    const int gain = 100 + contrast;
    auto spread = [gain](int c) { return int(clamp8(128 + (c - 128) * gain / 100)); };
    for (int r = 0; r < img.height(); ++r) {
        auto* line = reinterpret_cast<QRgb*>(img.scanLine(r));
        for (int x = 0; x < img.width(); ++x)
            line[x] = qRgb(spread(qRed(line[x])), spread(qGreen(line[x])), spread(qBlue(line[x])));
    }
    return img;
}

// Puts `src` into `dst` with its top left corner at `at`, cut to `dst`.
void blit(QImage& dst, const QImage& src, QPoint at)
{
    const QImage s = src.convertToFormat(QImage::Format_RGB32);
    const QRect area = QRect(at, s.size()).intersected(dst.rect());
    for (int r = area.top(); r <= area.bottom(); ++r) {
        auto* to = reinterpret_cast<QRgb*>(dst.scanLine(r));
        const auto* from = reinterpret_cast<const QRgb*>(s.constScanLine(r - at.y()));
        std::memcpy(to + area.left(), from + (area.left() - at.x()),
                    size_t(area.width()) * sizeof(QRgb));
    }
}

}  // namespace

// ---------------------------------------------------------------- state

struct VideoOut::Impl {
    mutable std::mutex lock;

    VideoOut::VpssGrp grp[OT_VPSS_MAX_GRP_NUM];
    std::shared_ptr<const Nv21Picture> grpPicture[OT_VPSS_MAX_GRP_NUM];
    // Sink (module, device, channel) to its source.
    QMap<std::tuple<int, int, int>, ot_mpp_chn> binds;

    VideoOut::VoDev dev[OT_VO_MAX_DEV_NUM];
    VideoOut::VoLayer layer[OT_VO_MAX_LAYER_NUM];
    VideoOut::Wbc wbc;
    VideoOut::Hdmi hdmi;
    bool sinkPlugged = false;
    QByteArray sinkEdid;

    std::shared_ptr<FbDevice> fbs[kFbCount];
    QMap<int, QString> capturePicture;  // by input device
    QMap<QString, QImage> files;        // image files already read

    void resetAll();
};

namespace {

// "/dev/fb" N: the graphics plane of display device N. Its memory is a
// memfd the application maps and draws into.
class FbDevice : public Device {
public:
    explicit FbDevice(int index) : index(index) { reset(); }
    ~FbDevice() override
    {
        if (mem != MAP_FAILED) ::munmap(mem, kFbBytes);
        if (memFd >= 0) ::close(memFd);
    }

    void reset()
    {
        std::lock_guard<std::mutex> g(lock);
        state = VideoOut::Fb();
        state.var.xres = state.var.xres_virtual = 1920;
        state.var.yres = state.var.yres_virtual = 1080;
        state.var.bits_per_pixel = 32;
        if (mem != MAP_FAILED) std::memset(mem, 0, kFbBytes);
    }

    int makeFd() override
    {
        {
            std::lock_guard<std::mutex> g(lock);
            ++state.opens;
        }
        return Device::makeFd();
    }

    long ioctl(uint64_t&, unsigned long request, void* arg, unsigned long) override
    {
        std::lock_guard<std::mutex> g(lock);
        state.requests.append(request);
        if (!arg) return -EFAULT;
        switch (request) {
            case FBIOPUT_SHOW_LAYER:
                state.shown = *static_cast<const uint32_t*>(arg) != 0;
                return 0;
            case FBIOGET_SHOW_LAYER:
                *static_cast<uint32_t*>(arg) = state.shown;
                return 0;
            case FBIOPUT_ALPHA_LAYER:
                state.alpha = *static_cast<const ot_fb_alpha*>(arg);
                return 0;
            case FBIOGET_ALPHA_LAYER:
                *static_cast<ot_fb_alpha*>(arg) = state.alpha;
                return 0;
            case FBIOGET_VSCREENINFO:
                *static_cast<fb_var_screeninfo*>(arg) = state.var;
                return 0;
            case FBIOPUT_VSCREENINFO: {
                const auto& v = *static_cast<const fb_var_screeninfo*>(arg);
                if (v.bits_per_pixel != 32 && v.bits_per_pixel != 16) return -EINVAL;
                if (v.xres == 0 || v.yres == 0 || v.xres_virtual < v.xres ||
                    v.yres_virtual < v.yres ||
                    size_t(v.xres_virtual) * v.yres_virtual * (v.bits_per_pixel / 8) > kFbBytes)
                    return -EINVAL;
                state.var = v;
                return 0;
            }
            case FBIOGET_FSCREENINFO: {
                auto& f = *static_cast<fb_fix_screeninfo*>(arg);
                std::memset(&f, 0, sizeof f);
                std::snprintf(f.id, sizeof f.id, "vesk_fb%d", index);
                f.smem_len = uint32_t(kFbBytes);
                f.line_length = state.var.xres_virtual * (state.var.bits_per_pixel / 8);
                f.visual = FB_VISUAL_TRUECOLOR;
                return 0;
            }
            case FBIOGET_LAYER_INFO:
                *static_cast<ot_fb_layer_info*>(arg) = state.layer;
                return 0;
            case FBIOPUT_LAYER_INFO: {
                const auto& in = *static_cast<const ot_fb_layer_info*>(arg);
                if ((in.mask & 1) && in.buf_mode > OT_FB_LAYER_BUF_DOUBLE_IMMEDIATE) return -EINVAL;
                if (in.mask & 1) state.layer.buf_mode = in.buf_mode;
                state.layer.mask = in.mask;
                return 0;
            }
            default:
                return -ENOTTY;
        }
    }

    void* mmap(uint64_t&, void* addr, size_t len, int prot, int flags, off_t offset) override
    {
        std::lock_guard<std::mutex> g(lock);
        if (!ensureMemory() || offset < 0 || size_t(offset) + len > kFbBytes) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        return ::mmap(addr, len, prot, flags, memFd, offset);
    }

    VideoOut::Fb snapshot() const
    {
        std::lock_guard<std::mutex> g(lock);
        return state;
    }

    void paint(const QImage& image)
    {
        std::lock_guard<std::mutex> g(lock);
        if (!ensureMemory()) return;
        const QImage img = image.convertToFormat(QImage::Format_ARGB32)
                               .scaled(int(state.var.xres), int(state.var.yres));
        const size_t line = size_t(state.var.xres_virtual) * 4;
        for (int r = 0; r < img.height(); ++r)
            std::memcpy(static_cast<char*>(mem) + r * line, img.constScanLine(r),
                        size_t(img.width()) * 4);
    }

    // The plane as the display mixes it: ARGB at its visible size, alpha
    // already applied; null while hidden.
    QImage plane() const
    {
        std::lock_guard<std::mutex> g(lock);
        if (!state.shown || mem == MAP_FAILED || state.var.bits_per_pixel != 32) return QImage();
        const int w = int(state.var.xres), h = int(state.var.yres);
        QImage img(w, h, QImage::Format_ARGB32);
        const size_t line = size_t(state.var.xres_virtual) * 4;
        for (int r = 0; r < h; ++r) {
            auto* to = reinterpret_cast<QRgb*>(img.scanLine(r));
            const auto* from = reinterpret_cast<const QRgb*>(static_cast<char*>(mem) + r * line);
            for (int x = 0; x < w; ++x) {
                const int a = state.alpha.alpha_en ? qAlpha(from[x]) : 255;
                const int ga = state.alpha.alpha_chn_en ? state.alpha.global_alpha : 255;
                to[x] = qRgba(qRed(from[x]), qGreen(from[x]), qBlue(from[x]), a * ga / 255);
            }
        }
        return img;
    }

private:
    bool ensureMemory()
    {
        if (mem != MAP_FAILED) return true;
        memFd = ::memfd_create("vesk-fb", MFD_CLOEXEC);
        if (memFd < 0 || ::ftruncate(memFd, off_t(kFbBytes)) != 0) return false;
        mem = ::mmap(nullptr, kFbBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memFd, 0);
        return mem != MAP_FAILED;
    }

    const int index;
    mutable std::mutex lock;
    VideoOut::Fb state;
    int memFd = -1;
    void* mem = MAP_FAILED;
};

}  // namespace

void VideoOut::Impl::resetAll()
{
    for (auto& g : grp) g = VideoOut::VpssGrp();
    for (auto& p : grpPicture) p.reset();
    binds.clear();
    for (auto& d : dev) d = VideoOut::VoDev();
    for (auto& l : layer) l = VideoOut::VoLayer();
    wbc = VideoOut::Wbc();
    hdmi = VideoOut::Hdmi();
    sinkPlugged = false;
    sinkEdid.clear();
    capturePicture.clear();
    files.clear();
}

// ---------------------------------------------------------------- observation

VideoOut& VideoOut::instance()
{
    static VideoOut* unit = new VideoOut;  // outlives every node
    return *unit;
}

VideoOut::VideoOut() : d(new Impl)
{
    for (int i = 0; i < kFbCount; ++i) d->fbs[i] = std::make_shared<FbDevice>(i);
    MediaPlatform::instance().onReset([this] { reset(); });
}

VideoOut::~VideoOut()
{
    delete d;
}

void VideoOut::reset()
{
    {
        std::lock_guard<std::mutex> g(d->lock);
        d->resetAll();
    }
    for (auto& fb : d->fbs) fb->reset();
}

VideoOut::VpssGrp VideoOut::vpssGrp(int grp) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(grp, 0, OT_VPSS_MAX_GRP_NUM - 1) ? d->grp[grp] : VpssGrp();
}

void VideoOut::keepPicture(int grp, std::shared_ptr<const Nv21Picture> picture)
{
    std::lock_guard<std::mutex> g(d->lock);
    if (!inRange(grp, 0, OT_VPSS_MAX_GRP_NUM - 1) || !picture) return;
    d->grpPicture[grp] = std::move(picture);
    ++d->grp[grp].framesIn;
}

ot_mpp_chn VideoOut::boundTo(const ot_mpp_chn& dst) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->binds.value({dst.mod_id, dst.dev_id, dst.chn_id}, ot_mpp_chn{-1, -1, -1});
}

VideoOut::VoDev VideoOut::voDev(int dev) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(dev, 0, OT_VO_MAX_DEV_NUM - 1) ? d->dev[dev] : VoDev();
}

VideoOut::VoLayer VideoOut::voLayer(int layer) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return inRange(layer, 0, OT_VO_MAX_LAYER_NUM - 1) ? d->layer[layer] : VoLayer();
}

VideoOut::Wbc VideoOut::wbc() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->wbc;
}

int VideoOut::layerDevice(int layer)
{
    static const int owner[OT_VO_MAX_LAYER_NUM] = {0, 1, 0, 2};
    return inRange(layer, 0, OT_VO_MAX_LAYER_NUM - 1) ? owner[layer] : -1;
}

QSize VideoOut::timingSize(int intfSync, const ot_vo_sync_info& sync, int* rate)
{
    if (intfSync == OT_VO_OUT_USER) {
        if (rate) *rate = 60;
        const int lines = sync.iop ? sync.vact : sync.vact * 2;
        return QSize(sync.hact, lines);
    }
    for (const Timing& t : kTimings) {
        if (t.code != intfSync) continue;
        if (rate) *rate = t.rate;
        return QSize(t.width, t.height);
    }
    if (rate) *rate = 0;
    return QSize(0, 0);
}

uint32_t VideoOut::userPixelClock(const ot_vo_user_sync_info& i)
{
    const uint64_t div = uint64_t(i.ref_div) * i.post_div1 * i.post_div2 * i.dev_div * i.pre_div;
    if (div == 0) return 0;
    // 27 MHz reference; frac is the 24-bit fraction of the feedback divider.
    const uint64_t vcoHz = (uint64_t(27000000) * i.fb_div) + ((uint64_t(27000000) * i.frac) >> 24);
    return uint32_t(vcoHz / div / 1000);
}

VideoOut::Hdmi VideoOut::hdmi() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->hdmi;
}

void VideoOut::plugSink(const QByteArray& edid)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->sinkPlugged = true;
    d->sinkEdid = edid.left(512);
}

void VideoOut::unplugSink()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->sinkPlugged = false;
    d->sinkEdid.clear();
}

bool VideoOut::sinkPlugged() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->sinkPlugged;
}

VideoOut::Fb VideoOut::fb(int index) const
{
    return inRange(index, 0, kFbCount - 1) ? d->fbs[index]->snapshot() : Fb();
}

std::shared_ptr<Device> VideoOut::fbDevice(int index)
{
    return inRange(index, 0, kFbCount - 1) ? d->fbs[index] : nullptr;
}

void VideoOut::paintFb(int index, const QImage& image)
{
    if (inRange(index, 0, kFbCount - 1)) d->fbs[index]->paint(image);
}

void VideoOut::setCapturePicture(int viDev, const QString& picture)
{
    std::lock_guard<std::mutex> g(d->lock);
    d->capturePicture[viDev] = picture;
}

// ---------------------------------------------------------------- composing

namespace {

// What one source hands on now, or a null image. Works on copies of the
// unit's state so that no lock is held while reading the other units.
struct Composer {
    // Copies taken under the lock.
    VideoOut::VpssGrp grp[OT_VPSS_MAX_GRP_NUM];
    std::shared_ptr<const Nv21Picture> grpPicture[OT_VPSS_MAX_GRP_NUM];
    QMap<std::tuple<int, int, int>, ot_mpp_chn> binds;
    VideoOut::VoDev dev[OT_VO_MAX_DEV_NUM];
    VideoOut::VoLayer layer[OT_VO_MAX_LAYER_NUM];
    VideoOut::Wbc wbc;
    QMap<int, QString> capturePicture;
    QImage planes[kFbCount];
    QMap<QString, QImage>* files = nullptr;
    std::mutex* filesLock = nullptr;

    QImage fileImage(const QString& path)
    {
        std::lock_guard<std::mutex> g(*filesLock);
        auto it = files->find(path);
        if (it != files->end()) return *it;
        QImage img(Board::instance().hostPath(path));
        if (img.isNull()) qWarning().noquote() << "virtual display: cannot read picture" << path;
        files->insert(path, img);
        return img;
    }

    QImage capture(int chn)
    {
        const MediaPlatform& mp = MediaPlatform::instance();
        const QString out = mp.viOutput(chn);
        if (out == QLatin1String("off")) return QImage();
        const MediaPlatform::ViChn c = mp.viChn(chn);
        QImage img;
        if (out == QLatin1String("picture")) {
            auto pic = mp.userPicture();
            if (pic)
                img = pic->toImage();
            else
                img = QImage(int(c.attr.size.width), int(c.attr.size.height), QImage::Format_RGB32);
            if (!pic) img.fill(QColor(mp.userPic().bg_color | 0xFF000000u));
        } else {
            int w = int(c.attr.size.width), h = int(c.attr.size.height);
            if (w <= 0 || h <= 0 || w > 8192 || h > 8192) return QImage();
            const QString what = capturePicture.value(chn / OT_VI_CHN_PER_DEV, "bars");
            if (what == QLatin1String("bars"))
                img = barsPicture(w, h);
            else if (what == QLatin1String("ramp"))
                img = rampPicture(w, h);
            else if (what.startsWith('#')) {
                img = QImage(w, h, QImage::Format_RGB32);
                img.fill(QColor(what));
            } else {
                img = fileImage(what);
                if (!img.isNull()) img = img.scaled(w, h);
            }
        }
        if (img.isNull()) return img;
        img = img.mirrored(c.attr.mirror != 0, c.attr.flip != 0);
        if (c.rotation > 0 && c.rotation < OT_ROTATION_BUTT)
            img = img.transformed(QTransform().rotate(90.0 * c.rotation));
        return img;
    }

    QImage source(const ot_mpp_chn& src, int depth)
    {
        if (depth > kMaxDepth) return QImage();
        if (src.mod_id == OT_ID_VI) return capture(src.chn_id);
        if (src.mod_id == OT_ID_VO) {
            // A device's write-back, at the size it was configured with.
            if (!wbc.enabled || wbc.src.src_type != 0 || wbc.src.src_id != src.dev_id)
                return QImage();
            QImage img = compose(src.dev_id, depth + 1);
            if (img.isNull()) return img;
            return img.scaled(int(wbc.attr.target_size.width), int(wbc.attr.target_size.height));
        }
        if (src.mod_id != OT_ID_VPSS || !inRange(src.dev_id, 0, OT_VPSS_MAX_GRP_NUM - 1) ||
            !inRange(src.chn_id, 0, OT_VPSS_MAX_CHN_NUM - 1))
            return QImage();
        const VideoOut::VpssGrp& g = grp[src.dev_id];
        const VideoOut::VpssChn& c = g.chn[src.chn_id];
        if (!g.started || !c.enabled) return QImage();
        QImage img;
        auto in = binds.find({OT_ID_VPSS, src.dev_id, 0});
        if (in != binds.end())
            img = source(*in, depth + 1);
        else if (grpPicture[src.dev_id])
            img = grpPicture[src.dev_id]->toImage();
        if (img.isNull()) return img;
        if (g.param.contrast != 0) img = withContrast(img, g.param.contrast);
        if (c.attr.width > 0 && c.attr.height > 0)
            img = img.scaled(int(c.attr.width), int(c.attr.height));
        return img.mirrored(c.attr.mirror != 0, c.attr.flip != 0);
    }

    QImage compose(int devId, int depth)
    {
        if (!inRange(devId, 0, OT_VO_MAX_DEV_NUM - 1) || !dev[devId].enabled) return QImage();
        const QSize size =
            VideoOut::timingSize(dev[devId].attr.intf_sync, dev[devId].attr.sync_info);
        if (size.isEmpty()) return QImage();
        QImage out(size, QImage::Format_RGB32);
        out.fill(QColor(dev[devId].attr.bg_color | 0xFF000000u));
        for (int l = 0; l < OT_VO_MAX_LAYER_NUM; ++l) {
            const VideoOut::VoLayer& L = layer[l];
            if (VideoOut::layerDevice(l) != devId || !L.enabled || !L.chnEnabled || !L.chnShown)
                continue;
            auto bound = binds.find({OT_ID_VO, l, 0});
            if (bound == binds.end()) continue;
            QImage pic = source(*bound, depth);
            if (pic.isNull()) continue;
            if (L.rotation > 0 && L.rotation < OT_ROTATION_BUTT)
                pic = pic.transformed(QTransform().rotate(90.0 * L.rotation));
            // The channel rectangle is in the layer's picture; the layer is
            // shown in its display rectangle of the device.
            const ot_vo_video_layer_attr& a = L.attr;
            if (a.img_width == 0 || a.img_height == 0) continue;
            const double sx = double(a.display_rect.width) / a.img_width;
            const double sy = double(a.display_rect.height) / a.img_height;
            const ot_rect& r = L.chnAttr.rect;
            const QRect place(a.display_rect.x + int(r.x * sx), a.display_rect.y + int(r.y * sy),
                              int(r.width * sx), int(r.height * sy));
            if (place.isEmpty()) continue;
            blit(out, pic.scaled(place.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation),
                 place.topLeft());
        }
        if (devId < kFbCount && !planes[devId].isNull()) {
            const QImage plane = planes[devId].scaled(out.size());
            for (int r = 0; r < out.height(); ++r) {
                auto* to = reinterpret_cast<QRgb*>(out.scanLine(r));
                const auto* from = reinterpret_cast<const QRgb*>(plane.constScanLine(r));
                for (int x = 0; x < out.width(); ++x) {
                    const int a = qAlpha(from[x]);
                    if (a == 0) continue;
                    to[x] = qRgb((qRed(from[x]) * a + qRed(to[x]) * (255 - a)) / 255,
                                 (qGreen(from[x]) * a + qGreen(to[x]) * (255 - a)) / 255,
                                 (qBlue(from[x]) * a + qBlue(to[x]) * (255 - a)) / 255);
                }
            }
        }
        return out;
    }
};

std::mutex filesLock;

}  // namespace

QImage VideoOut::compose(int dev) const
{
    auto c = std::make_unique<Composer>();
    {
        std::lock_guard<std::mutex> g(d->lock);
        std::copy(std::begin(d->grp), std::end(d->grp), std::begin(c->grp));
        std::copy(std::begin(d->grpPicture), std::end(d->grpPicture), std::begin(c->grpPicture));
        c->binds = d->binds;
        std::copy(std::begin(d->dev), std::end(d->dev), std::begin(c->dev));
        std::copy(std::begin(d->layer), std::end(d->layer), std::begin(c->layer));
        c->wbc = d->wbc;
        c->capturePicture = d->capturePicture;
    }
    for (int i = 0; i < kFbCount; ++i) c->planes[i] = d->fbs[i]->plane();
    c->files = &d->files;
    c->filesLock = &filesLock;
    return c->compose(dev, 0);
}

bool VideoOut::snapshot(int dev, const QString& pngPath, QString* error) const
{
    const QImage img = compose(dev);
    if (img.isNull()) {
        if (error) *error = QString("display device %1 shows nothing: it is off").arg(dev);
        return false;
    }
    if (!img.save(pngPath, "PNG")) {
        if (error) *error = QString("cannot write %1").arg(pngPath);
        return false;
    }
    return true;
}

bool VideoOut::applyStep(const QVariantMap& step, QString* error)
{
    if (step.contains("hdmi")) {
        const QString what = step.value("hdmi").toString();
        if (what == QLatin1String("unplug")) {
            unplugSink();
            return true;
        }
        if (what != QLatin1String("plug")) {
            if (error) *error = "scenario: \"hdmi\" is \"plug\" or \"unplug\"";
            return false;
        }
        const QVariant e = step.value("edid");
        QByteArray edid;
        if (e.type() == QVariant::Map)
            edid = builtinFile(e.toMap().value("builtin").toString());
        else if (e.isValid())
            edid = QByteArray::fromHex(e.toString().toLatin1());
        else
            edid = builtinFile("monitor.edid");
        plugSink(edid);
        return true;
    }
    bool ok = false;
    const int vi = step.value("vi").toInt(&ok);
    if (!ok || !inRange(vi, 0, OT_VI_MAX_DEV_NUM - 1) || !step.contains("picture")) {
        if (error) *error = "scenario: a \"vi\" step needs an input device and a \"picture\"";
        return false;
    }
    setCapturePicture(vi, step.value("picture").toString());
    return true;
}

}  // namespace vsim

// ---------------------------------------------------------------- the calls

namespace vsim {
struct VideoOutAccess {
    static VideoOut::Impl& impl() { return *VideoOut::instance().d; }
};
}  // namespace vsim

namespace {

using vsim::inRange;
using Impl = vsim::VideoOut::Impl;
using Guard = std::lock_guard<std::mutex>;

int run(const char* name, QVariantList args, const std::function<int(Impl&)>& body)
{
    Impl& v = vsim::VideoOutAccess::impl();
    return vsim::MediaPlatform::instance().runCall(name, std::move(args), [&] {
        Guard g(v.lock);
        return body(v);
    });
}

bool validDev(int dev)
{
    return inRange(dev, 0, OT_VO_MAX_DEV_NUM - 1);
}

bool validLayer(int layer)
{
    return inRange(layer, 0, OT_VO_MAX_LAYER_NUM - 1);
}

bool validGrp(int grp)
{
    return inRange(grp, 0, OT_VPSS_MAX_GRP_NUM - 1);
}

std::tuple<int, int, int> key(const ot_mpp_chn& c)
{
    return {c.mod_id, c.dev_id, c.chn_id};
}

// Sources and sinks that exist on this platform.
bool validSource(const Impl& v, const ot_mpp_chn& s)
{
    switch (s.mod_id) {
        case OT_ID_VI:
            return inRange(s.chn_id, 0, OT_VI_MAX_CHN_NUM - 1);
        case OT_ID_VPSS:
            return validGrp(s.dev_id) && v.grp[s.dev_id].created &&
                   inRange(s.chn_id, 0, OT_VPSS_MAX_CHN_NUM - 1);
        case OT_ID_VO:
            return validDev(s.dev_id) && s.chn_id == 0;
        default:
            return false;
    }
}

bool validSink(const Impl& v, const ot_mpp_chn& s)
{
    if (s.mod_id == OT_ID_VPSS)
        return validGrp(s.dev_id) && v.grp[s.dev_id].created && s.chn_id == 0;
    if (s.mod_id == OT_ID_VO) return validLayer(s.dev_id) && s.chn_id == 0;
    return false;
}

bool sameChn(const ot_mpp_chn& a, const ot_mpp_chn& b)
{
    return a.mod_id == b.mod_id && a.dev_id == b.dev_id && a.chn_id == b.chn_id;
}

}  // namespace

extern "C" {

// ---- processing groups

td_s32 hi_mpi_vpss_create_grp(ot_vpss_grp grp, const ot_vpss_grp_attr* attr)
{
    return run("hi_mpi_vpss_create_grp", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!attr) return OT_ERR_VPSS_NULL_PTR;
        if (v.grp[grp].created) return OT_ERR_VPSS_EXIST;
        if (attr->max_width == 0 || attr->max_height == 0 || attr->max_width > OT_VPSS_MAX_WIDTH ||
            attr->max_height > OT_VPSS_MAX_HEIGHT)
            return OT_ERR_VPSS_ILLEGAL_PARAM;
        v.grp[grp] = vsim::VideoOut::VpssGrp();
        v.grp[grp].created = true;
        v.grp[grp].attr = *attr;
        v.grpPicture[grp].reset();
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_destroy_grp(ot_vpss_grp grp)
{
    return run("hi_mpi_vpss_destroy_grp", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        // Bindings to and from the group go with it.
        for (auto it = v.binds.begin(); it != v.binds.end();) {
            const bool mine =
                (std::get<0>(it.key()) == OT_ID_VPSS && std::get<1>(it.key()) == grp) ||
                (it->mod_id == OT_ID_VPSS && it->dev_id == grp);
            it = mine ? v.binds.erase(it) : std::next(it);
        }
        v.grp[grp] = vsim::VideoOut::VpssGrp();
        v.grpPicture[grp].reset();
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_start_grp(ot_vpss_grp grp)
{
    return run("hi_mpi_vpss_start_grp", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        v.grp[grp].started = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_stop_grp(ot_vpss_grp grp)
{
    return run("hi_mpi_vpss_stop_grp", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        v.grp[grp].started = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_get_grp_attr(ot_vpss_grp grp, ot_vpss_grp_attr* attr)
{
    return run("hi_mpi_vpss_get_grp_attr", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!attr) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        *attr = v.grp[grp].attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_set_grp_attr(ot_vpss_grp grp, const ot_vpss_grp_attr* attr)
{
    return run("hi_mpi_vpss_set_grp_attr", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!attr) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        if (attr->max_width == 0 || attr->max_height == 0 || attr->max_width > OT_VPSS_MAX_WIDTH ||
            attr->max_height > OT_VPSS_MAX_HEIGHT)
            return OT_ERR_VPSS_ILLEGAL_PARAM;
        v.grp[grp].attr = *attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_get_grp_param(ot_vpss_grp grp, ot_vpss_grp_param* param)
{
    return run("hi_mpi_vpss_get_grp_param", {grp}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!param) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        *param = v.grp[grp].param;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_set_grp_param(ot_vpss_grp grp, const ot_vpss_grp_param* param)
{
    return run("hi_mpi_vpss_set_grp_param", {grp, param ? param->contrast : 0}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!param) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        if (param->contrast < -100 || param->contrast > 100) return OT_ERR_VPSS_ILLEGAL_PARAM;
        v.grp[grp].param = *param;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_set_chn_attr(ot_vpss_grp grp, ot_vpss_chn chn, const ot_vpss_chn_attr* attr)
{
    return run("hi_mpi_vpss_set_chn_attr", {grp, chn}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!inRange(chn, 0, OT_VPSS_MAX_CHN_NUM - 1)) return OT_ERR_VPSS_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        // 0 by 0 passes the picture on at its size; otherwise both sides are
        // even and within the unit's reach.
        const bool passOn = attr->width == 0 && attr->height == 0;
        if (!passOn && (attr->width < 32 || attr->height < 32 || attr->width > OT_VPSS_MAX_WIDTH ||
                        attr->height > OT_VPSS_MAX_HEIGHT || attr->width % 2 || attr->height % 2))
            return OT_ERR_VPSS_ILLEGAL_PARAM;
        v.grp[grp].chn[chn].attr = *attr;
        v.grp[grp].chn[chn].configured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_get_chn_attr(ot_vpss_grp grp, ot_vpss_chn chn, ot_vpss_chn_attr* attr)
{
    return run("hi_mpi_vpss_get_chn_attr", {grp, chn}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!inRange(chn, 0, OT_VPSS_MAX_CHN_NUM - 1)) return OT_ERR_VPSS_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VPSS_NULL_PTR;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        *attr = v.grp[grp].chn[chn].attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_enable_chn(ot_vpss_grp grp, ot_vpss_chn chn)
{
    return run("hi_mpi_vpss_enable_chn", {grp, chn}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!inRange(chn, 0, OT_VPSS_MAX_CHN_NUM - 1)) return OT_ERR_VPSS_INVALID_CHN_ID;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        if (!v.grp[grp].chn[chn].configured) return OT_ERR_VPSS_NOT_PERM;
        v.grp[grp].chn[chn].enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vpss_disable_chn(ot_vpss_grp grp, ot_vpss_chn chn)
{
    return run("hi_mpi_vpss_disable_chn", {grp, chn}, [&](Impl& v) {
        if (!validGrp(grp)) return OT_ERR_VPSS_INVALID_GRP_ID;
        if (!inRange(chn, 0, OT_VPSS_MAX_CHN_NUM - 1)) return OT_ERR_VPSS_INVALID_CHN_ID;
        if (!v.grp[grp].created) return OT_ERR_VPSS_UNEXIST;
        v.grp[grp].chn[chn].enabled = false;
        return TD_SUCCESS;
    });
}

// ---- binding

td_s32 hi_mpi_sys_bind(const ot_mpp_chn* src, const ot_mpp_chn* dst)
{
    QVariantList args;
    if (src && dst)
        args = {src->mod_id, src->dev_id, src->chn_id, dst->mod_id, dst->dev_id, dst->chn_id};
    return run("hi_mpi_sys_bind", args, [&](Impl& v) {
        if (!src || !dst) return OT_ERR_SYS_NULL_PTR;
        if (!validSource(v, *src) || !validSink(v, *dst)) return OT_ERR_SYS_ILLEGAL_PARAM;
        auto it = v.binds.find(key(*dst));
        if (it != v.binds.end()) return sameChn(*it, *src) ? TD_SUCCESS : OT_ERR_SYS_NOT_PERM;
        v.binds.insert(key(*dst), *src);
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_sys_unbind(const ot_mpp_chn* src, const ot_mpp_chn* dst)
{
    QVariantList args;
    if (src && dst)
        args = {src->mod_id, src->dev_id, src->chn_id, dst->mod_id, dst->dev_id, dst->chn_id};
    return run("hi_mpi_sys_unbind", args, [&](Impl& v) {
        if (!src || !dst) return OT_ERR_SYS_NULL_PTR;
        auto it = v.binds.find(key(*dst));
        if (it == v.binds.end() || !sameChn(*it, *src)) return OT_ERR_SYS_UNEXIST;
        v.binds.erase(it);
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_sys_get_bind_by_dst(const ot_mpp_chn* dst, ot_mpp_chn* src)
{
    return run("hi_mpi_sys_get_bind_by_dst", {}, [&](Impl& v) {
        if (!src || !dst) return OT_ERR_SYS_NULL_PTR;
        auto it = v.binds.find(key(*dst));
        if (it == v.binds.end()) return OT_ERR_SYS_UNEXIST;
        *src = *it;
        return TD_SUCCESS;
    });
}

// ---- display devices

td_s32 hi_mpi_vo_set_pub_attr(ot_vo_dev dev, const ot_vo_pub_attr* attr)
{
    return run("hi_mpi_vo_set_pub_attr", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        if (v.dev[dev].enabled) return OT_ERR_VO_NOT_PERM;
        const uint32_t known = OT_VO_INTF_CVBS | OT_VO_INTF_VGA | OT_VO_INTF_BT656 |
                               OT_VO_INTF_BT1120 | OT_VO_INTF_HDMI | OT_VO_INTF_MIPI;
        if (attr->intf_type == 0 || (attr->intf_type & ~known)) return OT_ERR_VO_ILLEGAL_PARAM;
        if (attr->intf_type & ~vsim::interfacesOf(dev)) return OT_ERR_VO_NOT_SUPPORT;
        if (attr->intf_sync < 0 || attr->intf_sync >= OT_VO_OUT_BUTT)
            return OT_ERR_VO_ILLEGAL_PARAM;
        const QSize size = vsim::VideoOut::timingSize(attr->intf_sync, attr->sync_info);
        if (size.isEmpty() || size.width() > OT_VO_MAX_WIDTH || size.height() > OT_VO_MAX_HEIGHT)
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.dev[dev].attr = *attr;
        v.dev[dev].configured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_pub_attr(ot_vo_dev dev, ot_vo_pub_attr* attr)
{
    return run("hi_mpi_vo_get_pub_attr", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        *attr = v.dev[dev].attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_user_sync_info(ot_vo_dev dev, const ot_vo_user_sync_info* info)
{
    return run("hi_mpi_vo_set_user_sync_info", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!info) return OT_ERR_VO_NULL_PTR;
        if (v.dev[dev].enabled) return OT_ERR_VO_NOT_PERM;
        if (info->ref_div == 0 || info->post_div1 == 0 || info->post_div2 == 0 ||
            info->dev_div == 0 || info->pre_div == 0)
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.dev[dev].userSync = *info;
        v.dev[dev].userSyncSet = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_user_sync_info(ot_vo_dev dev, ot_vo_user_sync_info* info)
{
    return run("hi_mpi_vo_get_user_sync_info", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!info) return OT_ERR_VO_NULL_PTR;
        *info = v.dev[dev].userSync;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_enable(ot_vo_dev dev)
{
    return run("hi_mpi_vo_enable", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!v.dev[dev].configured) return OT_ERR_VO_NOT_CONFIG;
        if (!v.dev[dev].enabled) ++v.dev[dev].enables;
        v.dev[dev].enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_disable(ot_vo_dev dev)
{
    return run("hi_mpi_vo_disable", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        // Switching a device off stops whatever it carried.
        for (int l = 0; l < OT_VO_MAX_LAYER_NUM; ++l) {
            if (vsim::VideoOut::layerDevice(l) != dev) continue;
            v.layer[l].enabled = false;
            v.layer[l].chnEnabled = false;
        }
        v.dev[dev].enabled = false;
        return TD_SUCCESS;
    });
}

// ---- layers and channels

td_s32 hi_mpi_vo_set_video_layer_attr(ot_vo_layer layer, const ot_vo_video_layer_attr* attr)
{
    return run("hi_mpi_vo_set_video_layer_attr", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        const auto& dev = v.dev[vsim::VideoOut::layerDevice(layer)];
        if (!dev.enabled) return OT_ERR_VO_NOT_PERM;
        if (v.layer[layer].enabled) return OT_ERR_VO_NOT_PERM;
        const QSize out = vsim::VideoOut::timingSize(dev.attr.intf_sync, dev.attr.sync_info);
        const ot_rect& r = attr->display_rect;
        if (attr->img_width == 0 || attr->img_height == 0 || r.width == 0 || r.height == 0 ||
            r.x < 0 || r.y < 0 || r.x + int64_t(r.width) > out.width() ||
            r.y + int64_t(r.height) > out.height() || attr->display_frame_rate == 0 ||
            attr->display_frame_rate > 240 || !vsim::semiPlanar(attr->pixel_format))
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.layer[layer].attr = *attr;
        v.layer[layer].configured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_video_layer_attr(ot_vo_layer layer, ot_vo_video_layer_attr* attr)
{
    return run("hi_mpi_vo_get_video_layer_attr", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        *attr = v.layer[layer].attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_enable_video_layer(ot_vo_layer layer)
{
    return run("hi_mpi_vo_enable_video_layer", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (!v.layer[layer].configured) return OT_ERR_VO_NOT_CONFIG;
        if (!v.dev[vsim::VideoOut::layerDevice(layer)].enabled) return OT_ERR_VO_NOT_PERM;
        v.layer[layer].enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_disable_video_layer(ot_vo_layer layer)
{
    return run("hi_mpi_vo_disable_video_layer", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        v.layer[layer].enabled = false;
        v.layer[layer].chnEnabled = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_layer_csc(ot_vo_layer layer, const ot_vo_csc* csc)
{
    return run("hi_mpi_vo_set_layer_csc", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (!csc) return OT_ERR_VO_NULL_PTR;
        if (csc->luma > 100 || csc->contrast > 100 || csc->hue > 100 || csc->saturation > 100)
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.layer[layer].csc = *csc;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_layer_csc(ot_vo_layer layer, ot_vo_csc* csc)
{
    return run("hi_mpi_vo_get_layer_csc", {layer}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (!csc) return OT_ERR_VO_NULL_PTR;
        *csc = v.layer[layer].csc;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_chn_attr(ot_vo_layer layer, ot_vo_chn chn, const ot_vo_chn_attr* attr)
{
    return run("hi_mpi_vo_set_chn_attr", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        auto& L = v.layer[layer];
        if (!L.configured) return OT_ERR_VO_NOT_CONFIG;
        const ot_rect& r = attr->rect;
        if (r.x < 0 || r.y < 0 || r.width < 32 || r.height < 32 || r.x % 2 || r.y % 2 ||
            r.width % 2 || r.height % 2 || r.x + int64_t(r.width) > L.attr.img_width ||
            r.y + int64_t(r.height) > L.attr.img_height)
            return OT_ERR_VO_ILLEGAL_PARAM;
        L.chnAttr = *attr;
        L.chnConfigured = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_chn_attr(ot_vo_layer layer, ot_vo_chn chn, ot_vo_chn_attr* attr)
{
    return run("hi_mpi_vo_get_chn_attr", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        *attr = v.layer[layer].chnAttr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_chn_rotation(ot_vo_layer layer, ot_vo_chn chn, ot_rotation rotation)
{
    return run("hi_mpi_vo_set_chn_rotation", {layer, chn, rotation}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        if (rotation < OT_ROTATION_0 || rotation >= OT_ROTATION_BUTT)
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.layer[layer].rotation = rotation;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_enable_chn(ot_vo_layer layer, ot_vo_chn chn)
{
    return run("hi_mpi_vo_enable_chn", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        if (!v.layer[layer].chnConfigured) return OT_ERR_VO_NOT_CONFIG;
        if (!v.layer[layer].enabled) return OT_ERR_VO_NOT_PERM;
        v.layer[layer].chnEnabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_disable_chn(ot_vo_layer layer, ot_vo_chn chn)
{
    return run("hi_mpi_vo_disable_chn", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        v.layer[layer].chnEnabled = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_show_chn(ot_vo_layer layer, ot_vo_chn chn)
{
    return run("hi_mpi_vo_show_chn", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        v.layer[layer].chnShown = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_hide_chn(ot_vo_layer layer, ot_vo_chn chn)
{
    return run("hi_mpi_vo_hide_chn", {layer, chn}, [&](Impl& v) {
        if (!validLayer(layer)) return OT_ERR_VO_INVALID_LAYER_ID;
        if (chn != 0) return OT_ERR_VO_INVALID_CHN_ID;
        v.layer[layer].chnShown = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_hdmi_param(ot_vo_dev dev, const ot_vo_hdmi_param* param)
{
    return run("hi_mpi_vo_set_hdmi_param", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!param) return OT_ERR_VO_NULL_PTR;
        const ot_vo_csc& c = param->csc;
        if (c.csc_matrix < 0 || c.csc_matrix > 19 || c.luma > 100 || c.contrast > 100 ||
            c.hue > 100 || c.saturation > 100)
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.dev[dev].hdmiParam = *param;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_hdmi_param(ot_vo_dev dev, ot_vo_hdmi_param* param)
{
    return run("hi_mpi_vo_get_hdmi_param", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!param) return OT_ERR_VO_NULL_PTR;
        *param = v.dev[dev].hdmiParam;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_bt_param(ot_vo_dev dev, const ot_vo_bt_param* param)
{
    return run("hi_mpi_vo_set_bt_param", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!param) return OT_ERR_VO_NULL_PTR;
        v.dev[dev].bt = *param;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_get_bt_param(ot_vo_dev dev, ot_vo_bt_param* param)
{
    return run("hi_mpi_vo_get_bt_param", {dev}, [&](Impl& v) {
        if (!validDev(dev)) return OT_ERR_VO_INVALID_DEV_ID;
        if (!param) return OT_ERR_VO_NULL_PTR;
        *param = v.dev[dev].bt;
        return TD_SUCCESS;
    });
}

// ---- write-back

td_s32 hi_mpi_vo_set_wbc_src(td_s32 wbc, const ot_vo_wbc_src* src)
{
    return run("hi_mpi_vo_set_wbc_src", {wbc}, [&](Impl& v) {
        if (wbc != 0) return OT_ERR_VO_INVALID_DEV_ID;
        if (!src) return OT_ERR_VO_NULL_PTR;
        if (v.wbc.enabled) return OT_ERR_VO_NOT_PERM;
        const bool ok = (src->src_type == 0 && validDev(src->src_id)) ||
                        (src->src_type == 1 && validLayer(src->src_id));
        if (!ok) return OT_ERR_VO_ILLEGAL_PARAM;
        v.wbc.src = *src;
        v.wbc.srcSet = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_set_wbc_attr(td_s32 wbc, const ot_vo_wbc_attr* attr)
{
    return run("hi_mpi_vo_set_wbc_attr", {wbc}, [&](Impl& v) {
        if (wbc != 0) return OT_ERR_VO_INVALID_DEV_ID;
        if (!attr) return OT_ERR_VO_NULL_PTR;
        if (v.wbc.enabled) return OT_ERR_VO_NOT_PERM;
        const ot_size& s = attr->target_size;
        if (s.width < 32 || s.height < 32 || s.width > OT_VO_MAX_WIDTH ||
            s.height > OT_VO_MAX_HEIGHT || attr->frame_rate == 0 || attr->frame_rate > 120 ||
            !vsim::semiPlanar(attr->pixel_format))
            return OT_ERR_VO_ILLEGAL_PARAM;
        v.wbc.attr = *attr;
        v.wbc.attrSet = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_enable_wbc(td_s32 wbc)
{
    return run("hi_mpi_vo_enable_wbc", {wbc}, [&](Impl& v) {
        if (wbc != 0) return OT_ERR_VO_INVALID_DEV_ID;
        if (!v.wbc.srcSet || !v.wbc.attrSet) return OT_ERR_VO_NOT_CONFIG;
        const int dev = v.wbc.src.src_type == 0 ? v.wbc.src.src_id
                                                : vsim::VideoOut::layerDevice(v.wbc.src.src_id);
        if (!v.dev[dev].enabled) return OT_ERR_VO_NOT_PERM;
        v.wbc.enabled = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_vo_disable_wbc(td_s32 wbc)
{
    return run("hi_mpi_vo_disable_wbc", {wbc}, [&](Impl& v) {
        if (wbc != 0) return OT_ERR_VO_INVALID_DEV_ID;
        v.wbc.enabled = false;
        return TD_SUCCESS;
    });
}

// ---- HDMI transmitter

td_s32 hi_mpi_hdmi_init(void)
{
    return run("hi_mpi_hdmi_init", {}, [&](Impl& v) {
        v.hdmi.inited = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_deinit(void)
{
    return run("hi_mpi_hdmi_deinit", {}, [&](Impl& v) {
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        const int starts = v.hdmi.starts;
        const ot_hdmi_attr attr = v.hdmi.attr;
        v.hdmi = vsim::VideoOut::Hdmi();
        v.hdmi.starts = starts;
        v.hdmi.attr = attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_open(ot_hdmi_id id)
{
    return run("hi_mpi_hdmi_open", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        v.hdmi.opened = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_close(ot_hdmi_id id)
{
    return run("hi_mpi_hdmi_close", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        v.hdmi.opened = v.hdmi.started = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_get_attr(ot_hdmi_id id, ot_hdmi_attr* attr)
{
    return run("hi_mpi_hdmi_get_attr", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!attr) return OT_ERR_HDMI_NULL_PTR;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        if (!v.hdmi.opened) return OT_ERR_HDMI_DEV_NOT_OPEN;
        *attr = v.hdmi.attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_set_attr(ot_hdmi_id id, const ot_hdmi_attr* attr)
{
    return run("hi_mpi_hdmi_set_attr", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!attr) return OT_ERR_HDMI_NULL_PTR;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        if (!v.hdmi.opened) return OT_ERR_HDMI_DEV_NOT_OPEN;
        // A user-defined format needs its pixel clock: 25 to 600 MHz.
        if (attr->video_format < 0 || attr->video_format > 41) return OT_ERR_HDMI_INVALID_PARA;
        if (attr->video_format == 41 && (attr->pix_clk < 25000 || attr->pix_clk > 600000))
            return OT_ERR_HDMI_INVALID_PARA;
        v.hdmi.attr = *attr;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_start(ot_hdmi_id id)
{
    return run("hi_mpi_hdmi_start", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        if (!v.hdmi.opened) return OT_ERR_HDMI_DEV_NOT_OPEN;
        if (!v.hdmi.started) ++v.hdmi.starts;
        v.hdmi.started = true;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_stop(ot_hdmi_id id)
{
    return run("hi_mpi_hdmi_stop", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!v.hdmi.opened) return OT_ERR_HDMI_DEV_NOT_OPEN;
        v.hdmi.started = false;
        return TD_SUCCESS;
    });
}

td_s32 hi_mpi_hdmi_force_get_edid(ot_hdmi_id id, ot_hdmi_edid* edid)
{
    return run("hi_mpi_hdmi_force_get_edid", {id}, [&](Impl& v) {
        if (id != 0) return OT_ERR_HDMI_INVALID_PARA;
        if (!edid) return OT_ERR_HDMI_NULL_PTR;
        if (!v.hdmi.inited) return OT_ERR_HDMI_NOT_INIT;
        if (!v.sinkPlugged) return OT_ERR_HDMI_READ_EDID_FAILED;
        std::memset(edid, 0, sizeof *edid);
        edid->edid_valid = v.sinkEdid.isEmpty() ? 0 : 1;
        edid->edid_len = uint32_t(v.sinkEdid.size());
        std::memcpy(edid->edid, v.sinkEdid.constData(), size_t(v.sinkEdid.size()));
        return TD_SUCCESS;
    });
}

}  // extern "C"
