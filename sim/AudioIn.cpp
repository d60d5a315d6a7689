#include "sim/AudioIn.h"

#include <dlfcn.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/MediaPlatform.h"

namespace vsim {

namespace {

constexpr double kPi = 3.14159265358979323846;

int64_t monoUs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Frames are stamped on the graph's clock, which the hosting process keeps
// and may move; without a host it is the plain monotonic clock.
int64_t graphUs()
{
    using GetPts = long long (*)(void*, bool);
    static const GetPts getPts =
        reinterpret_cast<GetPts>(dlsym(RTLD_DEFAULT, "_ZN6VeskHi6getPTSEPvb"));
    if (!getPts) return monoUs();
    int64_t us = 0;
    getPts(&us, false);
    return us;
}

bool validRate(uint32_t r)
{
    static const uint32_t rates[] = {8000,  11025, 12000, 16000, 22050, 24000,
                                     32000, 44100, 48000, 64000, 96000};
    for (uint32_t v : rates)
        if (v == r) return true;
    return false;
}

struct Frame {
    std::unique_ptr<int16_t[]> mem;
    ot_audio_frame f{};
};

}  // namespace

struct AudioIn::Impl {
    struct Chn {
        AudioIn::Chn pub;
        uint64_t sample = 0;  // of the channel's output, for the tones' phase
        std::deque<Frame> ready;
        std::deque<Frame> held;
    };
    struct Dev {
        AudioIn::Dev pub;
        double level = 0.25;
        int64_t nextDue = 0;  // monotonic time the next frame is complete
        int64_t toGraph = 0;  // monotonic to graph time, as last taken
        Chn chn[OT_AIO_MAX_CHN_NUM];
    };

    std::mutex lock;
    std::condition_variable changed;
    Dev dev[OT_AI_DEV_MAX_NUM];
    uint64_t nextPhys = 0x90000000ull;

    static uint32_t rateOf(const Dev& d)
    {
        const bool slave = d.pub.attr.work_mode != OT_AIO_MODE_I2S_MASTER;
        return slave && d.pub.sourceRate ? d.pub.sourceRate : d.pub.attr.sample_rate;
    }
    static int64_t periodUs(const Dev& d)
    {
        // A device never configured has no rate yet; a scenario may still
        // speak of it.
        const uint32_t rate = rateOf(d);
        if (!rate) return 1;
        return std::max<int64_t>(1, int64_t(d.pub.attr.point_num_per_frame) * 1000000 / rate);
    }
    static int chnLimit(const Dev& d)
    {
        const int cnt = int(d.pub.attr.chn_cnt);
        return d.pub.attr.snd_mode == OT_AUDIO_SOUND_MODE_STEREO ? cnt / 2 : cnt;
    }
    bool running(const Dev& d) const { return d.pub.enabled && !d.pub.stopped; }

    void makeFrame(Dev& d, int c, int64_t startMono, int64_t toGraph)
    {
        Chn& ch = d.chn[c];
        const ot_aio_attr& a = d.pub.attr;
        const uint32_t rate = ch.pub.resample ? ch.pub.outRate : rateOf(d);
        const uint32_t points =
            ch.pub.resample
                ? uint32_t(uint64_t(a.point_num_per_frame) * ch.pub.outRate / a.sample_rate)
                : a.point_num_per_frame;
        const bool stereo = a.snd_mode == OT_AUDIO_SOUND_MODE_STEREO;
        ++ch.pub.made;
        const uint32_t seq = ch.pub.nextSeq++;
        const uint64_t first = ch.sample;
        ch.sample += points;
        if (ch.pub.depth == 0) return;  // nobody reads this channel
        if (ch.ready.size() + ch.held.size() >= ch.pub.depth) {
            if (ch.ready.empty()) {
                ++ch.pub.dropped;
                return;
            }
            ch.ready.pop_front();
            ++ch.pub.dropped;
        }
        Frame fr;
        const int planes = stereo ? 2 : 1;
        fr.mem.reset(new int16_t[size_t(points) * planes]);
        for (int p = 0; p < planes; ++p) {
            const int lane = stereo ? 2 * c + p : c;
            const double hz = d.pub.silent ? 0 : d.pub.tones.value(lane, 0);
            int16_t* out = fr.mem.get() + size_t(p) * points;
            for (uint32_t i = 0; i < points; ++i)
                out[i] =
                    hz <= 0
                        ? 0
                        : int16_t(std::lround(d.level * 32767 *
                                              std::sin(2 * kPi * hz * double(first + i) / rate)));
            fr.f.virt_addr[p] = reinterpret_cast<uint64_t>(out);
            fr.f.phys_addr[p] = nextPhys + uint64_t(p) * points * 2;
        }
        nextPhys += 0x10000;
        fr.f.bit_width = OT_AUDIO_BIT_WIDTH_16;
        fr.f.snd_mode = a.snd_mode;
        fr.f.len = points * 2;
        fr.f.seq = seq;
        fr.f.time_stamp = uint64_t(startMono + toGraph);
        ch.ready.push_back(std::move(fr));
    }

    // Brings the device up to `now`: every frame that is complete by then.
    void pump(Dev& d, int64_t now)
    {
        if (!running(d)) return;
        const int64_t period = periodUs(d);
        // A caller that slept for long finds no more than the unit holds.
        const int64_t keep = int64_t(std::max<uint32_t>(d.pub.attr.frame_num, 1)) * period;
        if (now - d.nextDue > keep) {
            const int64_t skip = (now - d.nextDue - keep) / period + 1;
            d.nextDue += skip * period;
            for (Chn& ch : d.chn)
                if (ch.pub.enabled) {
                    ch.pub.dropped += uint64_t(skip);
                    ch.pub.nextSeq += uint32_t(skip);
                }
        }
        // The two clocks are read one after the other, so their difference
        // wobbles by however long this thread was held up in between; only
        // a real move of the graph clock (its offset set) is taken over, so
        // that frames keep the unit's own even spacing.
        const int64_t toGraph = graphUs() - monoUs();
        if (std::llabs(toGraph - d.toGraph) > 1000) d.toGraph = toGraph;
        const int limit = chnLimit(d);
        while (d.nextDue <= now) {
            for (int c = 0; c < limit && c < OT_AIO_MAX_CHN_NUM; ++c)
                if (d.chn[c].pub.enabled) makeFrame(d, c, d.nextDue - period, d.toGraph);
            d.nextDue += period;
        }
    }

    // The descriptor is readable while a frame waits, and becomes so when
    // the next one is due.
    void rearm(Dev& d, Chn& ch)
    {
        if (ch.pub.fd < 0) return;
        uint64_t ticks;
        while (::read(ch.pub.fd, &ticks, sizeof ticks) > 0) {
        }
        itimerspec when{};
        int flags = 0;
        if (!ch.ready.empty()) {
            when.it_value.tv_nsec = 1;
        } else if (running(d) && ch.pub.enabled && ch.pub.depth > 0) {
            when.it_value.tv_sec = d.nextDue / 1000000;
            when.it_value.tv_nsec = (d.nextDue % 1000000) * 1000;
            flags = TFD_TIMER_ABSTIME;
        }
        timerfd_settime(ch.pub.fd, flags, &when, nullptr);
    }
    void rearmAll(Dev& d)
    {
        for (Chn& ch : d.chn) rearm(d, ch);
        changed.notify_all();
    }

    void clearChn(Chn& ch)
    {
        ch.ready.clear();
        const int fd = ch.pub.fd;
        const uint32_t depth = ch.pub.depth;
        std::deque<Frame> held = std::move(ch.held);
        ch = Chn();
        ch.pub.fd = fd;
        ch.pub.depth = depth;
        ch.held = std::move(held);  // the user still reads them
        ch.pub.held = int(ch.held.size());
    }

    void resetAll()
    {
        for (Dev& d : dev) {
            for (Chn& ch : d.chn)
                if (ch.pub.fd >= 0) ::close(ch.pub.fd);
            d = Dev();
        }
        changed.notify_all();
    }

    // Checks common to the channel calls; 0 when dev and chn name a channel
    // of a configured device.
    int checkChn(int devNo, int chnNo) const
    {
        if (devNo < 0 || devNo >= OT_AI_DEV_MAX_NUM) return OT_ERR_AI_INVALID_DEV_ID;
        if (chnNo < 0 || chnNo >= OT_AIO_MAX_CHN_NUM) return OT_ERR_AI_INVALID_CHN_ID;
        const Dev& d = dev[devNo];
        if (!d.pub.configured) return OT_ERR_AI_NOT_CONFIG;
        if (chnNo >= chnLimit(d)) return OT_ERR_AI_INVALID_CHN_ID;
        return 0;
    }
};

struct AudioInAccess {
    static AudioIn::Impl& impl() { return *AudioIn::instance().d; }
};

AudioIn& AudioIn::instance()
{
    static AudioIn* unit = new AudioIn;  // outlives every node
    return *unit;
}

AudioIn::AudioIn() : d(new Impl)
{
    MediaPlatform::instance().onReset([this] { reset(); });
}

void AudioIn::reset()
{
    std::lock_guard<std::mutex> g(d->lock);
    d->resetAll();
}

AudioIn::Dev AudioIn::dev(int n) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return n >= 0 && n < OT_AI_DEV_MAX_NUM ? d->dev[n].pub : Dev();
}

AudioIn::Chn AudioIn::chn(int n, int c) const
{
    std::lock_guard<std::mutex> g(d->lock);
    if (n < 0 || n >= OT_AI_DEV_MAX_NUM || c < 0 || c >= OT_AIO_MAX_CHN_NUM) return Chn();
    Impl::Dev& dv = d->dev[n];
    d->pump(dv, monoUs());
    Impl::Chn& ch = dv.chn[c];
    Chn out = ch.pub;
    out.ready = int(ch.ready.size());
    out.held = int(ch.held.size());
    return out;
}

bool AudioIn::applyStep(const QVariantMap& step, QString* error)
{
    bool ok = false;
    const int n = step.value("ai").toInt(&ok);
    if (!ok || n < 0 || n >= OT_AI_DEV_MAX_NUM) {
        if (error)
            *error =
                QString("scenario: \"ai\" needs a device from 0 to %1").arg(OT_AI_DEV_MAX_NUM - 1);
        return false;
    }
    std::lock_guard<std::mutex> g(d->lock);
    Impl::Dev& dv = d->dev[n];
    // What was due under the old settings is delivered under them.
    d->pump(dv, monoUs());
    if (step.contains("tone")) {
        dv.pub.tones.clear();
        for (const QVariant& v : step.value("tone").toList()) dv.pub.tones << v.toDouble();
    }
    if (step.contains("level")) dv.level = qBound(0.0, step.value("level").toDouble(), 1.0);
    if (step.contains("silence")) dv.pub.silent = step.value("silence").toBool();
    if (step.contains("stop")) {
        const bool stop = step.value("stop").toBool();
        if (dv.pub.stopped && !stop) dv.nextDue = monoUs() + Impl::periodUs(dv);
        dv.pub.stopped = stop;
    }
    if (step.contains("samplerate")) {
        const uint32_t rate = step.value("samplerate").toUInt();
        if (rate && !validRate(rate)) {
            if (error) *error = QString("scenario: no audio rate %1").arg(rate);
            return false;
        }
        dv.pub.sourceRate = rate;
    }
    d->rearmAll(dv);
    return true;
}

}  // namespace vsim

// ---------------------------------------------------------------- the calls

using vsim::AudioInAccess;
using vsim::monoUs;
using vsim::validRate;

namespace {

vsim::AudioIn::Impl& A()
{
    return AudioInAccess::impl();
}

int run(const char* name, QVariantList args, const std::function<int(vsim::AudioIn::Impl&)>& body)
{
    return vsim::MediaPlatform::instance().runCall(name, std::move(args),
                                                   [&] { return body(A()); });
}

using Guard = std::lock_guard<std::mutex>;

}  // namespace

extern "C" {

td_s32 hi_mpi_ai_set_pub_attr(ot_audio_dev dev, const ot_aio_attr* attr)
{
    return run("hi_mpi_ai_set_pub_attr", {dev}, [&](vsim::AudioIn::Impl& u) {
        if (dev < 0 || dev >= OT_AI_DEV_MAX_NUM) return OT_ERR_AI_INVALID_DEV_ID;
        if (!attr) return OT_ERR_AI_NULL_PTR;
        Guard g(u.lock);
        auto& d = u.dev[dev];
        if (d.pub.enabled) return OT_ERR_AI_DEV_ATTR_SET;
        const ot_aio_attr& a = *attr;
        const uint32_t cnt = a.chn_cnt;
        const bool cntOk = cnt == 1 || cnt == 2 || cnt == 4 || cnt == 8 || cnt == 16;
        if (!validRate(a.sample_rate) || a.bit_width < OT_AUDIO_BIT_WIDTH_8 ||
            a.bit_width > OT_AUDIO_BIT_WIDTH_24 || a.work_mode < OT_AIO_MODE_I2S_MASTER ||
            a.work_mode > OT_AIO_MODE_PCM_SLAVE_NON_STD || a.snd_mode < 0 || a.snd_mode > 1 ||
            a.expand_flag > 1 || a.frame_num < 2 || a.frame_num > OT_MAX_AUDIO_FRAME_NUM ||
            a.point_num_per_frame < OT_MIN_AUDIO_POINT_NUM ||
            a.point_num_per_frame > OT_MAX_AUDIO_POINT_NUM || !cntOk ||
            (a.snd_mode == OT_AUDIO_SOUND_MODE_STEREO && cnt < 2) || a.clk_share > 1 ||
            a.i2s_type < OT_AIO_I2STYPE_INNERCODEC || a.i2s_type > OT_AIO_I2STYPE_EXTERN)
            return OT_ERR_AI_ILLEGAL_PARAM;
        d.pub.attr = a;
        d.pub.configured = true;
        return 0;
    });
}

td_s32 hi_mpi_ai_get_pub_attr(ot_audio_dev dev, ot_aio_attr* attr)
{
    return run("hi_mpi_ai_get_pub_attr", {dev}, [&](vsim::AudioIn::Impl& u) {
        if (dev < 0 || dev >= OT_AI_DEV_MAX_NUM) return OT_ERR_AI_INVALID_DEV_ID;
        if (!attr) return OT_ERR_AI_NULL_PTR;
        Guard g(u.lock);
        if (!u.dev[dev].pub.configured) return OT_ERR_AI_NOT_CONFIG;
        *attr = u.dev[dev].pub.attr;
        return 0;
    });
}

td_s32 hi_mpi_ai_enable(ot_audio_dev dev)
{
    return run("hi_mpi_ai_enable", {dev}, [&](vsim::AudioIn::Impl& u) {
        if (dev < 0 || dev >= OT_AI_DEV_MAX_NUM) return OT_ERR_AI_INVALID_DEV_ID;
        Guard g(u.lock);
        auto& d = u.dev[dev];
        if (!d.pub.configured) return OT_ERR_AI_NOT_CONFIG;
        if (d.pub.enabled) return 0;
        d.pub.enabled = true;
        d.nextDue = monoUs() + u.periodUs(d);
        u.rearmAll(d);
        return 0;
    });
}

td_s32 hi_mpi_ai_disable(ot_audio_dev dev)
{
    return run("hi_mpi_ai_disable", {dev}, [&](vsim::AudioIn::Impl& u) {
        if (dev < 0 || dev >= OT_AI_DEV_MAX_NUM) return OT_ERR_AI_INVALID_DEV_ID;
        Guard g(u.lock);
        auto& d = u.dev[dev];
        d.pub.enabled = false;
        for (auto& ch : d.chn) u.clearChn(ch);
        u.rearmAll(d);
        return 0;
    });
}

td_s32 hi_mpi_ai_enable_chn(ot_audio_dev dev, ot_ai_chn chn)
{
    return run("hi_mpi_ai_enable_chn", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        auto& d = u.dev[dev];
        if (!d.pub.enabled) return OT_ERR_AI_NOT_PERM;
        auto& ch = d.chn[chn];
        if (ch.pub.enabled) return 0;
        u.pump(d, monoUs());  // frames due before the channel ran are not its own
        ch.pub.enabled = true;
        u.rearm(d, ch);
        return 0;
    });
}

td_s32 hi_mpi_ai_disable_chn(ot_audio_dev dev, ot_ai_chn chn)
{
    return run("hi_mpi_ai_disable_chn", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        auto& d = u.dev[dev];
        u.clearChn(d.chn[chn]);
        u.rearm(d, d.chn[chn]);
        u.changed.notify_all();
        return 0;
    });
}

td_s32 hi_mpi_ai_enable_resample(ot_audio_dev dev, ot_ai_chn chn, td_u32 out_sample_rate)
{
    return run("hi_mpi_ai_enable_resample", {dev, chn, out_sample_rate},
               [&](vsim::AudioIn::Impl& u) {
                   Guard g(u.lock);
                   if (int r = u.checkChn(dev, chn)) return r;
                   auto& ch = u.dev[dev].chn[chn];
                   if (!ch.pub.enabled || ch.pub.resample) return OT_ERR_AI_NOT_PERM;
                   if (!validRate(out_sample_rate)) return OT_ERR_AI_ILLEGAL_PARAM;
                   u.pump(u.dev[dev], monoUs());
                   ch.pub.resample = true;
                   ch.pub.outRate = out_sample_rate;
                   return 0;
               });
}

td_s32 hi_mpi_ai_disable_resample(ot_audio_dev dev, ot_ai_chn chn)
{
    return run("hi_mpi_ai_disable_resample", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        auto& ch = u.dev[dev].chn[chn];
        if (!ch.pub.enabled) return OT_ERR_AI_NOT_PERM;
        u.pump(u.dev[dev], monoUs());
        ch.pub.resample = false;
        ch.pub.outRate = 0;
        return 0;
    });
}

td_s32 hi_mpi_ai_set_chn_param(ot_audio_dev dev, ot_ai_chn chn, const ot_ai_chn_param* param)
{
    return run("hi_mpi_ai_set_chn_param", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        if (!param) return OT_ERR_AI_NULL_PTR;
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        if (param->usr_frame_depth > OT_MAX_AUDIO_FRAME_NUM) return OT_ERR_AI_ILLEGAL_PARAM;
        auto& d = u.dev[dev];
        u.pump(d, monoUs());
        d.chn[chn].pub.depth = param->usr_frame_depth;
        u.rearm(d, d.chn[chn]);
        return 0;
    });
}

td_s32 hi_mpi_ai_get_fd(ot_audio_dev dev, ot_ai_chn chn)
{
    return run("hi_mpi_ai_get_fd", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        auto& d = u.dev[dev];
        auto& ch = d.chn[chn];
        if (!ch.pub.enabled) return OT_ERR_AI_NOT_PERM;
        if (ch.pub.fd < 0) ch.pub.fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (ch.pub.fd < 0) return OT_ERR_AI_BUSY;
        u.rearm(d, ch);
        return ch.pub.fd;
    });
}

td_s32 hi_mpi_ai_get_frame(ot_audio_dev dev, ot_ai_chn chn, ot_audio_frame* frame,
                           ot_aec_frame* aec_frame, td_s32 milli_sec)
{
    return run("hi_mpi_ai_get_frame", {dev, chn, milli_sec}, [&](vsim::AudioIn::Impl& u) {
        if (!frame) return OT_ERR_AI_NULL_PTR;
        std::unique_lock<std::mutex> l(u.lock);
        const int64_t deadline = milli_sec < 0 ? INT64_MAX : monoUs() + int64_t(milli_sec) * 1000;
        for (;;) {
            if (int r = u.checkChn(dev, chn)) return r;
            auto& d = u.dev[dev];
            auto& ch = d.chn[chn];
            if (!d.pub.enabled || !ch.pub.enabled || ch.pub.depth == 0) return OT_ERR_AI_NOT_PERM;
            const int64_t now = monoUs();
            u.pump(d, now);
            if (!ch.ready.empty()) {
                *frame = ch.ready.front().f;
                ch.held.push_back(std::move(ch.ready.front()));
                ch.ready.pop_front();
                if (aec_frame) *aec_frame = ot_aec_frame{};
                u.rearm(d, ch);
                return 0;
            }
            if (now >= deadline) return OT_ERR_AI_BUF_EMPTY;
            int64_t until = deadline;
            if (u.running(d)) until = std::min(until, d.nextDue);
            if (until == INT64_MAX)
                u.changed.wait(l);
            else
                u.changed.wait_for(l, std::chrono::microseconds(until - now));
        }
    });
}

td_s32 hi_mpi_ai_release_frame(ot_audio_dev dev, ot_ai_chn chn, const ot_audio_frame* frame,
                               const ot_aec_frame*)
{
    return run("hi_mpi_ai_release_frame", {dev, chn}, [&](vsim::AudioIn::Impl& u) {
        if (!frame) return OT_ERR_AI_NULL_PTR;
        Guard g(u.lock);
        if (int r = u.checkChn(dev, chn)) return r;
        auto& ch = u.dev[dev].chn[chn];
        for (auto it = ch.held.begin(); it != ch.held.end(); ++it)
            if (it->f.virt_addr[0] == frame->virt_addr[0] && it->f.seq == frame->seq) {
                ch.held.erase(it);
                return 0;
            }
        return OT_ERR_AI_ILLEGAL_PARAM;
    });
}

}  // extern "C"
