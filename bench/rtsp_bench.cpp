// rtsp-bench RECORDING BINDIR [--runs N] [--only vesk,ffmpeg,bare] [--sink-thread]
//
// One recorded interleaved stream, taken in by three clients in turn, each a
// process of its own with a fresh rtsp-replay server in front of it:
//   vesk    rtsp-sink: VeskInputRtsp through the reference host, counting sink
//   ffmpeg  ffmpeg -rtsp_transport tcp -i URL -c copy -f null -
//   bare    rtsp-bare: the dialogue, then recv() into 1 MiB until the end
// The CPU of a client is what wait4() reports for its process (user + system),
// start-up included; its speed is the stream's size over the time from the
// server's PLAY reply to the client's hang-up. Rounds go vesk, ffmpeg, bare,
// vesk, ... so that a busy moment of the machine hits all of them alike, and
// each client's figure is its best round: load from elsewhere only ever adds.
//
// The last line reads
//   cpu_per_gb vesk=X ffmpeg=Y limit=Z ratio=R
// in CPU seconds per 10^9 bytes of stream, limit being the bare loop and R
// being X / Y.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Child {
    pid_t pid = -1;
    int out = -1;  // its standard output
};

Child spawn(const std::vector<std::string>& args)
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(p[1], 1);
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "rtsp-bench: %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    close(p[1]);
    if (pid < 0) {
        close(p[0]);
        return {};
    }
    return {pid, p[0]};
}

// One line from fd, read byte by byte so that nothing behind it is taken.
std::string readLine(int fd)
{
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
}

std::string readAll(int fd)
{
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) all.append(buf, size_t(n));
    return all;
}

std::map<std::string, std::string> fields(const std::string& text, char sep)
{
    std::map<std::string, std::string> out;
    std::istringstream in(text);
    std::string item;
    while (in >> item) {
        const size_t eq = item.find(sep);
        if (eq != std::string::npos) out[item.substr(0, eq)] = item.substr(eq + 1);
    }
    return out;
}

struct Run {
    bool ok = false;
    std::string note;
    double user = 0, sys = 0;
    double seconds = 0;  // PLAY to hang-up
    unsigned long long sent = 0;
    double cpu() const { return user + sys; }
};

struct Client {
    std::string key, title;
    std::vector<Run> runs;
    const Run* best() const
    {
        const Run* b = nullptr;
        for (const Run& r : runs)
            if (r.ok && (!b || r.cpu() < b->cpu())) b = &r;
        return b;
    }
    double fastest() const
    {
        double s = 0;
        for (const Run& r : runs)
            if (r.ok && r.seconds > 0 && (s == 0 || r.seconds < s)) s = r.seconds;
        return s;
    }
};

std::map<std::string, std::string> meta;
unsigned long long streamBytes = 0;

Run runOnce(const std::string& key, const std::string& recording, const std::string& bin,
            bool sinkThread)
{
    Run r;
    Child server = spawn({bin + "/rtsp-replay", recording});
    if (server.pid < 0) {
        r.note = "server did not start";
        return r;
    }
    const std::string portLine = readLine(server.out);
    const std::string port = portLine.compare(0, 5, "port ") == 0 ? portLine.substr(5) : "";
    std::vector<std::string> args;
    const std::string url = "rtsp://127.0.0.1:" + port + "/recorded";
    if (key == "vesk") {
        args = {bin + "/rtsp-sink", url};
        if (sinkThread) args.push_back("--sink-thread");
    } else if (key == "ffmpeg") {
        args = {"ffmpeg", "-nostdin", "-v",   "error", "-rtsp_transport", "tcp", "-i", url, "-c",
                "copy",   "-f",       "null", "-"};
    } else {
        args = {bin + "/rtsp-bare", url};
    }
    Child client;
    if (!port.empty()) client = spawn(args);
    std::string said;
    int status = -1;
    rusage ru{};
    if (client.pid > 0) {
        said = readAll(client.out);
        close(client.out);
        while (wait4(client.pid, &status, 0, &ru) < 0 && errno == EINTR) {
        }
    }
    const std::string sentLine = readLine(server.out);
    close(server.out);
    int serverStatus = 0;
    if (client.pid <= 0) kill(server.pid, SIGTERM);
    waitpid(server.pid, &serverStatus, 0);

    r.user = double(ru.ru_utime.tv_sec) + double(ru.ru_utime.tv_usec) / 1e6;
    r.sys = double(ru.ru_stime.tv_sec) + double(ru.ru_stime.tv_usec) / 1e6;
    if (std::sscanf(sentLine.c_str(), "sent %llu %lf", &r.sent, &r.seconds) != 2) {
        r.note = port.empty() ? "server gave no port" : "server did not finish";
        return r;
    }
    if (client.pid <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        r.note = "client failed (status " + std::to_string(status) + ")";
        return r;
    }
    if (r.sent != streamBytes) {
        r.note = "client left after " + std::to_string(r.sent) + " bytes";
        return r;
    }
    // What each client says it received must be the whole stream.
    if (key == "vesk") {
        auto f = fields(said, '=');
        if (f["video_bytes"] != meta["unit_bytes"] || f["video_packets"] != meta["units"] ||
            f["bad_start"] != "0" || f["dropped"] != "0") {
            r.note = "incomplete: " + said.substr(0, said.find('\n'));
            return r;
        }
    } else if (key == "bare") {
        if (said != "bytes " + std::to_string(streamBytes) + "\n") {
            r.note = "incomplete: " + said.substr(0, said.find('\n'));
            return r;
        }
    }
    r.ok = true;
    return r;
}

std::string fixed(double v, int decimals)
{
    if (!std::isfinite(v)) return "nan";
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr,
                     "usage: rtsp-bench RECORDING BINDIR [--runs N] [--only vesk,ffmpeg,bare] "
                     "[--sink-thread]\n");
        return 2;
    }
    const std::string recording = argv[1], bin = argv[2];
    int runs = 3;
    std::string only = "vesk,ffmpeg,bare";
    bool sinkThread = false;
    for (int i = 3; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--runs" && i + 1 < argc)
            runs = std::max(1, std::atoi(argv[++i]));
        else if (a == "--only" && i + 1 < argc)
            only = argv[++i];
        else if (a == "--sink-thread")
            sinkThread = true;
    }
    {
        std::ifstream in(recording + ".meta");
        std::string line;
        while (std::getline(in, line)) {
            const size_t eq = line.find('=');
            if (eq != std::string::npos) meta[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    struct stat st {};
    if (stat(recording.c_str(), &st) != 0 || !meta.count("units") ||
        std::to_string(st.st_size) != meta["bytes"]) {
        std::fprintf(stderr, "rtsp-bench: %s or its .meta is missing or stale\n",
                     recording.c_str());
        return 1;
    }
    streamBytes = static_cast<unsigned long long>(st.st_size);
    // Into the page cache, so that no round waits for the disk.
    {
        const int fd = open(recording.c_str(), O_RDONLY);
        std::unique_ptr<char[]> buf(new char[1 << 20]);
        while (fd >= 0 && read(fd, buf.get(), 1 << 20) > 0) {
        }
        if (fd >= 0) close(fd);
    }

    std::vector<Client> clients;
    for (const auto& c : {std::make_pair("vesk", "VeskInputRtsp (host, counting sink)"),
                          std::make_pair("ffmpeg", "ffmpeg -c copy -f null"),
                          std::make_pair("bare", "bare recv loop (limit)")})
        if (("," + only + ",").find(std::string(",") + c.first + ",") != std::string::npos)
            clients.push_back({c.first, c.second, {}});

    const double gb = double(streamBytes) / 1e9;
    std::printf("rtsp-ingest: %s: %.1f MB, %s pictures, %s NAL units in %s RTP packets\n",
                recording.c_str(), double(streamBytes) / 1e6, meta["frames"].c_str(),
                meta["units"].c_str(), meta["rtp_packets"].c_str());
    std::fflush(stdout);
    for (int round = 1; round <= runs; ++round)
        for (Client& c : clients) {
            Run r = runOnce(c.key, recording, bin, sinkThread);
            std::printf("  round %d %-7s cpu %6.3f s (user %6.3f sys %6.3f) %7.1f MB/s %s\n", round,
                        c.key.c_str(), r.cpu(), r.user, r.sys,
                        r.seconds > 0 ? double(r.sent) / 1e6 / r.seconds : 0.0,
                        r.ok ? "whole stream" : r.note.c_str());
            std::fflush(stdout);
            c.runs.push_back(r);
        }

    auto perGb = [&](const std::string& key) {
        for (const Client& c : clients)
            if (c.key == key && c.best()) return c.best()->cpu() / gb;
        return std::nan("");
    };
    const double vesk = perGb("vesk"), ff = perGb("ffmpeg"), bare = perGb("bare");
    std::printf("\nbest of %d rounds, per 10^9 bytes of stream:\n", runs);
    std::printf("%-38s %9s %9s %9s %9s %9s\n", "", "cpu_s/GB", "user", "sys", "MB/s", "/ffmpeg");
    bool allOk = true;
    for (const Client& c : clients) {
        const Run* b = c.best();
        if (!b) {
            allOk = false;
            std::printf("%-38s %9s   (%s)\n", c.title.c_str(), "failed",
                        c.runs.empty() ? "" : c.runs.back().note.c_str());
            continue;
        }
        const double fast = c.fastest();
        std::printf("%-38s %9.3f %9.3f %9.3f %9.1f %9.3f\n", c.title.c_str(), b->cpu() / gb,
                    b->user / gb, b->sys / gb, fast > 0 ? double(streamBytes) / 1e6 / fast : 0.0,
                    b->cpu() / gb / ff);
        for (const Run& r : c.runs) allOk = allOk && r.ok;
    }
    std::printf("cpu_per_gb vesk=%s ffmpeg=%s limit=%s ratio=%s\n", fixed(vesk, 3).c_str(),
                fixed(ff, 3).c_str(), fixed(bare, 3).c_str(), fixed(vesk / ff, 3).c_str());
    return allOk ? 0 : 1;
}
