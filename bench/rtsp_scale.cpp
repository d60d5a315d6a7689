// rtsp-scale-bench RECORDING BINDIR --streams N [--threads K]
//
// N paced streams from one rtsp-paced server (the recording of rtsp-record,
// each stream in real time from its client's PLAY), taken in by three
// clients in turn, each with a fresh server in front of it:
//   vesk    one rtsp-many process: N VeskInputRtsp nodes through the
//           reference host, a counting sink each
//   ffmpeg  N processes of ffmpeg -rtsp_transport tcp -i URL -c copy -f null -
//   floor   one rtsp-bare-many process: one thread, epoll, receive and discard
// and then rtsp-many once more with one stream, for the memory a stream
// costs. A client's CPU is user + system time from wait4() (start-up
// included), its memory the peak resident size (for N ffmpeg the sum).
// Every stream must arrive whole: every byte sent by the server, and for
// the nodes every unit and audio frame the recording holds.
//
// The last line reads
//   paced streams=N vesk=X ffmpeg=Y floor=Z ratio=R floor_ratio=F rss_per_stream_mb=M
// X, Y, Z in CPU seconds, R = X / Y, F = X / Z, M = (peak of the N-stream
// host - peak of the one-stream host) / (N - 1) in MB.
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
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Child {
    pid_t pid = -1;
    int out = -1;  // its standard output, unless sent to /dev/null
};

Child spawn(const std::vector<std::string>& args, bool keepOutput = true)
{
    int p[2] = {-1, -1};
    if (keepOutput && pipe2(p, O_CLOEXEC) != 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        if (keepOutput) {
            dup2(p[1], 1);
        } else {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
        }
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        std::fprintf(stderr, "rtsp-scale: %s: %s\n", argv[0], std::strerror(errno));
        _exit(127);
    }
    if (keepOutput) close(p[1]);
    if (pid < 0) {
        if (keepOutput) close(p[0]);
        return {};
    }
    return {pid, keepOutput ? p[0] : -1};
}

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

struct Usage {
    double user = 0, sys = 0;
    double rssMb = 0;  // peak resident, summed over processes
    double cpu() const { return user + sys; }
    void add(const rusage& ru)
    {
        user += double(ru.ru_utime.tv_sec) + double(ru.ru_utime.tv_usec) / 1e6;
        sys += double(ru.ru_stime.tv_sec) + double(ru.ru_stime.tv_usec) / 1e6;
        rssMb += double(ru.ru_maxrss) / 1024;
    }
};

// Waits for the child; false unless it exited with 0.
bool reap(pid_t pid, Usage& u)
{
    int status = -1;
    rusage ru{};
    while (wait4(pid, &status, 0, &ru) < 0 && errno == EINTR) {
    }
    u.add(ru);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Run {
    bool ok = false;
    std::string note;
    Usage use;
    double lateMs = 0;  // worst lateness of the server's pacing
};

std::map<std::string, std::string> meta;
unsigned long long streamBytes = 0;

Run runOnce(const std::string& key, int streams, const std::string& recording,
            const std::string& bin, int threads)
{
    Run r;
    Child server = spawn({bin + "/rtsp-paced", recording, std::to_string(streams)});
    if (server.pid < 0) {
        r.note = "server did not start";
        return r;
    }
    const std::string portLine = readLine(server.out);
    if (portLine.compare(0, 5, "port ") != 0) {
        kill(server.pid, SIGTERM);
        waitpid(server.pid, nullptr, 0);
        r.note = "server gave no port";
        return r;
    }
    const std::string url = "rtsp://127.0.0.1:" + portLine.substr(5) + "/paced";
    bool clientsOk = true;
    std::string said;
    if (key == "vesk") {
        std::vector<std::string> args = {bin + "/rtsp-many", url,           std::to_string(streams),
                                         "--expect",         meta["units"], meta["audio_frames"]};
        if (threads > 0) args.insert(args.end(), {"--threads", std::to_string(threads)});
        Child c = spawn(args);
        said = readAll(c.out);
        close(c.out);
        clientsOk = c.pid > 0 && reap(c.pid, r.use);
    } else if (key == "ffmpeg") {
        std::vector<pid_t> pids;
        for (int i = 0; i < streams; ++i)
            pids.push_back(spawn({"ffmpeg", "-nostdin", "-v", "error", "-rtsp_transport", "tcp",
                                  "-i", url, "-c", "copy", "-f", "null", "-"},
                                 false)
                               .pid);
        for (pid_t p : pids) clientsOk = p > 0 && reap(p, r.use) && clientsOk;
    } else {
        Child c = spawn({bin + "/rtsp-bare-many", url, std::to_string(streams)});
        said = readAll(c.out);
        close(c.out);
        clientsOk = c.pid > 0 && reap(c.pid, r.use);
    }
    // The server ends once every client hung up.
    int whole = 0, lines = 0;
    for (;;) {
        const std::string line = readLine(server.out);
        if (line.empty() || line == "done") break;
        int index = 0;
        unsigned long long sent = 0;
        double seconds = 0, late = 0;
        if (std::sscanf(line.c_str(), "sent %d %llu %lf %lf", &index, &sent, &seconds, &late) != 4)
            continue;
        ++lines;
        if (sent == streamBytes) ++whole;
        r.lateMs = std::max(r.lateMs, late);
    }
    close(server.out);
    waitpid(server.pid, nullptr, 0);

    if (!clientsOk) {
        r.note = "a client failed: " + said.substr(0, said.find('\n'));
        return r;
    }
    if (lines != streams || whole != streams) {
        r.note = std::to_string(whole) + " of " + std::to_string(streams) + " streams sent whole";
        return r;
    }
    if (key == "bare") {
        for (int i = 0; i < streams; ++i)
            if (said.find("bytes " + std::to_string(i) + " " + std::to_string(streamBytes) +
                          "\n") == std::string::npos) {
                r.note = "stream " + std::to_string(i) + " not received whole";
                return r;
            }
    } else if (key == "vesk") {
        // rtsp-many exits non-zero unless every sink counted every unit.
        if (said.find("complete=" + std::to_string(streams) + " ") == std::string::npos) {
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
                     "usage: rtsp-scale-bench RECORDING BINDIR --streams N [--threads K] "
                     "[--only vesk,ffmpeg,bare]\n");
        return 2;
    }
    const std::string recording = argv[1], bin = argv[2];
    int streams = 32, threads = 0;
    std::string only = "vesk,ffmpeg,bare";
    for (int i = 3; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--streams" && i + 1 < argc)
            streams = std::max(1, std::atoi(argv[++i]));
        else if (a == "--threads" && i + 1 < argc)
            threads = std::max(0, std::atoi(argv[++i]));
        else if (a == "--only" && i + 1 < argc)
            only = argv[++i];
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
    if (stat(recording.c_str(), &st) != 0 || !meta.count("units") || !meta.count("audio_frames") ||
        std::to_string(st.st_size) != meta["bytes"]) {
        std::fprintf(stderr, "rtsp-scale: %s or its .meta is missing or stale\n",
                     recording.c_str());
        return 1;
    }
    streamBytes = static_cast<unsigned long long>(st.st_size);
    auto wanted = [&](const char* key) {
        return ("," + only + ",").find(std::string(",") + key + ",") != std::string::npos;
    };

    const double seconds = std::atof(meta["seconds"].c_str());
    std::printf(
        "rtsp-scale: %d streams of %.0f s each: %.1f MB, %s pictures, %s NAL units, "
        "%s AAC frames a stream (%.2f Mbit/s)\n",
        streams, seconds, double(streamBytes) / 1e6, meta["frames"].c_str(), meta["units"].c_str(),
        meta["audio_frames"].c_str(), seconds > 0 ? double(streamBytes) * 8 / seconds / 1e6 : 0.0);
    std::fflush(stdout);
    struct Entry {
        const char* key;
        const char* title;
        int streams;
        Run run;
        bool done = false;
    };
    std::vector<Entry> entries = {
        {"vesk", "VeskInputRtsp x N, one host process", streams, {}},
        {"ffmpeg", "ffmpeg -c copy -f null x N", streams, {}},
        {"bare", "bare epoll receiver (floor)", streams, {}},
        {"vesk", "VeskInputRtsp x 1 (memory base)", 1, {}},
    };
    bool allOk = true;
    for (Entry& e : entries) {
        if (!wanted(e.key) || (e.streams == 1 && streams == 1)) continue;
        e.run = runOnce(e.key, e.streams, recording, bin, threads);
        e.done = true;
        allOk = allOk && e.run.ok;
        std::printf(
            "  %-38s cpu %7.3f s (user %7.3f sys %7.3f)  peak rss %8.1f MB  late %5.1f ms  "
            "%s\n",
            e.title, e.run.use.cpu(), e.run.use.user, e.run.use.sys, e.run.use.rssMb, e.run.lateMs,
            e.run.ok ? "all streams whole" : e.run.note.c_str());
        std::fflush(stdout);
    }
    auto cpu = [&](size_t i) {
        return entries[i].done && entries[i].run.ok ? entries[i].run.use.cpu() : std::nan("");
    };
    const double vesk = cpu(0), ff = cpu(1), floorCpu = cpu(2);
    const double perStream =
        streams > 1 && entries[0].done && entries[3].done
            ? (entries[0].run.use.rssMb - entries[3].run.use.rssMb) / double(streams - 1)
            : std::nan("");
    std::printf(
        "paced streams=%d vesk=%s ffmpeg=%s floor=%s ratio=%s floor_ratio=%s "
        "rss_per_stream_mb=%s\n",
        streams, fixed(vesk, 3).c_str(), fixed(ff, 3).c_str(), fixed(floorCpu, 3).c_str(),
        fixed(vesk / ff, 3).c_str(), fixed(vesk / floorCpu, 3).c_str(),
        fixed(perStream, 2).c_str());
    return allOk ? 0 : 1;
}
