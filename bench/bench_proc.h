// What the comparing programs (rtsp-bench, rtsp-scale-bench) do with the
// processes they measure: start them with their standard output on a pipe,
// read what they say, and reap them with the CPU and memory they used.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "bench/rtsp_wire.h"

namespace benchproc {

struct Child {
    pid_t pid = -1;
    int out = -1;  // its standard output, unless sent to /dev/null
};

// `who` names the program in what goes to standard error.
inline Child spawn(const std::vector<std::string>& args, const char* who, bool keepOutput = true)
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
        std::fprintf(stderr, "%s: %s: %s\n", who, argv[0], std::strerror(errno));
        _exit(127);
    }
    if (keepOutput) close(p[1]);
    if (pid < 0) {
        if (keepOutput) close(p[0]);
        return {};
    }
    return {pid, keepOutput ? p[0] : -1};
}

// One line from fd, read byte by byte so that nothing behind it is taken.
inline std::string readLine(int fd)
{
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
}

inline std::string readAll(int fd)
{
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) all.append(buf, size_t(n));
    return all;
}

inline std::string firstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

// The note on a run whose client did not say it took the whole stream in.
inline std::string incomplete(const std::string& said)
{
    return "incomplete: " + firstLine(said);
}

// The port of a server that says "port N" first; empty when it does not.
inline std::string readPort(int fd)
{
    const std::string line = readLine(fd);
    return line.compare(0, 5, "port ") == 0 ? line.substr(5) : std::string();
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

// Waits for the child and adds what it used; false unless it exited with 0.
// `status` gets its wait status.
inline bool reap(pid_t pid, Usage& u, int* status = nullptr)
{
    int s = -1;
    rusage ru{};
    while (wait4(pid, &s, 0, &ru) < 0 && errno == EINTR) {
    }
    u.add(ru);
    if (status) *status = s;
    return WIFEXITED(s) && WEXITSTATUS(s) == 0;
}

// ffmpeg taking the stream at `url` in over TCP and throwing it away.
inline std::vector<std::string> ffmpegArgs(const std::string& url)
{
    return {"ffmpeg", "-nostdin", "-v",   "error", "-rtsp_transport", "tcp", "-i", url, "-c",
            "copy",   "-f",       "null", "-"};
}

// Whether `key` is one of the comma-separated `list`.
inline bool listed(const std::string& list, const char* key)
{
    return ("," + list + ",").find(std::string(",") + key + ",") != std::string::npos;
}

// A recording of rtsp-record and its .meta, which must name the recording's
// size and hold every one of `keys`; false, after saying so, when not.
inline bool loadRecording(const std::string& path, std::map<std::string, std::string>& meta,
                          unsigned long long& bytes, std::initializer_list<const char*> keys,
                          const char* who)
{
    meta = rtspwire::readMeta(path + ".meta");
    struct stat st {};
    bool ok = stat(path.c_str(), &st) == 0;
    for (const char* key : keys) ok = ok && meta.count(key);
    if (!ok || std::to_string(st.st_size) != meta["bytes"]) {
        std::fprintf(stderr, "%s: %s or its .meta is missing or stale\n", who, path.c_str());
        return false;
    }
    bytes = static_cast<unsigned long long>(st.st_size);
    return true;
}

// The command line of both, RECORDING BINDIR and options in any order (each
// program reads the options it has and ignores the others), and the
// recording with its .meta.
struct Args {
    std::string recording, bin;
    int runs = 3;
    int streams = 32, threads = 0;
    std::string only = "vesk,ffmpeg,bare";
    bool sinkThread = false;
    std::map<std::string, std::string> meta;
    unsigned long long bytes = 0;  // the recording's size

    // 0, or the exit status after saying why not: 2 after "usage: " and
    // `usage` when arguments are missing, 1 when the recording is not there
    // or its .meta lacks one of `keys`.
    int start(int argc, char** argv, const char* usage, std::initializer_list<const char*> keys,
              const char* who)
    {
        if (argc < 3) {
            std::fprintf(stderr, "usage: %s\n", usage);
            return 2;
        }
        recording = argv[1];
        bin = argv[2];
        for (int i = 3; i < argc; ++i) {
            const std::string a = argv[i];
            const bool value = i + 1 < argc;
            if (a == "--runs" && value)
                runs = std::max(1, std::atoi(argv[++i]));
            else if (a == "--streams" && value)
                streams = std::max(1, std::atoi(argv[++i]));
            else if (a == "--threads" && value)
                threads = std::max(0, std::atoi(argv[++i]));
            else if (a == "--only" && value)
                only = argv[++i];
            else if (a == "--sink-thread")
                sinkThread = true;
        }
        return loadRecording(recording, meta, bytes, keys, who) ? 0 : 1;
    }
};

inline std::string fixed(double v, int decimals)
{
    if (!std::isfinite(v)) return "nan";
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

}  // namespace benchproc
