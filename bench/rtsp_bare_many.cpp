// rtsp-bare-many rtsp://127.0.0.1:PORT/PATH STREAMS
//
// The floor for many RTSP sessions over TCP in one process: one thread holds
// the dialogue (OPTIONS, DESCRIBE, SETUP of the video track on channels 0-1
// and of the audio track on 2-3 when the SDP has one, PLAY) with each of
// STREAMS connections in turn, then receives on all of them through one
// epoll set into one buffer, looking at nothing, until every server side
// has closed. Prints one line a stream,
//   bytes INDEX N
// counting everything behind the PLAY reply.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/rtsp_wire.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: rtsp-bare-many rtsp://127.0.0.1:PORT/PATH STREAMS\n");
        return 2;
    }
    const std::string url = argv[1];
    const int streams = std::max(1, std::atoi(argv[2]));
    sockaddr_in a{};
    if (!rtspwire::address(url, a, "rtsp-bare-many")) return 2;

    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> fds(size_t(streams), -1);
    std::vector<unsigned long long> bytes(size_t(streams), 0);
    for (int i = 0; i < streams; ++i) {
        std::string buf;
        fds[size_t(i)] = rtspwire::play(a, url, true, buf, "rtsp-bare-many");
        if (fds[size_t(i)] < 0) return 1;
        bytes[size_t(i)] = buf.size();
        fcntl(fds[size_t(i)], F_SETFL, fcntl(fds[size_t(i)], F_GETFL) | O_NONBLOCK);
        epoll_event e{};
        e.events = EPOLLIN;
        e.data.u32 = uint32_t(i);
        epoll_ctl(ep, EPOLL_CTL_ADD, fds[size_t(i)], &e);
    }

    constexpr size_t kBuffer = 1 << 20;
    std::unique_ptr<char[]> in(new char[kBuffer]);
    int open = streams;
    while (open > 0) {
        epoll_event events[64];
        const int n = epoll_wait(ep, events, 64, -1);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        for (int k = 0; k < n; ++k) {
            // One receive a readiness: the set is level-triggered, so what
            // does not fit comes back in the next round.
            const size_t i = events[k].data.u32;
            const ssize_t got = recv(fds[i], in.get(), kBuffer, 0);
            if (got > 0) {
                bytes[i] += size_t(got);
            } else if (got == 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) {
                epoll_ctl(ep, EPOLL_CTL_DEL, fds[i], nullptr);
                close(fds[i]);
                --open;
            }
        }
    }
    for (int i = 0; i < streams; ++i) std::printf("bytes %d %llu\n", i, bytes[size_t(i)]);
    return 0;
}
