// The seam on the virtual board: device paths and board files are answered
// by the board while it is active, everything else is plain Linux.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <cerrno>
#include <cstdlib>

#include "frame/VeskSys.h"
#include "sim/BoardClock.h"
#include "sim/Peripherals.h"
#include "sim/VirtualBoard.h"

using vsim::Board;

namespace {
long finish(long r)
{
    if (r < 0) {
        errno = int(-r);
        return -1;
    }
    return r;
}
}  // namespace

namespace vsys {

int open(const char* path, int flags, mode_t mode)
{
    Board& b = Board::instance();
    if (!path || !b.active()) return ::open(path, flags, mode);
    QString p = QString::fromLocal8Bit(path);
    bool absent = false;
    auto dev = b.deviceAt(p, &absent);
    if (absent) {
        errno = ENOENT;
        return -1;
    }
    if (dev) {
        int fd = dev->makeFd();
        if (fd < 0) return -1;
        b.registerFd(fd, dev, dev->cookieFor(fd));
        return fd;
    }
    QString host = b.hostPath(p);
    if (host != p && p.startsWith("/dev/")) {
        // A device the board does not have.
        errno = ENOENT;
        return -1;
    }
    return ::open(host.toLocal8Bit().constData(), flags, mode);
}

int close(int fd)
{
    Board::instance().releaseFd(fd);
    return ::close(fd);
}

ssize_t read(int fd, void* buf, size_t len)
{
    Board::Open* o = nullptr;
    if (Board::instance().lookupFd(fd, &o)) return finish(o->device->read(o->cookie, buf, len));
    return ::read(fd, buf, len);
}

ssize_t write(int fd, const void* buf, size_t len)
{
    Board::Open* o = nullptr;
    if (Board::instance().lookupFd(fd, &o)) return finish(o->device->write(o->cookie, buf, len));
    return ::write(fd, buf, len);
}

int ioctl(int fd, unsigned long request, void* arg)
{
    Board::Open* o = nullptr;
    if (Board::instance().lookupFd(fd, &o))
        return int(finish(
            o->device->ioctl(o->cookie, request, arg, reinterpret_cast<unsigned long>(arg))));
    return ::ioctl(fd, request, arg);
}

int ioctl(int fd, unsigned long request, unsigned long arg)
{
    Board::Open* o = nullptr;
    if (Board::instance().lookupFd(fd, &o))
        return int(finish(o->device->ioctl(o->cookie, request, reinterpret_cast<void*>(arg), arg)));
    return ::ioctl(fd, request, arg);
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset)
{
    Board::Open* o = nullptr;
    if (fd >= 0 && Board::instance().lookupFd(fd, &o))
        return o->device->mmap(o->cookie, addr, len, prot, flags, offset);
    return ::mmap(addr, len, prot, flags, fd, offset);
}

int munmap(void* addr, size_t len)
{
    return ::munmap(addr, len);
}

int stat(const char* path, struct stat* st)
{
    Board& b = Board::instance();
    if (!path || !b.active()) return ::stat(path, st);
    QString p = QString::fromLocal8Bit(path);
    bool absent = false;
    auto dev = b.deviceAt(p, &absent);
    if (absent) {
        errno = ENOENT;
        return -1;
    }
    if (dev) {
        *st = {};
        st->st_mode = S_IFCHR | 0660;
        return 0;
    }
    return ::stat(b.hostPath(p).toLocal8Bit().constData(), st);
}

bool exists(const QString& p)
{
    struct stat st;
    return vsys::stat(p.toLocal8Bit().constData(), &st) == 0;
}

ssize_t readlink(const char* path, char* buf, size_t len)
{
    Board& b = Board::instance();
    if (!path || !b.active()) return ::readlink(path, buf, len);
    return ::readlink(b.hostPath(QString::fromLocal8Bit(path)).toLocal8Bit().constData(), buf, len);
}

int shmget(key_t key, size_t size, int flags)
{
    return ::shmget(key, size, flags);
}
void* shmat(int id, const void* addr, int flags)
{
    return ::shmat(id, addr, flags);
}
int shmdt(const void* addr)
{
    return ::shmdt(addr);
}

int system(const char* command)
{
    Board& b = Board::instance();
    if (!b.active()) return ::system(command);
    // Board tools (register pokes, pad set-up, process control) have nothing
    // to act on here: the line is kept for whoever checks what was asked.
    const QString line = QString::fromLocal8Bit(command ? command : "");
    b.recordCommand(line);
    // The sysfs GPIO lines act on the board's file tree as the kernel would.
    int status = vsim::GpioLines::instance().shell(line);
    return status > 0 ? status << 8 : 0;
}

int clock_gettime(clockid_t clock, struct timespec* ts)
{
    int r = ::clock_gettime(clock, ts);
    if (r != 0 || clock != CLOCK_REALTIME || !Board::instance().active()) return r;
    // The board's wall clock may be set apart from this machine's.
    int64_t ns = int64_t(ts->tv_sec) * 1000000000 + ts->tv_nsec + vsim::wallClockOffsetNs();
    ts->tv_sec = time_t(ns / 1000000000);
    ts->tv_nsec = long(ns % 1000000000);
    if (ts->tv_nsec < 0) {
        ts->tv_nsec += 1000000000;
        ts->tv_sec -= 1;
    }
    return 0;
}

void usleep(int64_t us)
{
    vsim::BoardClock::instance().sleepUs(us);
}

void msleep(int64_t ms)
{
    vsim::BoardClock::instance().sleepUs(ms * 1000);
}

QString path(const QString& boardPath)
{
    return Board::instance().hostPath(boardPath);
}

}  // namespace vsys
