#include "input/VeskAvStream.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <QByteArray>
#include <climits>
#include <ctime>

namespace VeskAv {

namespace {

int toInt(int64_t v)
{
    return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : static_cast<int>(v);
}

QByteArray extradataOf(const AVCodecParameters* par)
{
    if (!par->extradata || par->extradata_size <= 0) return QByteArray();
    return QByteArray(reinterpret_cast<const char*>(par->extradata), par->extradata_size);
}

int64_t monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int deadlineCallback(void* opaque)
{
    return static_cast<Deadline*>(opaque)->passed() ? 1 : 0;
}

}  // namespace

int audioType(int codecId, bool withAc3, int current)
{
    switch (codecId) {
        case AV_CODEC_ID_AAC:
            return VeskObject::TypeAAC;
        case AV_CODEC_ID_PCM_ALAW:
            return VeskObject::TypePCMA;
        case AV_CODEC_ID_PCM_MULAW:
            return VeskObject::TypePCMU;
        case AV_CODEC_ID_MP2:
            return VeskObject::TypeMP2;
        case AV_CODEC_ID_ADPCM_G722:
            return VeskObject::TypeG722;
        case AV_CODEC_ID_MP3:
            return VeskObject::TypeMP3;
        case AV_CODEC_ID_AC3:
            return withAc3 ? int(VeskObject::TypeAC3) : current;
        case AV_CODEC_ID_OPUS:
            return VeskObject::TypeOpus;
        default:
            return current;
    }
}

int videoType(int codecId, int current)
{
    switch (codecId) {
        case AV_CODEC_ID_H264:
            return VeskObject::TypeH264;
        case AV_CODEC_ID_HEVC:
            return VeskObject::TypeH265;
        case AV_CODEC_ID_MPEG4:
            return VeskObject::TypeMPEG4;
        case AV_CODEC_ID_RAWVIDEO:
            return VeskObject::TypeRaw;
        default:
            return current;
    }
}

int channelsOf(const AVStream* st)
{
    return st->codecpar->ch_layout.nb_channels;
}

QVariantMap audioParams(const AVStream* st)
{
    const AVCodecParameters* par = st->codecpar;
    const AVChannelLayout& layout = par->ch_layout;
    const qulonglong mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    QVariantMap m;
    m.insert(QStringLiteral("bitrate"), toInt(par->bit_rate));
    m.insert(QStringLiteral("sample_fmt"), par->format);
    m.insert(QStringLiteral("samplerate"), par->sample_rate);
    m.insert(QStringLiteral("channel_layout"), mask);
    m.insert(QStringLiteral("channels"), layout.nb_channels);
    m.insert(QStringLiteral("level"), par->level);
    m.insert(QStringLiteral("profile"), par->profile);
    m.insert(QStringLiteral("frame_size"), par->frame_size);
    m.insert(QStringLiteral("extradata"), extradataOf(par));
    return m;
}

QVariantMap videoParams(const AVStream* st)
{
    const AVCodecParameters* par = st->codecpar;
    QVariantMap m;
    m.insert(QStringLiteral("bitrate"), toInt(par->bit_rate));
    m.insert(QStringLiteral("width"), par->width);
    m.insert(QStringLiteral("height"), par->height);
    m.insert(QStringLiteral("profile"), par->profile);
    m.insert(QStringLiteral("pix_fmt"), par->format);
    // The codec context is gone from the stream; its frame rate is the
    // stream's average rate, or the real base rate when that is unknown.
    AVRational rate = st->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = st->r_frame_rate;
    if (rate.num > 0 && rate.den > 0) m.insert(QStringLiteral("framerate"), rate.num / rate.den);
    m.insert(QStringLiteral("extradata"), extradataOf(par));
    return m;
}

QVariantMap withCodecName(const QVariantMap& params, int type, bool audio)
{
    QString name;
    if (audio) {
        switch (type) {
            case VeskObject::TypeAAC:
                name = QStringLiteral("aac");
                break;
            case VeskObject::TypeMP2:
                name = QStringLiteral("mp2");
                break;
            case VeskObject::TypeMP3:
                name = QStringLiteral("mp3");
                break;
            case VeskObject::TypeG722:
                name = QStringLiteral("g722");
                break;
            case VeskObject::TypeAC3:
                name = QStringLiteral("ac3");
                break;
            case VeskObject::TypePCMA:
                name = QStringLiteral("pcma");
                break;
            case VeskObject::TypePCMU:
                name = QStringLiteral("pcmu");
                break;
            default:
                break;
        }
    } else {
        switch (type) {
            case VeskObject::TypeH264:
                name = QStringLiteral("h264");
                break;
            case VeskObject::TypeH265:
                name = QStringLiteral("h265");
                break;
            case VeskObject::TypeMPEG4:
                name = QStringLiteral("mpeg4");
                break;
            default:
                break;
        }
    }
    QVariantMap out = params;
    if (!name.isEmpty()) out.insert(QStringLiteral("codec"), name);
    return out;
}

void Deadline::arm(int64_t ms)
{
    until.store(monotonicMs() + ms, std::memory_order_relaxed);
}

bool Deadline::passed() const
{
    const int64_t u = until.load(std::memory_order_relaxed);
    return u != 0 && monotonicMs() >= u;
}

void Deadline::install(AVFormatContext* ctx, Deadline* d)
{
    ctx->interrupt_callback.callback = deadlineCallback;
    ctx->interrupt_callback.opaque = d;
}

}  // namespace VeskAv
