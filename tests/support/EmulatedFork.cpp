// Linked into the test programs of cross builds only. qemu-user (7.2, Debian
// 12) passes Qt's probe for pidfd support (waitid on P_PIDFD) to the kernel,
// which has it, but then refuses clone(CLONE_PIDFD) itself, so QProcess
// could start nothing under the emulator. Turning the probe down here makes Qt
// start children with a plain fork, which the emulator handles. The programs
// export their symbols, so this definition is the one Qt's calls reach.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

extern "C" long syscall(long number, ...)
{
    // Passed on word by word: the words keep their registers and stack slots,
    // whatever the types the caller put there.
    va_list ap;
    va_start(ap, number);
    long a[7];
    for (long& word : a) word = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_waitid && a[0] == P_PIDFD) {
        errno = ENOSYS;
        return -1;
    }
    using Syscall = long (*)(long, ...);
    static const Syscall next = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
    return next(number, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
}
