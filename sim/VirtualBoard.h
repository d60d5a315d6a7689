// The virtual board: the devices, buses and files the library expects on the
// appliance, emulated in this process. The library never includes this
// header; it sees the board only through the OS seam (frame/VeskSys.h).
// Tests and the reference host use it to build a board, drive scenarios and
// look at what the library did to the hardware.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vsim {

// Something that answers open() on a device path.
class Device {
public:
    virtual ~Device();
    // A real descriptor handed to the caller, so that close()/poll() behave.
    // The default is a fresh eventfd.
    virtual int makeFd();
    // Per-open state for a descriptor makeFd just gave out; 0 by default.
    virtual uint64_t cookieFor(int fd);
    // The descriptor of that open is being closed; the device lets go of it.
    virtual void release(uint64_t cookie);
    // Per-open state lives in `cookie`; errno is set by returning -errno.
    virtual long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg);
    virtual long read(uint64_t& cookie, void* buf, size_t len);
    virtual long write(uint64_t& cookie, const void* buf, size_t len);
    // Returns MAP_FAILED with errno set when the device cannot be mapped.
    virtual void* mmap(uint64_t& cookie, void* addr, size_t len, int prot, int flags, off_t offset);
};

// A device on an I2C bus at one seven-bit address. Returning false is a
// missing acknowledge: the transfer fails.
class I2cDevice {
public:
    virtual ~I2cDevice();
    virtual bool i2cWrite(const uint8_t* buf, size_t len) = 0;
    virtual bool i2cRead(uint8_t* buf, size_t len) = 0;
};

// The common chip: a register pointer set by the first bytes of a write,
// auto-incremented on every byte, 8-bit registers. Register numbers on the
// wire are most significant byte first.
class RegisterChip : public I2cDevice {
public:
    explicit RegisterChip(int regBytes = 1);
    bool i2cWrite(const uint8_t* buf, size_t len) override;
    bool i2cRead(uint8_t* buf, size_t len) override;

    uint8_t reg(uint16_t r) const;
    void setReg(uint16_t r, uint8_t value);
    // Every register write of the library, in order: (register, value).
    std::vector<std::pair<uint16_t, uint8_t>> writes() const;
    void clearWrites();
    uint16_t pointer() const;

protected:
    // Called with the lock held, after the register changed.
    virtual void onWrite(uint16_t r, uint8_t value);

    mutable std::mutex lock;
    int regBytes;
    uint16_t ptr = 0;
    std::vector<uint8_t> regs;
    std::vector<std::pair<uint16_t, uint8_t>> log;
};

// A device behind the board's bit-banged I2C driver (/dev/gpio_i2c*).
class GpioI2cDevice {
public:
    virtual ~GpioI2cDevice();
    virtual uint8_t read(uint16_t reg, bool wide) = 0;
    virtual void write(uint16_t reg, uint8_t value, bool wide) = 0;
};

class GpioI2cRegisters : public GpioI2cDevice {
public:
    uint8_t read(uint16_t reg, bool wide) override;
    void write(uint16_t reg, uint8_t value, bool wide) override;
    uint8_t reg(uint16_t r) const;
    void setReg(uint16_t r, uint8_t value);
    std::vector<std::pair<uint16_t, uint8_t>> writes() const;

private:
    mutable std::mutex lock;
    std::vector<uint8_t> regs = std::vector<uint8_t>(0x10000, 0);
    std::vector<std::pair<uint16_t, uint8_t>> log;
};

// A chip that scenarios can drive by name: "source" sets what is plugged
// into it (an empty map: nothing).
class ChipEmulator {
public:
    virtual ~ChipEmulator();
    virtual void attach(const QVariantMap& settings) = 0;
    virtual void setSource(const QVariantMap& source) = 0;
    // A timeline step naming this chip; the default takes its "source".
    virtual bool applyStep(const QVariantMap& step, QString* error);
};

using ChipFactory = std::function<std::shared_ptr<ChipEmulator>()>;
// Emulator types register themselves by the board's chip word.
bool registerChipType(const QString& type, ChipFactory factory);
QStringList chipTypes();

// A piece of the board kept in files of its own (the USB devices, ...).
// `install` runs whenever the board is built afresh (activate, reset), with
// the device table and the root of the board's files, under the board's
// lock: it may fill the table but must not call back into Board. `step`
// is offered every timeline step no other part took; it sets *handled when
// the step is its own. Either may be empty.
struct BoardPart {
    std::function<void(QMap<QString, std::shared_ptr<Device>>& devices, const QString& root)>
        install;
    std::function<bool(const QVariantMap& step, QString* error, bool* handled)> step;
};
// Parts register themselves from a static initialiser of their file.
bool registerBoardPart(const QString& name, BoardPart part);

// The built-in board and scenario that `--sim` without a file uses.
QVariantMap defaultScenario();

// Files the virtual board can make itself, for a scenario's "files" and
// "file" steps as {"builtin": NAME}:
//   "nosignal.yuv"  the no-signal picture: 1920x1080 in the layout of
//                   VeskHi::makeFrame (NV21, lines of 1920 bytes), grey
//                   squares with a light frame around the middle;
//   "testsrc.jpg"   a 640x360 test pattern JPEG made by ffmpeg when the
//                   board was built.
// An unknown name gives an empty file.
QByteArray builtinFile(const QString& name);
QStringList builtinFiles();

class Board {
public:
    static Board& instance();

    // From activate() on, the seam answers board paths from this board;
    // before it, and after deactivate(), the seam is plain Linux.
    void activate(const QString& root = QString());
    void deactivate();
    bool active() const;
    // Drops every device, chip, file and failure switch (stays active).
    void reset();
    QString root() const;

    // Device nodes.
    void addDevice(const QString& path, std::shared_ptr<Device> device);
    void removeDevice(const QString& path);
    // An absent device fails to open (ENOENT) while the switch is on.
    void setAbsent(const QString& path, bool absent);

    // I2C buses /dev/i2c-N and their devices (seven-bit addresses).
    void addI2cBus(int bus);
    void attachI2c(int bus, uint8_t addr7, std::shared_ptr<I2cDevice> device);
    void setI2cFailing(int bus, uint8_t addr7, bool failing);
    void setI2cSelectFails(int bus, bool fails);

    // The bit-banged buses: index -1 is /dev/gpio_i2c, N is /dev/gpio_i2cN.
    void attachGpioI2c(int index, uint8_t dev, std::shared_ptr<GpioI2cDevice> device);

    // Physical memory behind /dev/mem, as seen by emulators and tests. The
    // pointer is good for at least 4 KiB from `phys`.
    uint8_t* mem(uint64_t phys);
    uint32_t mem32(uint64_t phys);
    void setMem32(uint64_t phys, uint32_t value);

    // Files at board paths, under root().
    void writeFile(const QString& boardPath, const QByteArray& content);
    QByteArray readFile(const QString& boardPath) const;
    // The board path's place on this machine, or the path itself if it is
    // not a board path.
    QString hostPath(const QString& path) const;

    // Shell lines the library ran through system(), in order.
    QStringList commands() const;

    // Named chip emulators for scenarios.
    std::shared_ptr<ChipEmulator> addChip(const QString& name, const QString& type,
                                          const QVariantMap& settings);
    std::shared_ptr<ChipEmulator> chip(const QString& name) const;

    // Scenario: {"chips":[...], "files":{...}, "timeline":[...]}. Loading
    // builds the chips and files and applies every step at time 0; the rest
    // runs from startScenario() on a thread of its own until stop().
    bool loadScenario(const QVariantMap& scenario, QString* error);
    void startScenario();
    void stop();
    // Applies one timeline step now.
    bool applyStep(const QVariantMap& step, QString* error);

    // Used by the seam.
    struct Open {
        std::shared_ptr<Device> device;
        uint64_t cookie = 0;
    };
    std::shared_ptr<Device> deviceAt(const QString& path, bool* absent) const;
    void registerFd(int fd, std::shared_ptr<Device> device, uint64_t cookie);
    bool lookupFd(int fd, Open** out);
    bool releaseFd(int fd);
    void recordCommand(const QString& command);
    int memFd();

private:
    Board();
    ~Board();
    void clearLocked();

    mutable std::mutex lock;
    bool on = false;
    QString rootDir;
    bool ownRoot = false;
    QMap<QString, std::shared_ptr<Device>> devices;
    QMap<QString, bool> absent;
    QMap<int, Open> fds;
    QStringList shell;
    QMap<QString, std::shared_ptr<ChipEmulator>> chips;
    int memfd = -1;
    // Windows of the memory file mapped so far, by physical address >> 20:
    // a 32-bit process cannot map all 4 GiB at once.
    QMap<uint64_t, uint8_t*> memWindows;

    std::thread player;
    std::mutex playerLock;
    std::condition_variable playerWake;
    bool playerStop = false;
    QVariantList pending;
};

}  // namespace vsim
