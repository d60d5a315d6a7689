#include "frame/VeskHi.h"

#include <QDebug>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "frame/hi_mpi.h"
#include "host/VeskHost.h"

namespace {

std::atomic<long long> ptsOffset{0};

// The registries below are never destroyed: tees and frames outlive every
// user, and a node thread may still look one up while the process exits.
// teeMutex guards the tee registry, the groups in use and every tee's list
// of channels: a tee is made in its source's thread, but any node that found
// it by id takes and drops channels of it from its own thread. When both
// locks are needed, teeMutex is taken first.
QMutex teeMutex;
QMap<int, VeskTee*>& tees = *new QMap<int, VeskTee*>;
std::atomic<int> nextTeeId{1};

// One entry a bound pair, each tied to what it goes away with (see
// VeskHi::bind).
QMutex bindMutex;
QList<VeskHost::Binding>& bindList = *new QList<VeskHost::Binding>;

// Frames are never freed by their users; keeping them listed keeps them
// reachable, which is what they are.
QMutex frameMutex;
std::vector<void*>& frameMemory = *new std::vector<void*>;
uint64_t nextFakePhys = 0x40000000;

std::atomic<int> nextIveHandle{1};

}  // namespace

// ---- clock -------------------------------------------------------------------

bool VeskHi::absPTS = false;

long long VeskHi::getPTS(void* out, bool)
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const int64_t us = static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000 +
                       ptsOffset.load(std::memory_order_relaxed);
    if (out) std::memcpy(out, &us, sizeof us);
    return us;
}

// Offsets add up: a caller that read the clock and wants it to show `us`
// moves it by us - pts.
void VeskHi::setPTSOffset(long long offset)
{
    ptsOffset.fetch_add(offset);
}

// ---- tees --------------------------------------------------------------------
// A tee is a processing group of the platform: its source is bound to the
// group's input (or, for a source fed by a node, frames are sent to it), and
// each of its channels is one of the group's channels, with its own size,
// flip and mirror.

namespace {

// Groups in use, so that a tee made after others were deleted reuses a
// number instead of running off the end of the platform's range.
QList<int>& usedGroups = *new QList<int>;

int takeGroup()
{
    for (int g = 0; g < OT_VPSS_MAX_GRP_NUM; ++g) {
        if (usedGroups.contains(g)) continue;
        usedGroups.append(g);
        return g;
    }
    return -1;
}

void warnFailed(const char* what, int code, int grp)
{
    qWarning().noquote() << QStringLiteral("tee: %1 failed with %2 (group %3)")
                                .arg(QLatin1String(what))
                                .arg(uint32_t(code), 0, 16)
                                .arg(grp);
}

// Applies the channel's bookkeeping to its group channel.
void applyChn(VeskTeeChn* chn)
{
    if (!chn->vpss || chn->vpss->id < 0) return;
    ot_vpss_chn_attr a;
    std::memset(&a, 0, sizeof a);
    a.width = uint32_t(qMax(chn->width, 0));
    a.height = uint32_t(qMax(chn->height, 0));
    a.pixel_format = OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;
    a.mirror = chn->mirror;
    a.flip = chn->flip;
    a.frame_rate = ot_frame_rate_ctrl{-1, -1};
    const int r = hi_mpi_vpss_set_chn_attr(chn->vpss->id, chn->index, &a);
    if (r != 0) warnFailed("hi_mpi_vpss_set_chn_attr", r, chn->vpss->id);
}

bool sameChn(const ot_mpp_chn& a, const ot_mpp_chn& b)
{
    return a.mod_id == b.mod_id && a.dev_id == b.dev_id && a.chn_id == b.chn_id;
}

// With bindMutex held.
bool recorded(const VeskHost::Binding& b)
{
    for (const VeskHost::Binding& x : qAsConst(bindList))
        if (sameChn(x.src, b.src) && sameChn(x.dst, b.dst)) return true;
    return false;
}

// Whether a binding straight from the tee's source stands for that channel
// already. With bindMutex held.
bool standsFor(const VeskTee* tee, int chnIndex)
{
    for (const VeskHost::Binding& x : qAsConst(bindList))
        if (x.teeId == tee->id && x.chnIndex == chnIndex && sameChn(x.src, tee->source))
            return true;
    return false;
}

// Takes the bindings tied to a channel of the tee (every one of the tee's
// for -1) out of the record and off the platform.
void unbindTied(int teeId, int chnIndex)
{
    if (teeId == 0) return;  // a tee the registry never knew
    QList<VeskHost::Binding> mine;
    {
        QMutexLocker lock(&bindMutex);
        for (int i = bindList.size() - 1; i >= 0; --i) {
            const VeskHost::Binding& x = bindList[i];
            if (x.teeId != teeId || (chnIndex >= 0 && x.chnIndex != chnIndex)) continue;
            mine.append(x);
            bindList.removeAt(i);
        }
    }
    for (const VeskHost::Binding& b : qAsConst(mine)) hi_mpi_sys_unbind(&b.src, &b.dst);
}

}  // namespace

VeskTee* VeskHi::newTee(int module, int device, int channel)
{
    auto* tee = new VeskTee;
    tee->id = nextTeeId.fetch_add(1);
    tee->source = ot_mpp_chn{module, device, channel};
    QMutexLocker lock(&teeMutex);
    tee->grp = takeGroup();
    tees.insert(tee->id, tee);
    if (tee->grp < 0) {
        qWarning().noquote() << "tee: no processing group left for tee" << tee->id;
        return tee;
    }
    ot_vpss_grp_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.max_width = 3840;
    attr.max_height = 2160;
    attr.pixel_format = OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;
    attr.frame_rate = ot_frame_rate_ctrl{-1, -1};
    int r = hi_mpi_vpss_create_grp(tee->grp, &attr);
    if (r == 0) r = hi_mpi_vpss_start_grp(tee->grp);
    if (r != 0) warnFailed("creating the group", r, tee->grp);
    // Hardware sources feed the group by themselves; a node-fed source sends
    // its frames to it.
    if (module == OT_ID_VI || module == OT_ID_VO) {
        const ot_mpp_chn dst{OT_ID_VPSS, tee->grp, 0};
        r = hi_mpi_sys_bind(&tee->source, &dst);
        if (r != 0) warnFailed("hi_mpi_sys_bind", r, tee->grp);
    }
    return tee;
}

void VeskHi::delTee(VeskTee* tee)
{
    if (!tee) return;
    QList<VeskTeeChn*> chns;
    {
        QMutexLocker lock(&teeMutex);
        tees.remove(tee->id);
        chns.swap(tee->chns);
        for (VeskTeeChn* chn : qAsConst(chns)) chn->owner = nullptr;
    }
    for (VeskTeeChn* chn : qAsConst(chns)) delete chn;
    // What was bound straight from the tee's source goes with it.
    unbindTied(tee->id, -1);
    if (tee->grp >= 0) {
        hi_mpi_vpss_stop_grp(tee->grp);
        hi_mpi_vpss_destroy_grp(tee->grp);
        QMutexLocker lock(&teeMutex);
        usedGroups.removeAll(tee->grp);
    }
    delete tee;
}

VeskTee* VeskHi::getTee(int id)
{
    QMutexLocker lock(&teeMutex);
    return tees.value(id, nullptr);
}

int VeskTee::getId()
{
    return id;
}

ot_mpp_chn VeskTee::getSource()
{
    return source;
}

VeskTeeChn* VeskTee::newChn(bool a, bool b)
{
    auto* chn = new VeskTeeChn;
    chn->teeId = id;
    chn->owner = this;
    chn->flagA = a;
    chn->flagB = b;
    chn->vpss = new HiVpss;
    chn->vpss->id = grp;
    {
        QMutexLocker lock(&teeMutex);
        // The lowest channel number no living channel has.
        for (bool taken = true; taken;) {
            taken = false;
            for (const VeskTeeChn* c : qAsConst(chns))
                if (c->index == chn->index) taken = true;
            if (taken) ++chn->index;
        }
        chn->width = maxWidth;
        chn->height = maxHeight;
        chns.append(chn);
    }
    if (grp < 0) return chn;
    applyChn(chn);
    const int r = hi_mpi_vpss_enable_chn(grp, chn->index);
    if (r != 0) warnFailed("hi_mpi_vpss_enable_chn", r, grp);
    return chn;
}

VeskTeeChn* VeskTee::newChnIPC()
{
    VeskTeeChn* chn = newChn(false, false);
    chn->ipc = true;
    return chn;
}

void VeskTee::setMax(int width, int height)
{
    QMutexLocker lock(&teeMutex);
    maxWidth = width;
    maxHeight = height;
}

// The group corrects every picture it hands on, so each channel of the tee
// (and whatever display it feeds) shows the contrast.
void VeskTee::updateParam()
{
    const int32_t wanted = contrast;
    if (grp >= 0) {
        ot_vpss_grp_param p;
        std::memset(&p, 0, sizeof p);
        hi_mpi_vpss_get_grp_param(grp, &p);
        p.contrast = wanted;
        const int r = hi_mpi_vpss_set_grp_param(grp, &p);
        if (r != 0) {
            warnFailed("hi_mpi_vpss_set_grp_param", r, grp);
            return;
        }
    }
    appliedContrast = wanted;
}

VeskTeeChn::~VeskTeeChn()
{
    {
        QMutexLocker lock(&teeMutex);
        if (owner) owner->chns.removeAll(this);
    }
    // What the channel fed, or stood for, stops being fed.
    unbindTied(teeId, index);
    if (vpss && vpss->id >= 0) hi_mpi_vpss_disable_chn(vpss->id, index);
    delete vpss;
}

ot_mpp_chn VeskTeeChn::getChn()
{
    return ot_mpp_chn{OT_ID_VPSS, vpss ? vpss->id : -1, index};
}

void VeskTeeChn::resizeChn(int w, int h, bool)
{
    width = w;
    height = h;
    applyChn(this);
}

void VeskTeeChn::setFlip(bool on)
{
    flip = on;
    applyChn(this);
}

void VeskTeeChn::setMirror(bool on)
{
    mirror = on;
    applyChn(this);
}

int HiVpss::getId()
{
    return id;
}

// A pair the platform bound is recorded once, however often it is bound
// again: a display binds its stream anew on every configuration and every
// announcement. The record goes, and the pair is unbound, with the tee
// channel it is tied to.
//
// A channel's own bindings are tied to it. A binding straight from a tee's
// source (a display at low latency) passes by the channel its caller took of
// that tee, and the host cannot see who holds which channel: it ties the
// binding to the newest channel of the tee that no other such binding stands
// for, which is the one the display took last. Without one, the binding goes
// with the tee.
int VeskHi::bind(int srcModule, int srcDevice, int srcChannel, int dstModule, int dstDevice,
                 int dstChannel)
{
    VeskHost::Binding b;
    b.src = ot_mpp_chn{srcModule, srcDevice, srcChannel};
    b.dst = ot_mpp_chn{dstModule, dstDevice, dstChannel};
    const int r = hi_mpi_sys_bind(&b.src, &b.dst);
    if (r != 0) return 0;
    QMutexLocker teeLock(&teeMutex);
    QMutexLocker lock(&bindMutex);
    if (recorded(b)) return 1;
    const VeskTee* from = nullptr;
    for (const VeskTee* tee : qAsConst(tees))
        if (sameChn(tee->source, b.src)) from = tee;  // the newest of that source
    if (from) {
        b.teeId = from->id;
        for (int i = from->chns.size() - 1; i >= 0 && b.chnIndex < 0; --i)
            if (!standsFor(from, from->chns[i]->index)) b.chnIndex = from->chns[i]->index;
    }
    bindList.append(b);
    return 1;
}

int VeskHi::bindFromTee(VeskTeeChn* chn, int dstModule, int dstDevice, int dstChannel)
{
    if (!chn) return 0;
    VeskHost::Binding b;
    b.src = chn->getChn();
    b.dst = ot_mpp_chn{dstModule, dstDevice, dstChannel};
    b.teeId = chn->teeId;
    b.chnIndex = chn->index;
    const int r = hi_mpi_sys_bind(&b.src, &b.dst);
    if (r != 0) return 0;
    QMutexLocker lock(&bindMutex);
    if (!recorded(b)) bindList.append(b);
    return 1;
}

QList<VeskHost::Binding> VeskHost::bindings()
{
    QMutexLocker lock(&bindMutex);
    return bindList;
}

void VeskHost::clearBindings()
{
    QMutexLocker lock(&bindMutex);
    bindList.clear();
}

// ---- frames ------------------------------------------------------------------

ot_video_frame_info VeskHi::makeFrame(int width, int height, unsigned int*)
{
    ot_video_frame_info info;
    std::memset(&info, 0, sizeof info);
    if (width <= 0 || height <= 0 || width > 16384 || height > 16384) {
        qWarning().noquote()
            << QStringLiteral("makeFrame: refused a frame of %1x%2").arg(width).arg(height);
        return info;
    }
    const uint32_t stride = (static_cast<uint32_t>(width) + 15u) & ~15u;
    const size_t lumaBytes = size_t(stride) * uint32_t(height);
    const size_t chromaBytes = size_t(stride) * ((uint32_t(height) + 1) / 2);
    char* mem = static_cast<char*>(std::malloc(lumaBytes + chromaBytes));
    if (!mem) {
        qWarning().noquote()
            << QStringLiteral("makeFrame: out of memory for %1x%2").arg(width).arg(height);
        return info;
    }
    // Black, so an unfilled frame shows as nothing rather than as green.
    std::memset(mem, 16, lumaBytes);
    std::memset(mem + lumaBytes, 128, chromaBytes);

    uint64_t phys = 0;
    {
        QMutexLocker lock(&frameMutex);
        frameMemory.push_back(mem);
        phys = nextFakePhys;
        nextFakePhys += (lumaBytes + chromaBytes + 0xFFFu) & ~uint64_t(0xFFF);
    }
    ot_video_frame& f = info.video_frame;
    f.width = uint32_t(width);
    f.height = uint32_t(height);
    f.pixel_format = OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420;
    f.stride[0] = stride;
    f.stride[1] = stride;
    f.phys_addr[0] = phys;
    f.phys_addr[1] = phys + lumaBytes;
    f.virt_addr[0] = reinterpret_cast<uint64_t>(mem);
    f.virt_addr[1] = reinterpret_cast<uint64_t>(mem + lumaBytes);
    return info;
}

MemInfo::MemInfo() = default;

MemInfo::~MemInfo() = default;

void MemInfo::fromFrame(ot_video_frame_info& frame)
{
    const ot_video_frame& f = frame.video_frame;
    for (int i = 0; i < 3; ++i) {
        physAddr[i] = f.phys_addr[i];
        virtAddr[i] = f.virt_addr[i];
        stride[i] = f.stride[i];
    }
    width = f.width;
    height = f.height;
}

// ---- copy engine -------------------------------------------------------------

namespace {

bool usable(const MemInfo* m, int plane)
{
    return m && m->virtAddr[plane] && m->stride[plane] >= m->width && m->width && m->height;
}

}  // namespace

int IVE::copy(int* handle, MemInfo* src, MemInfo* dst, QRect rect, td_bool)
{
    if (!usable(src, 0) || !usable(dst, 0)) return TD_FAILURE;
    // An empty rectangle stands for the whole picture.
    if (rect.isEmpty()) rect = QRect(0, 0, int(src->width), int(src->height));
    const QRect area = rect.intersected(QRect(0, 0, int(src->width), int(src->height)))
                           .intersected(QRect(0, 0, int(dst->width), int(dst->height)));
    if (handle) *handle = nextIveHandle.fetch_add(1);
    if (area.isEmpty()) return TD_SUCCESS;
    const char* from = reinterpret_cast<const char*>(src->virtAddr[0]);
    char* to = reinterpret_cast<char*>(dst->virtAddr[0]);
    for (int y = area.top(); y <= area.bottom(); ++y)
        std::memcpy(to + size_t(y) * dst->stride[0] + area.left(),
                    from + size_t(y) * src->stride[0] + area.left(), size_t(area.width()));
    return TD_SUCCESS;
}

int IVE::copyUV(int* handle, MemInfo* src, MemInfo* dst, td_bool)
{
    if (!usable(src, 1) || !usable(dst, 1)) return TD_FAILURE;
    // Interleaved chroma: half the rows, each as many bytes as the luma row.
    const uint32_t widthBytes = qMin(src->width, dst->width) & ~1u;
    const uint32_t rows = (qMin(src->height, dst->height) + 1) / 2;
    if (handle) *handle = nextIveHandle.fetch_add(1);
    const char* from = reinterpret_cast<const char*>(src->virtAddr[1]);
    char* to = reinterpret_cast<char*>(dst->virtAddr[1]);
    for (uint32_t y = 0; y < rows; ++y)
        std::memcpy(to + size_t(y) * dst->stride[1], from + size_t(y) * src->stride[1], widthBytes);
    return TD_SUCCESS;
}

// ---- display and decoder wrappers ----------------------------------------------

int zr_mpi_vo_bt_set_param(int device, bool swap, bool wide)
{
    ot_vo_bt_param p;
    std::memset(&p, 0, sizeof p);
    p.yc_swap = swap;
    p.double_width = wide;
    return hi_mpi_vo_set_bt_param(device, &p);
}

// Low latency shows each frame as soon as it is written, from the fewest
// buffers the unit runs with; normal latency leaves the depth to the unit.
int zr_mpi_vo_set_low_Latency(ot_vo_video_layer_attr& attr, int)
{
    attr.display_buf_len = 3;
    attr.double_frame_en = 0;
    attr.partition_mode = 1;
    return 0;
}

int zr_mpi_vo_set_normal_Latency(ot_vo_video_layer_attr& attr, int)
{
    attr.display_buf_len = 0;
    attr.partition_mode = 0;
    return 0;
}

ot_vdec_stream zr_vdec_stream_init(VeskObject::Packet packet)
{
    ot_vdec_stream s;
    std::memset(&s, 0, sizeof s);
    s.addr = reinterpret_cast<uint8_t*>(packet.data);
    s.len = packet.len > 0 ? uint32_t(packet.len) : 0;
    s.pts = uint64_t(packet.pts);
    s.end_of_frame = 1;
    s.need_display = 1;
    return s;
}
