// rtsp-paced RECORDING STREAMS [-v]
//
// An RTSP server on 127.0.0.1 (port printed as "port N" on the first line)
// for STREAMS clients at once, each sent the whole recording of rtsp-record
// (H.264 on channels 0-1, AAC on 2-3 when recorded) in real time, as a
// camera sends: every record leaves with a send() of its own once its RTP
// time stamp is due, counted from that client's PLAY. One thread, one epoll
// set for the listener and every connection.
//
// It answers OPTIONS, DESCRIBE, SETUP (TCP interleaved), PLAY,
// GET_PARAMETER and TEARDOWN, and skips the interleaved frames a client
// sends (receiver reports). After the last record it shuts its side of the
// connection; once every client has hung up it prints one line a client,
//   sent INDEX BYTES SECONDS LATE_MS
// (LATE_MS: the furthest a record fell behind its time), then "done".
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/rtsp_wire.h"

namespace {

const char kSession[] = "5eb1c0de02";

using rtspwire::kWaitMs;
using rtspwire::nowUs;
using rtspwire::verbose;

uint32_t be32(const char* p)
{
    const auto* u = reinterpret_cast<const uint8_t*>(p);
    return uint32_t(u[0]) << 24 | uint32_t(u[1]) << 16 | uint32_t(u[2]) << 8 | u[3];
}

struct Record {
    uint64_t at;
    uint32_t len;   // with its 4-byte `$` header
    int64_t dueUs;  // after PLAY
};

struct Recording : rtspwire::Recording {
    std::vector<Record> records;
    bool audio = false;

    // Due times from the RTP time stamps; RTCP goes with the record before.
    bool index()
    {
        const uint32_t ts0V = uint32_t(std::stoul(meta.at("rtptime")));
        uint32_t ts0A = 0, rateA = 1;
        if (audio) {
            ts0A = uint32_t(std::stoul(meta.at("audio_rtptime")));
            rateA = uint32_t(std::stoul(meta.at("audio_rate")));
        }
        int64_t last = 0;
        for (uint64_t at = 0; at + 4 <= size;) {
            if (map[at] != '$') return false;
            const uint32_t len = 4 + (uint32_t(uint8_t(map[at + 2])) << 8 | uint8_t(map[at + 3]));
            if (at + len > size) return false;
            const int channel = uint8_t(map[at + 1]);
            int64_t due = last;
            if (channel == 0 && len >= 16)
                due = int64_t(uint32_t(be32(map + at + 8) - ts0V)) * 1000000 / 90000;
            else if (channel == 2 && len >= 16)
                due = int64_t(uint32_t(be32(map + at + 8) - ts0A)) * 1000000 / rateA;
            records.push_back({at, len, due});
            last = due;
            at += len;
        }
        return !records.empty();
    }
};

class Conn {
public:
    Conn(int fd, int index, const Recording& rec) : fd(fd), index(index), rec(rec) {}

    int fd;
    int index;
    bool playing = false, finished = false, closed = false, waitsOut = false;
    int64_t playUs = 0, endUs = 0, lateUs = 0;
    uint64_t sent = 0;
    size_t next = 0;       // record
    uint32_t partial = 0;  // bytes of records[next] already sent
    std::string in, out;   // requests, replies not yet written

    // Reads what the client said; false once it hung up.
    bool readable()
    {
        char tmp[4096];
        for (;;) {
            const ssize_t n = recv(fd, tmp, sizeof tmp, MSG_DONTWAIT);
            if (n > 0) {
                in.append(tmp, size_t(n));
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
            return false;
        }
        for (;;) {
            // Interleaved frames from the client: receiver reports, dropped.
            if (!in.empty() && in[0] == '$') {
                if (in.size() < 4) break;
                const size_t len = 4 + (size_t(uint8_t(in[2])) << 8 | uint8_t(in[3]));
                if (in.size() < len) break;
                in.erase(0, len);
                continue;
            }
            rtspwire::Message m;
            if (!rtspwire::take(in, m)) break;
            if (!answer(m)) return false;
        }
        return true;
    }

    // Writes replies and every record that is due; returns the time the
    // next one is due (INT64_MAX: none) and sets `blocked` when TCP is full.
    int64_t pump(int64_t now, bool& blocked)
    {
        blocked = false;
        if (partial == 0 && !flushReplies(blocked)) return INT64_MAX;
        if (!playing || finished) return INT64_MAX;
        while (next < rec.records.size()) {
            const Record& r = rec.records[next];
            const int64_t due = playUs + r.dueUs;
            if (partial == 0) {
                if (due > now) return due;
                lateUs = std::max(lateUs, now - due);
            }
            const ssize_t n =
                send(fd, rec.map + r.at + partial, r.len - partial, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                blocked = true;
                return INT64_MAX;
            }
            if (n <= 0) {
                finish(now);
                return INT64_MAX;
            }
            sent += uint64_t(n);
            partial += uint32_t(n);
            if (partial < r.len) continue;
            partial = 0;
            ++next;
            // Replies go between two records only.
            if (!out.empty() && !flushReplies(blocked)) return INT64_MAX;
        }
        finish(now);
        return INT64_MAX;
    }

private:
    void finish(int64_t now)
    {
        if (finished) return;
        finished = true;
        endUs = now;
        shutdown(fd, SHUT_WR);
    }

    bool flushReplies(bool& blocked)
    {
        while (!out.empty()) {
            const ssize_t n = send(fd, out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                blocked = true;
                return false;
            }
            if (n <= 0) return false;
            out.erase(0, size_t(n));
        }
        return true;
    }

    std::string sdp(const std::string& base) const
    {
        const auto& meta = rec.meta;
        std::string s = rtspwire::videoSdp(meta, "Paced stream", base);
        if (rec.audio)
            s += "m=audio 0 RTP/AVP 97\r\n"
                 "a=rtpmap:97 MPEG4-GENERIC/" +
                 meta.at("audio_rate") + "/" + meta.at("audio_channels") +
                 "\r\n"
                 "a=fmtp:97 streamtype=5;profile-level-id=1;mode=AAC-hbr;sizelength=13;"
                 "indexlength=3;indexdeltalength=3;config=" +
                 meta.at("audio_config") +
                 "\r\n"
                 "a=control:" +
                 base + "stream=1\r\n";
        return s;
    }

    void reply(const rtspwire::Message& req, const std::string& status, const std::string& headers,
               const std::string& body = std::string())
    {
        const std::string text = rtspwire::replyText(req, status, headers, body);
        if (verbose) std::fprintf(stderr, "<<< %d %s", index, text.c_str());
        out += text;
    }

    bool answer(const rtspwire::Message& m)
    {
        if (verbose)
            std::fprintf(stderr, ">>> %d %s\r\n%s\r\n", index, m.start.c_str(), m.head.c_str());
        const std::string method = m.word(0);
        std::string url = m.word(1);
        const std::string session = std::string("Session: ") + kSession + ";timeout=60\r\n";
        if (method == "OPTIONS") {
            reply(m, "200 OK", rtspwire::kPublic);
        } else if (method == "DESCRIBE") {
            if (url.empty() || url.back() != '/') url += '/';
            reply(m, "200 OK", "Content-Base: " + url + "\r\nContent-Type: application/sdp\r\n",
                  sdp(url));
        } else if (method == "SETUP") {
            const std::string t = m.header("Transport");
            const bool audio = url.size() >= 8 && url.compare(url.size() - 8, 8, "stream=1") == 0;
            const std::string want = audio ? "interleaved=2-3" : "interleaved=0-1";
            if (t.find(want) == std::string::npos || (audio && !rec.audio)) {
                std::fprintf(stderr, "rtsp-paced: transport \"%s\" for %s not offered\n", t.c_str(),
                             url.c_str());
                reply(m, "461 Unsupported Transport", std::string());
                return false;
            }
            reply(m, "200 OK",
                  "Transport: RTP/AVP/TCP;unicast;" + want +
                      ";ssrc=" + rec.meta.at(audio ? "audio_ssrc" : "ssrc") + "\r\n" + session);
        } else if (method == "PLAY") {
            if (!playing) {
                playing = true;
                playUs = nowUs();
            }
            if (!url.empty() && url.back() != '/') url += '/';
            std::string info = "RTP-Info: url=" + url + "stream=0;seq=" + rec.meta.at("seq") +
                               ";rtptime=" + rec.meta.at("rtptime");
            if (rec.audio)
                info += ",url=" + url + "stream=1;seq=" + rec.meta.at("audio_seq") +
                        ";rtptime=" + rec.meta.at("audio_rtptime");
            reply(m, "200 OK", session + "Range: npt=0.000-\r\n" + info + "\r\n");
        } else if (method == "GET_PARAMETER") {
            reply(m, "200 OK", session);
        } else if (method == "TEARDOWN") {
            reply(m, "200 OK", session);
        } else {
            reply(m, "501 Not Implemented", std::string());
        }
        return true;
    }

    const Recording& rec;
};

}  // namespace

int main(int argc, char** argv)
{
    if (!rtspwire::serverArgs(argc, argv, 2, "rtsp-paced RECORDING STREAMS [-v]")) return 2;
    const std::string path = argv[1];
    const int streams = std::max(1, std::atoi(argv[2]));
    Recording rec;
    if (!rec.open(path, true, "rtsp-paced")) return 1;
    rec.audio = rec.meta.count("audio_rate") > 0;
    try {
        if (!rec.index()) throw std::runtime_error("bad record");
    } catch (const std::exception&) {
        std::fprintf(stderr, "rtsp-paced: %s is not a recording with its .meta\n", path.c_str());
        return 1;
    }

    const int listener = rtspwire::listenLocal(256, SOCK_NONBLOCK, "rtsp-paced");
    if (listener < 0) return 1;

    const int ep = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = UINT64_MAX;
    epoll_ctl(ep, EPOLL_CTL_ADD, listener, &ev);

    std::vector<std::unique_ptr<Conn>> conns;
    int listening = listener;
    int open = 0;
    int64_t lastActivity = nowUs();
    for (;;) {
        // Everything due goes out first; the wait lasts until the next record.
        const int64_t now = nowUs();
        int64_t nextDue = INT64_MAX;
        for (auto& c : conns) {
            if (c->closed) continue;
            bool blocked = false;
            const int64_t due = c->pump(now, blocked);
            nextDue = std::min(nextDue, due);
            if (blocked == c->waitsOut) continue;
            c->waitsOut = blocked;
            epoll_event e{};
            e.events = EPOLLIN | EPOLLRDHUP | (blocked ? EPOLLOUT : 0u);
            e.data.u64 = uint64_t(c->index);
            epoll_ctl(ep, EPOLL_CTL_MOD, c->fd, &e);
        }
        if (listening < 0 && open == 0) break;
        int timeout = kWaitMs;
        if (nextDue != INT64_MAX) timeout = int(std::max<int64_t>(0, (nextDue - now + 999) / 1000));
        epoll_event events[64];
        const int n = epoll_wait(ep, events, 64, timeout);
        if (n < 0 && errno != EINTR) break;
        if (n > 0) lastActivity = nowUs();
        if (n == 0 && nextDue == INT64_MAX && nowUs() - lastActivity >= int64_t(kWaitMs) * 1000) {
            std::fprintf(stderr, "rtsp-paced: %d clients quiet for %d s, giving up\n", open,
                         kWaitMs / 1000);
            break;
        }
        for (int i = 0; i < n; ++i) {
            if (events[i].data.u64 == UINT64_MAX) {
                for (;;) {
                    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
                    if (fd < 0) break;
                    const int one = 1;
                    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    const int index = int(conns.size());
                    conns.emplace_back(new Conn(fd, index, rec));
                    ++open;
                    epoll_event e{};
                    e.events = EPOLLIN | EPOLLRDHUP;
                    e.data.u64 = uint64_t(index);
                    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e);
                    // Exactly STREAMS clients: one that calls again finds nobody.
                    if (int(conns.size()) == streams) {
                        epoll_ctl(ep, EPOLL_CTL_DEL, listener, nullptr);
                        close(listener);
                        listening = -1;
                        break;
                    }
                }
                continue;
            }
            Conn& c = *conns[size_t(events[i].data.u64)];
            if (c.closed || !(events[i].events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)))
                continue;
            if (!c.readable()) {
                if (!c.finished) c.endUs = nowUs();
                c.closed = true;
                epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
                close(c.fd);
                --open;
            }
        }
    }
    for (auto& c : conns)
        std::printf("sent %d %llu %.3f %.1f\n", c->index, static_cast<unsigned long long>(c->sent),
                    c->playing ? double(c->endUs - c->playUs) / 1e6 : 0.0,
                    double(c->lateUs) / 1000);
    std::printf("done\n");
    std::fflush(stdout);
    return 0;
}
