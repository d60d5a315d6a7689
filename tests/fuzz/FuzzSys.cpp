// The OS seam as the fuzz targets see it: see FuzzSys.h.
#include "tests/fuzz/FuzzSys.h"

#include <errno.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QMap>
#include <QStringList>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "frame/VeskSys.h"

namespace fuzzsys {

int64_t clockUs = 1700000000LL * 1000000;

// Receiver threads the nodes start reach the seam beside the target's own
// thread; one lock keeps the board's tables whole.
std::recursive_mutex seamLock;

namespace {

// Far above what the process itself opens, so that no real descriptor is
// ever taken for one of these.
constexpr int kFirstFd = 1000;

struct Open {
    QString path;
    unsigned long address = 0;
    QByteArray file;  // a file's bytes, read from `pos` on
    int pos = 0;
    bool isDevice = false;
    bool gpioChip = false;
    QList<Read> reads;
};

struct Board {
    QMap<QString, QByteArray> files;
    QMap<QString, QByteArray> links;
    QMap<QString, QList<Read>> devices;
    QList<QList<Read>> lineEvents;
    // Few descriptors are open at once; a vector that keeps its room between
    // inputs spares an allocation per open (the EDID load opens its bus for
    // each of 256 writes).
    std::vector<std::pair<int, Open>> open;
    std::vector<Write> writes;
    QStringList onDisk;
    int nextFd = kFirstFd;
};

Board& board()
{
    // Never destroyed: the library's objects that live for the process may
    // still reach the seam while the program ends.
    static Board* b = new Board;
    return *b;
}

int newFd(Open o)
{
    Board& b = board();
    const int fd = b.nextFd++;
    b.open.emplace_back(fd, std::move(o));
    return fd;
}

Open* openOf(int fd)
{
    for (auto& e : board().open)
        if (e.first == fd) return &e.second;
    return nullptr;
}

// The same path comes again and again (a bus per register write): its
// QString is made once.
QString pathOf(const char* path)
{
    thread_local QByteArray lastRaw;
    thread_local QString last;
    if (lastRaw != path) {
        lastRaw = path;
        last = QString::fromLocal8Bit(path);
    }
    return last;
}

}  // namespace

void reset()
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    Board& b = board();
    for (const QString& p : b.onDisk) QFile::remove(vsys::path(p));
    // The vectors keep their room for the next input.
    b.files.clear();
    b.links.clear();
    b.devices.clear();
    b.lineEvents.clear();
    b.open.clear();
    b.writes.clear();
    b.onDisk.clear();
    b.nextFd = kFirstFd;
}

void putFile(const QString& boardPath, const QByteArray& bytes, bool disk)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    board().files.insert(boardPath, bytes);
    if (!disk) return;
    const QString real = vsys::path(boardPath);
    QDir().mkpath(QFileInfo(real).path());
    QFile f(real);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(bytes);
    board().onDisk << boardPath;
}

void putLink(const QString& boardPath, const QByteArray& target)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    board().links.insert(boardPath, target);
}

void putDevice(const QString& boardPath, const QList<Read>& reads)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    board().devices.insert(boardPath, reads);
}

void queueLineEvents(const QList<QList<Read>>& lines)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    board().lineEvents = lines;
}

const std::vector<Write>& writes()
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    return board().writes;
}

int openCount()
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    return int(board().open.size());
}

}  // namespace fuzzsys

namespace vsys {

using fuzzsys::board;

int open(const char* path, int, mode_t)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    const QString p = fuzzsys::pathOf(path);
    fuzzsys::Board& b = board();
    fuzzsys::Open o;
    o.path = p;
    if (b.files.contains(p)) {
        o.file = b.files.value(p);
    } else if (b.devices.contains(p)) {
        o.isDevice = true;
        o.reads = b.devices.value(p);
        o.gpioChip = p.startsWith(QLatin1String("/dev/gpiochip"));
    } else {
        errno = ENOENT;
        return -1;
    }
    return fuzzsys::newFd(o);
}

int close(int fd)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    auto& open = board().open;
    for (auto it = open.begin(); it != open.end(); ++it) {
        if (it->first == fd) {
            open.erase(it);
            return 0;
        }
    }
    errno = EBADF;
    return -1;
}

ssize_t read(int fd, void* buf, size_t len)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    fuzzsys::Open* it = fuzzsys::openOf(fd);
    if (!it) {
        errno = EBADF;
        return -1;
    }
    fuzzsys::Open& o = *it;
    if (!o.isDevice) {
        const size_t n = std::min(len, size_t(o.file.size() - o.pos));
        if (n) std::memcpy(buf, o.file.constData() + o.pos, n);
        o.pos += int(n);
        return ssize_t(n);
    }
    if (o.reads.isEmpty()) return 0;
    const fuzzsys::Read r = o.reads.takeFirst();
    if (r.err) {
        errno = r.err;
        return -1;
    }
    const size_t n = std::min(len, size_t(r.bytes.size()));
    if (n) std::memcpy(buf, r.bytes.constData(), n);
    return ssize_t(n);
}

ssize_t write(int fd, const void* buf, size_t len)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    fuzzsys::Open* it = fuzzsys::openOf(fd);
    if (!it || !it->isDevice) {
        errno = EBADF;
        return -1;
    }
    board().writes.push_back(
        {it->path, it->address, std::string(static_cast<const char*>(buf), len)});
    return ssize_t(len);
}

int ioctl(int fd, unsigned long request, void* arg)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    fuzzsys::Open* it = fuzzsys::openOf(fd);
    if (!it || !it->isDevice) {
        errno = EBADF;
        return -1;
    }
    if (it->gpioChip && request == GPIO_GET_LINEEVENT_IOCTL) {
        if (board().lineEvents.isEmpty()) {
            errno = EBUSY;
            return -1;
        }
        fuzzsys::Open line;
        line.isDevice = true;
        line.reads = board().lineEvents.takeFirst();
        static_cast<gpioevent_request*>(arg)->fd = fuzzsys::newFd(line);
    }
    return 0;
}

int ioctl(int fd, unsigned long request, unsigned long arg)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    fuzzsys::Open* it = fuzzsys::openOf(fd);
    if (!it || !it->isDevice) {
        errno = EBADF;
        return -1;
    }
    if (request == I2C_SLAVE_FORCE) it->address = arg;
    return 0;
}

void* mmap(void*, size_t, int, int, int, off_t)
{
    errno = ENODEV;
    return MAP_FAILED;
}

int munmap(void*, size_t)
{
    return -1;
}

bool exists(const QString& path)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    const fuzzsys::Board& b = board();
    if (b.files.contains(path) || b.links.contains(path) || b.devices.contains(path)) return true;
    // A folder exists when something lies in it.
    const QString folder = path + QLatin1Char('/');
    for (const auto* map : {&b.files, &b.links}) {
        const auto it = map->lowerBound(folder);
        if (it != map->end() && it.key().startsWith(folder)) return true;
    }
    return false;
}

int stat(const char* path, struct stat* st)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    const QString p = QString::fromLocal8Bit(path);
    if (!exists(p)) {
        errno = ENOENT;
        return -1;
    }
    std::memset(st, 0, sizeof *st);
    const fuzzsys::Board& b = board();
    st->st_mode = b.files.contains(p) ? S_IFREG : b.devices.contains(p) ? S_IFCHR : S_IFDIR;
    st->st_size = b.files.value(p).size();
    return 0;
}

ssize_t readlink(const char* path, char* buf, size_t len)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    const QString p = QString::fromLocal8Bit(path);
    if (!board().links.contains(p)) {
        errno = EINVAL;
        return -1;
    }
    const QByteArray target = board().links.value(p);
    const size_t n = std::min(len, size_t(target.size()));
    std::memcpy(buf, target.constData(), n);
    return ssize_t(n);
}

int shmget(key_t, size_t, int)
{
    errno = ENOENT;
    return -1;
}

void* shmat(int, const void*, int)
{
    errno = EINVAL;
    return reinterpret_cast<void*>(-1);
}

int shmdt(const void*)
{
    return -1;
}

int system(const char*)
{
    return 0;
}

int clock_gettime(clockid_t, struct timespec* ts)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    ts->tv_sec = time_t(fuzzsys::clockUs / 1000000);
    ts->tv_nsec = long(fuzzsys::clockUs % 1000000) * 1000;
    return 0;
}

void usleep(int64_t us)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    if (us > 0) fuzzsys::clockUs += us;
}

void msleep(int64_t ms)
{
    std::lock_guard<std::recursive_mutex> g(fuzzsys::seamLock);
    if (ms > 0) fuzzsys::clockUs += ms * 1000;
}

QString path(const QString& boardPath)
{
    // Never destroyed: the clean-up at exit still needs it.
    static const QString* root = [] {
        // In memory where the machine has it: a target may write a file
        // for every input.
        const QString base =
            QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? "/dev/shm" : QDir::tempPath();
        auto* dir = new QString(base + QString("/vesk-fuzz-%1").arg(::getpid()));
        QDir().mkpath(*dir + "/tmp");
        std::atexit([] { QDir(*root).removeRecursively(); });
        return dir;
    }();
    return *root + boardPath;
}

}  // namespace vsys
