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
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench/bench_proc.h"

namespace {

using benchproc::Child;
using benchproc::fixed;
using benchproc::readAll;
using benchproc::readLine;
using benchproc::reap;
using benchproc::Usage;

Child spawn(const std::vector<std::string>& command, bool keepOutput = true)
{
    return benchproc::spawn(command, "rtsp-scale", keepOutput);
}

struct Run {
    bool ok = false;
    std::string note;
    Usage use;
    double lateMs = 0;  // worst lateness of the server's pacing
};

benchproc::Args args;

Run runOnce(const std::string& key, int streams, const std::string& recording,
            const std::string& bin, int threads)
{
    Run r;
    Child server = spawn({bin + "/rtsp-paced", recording, std::to_string(streams)});
    if (server.pid < 0) {
        r.note = "server did not start";
        return r;
    }
    const std::string port = benchproc::readPort(server.out);
    if (port.empty()) {
        kill(server.pid, SIGTERM);
        waitpid(server.pid, nullptr, 0);
        r.note = "server gave no port";
        return r;
    }
    const std::string url = "rtsp://127.0.0.1:" + port + "/paced";
    bool clientsOk = true;
    std::string said;
    if (key == "vesk") {
        std::vector<std::string> command = {bin + "/rtsp-many",      url,
                                            std::to_string(streams), "--expect",
                                            args.meta["units"],      args.meta["audio_frames"]};
        if (threads > 0) command.insert(command.end(), {"--threads", std::to_string(threads)});
        Child c = spawn(command);
        said = readAll(c.out);
        close(c.out);
        clientsOk = c.pid > 0 && reap(c.pid, r.use);
    } else if (key == "ffmpeg") {
        std::vector<pid_t> pids;
        for (int i = 0; i < streams; ++i)
            pids.push_back(spawn(benchproc::ffmpegArgs(url), false).pid);
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
        if (sent == args.bytes) ++whole;
        r.lateMs = std::max(r.lateMs, late);
    }
    close(server.out);
    waitpid(server.pid, nullptr, 0);

    if (!clientsOk) {
        r.note = "a client failed: " + benchproc::firstLine(said);
        return r;
    }
    if (lines != streams || whole != streams) {
        r.note = std::to_string(whole) + " of " + std::to_string(streams) + " streams sent whole";
        return r;
    }
    if (key == "bare") {
        for (int i = 0; i < streams; ++i)
            if (said.find("bytes " + std::to_string(i) + " " + std::to_string(args.bytes) + "\n") ==
                std::string::npos) {
                r.note = "stream " + std::to_string(i) + " not received whole";
                return r;
            }
    } else if (key == "vesk") {
        // rtsp-many exits non-zero unless every sink counted every unit.
        if (said.find("complete=" + std::to_string(streams) + " ") == std::string::npos) {
            r.note = benchproc::incomplete(said);
            return r;
        }
    }
    r.ok = true;
    return r;
}

}  // namespace

int main(int argc, char** argv)
{
    if (const int status = args.start(argc, argv,
                                      "rtsp-scale-bench RECORDING BINDIR --streams N [--threads K] "
                                      "[--only vesk,ffmpeg,bare]",
                                      {"units", "audio_frames"}, "rtsp-scale"))
        return status;
    auto wanted = [&](const char* key) { return benchproc::listed(args.only, key); };

    const double seconds = std::atof(args.meta["seconds"].c_str());
    std::printf(
        "rtsp-scale: %d streams of %.0f s each: %.1f MB, %s pictures, %s NAL units, "
        "%s AAC frames a stream (%.2f Mbit/s)\n",
        args.streams, seconds, double(args.bytes) / 1e6, args.meta["frames"].c_str(),
        args.meta["units"].c_str(), args.meta["audio_frames"].c_str(),
        seconds > 0 ? double(args.bytes) * 8 / seconds / 1e6 : 0.0);
    std::fflush(stdout);
    struct Entry {
        const char* key;
        const char* title;
        int streams;
        Run run;
        bool done = false;
    };
    std::vector<Entry> entries = {
        {"vesk", "VeskInputRtsp x N, one host process", args.streams, {}},
        {"ffmpeg", "ffmpeg -c copy -f null x N", args.streams, {}},
        {"bare", "bare epoll receiver (floor)", args.streams, {}},
        {"vesk", "VeskInputRtsp x 1 (memory base)", 1, {}},
    };
    bool allOk = true;
    for (Entry& e : entries) {
        if (!wanted(e.key) || (e.streams == 1 && args.streams == 1)) continue;
        e.run = runOnce(e.key, e.streams, args.recording, args.bin, args.threads);
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
        args.streams > 1 && entries[0].done && entries[3].done
            ? (entries[0].run.use.rssMb - entries[3].run.use.rssMb) / double(args.streams - 1)
            : std::nan("");
    std::printf(
        "paced streams=%d vesk=%s ffmpeg=%s floor=%s ratio=%s floor_ratio=%s "
        "rss_per_stream_mb=%s\n",
        args.streams, fixed(vesk, 3).c_str(), fixed(ff, 3).c_str(), fixed(floorCpu, 3).c_str(),
        fixed(vesk / ff, 3).c_str(), fixed(vesk / floorCpu, 3).c_str(),
        fixed(perStream, 2).c_str());
    return allOk ? 0 : 1;
}
