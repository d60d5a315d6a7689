// RTSP messages on a plain blocking socket, for the benchmark's server and
// its bare client: just enough to hold a dialogue, nothing of a session.
#pragma once

#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

}  // namespace rtspwire
