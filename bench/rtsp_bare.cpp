// rtsp-bare rtsp://127.0.0.1:PORT/PATH
//
// The floor for any RTSP client over TCP: the dialogue (OPTIONS, DESCRIBE,
// SETUP on interleaved channels 0-1, PLAY), then receiving into one 1 MiB
// buffer until the server closes, looking at nothing. Prints
//   bytes N
// counting everything behind the PLAY reply.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "bench/rtsp_wire.h"

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: rtsp-bare rtsp://127.0.0.1:PORT/PATH\n");
        return 2;
    }
    const std::string url = argv[1];
    sockaddr_in a{};
    if (!rtspwire::address(url, a, "rtsp-bare")) return 2;
    std::string buf;
    const int fd = rtspwire::play(a, url, false, buf, "rtsp-bare");
    if (fd < 0) return 1;

    // Whatever came in behind the PLAY reply is stream already.
    unsigned long long bytes = buf.size();
    constexpr size_t kBuffer = 1 << 20;
    std::unique_ptr<char[]> in(new char[kBuffer]);
    for (;;) {
        const ssize_t n = recv(fd, in.get(), kBuffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        bytes += size_t(n);
    }
    close(fd);
    std::printf("bytes %llu\n", bytes);
    return 0;
}
