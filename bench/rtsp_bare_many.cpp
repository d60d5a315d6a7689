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
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/rtsp_wire.h"

namespace {

bool request(int fd, std::string& buf, int& cseq, const std::string& method, const std::string& url,
             const std::string& extra, rtspwire::Message& reply)
{
    const std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq++) +
                             "\r\n" + extra + "\r\n";
    if (!rtspwire::writeAll(fd, text) || !rtspwire::read(fd, buf, reply)) return false;
    if (reply.word(1) != "200") {
        std::fprintf(stderr, "rtsp-bare-many: %s: %s\n", method.c_str(), reply.start.c_str());
        return false;
    }
    return true;
}

// Connects and plays; returns the socket and, in `bytes`, what already came
// in behind the PLAY reply.
int open(const sockaddr_in& a, const std::string& url, unsigned long long& bytes)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        std::perror("rtsp-bare-many: connect");
        return -1;
    }
    std::string buf;
    int cseq = 1;
    rtspwire::Message r;
    if (!request(fd, buf, cseq, "OPTIONS", url, "", r) ||
        !request(fd, buf, cseq, "DESCRIBE", url, "Accept: application/sdp\r\n", r))
        return -1;
    const bool audio = r.body.find("m=audio") != std::string::npos;
    std::string base = r.header("Content-Base");
    if (base.empty()) base = url + "/";
    if (!request(fd, buf, cseq, "SETUP", base + "stream=0",
                 "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", r))
        return -1;
    std::string session = r.header("Session");
    session = session.substr(0, session.find(';'));
    if (audio &&
        !request(fd, buf, cseq, "SETUP", base + "stream=1",
                 "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\nSession: " + session + "\r\n",
                 r))
        return -1;
    if (!request(fd, buf, cseq, "PLAY", url, "Session: " + session + "\r\nRange: npt=0.000-\r\n",
                 r))
        return -1;
    bytes = buf.size();
    return fd;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: rtsp-bare-many rtsp://127.0.0.1:PORT/PATH STREAMS\n");
        return 2;
    }
    const std::string url = argv[1];
    const int streams = std::max(1, std::atoi(argv[2]));
    const size_t colon = url.find(':', 7);
    if (url.compare(0, 7, "rtsp://") != 0 || colon == std::string::npos) {
        std::fprintf(stderr, "rtsp-bare-many: %s: want rtsp://ADDRESS:PORT/PATH\n", url.c_str());
        return 2;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(std::atoi(url.c_str() + colon + 1)));
    if (inet_pton(AF_INET, url.substr(7, colon - 7).c_str(), &a.sin_addr) != 1) {
        std::fprintf(stderr, "rtsp-bare-many: %s: not a literal IPv4 address\n", url.c_str());
        return 2;
    }

    const int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> fds(size_t(streams), -1);
    std::vector<unsigned long long> bytes(size_t(streams), 0);
    for (int i = 0; i < streams; ++i) {
        fds[size_t(i)] = open(a, url, bytes[size_t(i)]);
        if (fds[size_t(i)] < 0) return 1;
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
