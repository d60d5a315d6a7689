// RTSP messages on a plain socket, for the benchmarks' servers and their
// bare clients: just enough to hold a dialogue, nothing of a session; and
// what those servers share of serving a recording of rtsp-record.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <initializer_list>
#include <map>
#include <string>

namespace rtspwire {

struct Message {
    std::string start;  // request or status line
    std::string head;   // header lines, each ending in CRLF
    std::string body;

    // The value of a header, case-insensitive, trimmed; empty when missing.
    std::string header(const char* name) const
    {
        const size_t n = std::strlen(name);
        size_t at = 0;
        while (at < head.size()) {
            const size_t end = head.find("\r\n", at);
            const std::string line = head.substr(at, end == std::string::npos ? end : end - at);
            at = end == std::string::npos ? head.size() : end + 2;
            if (line.size() > n && line[n] == ':' && strncasecmp(line.c_str(), name, n) == 0) {
                size_t b = n + 1;
                while (b < line.size() && line[b] == ' ') ++b;
                return line.substr(b);
            }
        }
        return std::string();
    }
    std::string word(int i) const
    {
        size_t at = 0;
        for (int k = 0; k < i; ++k) {
            at = start.find(' ', at);
            if (at == std::string::npos) return std::string();
            ++at;
        }
        const size_t end = start.find(' ', at);
        return start.substr(at, end == std::string::npos ? end : end - at);
    }
};

// Takes one whole message off the front of `buf`, if it holds one.
inline bool take(std::string& buf, Message& m)
{
    const size_t end = buf.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const size_t lineEnd = buf.find("\r\n");
    Message out;
    out.start = buf.substr(0, lineEnd);
    out.head = lineEnd < end ? buf.substr(lineEnd + 2, end - lineEnd) : std::string();
    const size_t length = std::strtoul(out.header("Content-Length").c_str(), nullptr, 10);
    if (buf.size() < end + 4 + length) return false;
    out.body = buf.substr(end + 4, length);
    buf.erase(0, end + 4 + length);
    m = std::move(out);
    return true;
}

// Reads until one whole message is there; false on end of stream or error.
inline bool read(int fd, std::string& buf, Message& m)
{
    char tmp[4096];
    while (!take(buf, m)) {
        const ssize_t n = ::recv(fd, tmp, sizeof tmp, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        buf.append(tmp, size_t(n));
    }
    return true;
}

inline bool writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += size_t(n);
    }
    return true;
}

// One request and its reply, which must be a 200; `who` names the program
// in what goes to standard error.
inline bool request(int fd, std::string& buf, int& cseq, const std::string& method,
                    const std::string& url, const std::string& extra, Message& reply,
                    const char* who)
{
    const std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq++) +
                             "\r\n" + extra + "\r\n";
    if (!writeAll(fd, text) || !read(fd, buf, reply)) return false;
    if (reply.word(1) != "200") {
        std::fprintf(stderr, "%s: %s: %s\n", who, method.c_str(), reply.start.c_str());
        return false;
    }
    return true;
}

// The address of rtsp://ADDRESS:PORT/PATH, the address a literal IPv4 one.
inline bool address(const std::string& url, sockaddr_in& a, const char* who)
{
    const size_t colon = url.find(':', 7);
    if (url.compare(0, 7, "rtsp://") != 0 || colon == std::string::npos) {
        std::fprintf(stderr, "%s: %s: want rtsp://ADDRESS:PORT/PATH\n", who, url.c_str());
        return false;
    }
    a = sockaddr_in{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(std::atoi(url.c_str() + colon + 1)));
    if (inet_pton(AF_INET, url.substr(7, colon - 7).c_str(), &a.sin_addr) != 1) {
        std::fprintf(stderr, "%s: %s: not a literal IPv4 address\n", who, url.c_str());
        return false;
    }
    return true;
}

// Connects and holds the dialogue up to PLAY: OPTIONS, DESCRIBE, SETUP of
// the video track on channels 0-1 and, with `audio`, of the audio track on
// 2-3 when the SDP has one, PLAY. The socket, or -1; `buf` keeps what came
// in behind the PLAY reply, which is stream already.
inline int play(const sockaddr_in& a, const std::string& url, bool audio, std::string& buf,
                const char* who)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        std::perror((std::string(who) + ": connect").c_str());
        if (fd >= 0) close(fd);
        return -1;
    }
    int cseq = 1;
    Message r;
    auto dialogue = [&] {
        if (!request(fd, buf, cseq, "OPTIONS", url, "", r, who) ||
            !request(fd, buf, cseq, "DESCRIBE", url, "Accept: application/sdp\r\n", r, who))
            return false;
        audio = audio && r.body.find("m=audio") != std::string::npos;
        std::string base = r.header("Content-Base");
        if (base.empty()) base = url + "/";
        if (!request(fd, buf, cseq, "SETUP", base + "stream=0",
                     "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n", r, who))
            return false;
        std::string session = r.header("Session");
        session = session.substr(0, session.find(';'));
        if (audio && !request(fd, buf, cseq, "SETUP", base + "stream=1",
                              "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\nSession: " +
                                  session + "\r\n",
                              r, who))
            return false;
        if (!request(fd, buf, cseq, "PLAY", url,
                     "Session: " + session + "\r\nRange: npt=0.000-\r\n", r, who))
            return false;
        return true;
    };
    if (dialogue()) return fd;
    close(fd);
    return -1;
}

// The key=value lines rtsp-record writes beside a recording (RECORDING.meta),
// and the benchmark programs read.
inline std::map<std::string, std::string> readMeta(const std::string& path)
{
    std::map<std::string, std::string> meta;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t eq = line.find('=');
        if (eq != std::string::npos) meta[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return meta;
}

// How long a server waits for a client that says nothing.
constexpr int kWaitMs = 30000;

// With -v a server shows its dialogue on standard error.
inline bool verbose = false;

// A server's command line: `args` arguments, then -v or nothing. False
// after printing `usage` when arguments are missing. A client that hangs up
// must not end the server with SIGPIPE.
inline bool serverArgs(int argc, char** argv, int args, const char* usage)
{
    if (argc < args + 1) {
        std::fprintf(stderr, "usage: %s\n", usage);
        return false;
    }
    verbose = argc > args + 1 && std::string(argv[args + 1]) == "-v";
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

inline int64_t nowUs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// A server's side: the recording, mapped, with its .meta.
struct Recording {
    int file = -1;
    const char* map = nullptr;
    uint64_t size = 0;
    std::map<std::string, std::string> meta;

    // False, after saying why, unless the recording and a .meta with what
    // the video track's description needs are there. `populate` reads the
    // whole file in at once.
    bool open(const std::string& path, bool populate, const char* who)
    {
        meta = readMeta(path + ".meta");
        for (const char* key : {"profile", "sprop", "ssrc", "seq", "rtptime"})
            if (!meta.count(key)) {
                std::fprintf(stderr, "%s: %s.meta has no %s\n", who, path.c_str(), key);
                return false;
            }
        file = ::open(path.c_str(), O_RDONLY);
        struct stat st {};
        if (file < 0 || fstat(file, &st) != 0 || st.st_size <= 0) {
            std::fprintf(stderr, "%s: %s: %s\n", who, path.c_str(), std::strerror(errno));
            return false;
        }
        size = uint64_t(st.st_size);
        void* m =
            mmap(nullptr, size, PROT_READ, MAP_SHARED | (populate ? MAP_POPULATE : 0), file, 0);
        if (m == MAP_FAILED) {
            std::fprintf(stderr, "%s: mmap: %s\n", who, std::strerror(errno));
            return false;
        }
        map = static_cast<const char*>(m);
        return true;
    }
};

// A listening socket on 127.0.0.1 at a port the system picks, which goes
// out as "port N", the first line of standard output; -1 after saying why.
inline int listenLocal(int backlog, int flags, const char* who)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t alen = sizeof a;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(listener, backlog) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &alen) != 0) {
        std::fprintf(stderr, "%s: listen: %s\n", who, std::strerror(errno));
        return -1;
    }
    std::printf("port %u\n", unsigned(ntohs(a.sin_port)));
    std::fflush(stdout);
    return listener;
}

// The session and video part of the servers' SDP: the recording's H.264
// track as control stream=0 below `base`.
inline std::string videoSdp(const std::map<std::string, std::string>& meta, const char* title,
                            const std::string& base)
{
    return "v=0\r\n"
           "o=- 1 1 IN IP4 127.0.0.1\r\n"
           "s=" +
           std::string(title) +
           "\r\n"
           "c=IN IP4 0.0.0.0\r\n"
           "t=0 0\r\n"
           "a=control:*\r\n"
           "m=video 0 RTP/AVP 96\r\n"
           "a=rtpmap:96 H264/90000\r\n"
           "a=fmtp:96 packetization-mode=1;profile-level-id=" +
           meta.at("profile") + ";sprop-parameter-sets=" + meta.at("sprop") +
           "\r\n"
           "a=framerate:25\r\n"
           "a=control:" +
           base + "stream=0\r\n";
}

// A server's reply to `req`, its body's length included.
inline std::string replyText(const Message& req, const std::string& status,
                             const std::string& headers, const std::string& body = std::string())
{
    std::string text = "RTSP/1.0 " + status + "\r\nCSeq: " + req.header("CSeq") + "\r\n" + headers;
    if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

// The methods the servers answer, as their reply to OPTIONS lists them.
constexpr char kPublic[] = "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER\r\n";

}  // namespace rtspwire
