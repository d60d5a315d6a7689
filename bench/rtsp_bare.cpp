// rtsp-bare rtsp://127.0.0.1:PORT/PATH
//
// The floor for any RTSP client over TCP: the dialogue (OPTIONS, DESCRIBE,
// SETUP on interleaved channels 0-1, PLAY), then receiving into one 1 MiB
// buffer until the server closes, looking at nothing. Prints
//   bytes N
// counting everything behind the PLAY reply.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/rtsp_wire.h"

namespace {

bool request(int fd, std::string& buf, int& cseq, const std::string& method, const std::string& url,
             const std::string& extra, rtspwire::Message& reply)
{
    const std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq++) +
                             "\r\n" + extra + "\r\n";
    if (!rtspwire::writeAll(fd, text) || !rtspwire::read(fd, buf, reply)) return false;
    if (reply.word(1) != "200") {
        std::fprintf(stderr, "rtsp-bare: %s: %s\n", method.c_str(), reply.start.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: rtsp-bare rtsp://127.0.0.1:PORT/PATH\n");
        return 2;
    }
    const std::string url = argv[1];
    const size_t colon = url.find(':', 7);
    if (url.compare(0, 7, "rtsp://") != 0 || colon == std::string::npos) {
        std::fprintf(stderr, "rtsp-bare: %s: want rtsp://ADDRESS:PORT/PATH\n", url.c_str());
        return 2;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(std::atoi(url.c_str() + colon + 1)));
    if (inet_pton(AF_INET, url.substr(7, colon - 7).c_str(), &a.sin_addr) != 1) {
        std::fprintf(stderr, "rtsp-bare: %s: not a literal IPv4 address\n", url.c_str());
        return 2;
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        std::perror("rtsp-bare: connect");
        return 1;
    }

    std::string buf;
    int cseq = 1;
    rtspwire::Message r;
    if (!request(fd, buf, cseq, "OPTIONS", url, "", r) ||
        !request(fd, buf, cseq, "DESCRIBE", url, "Accept: application/sdp\r\n", r))
        return 1;
    std::string base = r.header("Content-Base");
    if (base.empty()) base = url + "/";
    if (!request(fd, buf, cseq, "SETUP", base + "stream=0",
                 "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", r))
        return 1;
    std::string session = r.header("Session");
    session = session.substr(0, session.find(';'));
    if (!request(fd, buf, cseq, "PLAY", url, "Session: " + session + "\r\nRange: npt=0.000-\r\n",
                 r))
        return 1;

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
