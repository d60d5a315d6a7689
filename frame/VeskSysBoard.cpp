// The seam on the board: plain Linux.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <cstdlib>

#include "frame/VeskSys.h"

namespace vsys {

int open(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}
int close(int fd)
{
    return ::close(fd);
}
ssize_t read(int fd, void* buf, size_t len)
{
    return ::read(fd, buf, len);
}
ssize_t write(int fd, const void* buf, size_t len)
{
    return ::write(fd, buf, len);
}
int ioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg);
}
int ioctl(int fd, unsigned long request, unsigned long arg)
{
    return ::ioctl(fd, request, arg);
}
void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset)
{
    return ::mmap(addr, len, prot, flags, fd, offset);
}
int munmap(void* addr, size_t len)
{
    return ::munmap(addr, len);
}
int stat(const char* path, struct stat* st)
{
    return ::stat(path, st);
}
bool exists(const QString& path)
{
    return QFileInfo::exists(path);
}
ssize_t readlink(const char* path, char* buf, size_t len)
{
    return ::readlink(path, buf, len);
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
int clock_gettime(clockid_t clock, struct timespec* ts)
{
    return ::clock_gettime(clock, ts);
}
void usleep(int64_t us)
{
    ::usleep(useconds_t(us < 0 ? 0 : us));
}
void msleep(int64_t ms)
{
    usleep(ms * 1000);
}
int system(const char* command)
{
    return ::system(command);
}
QString path(const QString& boardPath)
{
    return boardPath;
}

}  // namespace vsys
