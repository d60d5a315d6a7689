#include "sim/Peripherals.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QList>
#include <QRegularExpression>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "sim/VirtualBoard.h"

namespace vsim {

namespace {

// The kernel keeps this many unread edge records per request.
constexpr int kEventQueue = 16;

int64_t number(const QVariant& v, bool* ok)
{
    if (v.type() == QVariant::String) return v.toString().toLongLong(ok, 0);
    return v.toLongLong(ok);
}

// Writes without blocking and without SIGPIPE: a reader that went away shows
// as POLLERR on the write end. False when the reader is gone.
bool writeRecord(int fd, const void* data, size_t len, int queueLimit, const char* what)
{
    pollfd p{fd, POLLOUT, 0};
    if (::poll(&p, 1, 0) < 0 || (p.revents & (POLLERR | POLLHUP))) return false;
    int queued = 0;
    if (queueLimit > 0 && ::ioctl(fd, FIONREAD, &queued) == 0 && queued >= queueLimit) {
        qWarning("virtual board: %s queue full, record dropped", what);
        return true;
    }
    if (::write(fd, data, len) != ssize_t(len))
        qWarning("virtual board: %s record not delivered (%s)", what, std::strerror(errno));
    return true;
}

// Per-open pipes: the caller reads the read end, the board writes the other.
struct Pipes {
    std::mutex lock;
    QMap<int, int> writers;  // read end -> write end
    QMap<int, bool> enabled;
};

}  // namespace

// ---------------------------------------------------------------- GPIO
struct GpioLines::Line {
    bool external = false;
    bool exported = false;
    bool output = false;
    bool outLevel = false;
    int writer = -1;  // write end of the event request's pipe
    QString consumer;
};

struct GpioLines::State {
    mutable std::mutex lock;
    int64_t epoch = monotonicNs();
    QMap<int, Line> lines;
    QString root;
};

class GpioChip : public Device {
public:
    explicit GpioChip(int index) : index(index) {}
    long ioctl(uint64_t&, unsigned long request, void* arg, unsigned long) override
    {
        if (request != GPIO_GET_LINEEVENT_IOCTL) return -ENOTTY;
        return GpioLines::instance().request(index, arg);
    }

private:
    int index;
};

GpioLines::GpioLines() : s(std::make_shared<State>()) {}

GpioLines& GpioLines::instance()
{
    static GpioLines* lines = new GpioLines;
    return *lines;
}

int64_t GpioLines::monotonicNs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

GpioLines::Line& GpioLines::line(int group, int pin)
{
    return s->lines[group * kGpioLinesPerChip + pin];
}

void GpioLines::reset()
{
    std::lock_guard<std::mutex> g(s->lock);
    for (const Line& l : s->lines)
        if (l.writer >= 0) ::close(l.writer);
    s->lines.clear();
    s->epoch = monotonicNs();
}

void GpioLines::setEpoch(int64_t ns)
{
    std::lock_guard<std::mutex> g(s->lock);
    s->epoch = ns;
}

int64_t GpioLines::epoch() const
{
    std::lock_guard<std::mutex> g(s->lock);
    return s->epoch;
}

bool GpioLines::parseName(const QString& name, int* group, int* pin)
{
    static const QRegularExpression re("^gpio(\\d+)_(\\d+)$",
                                       QRegularExpression::CaseInsensitiveOption);
    auto m = re.match(name);
    if (!m.hasMatch()) return false;
    *group = m.captured(1).toInt();
    *pin = m.captured(2).toInt();
    return *group < kGpioChips && *pin < kGpioLinesPerChip;
}

bool GpioLines::level(int group, int pin) const
{
    std::lock_guard<std::mutex> g(s->lock);
    const Line l = s->lines.value(group * kGpioLinesPerChip + pin);
    return l.output ? l.outLevel : l.external;
}

bool GpioLines::exported(int group, int pin) const
{
    std::lock_guard<std::mutex> g(s->lock);
    return s->lines.value(group * kGpioLinesPerChip + pin).exported;
}

bool GpioLines::isOutput(int group, int pin) const
{
    std::lock_guard<std::mutex> g(s->lock);
    return s->lines.value(group * kGpioLinesPerChip + pin).output;
}

QString GpioLines::consumer(int group, int pin) const
{
    std::lock_guard<std::mutex> g(s->lock);
    return s->lines.value(group * kGpioLinesPerChip + pin).consumer;
}

// The sysfs files of an exported line, as the kernel shows them.
void GpioLines::syncFiles(int n)
{
    QString dir;
    QByteArray direction, value;
    {
        std::lock_guard<std::mutex> g(s->lock);
        const Line l = s->lines.value(n);
        if (!l.exported) return;
        dir = QString("/sys/class/gpio/gpio%1/").arg(n);
        direction = l.output ? "out\n" : "in\n";
        value = (l.output ? l.outLevel : l.external) ? "1\n" : "0\n";
    }
    Board::instance().writeFile(dir + "direction", direction);
    Board::instance().writeFile(dir + "value", value);
}

void GpioLines::drive(int group, int pin, bool level, int64_t timestampNs)
{
    if (group < 0 || group >= kGpioChips || pin < 0 || pin >= kGpioLinesPerChip) return;
    {
        std::lock_guard<std::mutex> g(s->lock);
        Line& l = line(group, pin);
        l.external = level;
        if (l.writer >= 0) {
            gpioevent_data e{};
            e.timestamp = uint64_t(timestampNs);
            e.id = level ? GPIOEVENT_EVENT_RISING_EDGE : GPIOEVENT_EVENT_FALLING_EDGE;
            if (!writeRecord(l.writer, &e, sizeof e, kEventQueue * int(sizeof e), "GPIO event")) {
                // The watcher closed its descriptor: the line is free again.
                ::close(l.writer);
                l.writer = -1;
                l.consumer.clear();
            }
        }
    }
    syncFiles(group * kGpioLinesPerChip + pin);
}

long GpioLines::request(int chip, void* arg)
{
    if (!arg) return -EFAULT;
    gpioevent_request req;
    std::memcpy(&req, arg, sizeof req);
    if (req.lineoffset >= uint32_t(kGpioLinesPerChip)) return -EINVAL;
    if ((req.handleflags & GPIOHANDLE_REQUEST_OUTPUT) ||
        (req.eventflags & ~uint32_t(GPIOEVENT_REQUEST_BOTH_EDGES)) || !req.eventflags)
        return -EINVAL;
    std::lock_guard<std::mutex> g(s->lock);
    Line& l = line(chip, int(req.lineoffset));
    if (l.writer >= 0 || l.exported) return -EBUSY;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -errno;
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    l.writer = ends[1];
    l.consumer = QString::fromLatin1(req.consumer_label,
                                     int(strnlen(req.consumer_label, sizeof req.consumer_label)));
    req.fd = ends[0];
    std::memcpy(arg, &req, sizeof req);
    return 0;
}

int GpioLines::shell(const QString& text)
{
    static const QRegularExpression re(
        "^echo\\s+(\\S+)\\s*>\\s*/sys/class/gpio/(export|unexport|gpio(\\d+)/"
        "(direction|value))\\s*$");
    auto m = re.match(text.trimmed());
    if (!m.hasMatch()) return -1;
    const QString word = m.captured(1);
    bool ok = false;
    int n = m.captured(3).isEmpty() ? word.toInt(&ok) : m.captured(3).toInt(&ok);
    if (!ok || n < 0 || n >= kGpioChips * kGpioLinesPerChip) return 1;  // EINVAL
    const QString file = m.captured(2);
    {
        std::lock_guard<std::mutex> g(s->lock);
        Line& l = s->lines[n];
        if (file == "export") {
            if (l.exported || l.writer >= 0) return 1;  // EBUSY
            l.exported = true;
            l.output = false;
        } else if (file == "unexport") {
            if (!l.exported) return 1;
            l.exported = false;
            l.output = false;
        } else if (!l.exported) {
            return 1;  // no such file
        } else if (m.captured(4) == "direction") {
            if (word == "in") {
                l.output = false;
            } else if (word == "out" || word == "low" || word == "high") {
                l.output = true;
                l.outLevel = word == "high";
            } else {
                return 1;
            }
        } else {
            bool isNumber = false;
            int v = word.toInt(&isNumber);
            if (!l.output || !isNumber) return 1;  // EPERM on an input, EINVAL on text
            l.outLevel = v != 0;
        }
    }
    if (file == "unexport")
        QDir(Board::instance().hostPath(QString("/sys/class/gpio/gpio%1").arg(n)))
            .removeRecursively();
    else
        syncFiles(n);
    return 0;
}

// ---------------------------------------------------------------- infra-red
namespace {
Pipes& irPipes()
{
    static Pipes* p = new Pipes;
    return *p;
}
std::atomic<int> irEnableCount{0};

class IrReceiver : public Device {
public:
    int makeFd() override
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        std::lock_guard<std::mutex> g(irPipes().lock);
        irPipes().writers[ends[0]] = ends[1];
        return ends[0];
    }
    uint64_t cookieFor(int fd) override { return uint64_t(fd); }
    long ioctl(uint64_t& cookie, unsigned long request, void*, unsigned long iarg) override
    {
        // Request 2 switches reception on (1) or off (0).
        if (request != 2) return -ENOTTY;
        std::lock_guard<std::mutex> g(irPipes().lock);
        irPipes().enabled[int(cookie)] = iarg != 0;
        if (iarg) irEnableCount++;
        return 0;
    }
    long read(uint64_t& cookie, void* buf, size_t len) override
    {
        ssize_t n = ::read(int(cookie), buf, len);
        return n < 0 ? -errno : n;
    }
};
}  // namespace

void irSend(const QByteArray& bytes)
{
    std::lock_guard<std::mutex> g(irPipes().lock);
    Pipes& p = irPipes();
    for (auto it = p.writers.begin(); it != p.writers.end();) {
        bool on = p.enabled.value(it.key());
        if (on && !writeRecord(it.value(), bytes.constData(), size_t(bytes.size()), 0, "IR")) {
            ::close(it.value());
            p.enabled.remove(it.key());
            it = p.writers.erase(it);
        } else {
            ++it;
        }
    }
}

QByteArray irRecord(uint32_t high, uint32_t low, uint32_t state)
{
    uint32_t words[3] = {high, low, state};
    return QByteArray(reinterpret_cast<const char*>(words), sizeof words);
}

int irEnables()
{
    return irEnableCount;
}

// ---------------------------------------------------------------- wall clock
namespace {
std::atomic<int64_t> clockOffset{0};
}

void setWallClock(int64_t msSinceEpoch)
{
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    int64_t now = int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
    clockOffset = msSinceEpoch * 1000000 - now;
}

void followHostClock()
{
    clockOffset = 0;
}

int64_t wallClockOffsetNs()
{
    return clockOffset;
}

// ---------------------------------------------------------------- wiring
void installPeripherals(QMap<QString, std::shared_ptr<Device>>& devices, const QString& root)
{
    GpioLines::instance().reset();
    if (!root.isEmpty()) QDir(root + "/sys/class/gpio").removeRecursively();
    for (int i = 0; i < kGpioChips; i++)
        devices[QString("/dev/gpiochip%1").arg(i)] = std::make_shared<GpioChip>(i);
    {
        std::lock_guard<std::mutex> g(irPipes().lock);
        for (int w : irPipes().writers) ::close(w);
        irPipes().writers.clear();
        irPipes().enabled.clear();
    }
    irEnableCount = 0;
    auto ir = std::make_shared<IrReceiver>();
    devices["/dev/OT_IR"] = ir;
    devices["/dev/Hi_IR"] = ir;
    followHostClock();
}

bool applyPeripheralStep(const QVariantMap& step, QString* error, bool* handled)
{
    *handled = true;
    auto fail = [error](const QString& why) {
        if (error) *error = "scenario: " + why;
        return false;
    };
    const int64_t at = int64_t(step.value("at").toDouble() * 1e9);
    if (step.contains("gpio")) {
        int group = 0, pin = 0;
        if (!GpioLines::parseName(step.value("gpio").toString(), &group, &pin))
            return fail(QString("\"gpio\" needs a line GPIO<0-%1>_<0-%2>")
                            .arg(kGpioChips - 1)
                            .arg(kGpioLinesPerChip - 1));
        QVariantList edges = step.value("edges").toList();
        if (step.contains("level")) edges.prepend(QVariantMap{{"ms", 0}, {"level", step["level"]}});
        const int64_t base = GpioLines::instance().epoch() + at;
        for (const QVariant& e : edges) {
            QVariantMap m = e.toMap();
            int64_t ns = base + int64_t(m.value("ms").toDouble() * 1e6);
            GpioLines::instance().drive(group, pin, m.value("level").toInt() != 0, ns);
        }
        return true;
    }
    if (step.contains("ir")) {
        QVariantMap m = step.value("ir").toMap();
        if (m.contains("hex")) {
            irSend(QByteArray::fromHex(m.value("hex").toString().toLatin1()));
            return true;
        }
        bool ok1 = false, ok2 = false, ok3 = true;
        uint32_t high = uint32_t(number(m.value("high"), &ok1));
        uint32_t low = uint32_t(number(m.value("low"), &ok2));
        uint32_t state = m.contains("state") ? uint32_t(number(m.value("state"), &ok3)) : 0;
        if (!ok1 || !ok2 || !ok3) return fail("\"ir\" needs \"high\" and \"low\", or \"hex\"");
        irSend(irRecord(high, low, state));
        return true;
    }
    if (step.contains("clock")) {
        QString when = step.value("clock").toString();
        if (when == "host") {
            followHostClock();
            return true;
        }
        QDateTime t = QDateTime::fromString(when, Qt::ISODate);
        if (!t.isValid()) return fail("\"clock\" needs an ISO date and time or \"host\"");
        setWallClock(t.toMSecsSinceEpoch());
        return true;
    }
    if (step.contains("mem")) {
        bool ok1 = false, ok2 = false;
        int64_t addr = number(step.value("mem"), &ok1);
        int64_t value = number(step.value("value"), &ok2);
        if (!ok1 || !ok2 || addr < 0 || (addr & 3))
            return fail("\"mem\" needs an aligned address and a \"value\"");
        Board::instance().setMem32(uint64_t(addr), uint32_t(value));
        return true;
    }
    *handled = false;
    return false;
}

}  // namespace vsim
