#include "driver/DriverBase.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/mman.h>

#include <QDebug>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/VeskSys.h"

QMutex DriverBase::mutex;
DriverBase::MemMapNode* DriverBase::pTMMAPNode = nullptr;
int DriverBase::fd = -1;

DriverBase::DriverBase(QObject* parent) : QObject(parent)
{
    // Copies handed to pollers on other threads must never share the
    // reference count with the map this driver keeps changing.
    data.setSharable(false);
    info.setSharable(false);
}

QMap<QString, QVariant> DriverBase::getInfo()
{
    onCheck();
    return info;
}

QMap<QString, QVariant> DriverBase::getData()
{
    return data;
}

int DriverBase::getSamplerate()
{
    return samplerate;
}

void DriverBase::setData(QMap<QString, QVariant> newData)
{
    for (auto it = newData.begin(); it != newData.end();) {
        QVariant& current = data[it.key()];
        if (current != it.value()) {
            current = it.value();
            ++it;
        } else {
            it = newData.erase(it);
        }
    }
    onSetData(newData);
}

void DriverBase::init() {}

QVariant DriverBase::callFunc(QString, QVariant)
{
    return QVariant(true);
}

void DriverBase::onCheck() {}

void DriverBase::onSetData(QMap<QString, QVariant>) {}

// ---------------------------------------------------------------- I2C bus device

int DriverBase::openBus(unsigned int bus, unsigned int dev)
{
    char path[32];
    snprintf(path, sizeof path, "/dev/i2c-%u", bus);
    int f = vsys::open(path, O_RDWR);
    if (f < 0) {
        printf("Open %s error!\n", path);
        return -1;
    }
    if (vsys::ioctl(f, I2C_SLAVE_FORCE, (unsigned long)(dev >> 1)) < 0) {
        printf("CMD_SET_DEV error! %d %x\n", bus, dev >> 1);
        vsys::close(f);
        return -1;
    }
    return f;
}

int DriverBase::write(unsigned int bus, unsigned int dev, unsigned int reg, unsigned int value,
                      unsigned int regBytes, unsigned int valueBytes)
{
    int f = openBus(bus, dev);
    if (f < 0) return 0;
    unsigned char buf[4];
    unsigned int n = 0;
    if (regBytes == 2) {
        buf[n++] = (reg >> 8) & 0xFF;
        buf[n++] = reg & 0xFF;
    } else {
        buf[n++] = reg & 0xFF;
    }
    if (valueBytes == 2) {
        buf[n++] = (value >> 8) & 0xFF;
        buf[n++] = value & 0xFF;
    } else {
        buf[n++] = value & 0xFF;
    }
    // The length on the wire is what the caller asked for, but never more
    // than the bytes actually built.
    size_t len = regBytes + valueBytes;
    if (len > n) len = n;
    ssize_t written = vsys::write(f, buf, len);
    (void)written;
    vsys::close(f);
    return 1;
}

int DriverBase::read(unsigned int bus, unsigned int dev, unsigned int reg, unsigned int regBytes,
                     unsigned int valueBytes)
{
    QMutexLocker locker(&mutex);
    // One buffer for both messages, as the chips expect: the register goes
    // out of it and the answer comes back into it. The message records are
    // shared by every caller, which is why the whole transfer holds `mutex`.
    unsigned char buf[4];
    static struct i2c_msg msgs[2];
    static struct i2c_rdwr_ioctl_data transfer;

    int f = openBus(bus, dev);
    if (f < 0) return -1;
    // The buffer holds four bytes: wider requests are cut to it.
    uint16_t wlen = uint16_t(regBytes > sizeof buf ? sizeof buf : regBytes);
    uint16_t rlen = uint16_t(valueBytes > sizeof buf ? sizeof buf : valueBytes);
    memset(buf, 0, sizeof buf);
    msgs[0].addr = uint16_t(dev >> 1);
    msgs[0].flags = 0;
    msgs[0].len = wlen;
    msgs[0].buf = buf;
    msgs[1].addr = uint16_t(dev >> 1);
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = rlen;
    msgs[1].buf = buf;
    transfer.msgs = msgs;
    transfer.nmsgs = 2;
    // Low byte first, unlike write(): the chips on these boards that take
    // 16-bit register numbers through this path expect it so.
    buf[0] = reg & 0xFF;
    if (regBytes == 2) buf[1] = (reg >> 8) & 0xFF;

    if (vsys::ioctl(f, I2C_RDWR, static_cast<void*>(&transfer)) != 2) {
        qDebug("CMD_I2C_READ_IPC error! %#x %#x", dev >> 1, reg);
        vsys::close(f);
        return 0;
    }
    vsys::close(f);
    return buf[0];
}

int DriverBase::write0_8(unsigned int dev, unsigned int reg, unsigned int value)
{
    return write(0, dev, reg, value, 1, 1);
}
int DriverBase::write1_8(unsigned int dev, unsigned int reg, unsigned int value)
{
    return write(1, dev, reg, value, 1, 1);
}
int DriverBase::write2_8(unsigned int dev, unsigned int reg, unsigned int value)
{
    return write(2, dev, reg, value, 1, 1);
}
int DriverBase::read0_8(unsigned int dev, unsigned int reg)
{
    return read(0, dev, reg, 1, 1);
}
int DriverBase::read1_8(unsigned int dev, unsigned int reg)
{
    return read(1, dev, reg, 1, 1);
}
int DriverBase::read2_8(unsigned int dev, unsigned int reg)
{
    return read(2, dev, reg, 1, 1);
}

// ---------------------------------------------------------------- bit-banged I2C

static QByteArray gpioI2cPath(int index)
{
    QByteArray p("/dev/gpio_i2c");
    if (index != -1) p += QByteArray::number(index);
    return p;
}

bool DriverBase::swrite(unsigned int dev, unsigned int reg, unsigned int value, int index,
                        bool wide)
{
    int f = vsys::open(gpioI2cPath(index).constData(), O_RDONLY);
    if (f < 0) return false;
    uint32_t word = (dev << 24) | ((reg & 0xFFFF) << 8) | (value & 0xFF);
    int r = vsys::ioctl(f, wide ? 7 : 3, static_cast<void*>(&word));
    vsys::close(f);
    return r == 0;
}

unsigned int DriverBase::sread(unsigned int dev, unsigned int reg, int index, bool wide)
{
    int f = vsys::open(gpioI2cPath(index).constData(), O_RDONLY);
    if (f < 0) return 0xFFFFFFFF;
    uint32_t word = (dev << 24) | ((reg & 0xFFFF) << 8);
    vsys::ioctl(f, wide ? 5 : 1, static_cast<void*>(&word));
    vsys::close(f);
    return word & 0xFF;
}

// ---------------------------------------------------------------- physical memory

void* DriverBase::memmap(unsigned long phys, unsigned long size)
{
    if (size == 0) {
        qDebug("memmap():size can't be zero!");
        return nullptr;
    }
    for (MemMapNode* n = pTMMAPNode; n; n = n->next) {
        if (phys >= n->physStart && phys + size <= n->physStart + n->length) {
            n->refCount++;
            return static_cast<char*>(n->virtStart) + (phys - n->physStart);
        }
    }
    if (fd < 0) {
        fd = vsys::open("/dev/mem", O_RDWR | O_SYNC);
        if (fd < 0) {
            qDebug("memmap():open %s error!", "/dev/mem");
            return nullptr;
        }
    }
    unsigned long start = phys & ~0xFFFUL;
    unsigned long length = ((phys + size - start) + 0xFFF) & ~0xFFFUL;
    void* v = vsys::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, off_t(start));
    if (v == MAP_FAILED) {
        qDebug("memmap():mmap error!");
        return nullptr;
    }
    MemMapNode* node = static_cast<MemMapNode*>(malloc(sizeof(MemMapNode)));
    if (!node) {
        qDebug("memmap():malloc new node failed!");
        return nullptr;
    }
    *node = MemMapNode{start, v, length, 1, nullptr};
    MemMapNode** tail = &pTMMAPNode;
    while (*tail) tail = &(*tail)->next;
    *tail = node;
    return static_cast<char*>(v) + (phys - start);
}

// A board without /dev/mem must not take the process down: the access is
// dropped (reads as 0) and memmap() has already said why.
void DriverBase::mwrite(unsigned long phys, unsigned long value)
{
    if (auto* p = static_cast<volatile uint32_t*>(memmap(phys, 128))) *p = uint32_t(value);
}

unsigned long DriverBase::mread(unsigned long phys)
{
    auto* p = static_cast<volatile uint32_t*>(memmap(phys, 128));
    return p ? *p : 0;
}

QMap<QString, QVariant> DriverBase::diagnostics()
{
    return {};
}
