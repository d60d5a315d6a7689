#include "sim/VirtualBoard.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "sim/AudioIn.h"
#include "sim/I2cBus.h"
#include "sim/MediaPlatform.h"
#include "sim/Peripherals.h"
#include "sim/VideoOut.h"

namespace vsim {

namespace {
// Physical memory behind /dev/mem: sparse, so only touched pages cost.
constexpr uint64_t kMemSize = 1ull << 32;

QMap<QString, ChipFactory>& chipFactories()
{
    static QMap<QString, ChipFactory> factories;
    return factories;
}
std::mutex& factoryLock()
{
    static std::mutex m;
    return m;
}

// Paths that belong to the board rather than to this machine.
bool isBoardPath(const QString& path)
{
    static const char* prefixes[] = {"/vesk/", "/dev/", "/sys/", "/proc/asound", "/mnt/"};
    for (const char* p : prefixes)
        if (path.startsWith(QLatin1String(p))) return true;
    return path == QLatin1String("/tmp/mcuVersion");
}
}  // namespace

// ---------------------------------------------------------------- Device
Device::~Device() = default;

int Device::makeFd()
{
    return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

uint64_t Device::cookieFor(int)
{
    return 0;
}

void Device::release(uint64_t) {}

long Device::ioctl(uint64_t&, unsigned long, void*, unsigned long)
{
    return -ENOTTY;
}
long Device::read(uint64_t&, void*, size_t)
{
    return -EINVAL;
}
long Device::write(uint64_t&, const void*, size_t)
{
    return -EINVAL;
}
void* Device::mmap(uint64_t&, void*, size_t, int, int, off_t)
{
    errno = ENODEV;
    return MAP_FAILED;
}

I2cDevice::~I2cDevice() = default;
GpioI2cDevice::~GpioI2cDevice() = default;
ChipEmulator::~ChipEmulator() = default;

bool ChipEmulator::applyStep(const QVariantMap& step, QString*)
{
    setSource(step.value("source").toMap());
    return true;
}

// ---------------------------------------------------------------- RegisterChip
RegisterChip::RegisterChip(int regBytes_) : regBytes(regBytes_ == 2 ? 2 : 1)
{
    regs.assign(regBytes == 2 ? 0x10000 : 0x100, 0);
}

bool RegisterChip::i2cWrite(const uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    size_t i = 0;
    if (len >= size_t(regBytes)) {
        ptr = regBytes == 2 ? uint16_t(buf[0] << 8 | buf[1]) : buf[0];
        i = size_t(regBytes);
    }
    for (; i < len; i++) {
        uint16_t r = uint16_t(ptr % regs.size());
        regs[r] = buf[i];
        log.emplace_back(r, buf[i]);
        onWrite(r, buf[i]);
        ptr = uint16_t((ptr + 1) % regs.size());
    }
    return true;
}

bool RegisterChip::i2cRead(uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    for (size_t i = 0; i < len; i++) {
        buf[i] = regs[ptr % regs.size()];
        ptr = uint16_t((ptr + 1) % regs.size());
    }
    return true;
}

uint8_t RegisterChip::reg(uint16_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    return regs[r % regs.size()];
}

void RegisterChip::setReg(uint16_t r, uint8_t value)
{
    std::lock_guard<std::mutex> g(lock);
    regs[r % regs.size()] = value;
}

std::vector<std::pair<uint16_t, uint8_t>> RegisterChip::writes() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

void RegisterChip::clearWrites()
{
    std::lock_guard<std::mutex> g(lock);
    log.clear();
}

uint16_t RegisterChip::pointer() const
{
    std::lock_guard<std::mutex> g(lock);
    return ptr;
}

void RegisterChip::onWrite(uint16_t, uint8_t) {}

// ---------------------------------------------------------------- GpioI2cRegisters
uint8_t GpioI2cRegisters::read(uint16_t r, bool wide)
{
    std::lock_guard<std::mutex> g(lock);
    return regs[wide ? r : (r & 0xFF)];
}

void GpioI2cRegisters::write(uint16_t r, uint8_t value, bool wide)
{
    std::lock_guard<std::mutex> g(lock);
    uint16_t at = wide ? r : (r & 0xFF);
    regs[at] = value;
    log.emplace_back(at, value);
}

uint8_t GpioI2cRegisters::reg(uint16_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    return regs[r];
}

void GpioI2cRegisters::setReg(uint16_t r, uint8_t value)
{
    std::lock_guard<std::mutex> g(lock);
    regs[r] = value;
}

std::vector<std::pair<uint16_t, uint8_t>> GpioI2cRegisters::writes() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

// ---------------------------------------------------------------- chip types
bool registerChipType(const QString& type, ChipFactory factory)
{
    std::lock_guard<std::mutex> g(factoryLock());
    chipFactories()[type] = std::move(factory);
    return true;
}

QStringList chipTypes()
{
    std::lock_guard<std::mutex> g(factoryLock());
    return chipFactories().keys();
}

// ---------------------------------------------------------------- parts

namespace {
QMap<QString, BoardPart>& boardParts()
{
    static QMap<QString, BoardPart> parts;
    return parts;
}
}  // namespace

bool registerBoardPart(const QString& name, BoardPart part)
{
    boardParts().insert(name, std::move(part));
    return true;
}

// ---------------------------------------------------------------- Board
Board& Board::instance()
{
    static Board* board = new Board;  // outlives every static that may still poll it
    return *board;
}

Board::Board() = default;
Board::~Board() = default;

void Board::activate(const QString& root)
{
    std::lock_guard<std::mutex> g(lock);
    if (on) return;
    if (root.isEmpty()) {
        QByteArray tmpl = QDir::tempPath().toLocal8Bit() + "/vesk-board-XXXXXX";
        char* made = ::mkdtemp(tmpl.data());
        rootDir = made ? QString::fromLocal8Bit(made) : QDir::tempPath() + "/vesk-board";
        ownRoot = made != nullptr;
    } else {
        rootDir = root;
        ownRoot = false;
        QDir().mkpath(rootDir);
    }
    // A board has a /tmp: the microcontroller's firmware version is written
    // there whether or not the line is emulated.
    QDir(rootDir).mkpath(QStringLiteral("tmp"));
    clearLocked();
    on = true;
}

void Board::deactivate()
{
    stop();
    std::lock_guard<std::mutex> g(lock);
    clearLocked();
    if (ownRoot && !rootDir.isEmpty()) QDir(rootDir).removeRecursively();
    rootDir.clear();
    on = false;
}

bool Board::active() const
{
    std::lock_guard<std::mutex> g(lock);
    return on;
}

void Board::reset()
{
    stop();
    std::lock_guard<std::mutex> g(lock);
    clearLocked();
}

void Board::clearLocked()
{
    devices.clear();
    absent.clear();
    chips.clear();
    shell.clear();
    devices["/dev/mem"] = std::make_shared<PhysMem>();
    // The media platform is part of the board: a fresh board has a fresh one.
    // (Lock order is always board, then platform.)
    MediaPlatform::instance().reset();
    devices[OT_MIPI_DEV_NAME] = MediaPlatform::instance().mipiDevice();
    for (int i = 0; i < 2; ++i)
        devices[QString("/dev/fb%1").arg(i)] = VideoOut::instance().fbDevice(i);
    installPeripherals(devices, rootDir);
    for (const BoardPart& part : boardParts())
        if (part.install) part.install(devices, rootDir);
}

QString Board::root() const
{
    std::lock_guard<std::mutex> g(lock);
    return rootDir;
}

void Board::addDevice(const QString& path, std::shared_ptr<Device> device)
{
    std::lock_guard<std::mutex> g(lock);
    devices[path] = std::move(device);
}

void Board::removeDevice(const QString& path)
{
    std::lock_guard<std::mutex> g(lock);
    devices.remove(path);
}

void Board::setAbsent(const QString& path, bool isAbsent)
{
    std::lock_guard<std::mutex> g(lock);
    if (isAbsent)
        absent[path] = true;
    else
        absent.remove(path);
}

std::shared_ptr<Device> Board::deviceAt(const QString& path, bool* isAbsent) const
{
    std::lock_guard<std::mutex> g(lock);
    *isAbsent = absent.value(path, false);
    return devices.value(path);
}

void Board::registerFd(int fd, std::shared_ptr<Device> device, uint64_t cookie)
{
    std::lock_guard<std::mutex> g(lock);
    fds[fd] = Open{std::move(device), cookie};
}

bool Board::lookupFd(int fd, Open** out)
{
    std::lock_guard<std::mutex> g(lock);
    auto it = fds.find(fd);
    if (it == fds.end()) return false;
    // QMap nodes stay put until erased, and only close() erases.
    *out = &it.value();
    return true;
}

bool Board::releaseFd(int fd)
{
    Open open;
    {
        std::lock_guard<std::mutex> g(lock);
        auto it = fds.find(fd);
        if (it == fds.end()) return false;
        open = *it;
        fds.erase(it);
    }
    // Before the number goes back to the kernel: a device must not touch a
    // descriptor that is about to belong to someone else.
    if (open.device) open.device->release(open.cookie);
    return true;
}

static I2cBus* busOf(QMap<QString, std::shared_ptr<Device>>& devices, int bus, bool create)
{
    QString path = QString("/dev/i2c-%1").arg(bus);
    auto dev = devices.value(path);
    if (!dev && create) {
        dev = std::make_shared<I2cBus>(bus);
        devices[path] = dev;
    }
    return dynamic_cast<I2cBus*>(dev.get());
}

void Board::addI2cBus(int bus)
{
    std::lock_guard<std::mutex> g(lock);
    busOf(devices, bus, true);
}

void Board::attachI2c(int bus, uint8_t addr7, std::shared_ptr<I2cDevice> device)
{
    std::lock_guard<std::mutex> g(lock);
    busOf(devices, bus, true)->attach(addr7, std::move(device));
}

void Board::setI2cFailing(int bus, uint8_t addr7, bool failing)
{
    std::lock_guard<std::mutex> g(lock);
    busOf(devices, bus, true)->setFailing(addr7, failing);
}

void Board::setI2cSelectFails(int bus, bool fails)
{
    std::lock_guard<std::mutex> g(lock);
    busOf(devices, bus, true)->setSelectFails(fails);
}

void Board::attachGpioI2c(int index, uint8_t dev, std::shared_ptr<GpioI2cDevice> device)
{
    std::lock_guard<std::mutex> g(lock);
    QString path = index < 0 ? QString("/dev/gpio_i2c") : QString("/dev/gpio_i2c%1").arg(index);
    auto node = std::dynamic_pointer_cast<GpioI2cBus>(devices.value(path));
    if (!node) {
        node = std::make_shared<GpioI2cBus>();
        devices[path] = node;
    }
    node->attach(dev, std::move(device));
}

int Board::memFd()
{
    std::lock_guard<std::mutex> g(lock);
    if (memfd < 0) {
        memfd = ::memfd_create("vesk-physmem", MFD_CLOEXEC);
        if (memfd >= 0 && ::ftruncate(memfd, off_t(kMemSize)) != 0) {
            ::close(memfd);
            memfd = -1;
        }
    }
    return memfd;
}

uint8_t* Board::mem(uint64_t phys)
{
    int fd = memFd();
    std::lock_guard<std::mutex> g(lock);
    if (fd < 0 || phys >= kMemSize) return nullptr;
    // Each window reaches one page into the next, so an access of up to a
    // page that starts in it stays inside one mapping.
    constexpr uint64_t kWindow = 1ull << 20;
    const uint64_t key = phys / kWindow;
    uint8_t* base = memWindows.value(key);
    if (!base) {
        const uint64_t start = key * kWindow;
        const size_t len = size_t(std::min<uint64_t>(kWindow + 4096, kMemSize - start));
        void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, off_t(start));
        if (p == MAP_FAILED) return nullptr;
        base = static_cast<uint8_t*>(p);
        memWindows.insert(key, base);
    }
    return base + (phys - key * kWindow);
}

uint32_t Board::mem32(uint64_t phys)
{
    uint32_t v = 0;
    if (uint8_t* p = mem(phys)) std::memcpy(&v, p, 4);
    return v;
}

void Board::setMem32(uint64_t phys, uint32_t value)
{
    if (uint8_t* p = mem(phys)) std::memcpy(p, &value, 4);
}

QString Board::hostPath(const QString& path) const
{
    std::lock_guard<std::mutex> g(lock);
    if (!on || rootDir.isEmpty() || !isBoardPath(path)) return path;
    return rootDir + path;
}

void Board::writeFile(const QString& boardPath, const QByteArray& content)
{
    QString p = hostPath(boardPath);
    QDir().mkpath(QFileInfo(p).path());
    QFile f(p);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(content);
}

QByteArray Board::readFile(const QString& boardPath) const
{
    QFile f(hostPath(boardPath));
    if (!f.open(QIODevice::ReadOnly)) return QByteArray();
    return f.readAll();
}

void Board::recordCommand(const QString& command)
{
    std::lock_guard<std::mutex> g(lock);
    shell << command;
}

QStringList Board::commands() const
{
    std::lock_guard<std::mutex> g(lock);
    return shell;
}

std::shared_ptr<ChipEmulator> Board::addChip(const QString& name, const QString& type,
                                             const QVariantMap& settings)
{
    ChipFactory factory;
    {
        std::lock_guard<std::mutex> g(factoryLock());
        factory = chipFactories().value(type);
    }
    if (!factory) return nullptr;
    std::shared_ptr<ChipEmulator> emu = factory();
    emu->attach(settings);  // attaches itself to buses and devices of this board
    std::lock_guard<std::mutex> g(lock);
    chips[name] = emu;
    return emu;
}

std::shared_ptr<ChipEmulator> Board::chip(const QString& name) const
{
    std::lock_guard<std::mutex> g(lock);
    return chips.value(name);
}

// ---------------------------------------------------------------- scenarios
static QByteArray fileContent(const QVariant& content, QString* error = nullptr)
{
    const QString builtin = content.toMap().value("builtin").toString();
    if (!builtin.isEmpty() && !builtinFiles().contains(builtin) && error)
        *error = QString("scenario: no built-in file \"%1\" (known: %2)")
                     .arg(builtin, builtinFiles().join(", "));
    if (content.type() == QVariant::String) return content.toString().toUtf8();
    QVariantMap m = content.toMap();
    if (m.contains("hex")) return QByteArray::fromHex(m.value("hex").toString().toLatin1());
    if (m.contains("base64"))
        return QByteArray::fromBase64(m.value("base64").toString().toLatin1());
    if (m.contains("text")) return m.value("text").toString().toUtf8();
    if (m.contains("builtin")) return builtinFile(m.value("builtin").toString());
    return QByteArray();
}

bool Board::applyStep(const QVariantMap& step, QString* error)
{
    if (step.contains("chip")) {
        QString name = step.value("chip").toString();
        auto emu = chip(name);
        if (!emu) {
            if (error) *error = QString("scenario: no chip named \"%1\"").arg(name);
            return false;
        }
        return emu->applyStep(step, error);
    }
    if (step.contains("device")) {
        setAbsent(step.value("device").toString(), step.value("absent").toBool());
        return true;
    }
    if (step.contains("i2c")) {
        QVariantMap at = step.value("i2c").toMap();
        bool ok1 = false, ok2 = false;
        int bus = at.value("bus").toInt(&ok1);
        int addr = at.value("addr").toString().toInt(&ok2, 0);
        if (!ok1 || !ok2 || addr < 0 || addr > 0x7F) {
            if (error) *error = "scenario: \"i2c\" needs a \"bus\" and a seven-bit \"addr\"";
            return false;
        }
        if (step.contains("failing"))
            setI2cFailing(bus, uint8_t(addr), step.value("failing").toBool());
        return true;
    }
    if (step.contains("file")) {
        QString e;
        writeFile(step.value("file").toString(), fileContent(step.value("content"), &e));
        if (!e.isEmpty() && error) *error = e;
        return e.isEmpty();
    }
    if (step.contains("ai")) return AudioIn::instance().applyStep(step, error);
    if (step.contains("hdmi") || step.contains("vi"))
        return VideoOut::instance().applyStep(step, error);
    bool handled = false;
    bool done = applyPeripheralStep(step, error, &handled);
    if (handled) return done;
    for (const BoardPart& part : boardParts()) {
        if (!part.step) continue;
        done = part.step(step, error, &handled);
        if (handled) return done;
    }
    if (error) *error = "scenario: a step needs \"chip\", \"device\", \"i2c\" or \"file\"";
    return false;
}

bool Board::loadScenario(const QVariantMap& scenario, QString* error)
{
    QStringList problems;
    for (const QVariant& c : scenario.value("chips").toList()) {
        QVariantMap m = c.toMap();
        QString name = m.value("name").toString();
        QString type = m.value("type").toString();
        if (name.isEmpty() || !addChip(name, type, m))
            problems << QString("scenario: chip \"%1\" of type \"%2\" cannot be built (known: %3)")
                            .arg(name, type, chipTypes().join(", "));
    }
    QVariantMap files = scenario.value("files").toMap();
    for (auto it = files.begin(); it != files.end(); ++it) {
        QString e;
        writeFile(it.key(), fileContent(it.value(), &e));
        if (!e.isEmpty()) problems << e;
    }

    QVariantList later;
    for (const QVariant& s : scenario.value("timeline").toList()) {
        QVariantMap step = s.toMap();
        if (step.value("at").toDouble() <= 0) {
            QString e;
            if (!applyStep(step, &e)) problems << e;
        } else {
            later << step;
        }
    }
    std::sort(later.begin(), later.end(), [](const QVariant& a, const QVariant& b) {
        return a.toMap().value("at").toDouble() < b.toMap().value("at").toDouble();
    });
    {
        std::lock_guard<std::mutex> g(playerLock);
        pending = later;
    }
    if (error) *error = problems.join("\n");
    return problems.isEmpty();
}

void Board::startScenario()
{
    stop();
    std::lock_guard<std::mutex> g(playerLock);
    playerStop = false;
    QVariantList steps = pending;
    player = std::thread([this, steps] {
        auto t0 = std::chrono::steady_clock::now();
        // Edge time stamps of the scenario count from its start.
        GpioLines::instance().setEpoch(
            std::chrono::duration_cast<std::chrono::nanoseconds>(t0.time_since_epoch()).count());
        for (const QVariant& s : steps) {
            QVariantMap step = s.toMap();
            auto due = t0 + std::chrono::microseconds(qint64(step.value("at").toDouble() * 1e6));
            std::unique_lock<std::mutex> l(playerLock);
            if (playerWake.wait_until(l, due, [this] { return playerStop; })) return;
            l.unlock();
            QString e;
            if (!applyStep(step, &e)) qWarning().noquote() << e;
        }
    });
}

void Board::stop()
{
    {
        std::lock_guard<std::mutex> g(playerLock);
        playerStop = true;
    }
    playerWake.notify_all();
    if (player.joinable()) player.join();
}

}  // namespace vsim
