#include "sim/UsbSound.h"

// The plug-in below is looked up by ALSA in this shared library, as a
// dynamically loaded one.
#ifndef PIC
#define PIC
#endif
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <dlfcn.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>

#include "sim/VirtualBoard.h"

namespace vsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Cards the board can number; the kernel allows as many.
constexpr int kMaxCards = 32;
// What a card keeps of its playback, so that a long run cannot grow the
// process without end.
constexpr int kMaxPlayed = 64 << 20;
constexpr long kTickNs = 5000000;

int64_t monoNs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Direction {
    bool present = false;
    QList<unsigned> formats;  // snd_pcm_format_t values
    QList<unsigned> rates;
    QList<unsigned> channels;
};

struct CardState {
    UsbSound::Card pub;
    uint64_t generation = 0;  // of the plug, unique in the process
    QString bus, id, port;
    Direction capture, playback;
    double tone = 0, level = 0.25;
    QByteArray file;  // raw S16_LE capture source
};

QList<unsigned> numbers(const QVariant& v, const QList<unsigned>& fallback)
{
    QList<unsigned> out;
    if (v.type() == QVariant::List) {
        for (const QVariant& e : v.toList())
            if (e.toInt() > 0) out << e.toUInt();
    } else if (v.isValid() && v.toInt() > 0) {
        out << v.toUInt();
    }
    return out.isEmpty() ? fallback : out;
}

bool formatsOf(const QVariant& v, QList<unsigned>* out, QString* error)
{
    QStringList names = v.isValid() ? v.toStringList() : QStringList{"S16_LE"};
    if (names.isEmpty()) names << "S16_LE";
    for (const QString& n : names) {
        const snd_pcm_format_t f = snd_pcm_format_value(n.toLatin1().constData());
        if (f == SND_PCM_FORMAT_UNKNOWN || snd_pcm_format_physical_width(f) <= 0 ||
            !snd_pcm_format_linear(f)) {
            if (error) *error = QString("usbsound: unknown or non-linear format \"%1\"").arg(n);
            return false;
        }
        *out << unsigned(f);
    }
    return true;
}

QString describe(const QString& title, const Direction& d, int iface, const QString& ep)
{
    QString s = title + ":\n  Status: Stop\n";
    for (unsigned f : d.formats) {
        QStringList rates;
        for (unsigned r : d.rates) rates << QString::number(r);
        s += QString(
                 "  Interface %1\n    Altset 1\n    Format: %2\n    Channels: %3\n"
                 "    Endpoint: %4\n    Rates: %5\n    Bits: %6\n")
                 .arg(iface)
                 .arg(snd_pcm_format_name(snd_pcm_format_t(f)))
                 .arg(d.channels.value(d.channels.size() - 1))
                 .arg(ep)
                 .arg(rates.join(", "))
                 .arg(snd_pcm_format_width(snd_pcm_format_t(f)));
    }
    return s;
}

}  // namespace

struct UsbSound::Impl {
    std::mutex lock;
    QString root;
    QMap<QString, CardState> cards;
    // A handle belongs to one plug of its card, also across fresh boards.
    uint64_t plugs = 0;

    CardState* byNumber(int n)
    {
        for (CardState& c : cards)
            if (c.pub.plugged && c.pub.number == n) return &c;
        return nullptr;
    }
};

// ---------------------------------------------------------------- the plug-in
namespace {

struct Pcm {
    snd_pcm_ioplug_t io{};
    QString card;
    uint64_t generation = 0;
    int tfd = -1;
    bool running = false;
    int64_t startNs = 0;
    uint64_t transferred = 0;  // frames through transfer since prepare
    uint64_t hw = 0;           // frames the card has done since start
    uint64_t sourceFrame = 0;  // capture: position in the tone or file
    unsigned frameBytes = 0;
};

UsbSound::Impl& impl();

// The card behind a handle, if it is still the one that was opened.
CardState* cardOf(Pcm* p)
{
    auto it = impl().cards.find(p->card);
    if (it == impl().cards.end() || !it->pub.plugged || it->generation != p->generation)
        return nullptr;
    return &*it;
}

// Playback: when the card will have played all it was given.
void noteDry(Pcm* p, CardState* c)
{
    if (p->io.stream == SND_PCM_STREAM_PLAYBACK && p->running && p->io.rate)
        c->pub.dryAtNs = p->startNs + int64_t(double(p->transferred) * 1e9 / p->io.rate);
}

int pcmStart(snd_pcm_ioplug_t* io)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    std::lock_guard<std::mutex> g(impl().lock);
    CardState* c = cardOf(p);
    if (!c) return -ENODEV;
    p->running = true;
    p->startNs = monoNs();
    p->hw = 0;
    noteDry(p, c);
    return 0;
}

int pcmStop(snd_pcm_ioplug_t* io)
{
    static_cast<Pcm*>(io->private_data)->running = false;
    return 0;
}

int pcmPrepare(snd_pcm_ioplug_t* io)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    {
        std::lock_guard<std::mutex> g(impl().lock);
        if (!cardOf(p)) return -ENODEV;
    }
    p->running = false;
    p->transferred = p->hw = 0;
    return 0;
}

snd_pcm_sframes_t pcmPointer(snd_pcm_ioplug_t* io)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    {
        std::lock_guard<std::mutex> g(impl().lock);
        if (!cardOf(p)) {
            // As the kernel does for a card that went away: every later call
            // fails with ENODEV, preparing it again included.
            snd_pcm_ioplug_set_state(io, SND_PCM_STATE_DISCONNECTED);
            return io->buffer_size ? snd_pcm_sframes_t(p->hw % io->buffer_size) : 0;
        }
    }
    if (!io->buffer_size) return 0;
    if (p->running && io->rate) {
        const uint64_t due = uint64_t((monoNs() - p->startNs) * double(io->rate) / 1e9);
        if (io->stream == SND_PCM_STREAM_PLAYBACK) {
            // The card ran dry: every frame written has been played.
            if (due >= p->transferred) {
                snd_pcm_ioplug_set_state(io, SND_PCM_STATE_XRUN);
                return snd_pcm_sframes_t(p->hw % io->buffer_size);
            }
            p->hw = due;
        } else {
            // A full buffer holds the clock back, so that the handle never
            // sees more than a buffer's worth of frames at once.
            const uint64_t limit = p->transferred + io->buffer_size - 1;
            if (due > limit) {
                p->startNs += int64_t(double(due - limit) * 1e9 / io->rate);
                p->hw = limit;
            } else {
                p->hw = due;
            }
        }
    }
    return snd_pcm_sframes_t(p->hw % io->buffer_size);
}

void fillCapture(Pcm* p, CardState* c, char* at, snd_pcm_uframes_t frames, unsigned channels,
                 snd_pcm_format_t format)
{
    const int width = snd_pcm_format_physical_width(format) / 8;
    for (snd_pcm_uframes_t i = 0; i < frames; ++i, ++p->sourceFrame) {
        for (unsigned ch = 0; ch < channels; ++ch) {
            int32_t s16 = 0;
            if (!c->file.isEmpty()) {
                const qint64 at16 = qint64(p->sourceFrame * channels + ch) * 2;
                if (at16 + 1 < c->file.size())
                    s16 =
                        int16_t(uint8_t(c->file[int(at16)]) | uint8_t(c->file[int(at16) + 1]) << 8);
            } else if (c->tone > 0) {
                s16 = int32_t(std::lround(
                    c->level * 32767 *
                    std::sin(2 * kPi * c->tone * double(p->sourceFrame) / double(p->io.rate))));
            }
            // 16-bit samples go to the top of wider formats.
            const int64_t wide = int64_t(s16) * (int64_t(1) << (snd_pcm_format_width(format) - 16));
            for (int b = 0; b < width; ++b) at[b] = char(wide >> (8 * b));
            at += width;
        }
    }
}

snd_pcm_sframes_t pcmTransfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                              snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    std::lock_guard<std::mutex> g(impl().lock);
    CardState* c = cardOf(p);
    if (!c) return -ENODEV;
    char* at = static_cast<char*>(areas[0].addr) + areas[0].first / 8 + offset * areas[0].step / 8;
    const qint64 bytes = qint64(size) * p->frameBytes;
    if (io->stream == SND_PCM_STREAM_PLAYBACK) {
        QFile f(c->pub.playedFile);
        if (f.open(QIODevice::WriteOnly | QIODevice::Append) && f.size() + bytes <= kMaxPlayed)
            f.write(at, bytes);
    } else {
        fillCapture(p, c, at, size, io->channels, io->format);
        c->pub.captured += size;
    }
    p->transferred += size;
    noteDry(p, c);
    return snd_pcm_sframes_t(size);
}

int pcmHwParams(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    p->frameBytes = unsigned(snd_pcm_format_physical_width(io->format) / 8) * io->channels;
    if (io->stream != SND_PCM_STREAM_PLAYBACK) return 0;
    std::lock_guard<std::mutex> g(impl().lock);
    if (CardState* c = cardOf(p)) {
        c->pub.playFormat = snd_pcm_format_name(io->format);
        c->pub.playChannels = int(io->channels);
        c->pub.playRate = int(io->rate);
        c->pub.periodFrames = long(io->period_size);
        c->pub.bufferFrames = long(io->buffer_size);
    }
    return 0;
}

int pcmPollRevents(snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                   unsigned short* revents)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    uint64_t ticks;
    while (::read(p->tfd, &ticks, sizeof ticks) > 0) {
    }
    *revents = 0;
    if (nfds && (pfd[0].revents & POLLIN))
        *revents = io->stream == SND_PCM_STREAM_PLAYBACK ? POLLOUT : POLLIN;
    std::lock_guard<std::mutex> g(impl().lock);
    if (!cardOf(p)) *revents |= POLLERR;
    return 0;
}

int pcmClose(snd_pcm_ioplug_t* io)
{
    auto* p = static_cast<Pcm*>(io->private_data);
    if (p->tfd >= 0) ::close(p->tfd);
    delete p;
    return 0;
}

const snd_pcm_ioplug_callback_t kCallbacks = [] {
    snd_pcm_ioplug_callback_t cb{};
    cb.start = pcmStart;
    cb.stop = pcmStop;
    cb.pointer = pcmPointer;
    cb.transfer = pcmTransfer;
    cb.close = pcmClose;
    cb.hw_params = pcmHwParams;
    cb.prepare = pcmPrepare;
    cb.poll_revents = pcmPollRevents;
    return cb;
}();

int setList(snd_pcm_ioplug_t* io, int type, const QList<unsigned>& values)
{
    std::vector<unsigned> v(values.begin(), values.end());
    return snd_pcm_ioplug_set_param_list(io, type, unsigned(v.size()), v.data());
}

}  // namespace

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(vesk_usb)
{
    (void)root;
    long number = -1, device = 0;
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t* n = snd_config_iterator_entry(i);
        const char* id;
        if (snd_config_get_id(n, &id) < 0) continue;
        if (!std::strcmp(id, "card")) {
            const char* s = nullptr;
            if (snd_config_get_integer(n, &number) < 0) {
                char* end = nullptr;
                if (snd_config_get_string(n, &s) < 0 || !s || !*s) return -EINVAL;
                number = std::strtol(s, &end, 10);
                if (*end) return -ENODEV;  // cards here have numbers only
            }
        } else if (!std::strcmp(id, "device")) {
            if (snd_config_get_integer(n, &device) < 0) return -EINVAL;
        }
    }

    auto p = std::make_unique<Pcm>();
    Direction dir;
    {
        std::lock_guard<std::mutex> g(impl().lock);
        CardState* c = number >= 0 && number < kMaxCards ? impl().byNumber(int(number)) : nullptr;
        if (!c || device != 0) return -ENODEV;
        dir = stream == SND_PCM_STREAM_PLAYBACK ? c->playback : c->capture;
        if (!dir.present) return -ENODEV;
        p->card = c->pub.name;
        p->generation = c->generation;
        ++(stream == SND_PCM_STREAM_PLAYBACK ? c->pub.playbackOpens : c->pub.captureOpens);
    }
    p->tfd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (p->tfd < 0) return -errno;
    itimerspec tick{{0, kTickNs}, {0, kTickNs}};
    ::timerfd_settime(p->tfd, 0, &tick, nullptr);

    p->io.version = SND_PCM_IOPLUG_VERSION;
    p->io.name = "Virtual board USB sound";
    p->io.poll_fd = p->tfd;
    p->io.poll_events = POLLIN;
    p->io.mmap_rw = 0;
    p->io.callback = &kCallbacks;
    p->io.private_data = p.get();
    int err = snd_pcm_ioplug_create(&p->io, name, stream, mode);
    if (err < 0) {
        ::close(p->tfd);
        return err;
    }
    // Mapped access is what the conversions of "plughw" write through.
    const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    // Capture periods of some size keep the reader's packets near those of a
    // real card; playback takes whatever period it is asked for.
    const unsigned minPeriod = stream == SND_PCM_STREAM_CAPTURE ? 2048 : 64;
    if ((err = snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_ACCESS, 2, access)) < 0 ||
        (err = setList(&p->io, SND_PCM_IOPLUG_HW_FORMAT, dir.formats)) < 0 ||
        (err = setList(&p->io, SND_PCM_IOPLUG_HW_CHANNELS, dir.channels)) < 0 ||
        (err = setList(&p->io, SND_PCM_IOPLUG_HW_RATE, dir.rates)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, minPeriod,
                                               1 << 20)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_BUFFER_BYTES,
                                               2 * minPeriod, 4 << 20)) < 0 ||
        (err = snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1 << 20)) <
            0) {
        snd_pcm_ioplug_delete(&p->io);  // closes through pcmClose
        p.release();
        return err;
    }
    *pcmp = p->io.pcm;
    p.release();
    return 0;
}
SND_PCM_PLUGIN_SYMBOL(vesk_usb)

}  // extern "C"

// ---------------------------------------------------------------- the board side
namespace {

UsbSound::Impl& impl()
{
    static UsbSound::Impl* d = new UsbSound::Impl;
    return *d;
}

QString ownLibrary()
{
    Dl_info info{};
    if (!::dladdr(reinterpret_cast<void*>(&monoNs), &info) || !info.dli_fname) return QString();
    return QFileInfo(QString::fromLocal8Bit(info.dli_fname)).absoluteFilePath();
}

QString alsaConfig()
{
    const QString args =
        "  @args [ CARD DEV SUBDEV ]\n"
        "  @args.CARD { type string }\n"
        "  @args.DEV { type integer default 0 }\n"
        "  @args.SUBDEV { type integer default -1 }\n";
    return QString(
               "pcm_type.vesk_usb { lib \"%1\" open \"_snd_pcm_vesk_usb_open\" }\n"
               "pcm.hw {\n%2  type vesk_usb\n  card $CARD\n  device $DEV\n}\n"
               "pcm.plughw {\n%2  type plug\n"
               "  slave.pcm { type vesk_usb card $CARD device $DEV }\n}\n")
        .arg(ownLibrary(), args);
}

QString cardDir(int n)
{
    return QString("/proc/asound/card%1").arg(n);
}

QString classLink(int n)
{
    return QString("/sys/class/sound/card%1").arg(n);
}

QString deviceDir(const QString& port)
{
    return "/sys/devices/platform/usb/usb1/" + port;
}

// Removes what a card put into the board's files; `root` is the board's.
void removeEntries(const QString& root, const CardState& c)
{
    QDir(root + cardDir(c.pub.number)).removeRecursively();
    QFile::remove(root + classLink(c.pub.number));
    if (!c.port.isEmpty() && !c.port.contains(".."))
        QDir(root + deviceDir(c.port)).removeRecursively();
}

}  // namespace

UsbSound::UsbSound() : d(&impl()) {}

UsbSound& UsbSound::instance()
{
    static UsbSound* s = new UsbSound;
    return *s;
}

UsbSound::Card UsbSound::card(const QString& name) const
{
    std::lock_guard<std::mutex> g(d->lock);
    return d->cards.value(name).pub;
}

void UsbSound::install(const QString& root)
{
    std::lock_guard<std::mutex> g(d->lock);
    for (CardState& c : d->cards)
        if (c.pub.plugged && !d->root.isEmpty()) removeEntries(d->root, c);
    d->cards.clear();
    d->root = root;
    if (root.isEmpty()) return;
    QDir().mkpath(root + "/alsa");
    const QString path = root + "/alsa/asound.conf";
    // A new file each time, so that ALSA's own check for a changed
    // configuration sees it too.
    QFile f(path + ".new");
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        f.write(alsaConfig().toUtf8());
        f.close();
        QFile::remove(path);
        f.rename(path);
    }
    if (qgetenv("ALSA_CONFIG_PATH") != path.toLocal8Bit()) {
        qputenv("ALSA_CONFIG_PATH", path.toLocal8Bit());
        snd_config_update_free_global();
    }
}

bool UsbSound::applyStep(const QVariantMap& step, QString* error, bool* handled)
{
    if (!step.contains("usbsound")) return false;
    *handled = true;
    auto fail = [&](const QString& e) {
        if (error) *error = e;
        return false;
    };
    const QString name = step.value("usbsound").toString();
    if (name.isEmpty()) return fail("usbsound: a card needs a name");
    Board& board = Board::instance();
    const QString root = board.root();
    if (root.isEmpty()) return fail("usbsound: the board is not active");

    if (!step.value("plug").toBool()) {
        std::lock_guard<std::mutex> g(d->lock);
        auto it = d->cards.find(name);
        if (it == d->cards.end() || !it->pub.plugged) return true;
        removeEntries(root, *it);
        it->pub.plugged = false;
        return true;
    }

    bool ok = false;
    const int number = step.value("card").toInt(&ok);
    if (!ok || number < 0 || number >= kMaxCards)
        return fail(QString("usbsound: \"card\" must be 0 to %1").arg(kMaxCards - 1));
    CardState c;
    c.pub.name = name;
    c.pub.number = number;
    c.pub.plugged = true;
    c.bus = step.value("usbbus", "001/002").toString();
    c.id = step.value("usbid", "0d8c:0014").toString();
    c.port = step.value("port", QString("1-%1").arg(number + 1)).toString();
    if (c.port.isEmpty() || c.port.contains('/') || c.port.contains(".."))
        return fail("usbsound: \"port\" must be a plain USB port name such as 1-1.2");
    QString e;
    if (step.contains("capture")) {
        const QVariantMap m = step.value("capture").toMap();
        c.capture.present = true;
        if (!formatsOf(m.value("formats"), &c.capture.formats, &e)) return fail(e);
        c.capture.rates =
            numbers(m.contains("rates") ? m.value("rates") : m.value("rate"), {48000});
        c.capture.channels = numbers(m.value("channels"), {1});
        c.tone = m.value("tone").toDouble();
        c.level = m.value("level", 0.25).toDouble();
        if (!(c.level >= 0 && c.level <= 1)) c.level = 0.25;
        if (m.contains("file")) {
            QFile f(board.hostPath(m.value("file").toString()));
            if (!f.open(QIODevice::ReadOnly)) return fail("usbsound: cannot read capture file");
            c.file = f.read(kMaxPlayed);
        }
    }
    if (step.contains("playback")) {
        const QVariantMap m = step.value("playback").toMap();
        c.playback.present = true;
        if (!formatsOf(m.value("formats"), &c.playback.formats, &e)) return fail(e);
        c.playback.rates = numbers(m.value("rates"), {44100, 48000});
        c.playback.channels = numbers(m.value("channels"), {1, 2});
    }

    std::lock_guard<std::mutex> g(d->lock);
    c.generation = ++d->plugs;
    CardState* other = d->byNumber(number);
    if (other && other->pub.name != name)
        return fail(
            QString("usbsound: card %1 is taken by \"%2\"").arg(number).arg(other->pub.name));
    auto old = d->cards.find(name);
    if (old != d->cards.end()) {
        if (old->pub.plugged) removeEntries(root, *old);
        c.pub.captureOpens = old->pub.captureOpens;
        c.pub.playbackOpens = old->pub.playbackOpens;
        c.pub.captured = old->pub.captured;
        c.pub.playedFile = old->pub.playedFile;
    } else {
        QString safe = name;
        safe.replace(QRegularExpression("[^A-Za-z0-9_-]"), "_");
        c.pub.playedFile = root + "/usbsound/" + safe + ".pcm";
        QDir().mkpath(root + "/usbsound");
        QFile(c.pub.playedFile).open(QIODevice::WriteOnly | QIODevice::Truncate);
    }

    auto write = [&](const QString& boardPath, const QByteArray& content) {
        QDir().mkpath(QFileInfo(root + boardPath).path());
        QFile f(root + boardPath);
        if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(content);
    };
    write(cardDir(number) + "/usbbus", c.bus.toUtf8() + "\n");
    write(cardDir(number) + "/usbid", c.id.toUtf8() + "\n");
    QString stream0 = step.value("stream0").toString();
    if (!step.contains("stream0")) {
        stream0 = QString("Virtual USB Audio %1 at usb-platform-%2, high speed : USB Audio\n\n")
                      .arg(name, c.port);
        if (c.playback.present)
            stream0 += describe("Playback", c.playback, 1, "0x01 (1 OUT) (ADAPTIVE)") + "\n";
        if (c.capture.present) stream0 += describe("Capture", c.capture, 2, "0x82 (2 IN) (ASYNC)");
    }
    write(cardDir(number) + "/stream0", stream0.toUtf8());
    // The class entry points into the device tree, which ends in the port,
    // its interface and the card, as the kernel lays it out.
    const QString dev =
        deviceDir(c.port) + "/" + c.port + ":1.0/sound/card" + QString::number(number);
    QDir().mkpath(root + dev);
    QDir().mkpath(root + "/sys/class/sound");
    const QString target =
        step.contains("link") ? step.value("link").toString() : "../.." + dev.mid(4);
    QFile::remove(root + classLink(number));
    if (step.contains("link")) {
        // A target of the scenario's own is made to resolve, whatever its
        // shape, as long as it stays inside the board's files.
        const QString at = QDir::cleanPath(root + "/sys/class/sound/" + target);
        if (!target.startsWith('/') && at.startsWith(root + "/")) QDir().mkpath(at);
    }
    ::symlink(target.toLocal8Bit().constData(),
              (root + classLink(number)).toLocal8Bit().constData());
    d->cards[name] = c;
    return true;
}

namespace {
const bool registered = registerBoardPart(
    "usbsound", BoardPart{[](QMap<QString, std::shared_ptr<Device>>&, const QString& root) {
                              UsbSound::instance().install(root);
                          },
                          [](const QVariantMap& step, QString* error, bool* handled) {
                              return UsbSound::instance().applyStep(step, error, handled);
                          }});
}  // namespace

}  // namespace vsim
