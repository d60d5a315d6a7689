// The one road from the library to the operating system. On the board every
// call is the plain Linux call; a build against the virtual board answers
// some paths and descriptors from emulated devices instead. Nothing outside
// this seam may call these functions of libc directly.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <QString>
#include <cstddef>
#include <cstdint>

struct stat;

namespace vsys {

int open(const char* path, int flags, mode_t mode = 0);
int close(int fd);
ssize_t read(int fd, void* buf, size_t len);
ssize_t write(int fd, const void* buf, size_t len);
// Requests whose argument is a pointer to a record.
int ioctl(int fd, unsigned long request, void* arg);
// Requests whose argument is a plain integer (I2C_SLAVE_FORCE and the like).
int ioctl(int fd, unsigned long request, unsigned long arg);
void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset);
int munmap(void* addr, size_t len);
int stat(const char* path, struct stat* st);
bool exists(const QString& path);
ssize_t readlink(const char* path, char* buf, size_t len);
int shmget(key_t key, size_t size, int flags);
void* shmat(int id, const void* addr, int flags);
int shmdt(const void* addr);
int system(const char* command);
// CLOCK_REALTIME is the board's wall clock, which may not be set yet.
int clock_gettime(clockid_t clock, struct timespec* ts);
// Sleeps of the library's own threads (bring-up waits, poll loops). On the
// virtual board a test can hold the board's clock and step these.
void usleep(int64_t us);
void msleep(int64_t ms);
// Where a board path (such as "/vesk/config/edid.bin") lives on this machine;
// for code that opens files through Qt rather than through open().
QString path(const QString& boardPath);

}  // namespace vsys
