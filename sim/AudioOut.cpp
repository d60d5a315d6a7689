#include "sim/AudioOut.h"

#include <QByteArray>
#include <QFile>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/MediaPlatform.h"

namespace vsim {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kRates[] = {8000,  11025, 12000, 16000, 22050, 24000,
                               32000, 44100, 48000, 64000, 96000};
constexpr int kMaxBlocks = 1024;
constexpr uint64_t kMaxBlockSize = 1 << 20;
constexpr uint64_t kPhysBase = 0x80000000u;
// Played samples are produced in slices of this many, so that a clock that
// ran for long costs no large buffer.
constexpr uint64_t kSlice = 4096;

bool rateKnown(uint32_t rate)
{
    return std::find(std::begin(kRates), std::end(kRates), rate) != std::end(kRates);
}

struct VbBlock {
    bool used = false;
    uint64_t phys = 0;
    std::vector<uint8_t> mem;
};

// One frame at the device's rate, left and (in stereo) right.
struct AoFrame {
    std::vector<int16_t> left, right;
    size_t played = 0;
};

// Linear interpolation across frame borders: `pos` is where the next output
// sample lies, counted from the last input sample of the previous frame.
struct Resampler {
    double pos = 1.0;
    int16_t prev[2] = {0, 0};

    std::vector<int16_t> run(const int16_t* in, size_t n, double step, int side)
    {
        std::vector<int16_t> out;
        double p = pos;
        while (p <= double(n)) {
            const size_t i = size_t(p);
            const double f = p - double(i);
            const double a = i == 0 ? prev[side] : in[i - 1];
            const double b = i >= n ? in[n - 1] : in[i];
            out.push_back(int16_t(a + (b - a) * f));
            p += step;
        }
        return out;
    }
    void advance(const int16_t* l, const int16_t* r, size_t n, double step)
    {
        double p = pos;
        while (p <= double(n)) p += step;
        pos = p - double(n);
        prev[0] = l[n - 1];
        if (r) prev[1] = r[n - 1];
    }
};

struct AoChn {
    bool enabled = false;
    uint32_t resampleFrom = 0;
    Resampler resampler;
    std::deque<AoFrame> queue;
};

struct AoDevice {
    bool configured = false;
    bool enabled = false;
    bool held = false;
    bool running = false;  // the clock started with the first frame
    ot_aio_attr attr{};
    AoChn chn[OT_AIO_MAX_CHN_NUM];
    Clock::time_point last;
    double clockUs = 0;  // time the device has been playing
    uint64_t framesAccepted = 0, clears = 0, played = 0, underrun = 0;
    std::FILE* wav = nullptr;
    uint32_t wavBytes = 0;
};

void putLe(uint8_t* p, uint32_t v, int bytes)
{
    for (int i = 0; i < bytes; ++i) p[i] = uint8_t(v >> (8 * i));
}

void wavHeader(std::FILE* f, uint32_t rate, int channels, uint32_t dataBytes)
{
    uint8_t h[44] = {};
    std::memcpy(h, "RIFF", 4);
    putLe(h + 4, 36 + dataBytes, 4);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    putLe(h + 16, 16, 4);
    putLe(h + 20, 1, 2);
    putLe(h + 22, uint32_t(channels), 2);
    putLe(h + 24, rate, 4);
    putLe(h + 28, rate * uint32_t(channels) * 2, 4);
    putLe(h + 32, uint32_t(channels) * 2, 2);
    putLe(h + 34, 16, 2);
    std::memcpy(h + 36, "data", 4);
    putLe(h + 40, dataBytes, 4);
    std::fseek(f, 0, SEEK_SET);
    std::fwrite(h, 1, sizeof h, f);
    std::fseek(f, 0, SEEK_END);
}

}  // namespace

struct AudioOut::Impl {
    mutable std::mutex lock;
    mutable std::condition_variable changed;
    AoDevice dev[OT_AO_DEV_MAX_NUM];
    QString paths[OT_AO_DEV_MAX_NUM];
    std::vector<std::unique_ptr<VbBlock>> blocks;  // never freed: mappings outlive reset

    static bool validDev(int dev) { return dev >= 0 && dev < OT_AO_DEV_MAX_NUM; }
    static int chnLimit(const AoDevice& d)
    {
        const int n = int(d.attr.chn_cnt);
        return d.attr.snd_mode == OT_AUDIO_SOUND_MODE_STEREO ? n / 2 : n;
    }

    void closeWav(AoDevice& d)
    {
        if (!d.wav) return;
        std::fclose(d.wav);
        d.wav = nullptr;
    }

    void resetDevices()
    {
        for (AoDevice& d : dev) {
            closeWav(d);
            d = AoDevice();
        }
        for (auto& b : blocks) b->used = false;
        changed.notify_all();
    }

    // Plays what the device's clock says is due by `now`.
    void advance(AoDevice& d, Clock::time_point now)
    {
        if (!d.enabled || !d.running) return;
        if (!d.held) d.clockUs += std::chrono::duration<double, std::micro>(now - d.last).count();
        d.last = now;
        const uint64_t due = uint64_t(d.clockUs * d.attr.sample_rate / 1e6);
        const int sides = d.attr.snd_mode == OT_AUDIO_SOUND_MODE_STEREO ? 2 : 1;
        bool freed = false;
        std::vector<int32_t> mix;
        std::vector<int16_t> out;
        while (d.played < due) {
            const size_t n = size_t(std::min<uint64_t>(due - d.played, kSlice));
            mix.assign(n * size_t(sides), 0);
            for (AoChn& c : d.chn) {
                if (!c.enabled) continue;
                size_t done = 0;
                while (done < n && !c.queue.empty()) {
                    AoFrame& f = c.queue.front();
                    const size_t take = std::min(n - done, f.left.size() - f.played);
                    for (size_t i = 0; i < take; ++i) {
                        mix[(done + i) * size_t(sides)] += f.left[f.played + i];
                        if (sides == 2) mix[(done + i) * 2 + 1] += f.right[f.played + i];
                    }
                    done += take;
                    f.played += take;
                    if (f.played == f.left.size()) {
                        c.queue.pop_front();
                        freed = true;
                    }
                }
                if (done < n) d.underrun += n - done;
            }
            out.resize(mix.size());
            for (size_t i = 0; i < mix.size(); ++i)
                out[i] = int16_t(std::max(-32768, std::min(32767, mix[i])));
            if (d.wav) {
                const size_t bytes = out.size() * 2;
                std::vector<uint8_t> le(bytes);
                for (size_t i = 0; i < out.size(); ++i)
                    putLe(le.data() + 2 * i, uint16_t(out[i]), 2);
                std::fwrite(le.data(), 1, bytes, d.wav);
                d.wavBytes += uint32_t(bytes);
                wavHeader(d.wav, d.attr.sample_rate, sides, d.wavBytes);
                std::fflush(d.wav);
            }
            d.played += n;
        }
        if (freed) changed.notify_all();
    }

    void advanceAll()
    {
        const auto now = Clock::now();
        for (AoDevice& d : dev) advance(d, now);
    }

    int busy(const AoChn& c) const { return int(c.queue.size()); }

    // When the first queued frame of `c` will have been played.
    Clock::time_point frontDone(const AoDevice& d, const AoChn& c) const
    {
        if (d.held || !d.running || c.queue.empty()) return Clock::time_point::max();
        const AoFrame& f = c.queue.front();
        const double us = double(f.left.size() - f.played) * 1e6 / d.attr.sample_rate;
        return Clock::now() + std::chrono::microseconds(int64_t(us) + 1);
    }

    VbBlock* blockAt(uint64_t phys, uint64_t len)
    {
        for (auto& b : blocks)
            if (b->used && phys >= b->phys && phys + len <= b->phys + b->mem.size()) return b.get();
        return nullptr;
    }

    int attrError(const ot_aio_attr& a) const
    {
        if (!rateKnown(a.sample_rate)) return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.bit_width < OT_AUDIO_BIT_WIDTH_8 || a.bit_width > OT_AUDIO_BIT_WIDTH_24)
            return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.work_mode < OT_AIO_MODE_I2S_MASTER || a.work_mode > OT_AIO_MODE_PCM_SLAVE_NON_STD)
            return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.snd_mode != OT_AUDIO_SOUND_MODE_MONO && a.snd_mode != OT_AUDIO_SOUND_MODE_STEREO)
            return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.expand_flag > 1 || (a.expand_flag && a.bit_width != OT_AUDIO_BIT_WIDTH_8))
            return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.frame_num < 2 || a.frame_num > OT_MAX_AUDIO_FRAME_NUM) return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.point_num_per_frame < OT_MIN_AUDIO_POINT_NUM ||
            a.point_num_per_frame > OT_MAX_AUDIO_POINT_NUM)
            return OT_ERR_AO_ILLEGAL_PARAM;
        const uint32_t c = a.chn_cnt;
        if (c != 1 && c != 2 && c != 4 && c != 8 && c != 16) return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.snd_mode == OT_AUDIO_SOUND_MODE_STEREO && c < 2) return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.clk_share > 1) return OT_ERR_AO_ILLEGAL_PARAM;
        if (a.i2s_type < OT_AIO_I2STYPE_INNERCODEC || a.i2s_type > OT_AIO_I2STYPE_EXTERN)
            return OT_ERR_AO_ILLEGAL_PARAM;
        // The unit plays 16-bit samples only.
        if (a.bit_width != OT_AUDIO_BIT_WIDTH_16) return OT_ERR_AO_NOT_SUPPORT;
        return 0;
    }

    // The channel of a call, or the error the unit gives for it.
    int chnOf(int devId, int chnId, bool mustBeEnabled, AoDevice** d, AoChn** c)
    {
        if (!validDev(devId)) return OT_ERR_AO_INVALID_DEV_ID;
        AoDevice& dv = dev[devId];
        if (chnId < 0 || chnId >= OT_AIO_MAX_CHN_NUM || (dv.configured && chnId >= chnLimit(dv)))
            return OT_ERR_AO_INVALID_CHN_ID;
        if (mustBeEnabled && (!dv.enabled || !dv.chn[chnId].enabled)) return OT_ERR_AO_NOT_PERM;
        *d = &dv;
        *c = &dv.chn[chnId];
        return 0;
    }

    int send(int devId, int chnId, const ot_audio_frame* frame, int ms)
    {
        std::unique_lock<std::mutex> l(lock);
        AoDevice* d = nullptr;
        AoChn* c = nullptr;
        if (!frame) return OT_ERR_AO_NULL_PTR;
        if (int e = chnOf(devId, chnId, true, &d, &c)) return e;
        if (frame->bit_width != d->attr.bit_width || frame->snd_mode != d->attr.snd_mode)
            return OT_ERR_AO_ILLEGAL_PARAM;
        if (frame->len == 0 || frame->len % 2) return OT_ERR_AO_ILLEGAL_PARAM;
        const bool stereo = frame->snd_mode == OT_AUDIO_SOUND_MODE_STEREO;
        const VbBlock* b0 = blockAt(frame->phys_addr[0], frame->len);
        const VbBlock* b1 = stereo ? blockAt(frame->phys_addr[1], frame->len) : nullptr;
        if (!b0 || (stereo && !b1)) return OT_ERR_AO_ILLEGAL_PARAM;

        const auto deadline =
            ms < 0 ? Clock::time_point::max() : Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            advance(*d, Clock::now());
            if (!d->enabled || !c->enabled) return OT_ERR_AO_NOT_PERM;
            if (busy(*c) < int(d->attr.frame_num)) break;
            if (Clock::now() >= deadline) return OT_ERR_AO_BUF_FULL;
            changed.wait_until(l, std::min(deadline, frontDone(*d, *c)));
        }

        const size_t n = frame->len / 2;
        auto plane = [&](const VbBlock* b, uint64_t phys) {
            const auto* p = reinterpret_cast<const int16_t*>(b->mem.data() + (phys - b->phys));
            return std::vector<int16_t>(p, p + n);
        };
        AoFrame f;
        f.left = plane(b0, frame->phys_addr[0]);
        if (stereo) f.right = plane(b1, frame->phys_addr[1]);
        if (c->resampleFrom && c->resampleFrom != d->attr.sample_rate) {
            const double step = double(c->resampleFrom) / d->attr.sample_rate;
            std::vector<int16_t> l2 = c->resampler.run(f.left.data(), n, step, 0);
            std::vector<int16_t> r2;
            if (stereo) r2 = c->resampler.run(f.right.data(), n, step, 1);
            c->resampler.advance(f.left.data(), stereo ? f.right.data() : nullptr, n, step);
            f.left = std::move(l2);
            f.right = std::move(r2);
        }
        if (f.left.empty()) return 0;
        if (!stereo) f.right.clear();
        c->queue.push_back(std::move(f));
        ++d->framesAccepted;
        if (!d->running) {
            d->running = true;
            d->last = Clock::now();
        }
        changed.notify_all();
        return 0;
    }
};

AudioOut::Impl& AudioOut::impl()
{
    return *instance().d;
}

AudioOut& AudioOut::instance()
{
    static AudioOut* out = new AudioOut;  // outlives every node
    return *out;
}

AudioOut::AudioOut() : d(new Impl)
{
    MediaPlatform::instance().onReset([this] {
        std::lock_guard<std::mutex> g(d->lock);
        d->resetDevices();
    });
}

void AudioOut::setWavPath(int dev, const QString& path)
{
    std::lock_guard<std::mutex> g(d->lock);
    if (Impl::validDev(dev)) d->paths[dev] = path;
}

QString AudioOut::wavPath(int dev) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return Impl::validDev(dev) ? d->paths[dev] : QString();
}

void AudioOut::setHold(int dev, bool hold)
{
    std::lock_guard<std::mutex> g(d->lock);
    if (!Impl::validDev(dev)) return;
    d->advance(d->dev[dev], Clock::now());
    d->dev[dev].held = hold;
    d->changed.notify_all();
}

AudioOut::Dev AudioOut::device(int dev) const
{
    std::lock_guard<std::mutex> g(d->lock);
    Dev out;
    if (!Impl::validDev(dev)) return out;
    AoDevice& s = d->dev[dev];
    d->advance(s, Clock::now());
    out.configured = s.configured;
    out.enabled = s.enabled;
    out.attr = s.attr;
    for (int i = 0; i < OT_AIO_MAX_CHN_NUM; ++i) {
        out.chnEnabled[i] = s.chn[i].enabled;
        out.resampleFrom[i] = s.chn[i].resampleFrom;
        out.busy[i] = d->busy(s.chn[i]);
    }
    out.framesAccepted = s.framesAccepted;
    out.clears = s.clears;
    out.samplesPlayed = s.played;
    out.underrunSamples = s.underrun;
    return out;
}

bool AudioOut::waitBusyAtMost(int dev, int chn, int busy, int timeoutMs) const
{
    if (!Impl::validDev(dev) || chn < 0 || chn >= OT_AIO_MAX_CHN_NUM) return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> l(d->lock);
    AoDevice& s = d->dev[dev];
    for (;;) {
        d->advance(s, Clock::now());
        if (d->busy(s.chn[chn]) <= busy) return true;
        if (Clock::now() >= deadline) return false;
        d->changed.wait_until(l, std::min(deadline, d->frontDone(s, s.chn[chn])));
    }
}

bool AudioOut::waitAccepted(int dev, uint64_t frames, int timeoutMs) const
{
    if (!Impl::validDev(dev)) return false;
    std::unique_lock<std::mutex> l(d->lock);
    return d->changed.wait_for(l, std::chrono::milliseconds(timeoutMs),
                               [&] { return d->dev[dev].framesAccepted >= frames; });
}

int AudioOut::blocksInUse() const
{
    std::lock_guard<std::mutex> g(d->lock);
    return int(std::count_if(d->blocks.begin(), d->blocks.end(),
                             [](const std::unique_ptr<VbBlock>& b) { return b->used; }));
}

}  // namespace vsim

using vsim::AudioOut;

namespace {

AudioOut::Impl& A()
{
    return AudioOut::impl();
}

int run(const char* name, QVariantList args, const std::function<int()>& body)
{
    return vsim::MediaPlatform::instance().runCall(name, std::move(args), body);
}

}  // namespace

extern "C" {

// ---- audio output

td_s32 hi_mpi_ao_set_pub_attr(ot_audio_dev dev, const ot_aio_attr* attr)
{
    return run("hi_mpi_ao_set_pub_attr", {dev}, [&] {
        if (!AudioOut::Impl::validDev(dev)) return OT_ERR_AO_INVALID_DEV_ID;
        if (!attr) return OT_ERR_AO_NULL_PTR;
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice& d = A().dev[dev];
        if (d.enabled) return OT_ERR_AO_NOT_PERM;
        if (int e = A().attrError(*attr)) return e;
        d.attr = *attr;
        d.configured = true;
        return 0;
    });
}

td_s32 hi_mpi_ao_get_pub_attr(ot_audio_dev dev, ot_aio_attr* attr)
{
    return run("hi_mpi_ao_get_pub_attr", {dev}, [&] {
        if (!AudioOut::Impl::validDev(dev)) return OT_ERR_AO_INVALID_DEV_ID;
        if (!attr) return OT_ERR_AO_NULL_PTR;
        std::lock_guard<std::mutex> g(A().lock);
        if (!A().dev[dev].configured) return OT_ERR_AO_NOT_CONFIG;
        *attr = A().dev[dev].attr;
        return 0;
    });
}

td_s32 hi_mpi_ao_enable(ot_audio_dev dev)
{
    return run("hi_mpi_ao_enable", {dev}, [&] {
        if (!AudioOut::Impl::validDev(dev)) return OT_ERR_AO_INVALID_DEV_ID;
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice& d = A().dev[dev];
        if (!d.configured) return OT_ERR_AO_NOT_CONFIG;
        if (d.enabled) return 0;
        d.enabled = true;
        d.running = false;
        d.clockUs = 0;
        d.played = d.underrun = 0;
        const QString path = A().paths[dev];
        if (!path.isEmpty()) {
            d.wav = std::fopen(QFile::encodeName(path).constData(), "wb");
            d.wavBytes = 0;
            if (d.wav)
                vsim::wavHeader(d.wav, d.attr.sample_rate,
                                d.attr.snd_mode == OT_AUDIO_SOUND_MODE_STEREO ? 2 : 1, 0);
        }
        return 0;
    });
}

// Takes the channels down with it; what was queued is not played.
td_s32 hi_mpi_ao_disable(ot_audio_dev dev)
{
    return run("hi_mpi_ao_disable", {dev}, [&] {
        if (!AudioOut::Impl::validDev(dev)) return OT_ERR_AO_INVALID_DEV_ID;
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice& d = A().dev[dev];
        A().advance(d, vsim::Clock::now());
        for (vsim::AoChn& c : d.chn) c = vsim::AoChn();
        d.enabled = false;
        d.running = false;
        A().closeWav(d);
        A().changed.notify_all();
        return 0;
    });
}

td_s32 hi_mpi_ao_enable_chn(ot_audio_dev dev, ot_ao_chn chn)
{
    return run("hi_mpi_ao_enable_chn", {dev, chn}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, false, &d, &c)) return e;
        if (!d->enabled) return OT_ERR_AO_NOT_PERM;
        c->enabled = true;
        return 0;
    });
}

td_s32 hi_mpi_ao_disable_chn(ot_audio_dev dev, ot_ao_chn chn)
{
    return run("hi_mpi_ao_disable_chn", {dev, chn}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, false, &d, &c)) return e;
        A().advance(*d, vsim::Clock::now());
        *c = vsim::AoChn();
        A().changed.notify_all();
        return 0;
    });
}

td_s32 hi_mpi_ao_enable_resample(ot_audio_dev dev, ot_ao_chn chn, td_u32 in_sample_rate)
{
    return run("hi_mpi_ao_enable_resample", {dev, chn, in_sample_rate}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, true, &d, &c)) return e;
        if (!vsim::rateKnown(in_sample_rate)) return OT_ERR_AO_ILLEGAL_PARAM;
        if (c->resampleFrom) return OT_ERR_AO_NOT_PERM;
        c->resampleFrom = in_sample_rate;
        c->resampler = vsim::Resampler();
        return 0;
    });
}

td_s32 hi_mpi_ao_disable_resample(ot_audio_dev dev, ot_ao_chn chn)
{
    return run("hi_mpi_ao_disable_resample", {dev, chn}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, true, &d, &c)) return e;
        c->resampleFrom = 0;
        return 0;
    });
}

td_s32 hi_mpi_ao_query_chn_status(ot_audio_dev dev, ot_ao_chn chn, ot_ao_chn_state* status)
{
    return run("hi_mpi_ao_query_chn_status", {dev, chn}, [&] {
        if (!status) return OT_ERR_AO_NULL_PTR;
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, true, &d, &c)) return e;
        A().advance(*d, vsim::Clock::now());
        status->chn_total_num = d->attr.frame_num;
        status->chn_busy_num = uint32_t(A().busy(*c));
        status->chn_free_num = status->chn_total_num - status->chn_busy_num;
        return 0;
    });
}

td_s32 hi_mpi_ao_send_frame(ot_audio_dev dev, ot_ao_chn chn, const ot_audio_frame* frame,
                            td_s32 milli_sec)
{
    return run("hi_mpi_ao_send_frame", {dev, chn, frame ? int(frame->len) : -1, milli_sec},
               [&] { return A().send(dev, chn, frame, milli_sec); });
}

td_s32 hi_mpi_ao_clr_chn_buf(ot_audio_dev dev, ot_ao_chn chn)
{
    return run("hi_mpi_ao_clr_chn_buf", {dev, chn}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::AoDevice* d = nullptr;
        vsim::AoChn* c = nullptr;
        if (int e = A().chnOf(dev, chn, true, &d, &c)) return e;
        A().advance(*d, vsim::Clock::now());
        if (!c->queue.empty()) ++d->clears;
        c->queue.clear();
        A().changed.notify_all();
        return 0;
    });
}

// ---- video buffer pools

ot_vb_blk hi_mpi_vb_get_blk(ot_vb_pool pool, td_u64 blk_size, const td_char*)
{
    ot_vb_blk handle = OT_VB_INVALID_HANDLE;
    run("hi_mpi_vb_get_blk", {int(pool), qulonglong(blk_size)}, [&] {
        // The sim has the common pool alone: no pools of one's own.
        if (pool != OT_VB_INVALID_POOL_ID) return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_UNEXIST);
        if (blk_size == 0 || blk_size > vsim::kMaxBlockSize)
            return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_ILLEGAL_PARAM);
        std::lock_guard<std::mutex> g(A().lock);
        auto& blocks = A().blocks;
        for (size_t i = 0; i < blocks.size(); ++i) {
            if (blocks[i]->used || blocks[i]->mem.size() < blk_size) continue;
            blocks[i]->used = true;
            handle = ot_vb_blk(i + 1);
            return 0;
        }
        if (blocks.size() >= size_t(vsim::kMaxBlocks))
            return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_NO_MEM);
        auto b = std::make_unique<vsim::VbBlock>();
        b->used = true;
        b->phys = vsim::kPhysBase + uint64_t(blocks.size()) * vsim::kMaxBlockSize;
        b->mem.assign(size_t(blk_size), 0);
        blocks.push_back(std::move(b));
        handle = ot_vb_blk(blocks.size());
        return 0;
    });
    return handle;
}

td_s32 hi_mpi_vb_release_blk(ot_vb_blk block)
{
    return run("hi_mpi_vb_release_blk", {qulonglong(block)}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        auto& blocks = A().blocks;
        if (block == 0 || block > blocks.size() || !blocks[block - 1]->used)
            return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_ILLEGAL_PARAM);
        blocks[block - 1]->used = false;
        return 0;
    });
}

ot_vb_pool hi_mpi_vb_handle_to_pool_id(ot_vb_blk block)
{
    ot_vb_pool pool = OT_VB_INVALID_POOL_ID;
    run("hi_mpi_vb_handle_to_pool_id", {qulonglong(block)}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        if (block == 0 || block > A().blocks.size() || !A().blocks[block - 1]->used)
            return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_ILLEGAL_PARAM);
        pool = 0;
        return 0;
    });
    return pool;
}

td_phys_addr_t hi_mpi_vb_handle_to_phys_addr(ot_vb_blk block)
{
    td_phys_addr_t phys = 0;
    run("hi_mpi_vb_handle_to_phys_addr", {qulonglong(block)}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        if (block == 0 || block > A().blocks.size() || !A().blocks[block - 1]->used)
            return OT_DEFINE_ERR(OT_ID_VB, OT_ERR_ILLEGAL_PARAM);
        phys = A().blocks[block - 1]->phys;
        return 0;
    });
    return phys;
}

td_void* hi_mpi_sys_mmap(td_phys_addr_t phys_addr, td_u32 size)
{
    void* mapped = nullptr;
    run("hi_mpi_sys_mmap", {qulonglong(phys_addr), size}, [&] {
        std::lock_guard<std::mutex> g(A().lock);
        vsim::VbBlock* b = size ? A().blockAt(phys_addr, size) : nullptr;
        if (!b) return OT_DEFINE_ERR(OT_ID_SYS, OT_ERR_ILLEGAL_PARAM);
        mapped = b->mem.data() + (phys_addr - b->phys);
        return 0;
    });
    return mapped;
}

}  // extern "C"
