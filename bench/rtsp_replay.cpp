// rtsp-replay RECORDING [-v]
//
// An RTSP server for one client on 127.0.0.1 and a port the system picks
// (printed as "port N" on the first line of standard output). It answers
// OPTIONS, DESCRIBE, SETUP (TCP interleaved on channels 0-1 only), PLAY,
// GET_PARAMETER and TEARDOWN, and after PLAY sends the recording made by
// rtsp-record with sendfile() as fast as TCP takes it. Requests that arrive
// while it sends are answered between two `$` records. At the end it stops
// sending, waits for the client to hang up and prints
//   sent BYTES SECONDS
// where SECONDS runs from the PLAY reply to the client's hang-up: the time
// the client took to take the whole stream in.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "bench/rtsp_wire.h"

namespace {

constexpr size_t kChunk = 1 << 20;
const char kSession[] = "5eb1c0de01";

using rtspwire::kWaitMs;
using rtspwire::verbose;

double now()
{
    return double(rtspwire::nowUs()) / 1e6;
}

class Server {
public:
    Server(int fd, const rtspwire::Recording& rec)
        : fd(fd), file(rec.file), map(rec.map), size(rec.size), meta(rec.meta)
    {
    }

    // The dialogue up to PLAY; false when the client left or asked for
    // what this server cannot give.
    bool dialogue()
    {
        rtspwire::Message m;
        while (rtspwire::read(fd, in, m)) {
            if (!answer(m)) return false;
            if (playing) return true;
        }
        return false;
    }

    void stream()
    {
        const double start = now();
        off_t off = 0;
        uint64_t boundary = 0;  // a record start at or behind off
        bool gone = false;
        while (uint64_t(off) < size && !gone) {
            if (!sendTo(off, std::min<uint64_t>(size, uint64_t(off) + kChunk))) break;
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 0) <= 0) continue;
            char tmp[4096];
            const ssize_t n = recv(fd, tmp, sizeof tmp, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                gone = true;
                break;
            }
            if (n > 0) in.append(tmp, size_t(n));
            rtspwire::Message m;
            while (rtspwire::take(in, m)) {
                // A reply must not land inside a record.
                while (boundary < uint64_t(off) && boundary + 4 <= size)
                    boundary += 4 + (uint8_t(map[boundary + 2]) << 8 | uint8_t(map[boundary + 3]));
                if (!sendTo(off, std::min(boundary, size))) {
                    gone = true;
                    break;
                }
                if (!answer(m) || !playing) {
                    gone = true;
                    break;
                }
            }
        }
        const uint64_t sent = uint64_t(off);
        shutdown(fd, SHUT_WR);
        // Whatever the client still says goes unanswered; its hang-up ends
        // the measurement.
        for (;;) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, kWaitMs) <= 0) {
                std::fprintf(stderr, "rtsp-replay: client did not hang up\n");
                break;
            }
            char tmp[4096];
            const ssize_t n = recv(fd, tmp, sizeof tmp, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
        }
        std::printf("sent %llu %.6f\n", static_cast<unsigned long long>(sent), now() - start);
        std::fflush(stdout);
    }

private:
    // Sends the file from off up to end; false when the client is gone.
    bool sendTo(off_t& off, uint64_t end)
    {
        while (uint64_t(off) < end) {
            const ssize_t n = sendfile(fd, file, &off, size_t(end - uint64_t(off)));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                if (n < 0 && errno != EPIPE && errno != ECONNRESET)
                    std::fprintf(stderr, "rtsp-replay: sendfile: %s\n", std::strerror(errno));
                return false;
            }
        }
        return true;
    }

    bool reply(const rtspwire::Message& req, const std::string& status, const std::string& headers,
               const std::string& body = std::string())
    {
        const std::string text = rtspwire::replyText(req, status, headers, body);
        if (verbose) std::fprintf(stderr, "<<< %s", text.c_str());
        // One write: a client may take the body from the same segment only.
        return rtspwire::writeAll(fd, text);
    }

    bool answer(const rtspwire::Message& m)
    {
        if (verbose) std::fprintf(stderr, ">>> %s\r\n%s\r\n", m.start.c_str(), m.head.c_str());
        const std::string method = m.word(0);
        std::string url = m.word(1);
        const std::string session = std::string("Session: ") + kSession + ";timeout=60\r\n";
        if (method == "OPTIONS") return reply(m, "200 OK", rtspwire::kPublic);
        if (method == "DESCRIBE") {
            if (url.empty() || url.back() != '/') url += '/';
            return reply(m, "200 OK",
                         "Content-Base: " + url + "\r\nContent-Type: application/sdp\r\n",
                         rtspwire::videoSdp(meta, "Recorded stream", url));
        }
        if (method == "SETUP") {
            const std::string t = m.header("Transport");
            if (t.find("interleaved=0-1") == std::string::npos) {
                std::fprintf(stderr, "rtsp-replay: transport \"%s\" not offered\n", t.c_str());
                reply(m, "461 Unsupported Transport", std::string());
                return false;
            }
            return reply(m, "200 OK",
                         "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;ssrc=" + meta.at("ssrc") +
                             "\r\n" + session);
        }
        if (method == "PLAY") {
            playing = true;
            return reply(m, "200 OK",
                         session + "Range: npt=0.000-\r\nRTP-Info: url=" + url +
                             (url.empty() || url.back() != '/' ? "/" : "") + "stream=0;seq=" +
                             meta.at("seq") + ";rtptime=" + meta.at("rtptime") + "\r\n");
        }
        if (method == "GET_PARAMETER") return reply(m, "200 OK", session);
        if (method == "TEARDOWN") {
            reply(m, "200 OK", session);
            playing = false;
            return true;
        }
        return reply(m, "501 Not Implemented", std::string());
    }

    int fd, file;
    const char* map;
    uint64_t size;
    const std::map<std::string, std::string>& meta;
    std::string in;
    bool playing = false;
};

}  // namespace

int main(int argc, char** argv)
{
    if (!rtspwire::serverArgs(argc, argv, 1, "rtsp-replay RECORDING [-v]")) return 2;
    rtspwire::Recording rec;
    if (!rec.open(argv[1], false, "rtsp-replay")) return 1;
    const int listener = rtspwire::listenLocal(1, 0, "rtsp-replay");
    if (listener < 0) return 1;

    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, kWaitMs) <= 0) {
        std::fprintf(stderr, "rtsp-replay: nobody connected\n");
        return 1;
    }
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    // One client per run: a client that retries finds nobody.
    close(listener);
    if (fd < 0) {
        std::fprintf(stderr, "rtsp-replay: accept: %s\n", std::strerror(errno));
        return 1;
    }
    // A client that stops reading must not hold the server for ever.
    timeval tv{kWaitMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    Server server(fd, rec);
    if (!server.dialogue()) {
        std::fprintf(stderr, "rtsp-replay: the client left before PLAY\n");
        return 1;
    }
    server.stream();
    close(fd);
    return 0;
}
