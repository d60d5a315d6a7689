// The OS seam as far as the microcontroller target reaches it: no device
// opens, and board files (the firmware version) land in the run's own
// directory.
#include <unistd.h>

#include <QDir>
#include <cstdlib>

#include "frame/VeskSys.h"

namespace vsys {

// clang-format off
int open(const char*, int, mode_t) { return -1; }
int close(int) { return -1; }
ssize_t write(int, const void*, size_t) { return -1; }
int ioctl(int, unsigned long, void*) { return -1; }
int ioctl(int, unsigned long, unsigned long) { return -1; }
void* mmap(void*, size_t, int, int, int, off_t) { return reinterpret_cast<void*>(-1); }
int system(const char*) { return 0; }
// clang-format on

QString path(const QString& boardPath)
{
    // Never destroyed: the clean-up at exit still needs it.
    static const QString* root = [] {
        auto* dir = new QString(QDir::tempPath() + QString("/vesk-fuzz-%1").arg(::getpid()));
        QDir().mkpath(*dir + "/tmp");
        std::atexit([] { QDir(*root).removeRecursively(); });
        return dir;
    }();
    return *root + boardPath;
}

}  // namespace vsys
