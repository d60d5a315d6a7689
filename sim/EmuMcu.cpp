#include "sim/EmuMcu.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>

namespace vsim {

namespace {
const QByteArray kDelimiter = "#####";
// What the library sends is a few hundred bytes a frame; anything beyond
// this without a delimiter is not a frame.
constexpr int kInboxCap = 1 << 20;
}  // namespace

EmuMcu::~EmuMcu()
{
    {
        std::lock_guard<std::mutex> g(lock);
        quit = true;
    }
    if (wake >= 0) {
        const uint64_t one = 1;
        (void)!::write(wake, &one, sizeof one);
    }
    if (worker.joinable()) worker.join();
    // Only our own link goes: a newer line may stand there already.
    QFileInfo at(link);
    if (at.isSymLink() && master >= 0 &&
        at.symLinkTarget() == QString::fromLocal8Bit(ptsname(master)))
        QFile::remove(link);
    for (int fd : {master, slave, wake})
        if (fd >= 0) ::close(fd);
}

void EmuMcu::attach(const QVariantMap& settings)
{
    version = settings.value("version", "vesk-mcu 1.0 (virtual)").toString();
    cfgtype = settings.value("cfgtype", "1").toString();
    mode = settings.value("on_mode", "on").toString();
    temperature = settings.value("temp", 40).toInt();
    period = settings.value("period", 1.0).toDouble();
    const QVariantMap in = settings.value("inputs").toMap();
    for (auto it = in.begin(); it != in.end(); ++it) inputs[it.key()] = it.value().toMap();
    firstInput =
        settings.value("input", inputs.isEmpty() ? QString() : inputs.firstKey()).toString();

    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        qWarning() << "mcu emulator: no pseudo-terminal:" << strerror(errno);
        return;
    }
    // Raw from the start, and the slave stays open here as a UART stays
    // powered: the library may close and reopen its end at any time.
    termios tio;
    if (::tcgetattr(slave, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(slave, TCSANOW, &tio);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

    link = Board::instance().hostPath(settings.value("path", "/dev/ttyAMA2").toString());
    QDir().mkpath(QFileInfo(link).path());
    QFile::remove(link);
    if (!QFile::link(QString::fromLocal8Bit(ptsname(master)), link))
        qWarning() << "mcu emulator: cannot link" << link;
    nextReport = Clock::now();
    worker = std::thread([this] { run(); });
}

void EmuMcu::setSource(const QVariantMap& source)
{
    setInput(firstInput, source);
}

void EmuMcu::setInput(const QString& name, const QVariantMap& status)
{
    QVariantMap m{{"Cmd", "res_info"}, {"name", name}};
    m.insert(status.isEmpty() ? QVariantMap{{"lock", 0}} : status);
    {
        std::lock_guard<std::mutex> g(lock);
        inputs[name] = status.isEmpty() ? QVariantMap{{"lock", 0}} : status;
    }
    send(m);
}

QByteArray EmuMcu::frame(const QVariantMap& message)
{
    return QJsonDocument(QJsonObject::fromVariantMap(message)).toJson(QJsonDocument::Compact) +
           kDelimiter;
}

void EmuMcu::send(const QVariantMap& message)
{
    std::unique_lock<std::mutex> g(lock);
    QByteArray bytes = noise.toUtf8() + frame(message);
    noise.clear();
    if (splitNext) {
        splitNext = false;
        const int half = bytes.size() / 2;
        g.unlock();
        enqueue(bytes.left(half));
        enqueue(bytes.mid(half), std::chrono::milliseconds(30));
        return;
    }
    g.unlock();
    enqueue(bytes);
}

void EmuMcu::sendRaw(const QByteArray& bytes, double delaySeconds)
{
    enqueue(bytes, std::chrono::milliseconds(qint64(delaySeconds * 1000)));
}

void EmuMcu::enqueue(const QByteArray& bytes, Clock::duration delay)
{
    {
        std::lock_guard<std::mutex> g(lock);
        Clock::time_point due = Clock::now() + delay;
        // Never ahead of what was asked before.
        if (!outgoing.empty() && outgoing.back().first > due) due = outgoing.back().first;
        outgoing.emplace_back(due, bytes);
    }
    const uint64_t one = 1;
    (void)!::write(wake, &one, sizeof one);
}

void EmuMcu::setPeriod(double seconds)
{
    {
        std::lock_guard<std::mutex> g(lock);
        period = seconds;
        nextReport = Clock::now() + std::chrono::milliseconds(qint64(seconds * 1000));
    }
    const uint64_t one = 1;
    (void)!::write(wake, &one, sizeof one);
}

void EmuMcu::silence(double seconds)
{
    std::lock_guard<std::mutex> g(lock);
    quietUntil = Clock::now() + std::chrono::milliseconds(qint64(seconds * 1000));
}

bool EmuMcu::applyStep(const QVariantMap& step, QString* error)
{
    if (step.contains("input")) {
        setInput(step.value("input").toString(), step.value("source").toMap());
    } else if (step.contains("source")) {
        setSource(step.value("source").toMap());
    } else if (step.contains("key")) {
        send({{"Cmd", "key"},
              {"key", step.value("key").toString()},
              {"act", step.value("act", "press").toString()}});
    } else if (step.contains("silent")) {
        silence(step.value("silent").toDouble());
    } else if (step.contains("noise")) {
        std::lock_guard<std::mutex> g(lock);
        noise = step.value("noise").toString();
    } else if (step.contains("split")) {
        std::lock_guard<std::mutex> g(lock);
        splitNext = step.value("split").toBool();
    } else if (step.contains("garbage")) {
        sendRaw(step.value("garbage").toString().toUtf8() + kDelimiter);
    } else if (step.contains("big")) {
        QVariantMap m;
        {
            std::lock_guard<std::mutex> g(lock);
            m = inputs.value(firstInput, {{"lock", 0}});
        }
        m["Cmd"] = "res_info";
        m["name"] = firstInput;
        m["pad"] = QString(qMax(0, step.value("big").toInt() - int(frame(m).size()) - 10), 'x');
        send(m);
    } else if (step.contains("temp")) {
        {
            std::lock_guard<std::mutex> g(lock);
            temperature = step.value("temp").toInt();
        }
        send({{"Cmd", "temp"}, {"value", step.value("temp").toInt()}});
    } else if (step.contains("cfg_info")) {
        QVariantMap m = step.value("cfg_info").toMap();
        m["Cmd"] = "cfg_info";
        send(m);
    } else if (step.contains("send")) {
        send(step.value("send").toMap());
    } else if (step.contains("raw")) {
        sendRaw(step.value("raw").toString().toUtf8());
    } else if (step.contains("period")) {
        setPeriod(step.value("period").toDouble());
    } else {
        if (error)
            *error =
                "scenario: a microcontroller step needs \"input\", \"source\", \"key\", "
                "\"silent\", \"noise\", \"split\", \"garbage\", \"big\", \"temp\", "
                "\"cfg_info\", \"send\", \"raw\" or \"period\"";
        return false;
    }
    return true;
}

QList<QVariantMap> EmuMcu::received() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

int EmuMcu::count(const QString& cmd) const
{
    std::lock_guard<std::mutex> g(lock);
    int n = 0;
    for (const QVariantMap& m : log) n += m.value("Cmd").toString() == cmd;
    return n;
}

QString EmuMcu::onMode() const
{
    std::lock_guard<std::mutex> g(lock);
    return mode;
}

qint64 EmuMcu::dropped() const
{
    std::lock_guard<std::mutex> g(lock);
    return lost;
}

void EmuMcu::run()
{
    char buf[4096];
    for (;;) {
        int timeout = -1;
        {
            std::lock_guard<std::mutex> g(lock);
            if (quit) return;
            auto next = Clock::time_point::max();
            if (period > 0) next = nextReport;
            if (!outgoing.empty()) next = std::min(next, outgoing.front().first);
            if (next != Clock::time_point::max()) {
                auto ms =
                    std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
                timeout = int(qBound<qint64>(0, ms.count() + 1, 60000));
            }
        }
        pollfd fds[2] = {{master, POLLIN, 0}, {wake, POLLIN, 0}};
        ::poll(fds, 2, timeout);
        if (fds[1].revents & POLLIN) {
            uint64_t n;
            (void)!::read(wake, &n, sizeof n);
        }
        if (fds[0].revents & POLLIN) {
            const ssize_t n = ::read(master, buf, sizeof buf);
            if (n > 0) take(QByteArray(buf, int(n)));
        }

        std::lock_guard<std::mutex> g(lock);
        if (quit) return;
        const auto now = Clock::now();
        if (period > 0 && now >= nextReport) {
            if (now >= quietUntil) report();
            nextReport = now + std::chrono::milliseconds(qint64(period * 1000));
        }
        while (!outgoing.empty() && outgoing.front().first <= now) {
            writeOut(outgoing.front().second);
            outgoing.pop_front();
        }
    }
}

// With the lock held.
void EmuMcu::report()
{
    for (auto it = inputs.begin(); it != inputs.end(); ++it) {
        QVariantMap m = it.value();
        m["Cmd"] = "res_info";
        m["name"] = it.key();
        writeOut(frame(m));
    }
    writeOut(frame({{"Cmd", "temp"}, {"value", temperature}}));
}

// With the lock held. Nobody reading the line: what does not fit is lost,
// as on a UART.
void EmuMcu::writeOut(const QByteArray& bytes)
{
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(master, bytes.constData() + done, size_t(bytes.size() - done));
        if (n <= 0) break;
        done += n;
    }
    lost += bytes.size() - done;
}

void EmuMcu::take(const QByteArray& block)
{
    QList<QVariantMap> messages;
    {
        std::lock_guard<std::mutex> g(lock);
        inbox += block;
        int at;
        while ((at = inbox.indexOf(kDelimiter)) >= 0) {
            QByteArray text = inbox.left(at);
            inbox.remove(0, at + kDelimiter.size());
            const int brace = text.indexOf('{');
            if (brace < 0) continue;
            const QJsonDocument doc = QJsonDocument::fromJson(text.mid(brace));
            if (doc.isObject()) messages << doc.object().toVariantMap();
        }
        if (inbox.size() > kInboxCap) inbox.clear();
    }
    for (const QVariantMap& m : messages) handle(m);
}

void EmuMcu::handle(const QVariantMap& message)
{
    const QString cmd = message.value("Cmd").toString();
    QString reportMode, reportType;
    {
        std::lock_guard<std::mutex> g(lock);
        log << message;
        changed.notify_all();
        if (cmd == "config") mode = message.value("on_mode").toString();
        reportMode = mode;
        reportType = cfgtype;
    }
    if (cmd == "GetVer") {
        send({{"Cmd", "Version"}, {"value", version}});
        send({{"Cmd", "cfg_info"}, {"on_mode", reportMode}, {"cfgtype", reportType}});
    } else if (cmd == "config") {
        // The new configuration is reported back, as the firmware does.
        send({{"Cmd", "cfg_info"}, {"on_mode", reportMode}, {"cfgtype", reportType}});
    }
}

static bool registered = registerChipType("Vesk", [] { return std::make_shared<EmuMcu>(); });

}  // namespace vsim
