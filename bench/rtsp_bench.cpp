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
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_proc.h"

namespace {

using benchproc::Child;
using benchproc::fixed;
using benchproc::readLine;
using benchproc::spawn;

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
    benchproc::Usage use;
    double seconds = 0;  // PLAY to hang-up
    unsigned long long sent = 0;
    double cpu() const { return use.cpu(); }
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

benchproc::Args args;

Run runOnce(const std::string& key, const std::string& recording, const std::string& bin,
            bool sinkThread)
{
    Run r;
    Child server = spawn({bin + "/rtsp-replay", recording}, "rtsp-bench");
    if (server.pid < 0) {
        r.note = "server did not start";
        return r;
    }
    const std::string port = benchproc::readPort(server.out);
    std::vector<std::string> command;
    const std::string url = "rtsp://127.0.0.1:" + port + "/recorded";
    if (key == "vesk") {
        command = {bin + "/rtsp-sink", url};
        if (sinkThread) command.push_back("--sink-thread");
    } else if (key == "ffmpeg") {
        command = benchproc::ffmpegArgs(url);
    } else {
        command = {bin + "/rtsp-bare", url};
    }
    Child client;
    if (!port.empty()) client = spawn(command, "rtsp-bench");
    std::string said;
    int status = -1;
    bool exited = false;
    if (client.pid > 0) {
        said = benchproc::readAll(client.out);
        close(client.out);
        exited = benchproc::reap(client.pid, r.use, &status);
    }
    const std::string sentLine = readLine(server.out);
    close(server.out);
    int serverStatus = 0;
    if (client.pid <= 0) kill(server.pid, SIGTERM);
    waitpid(server.pid, &serverStatus, 0);

    if (std::sscanf(sentLine.c_str(), "sent %llu %lf", &r.sent, &r.seconds) != 2) {
        r.note = port.empty() ? "server gave no port" : "server did not finish";
        return r;
    }
    if (!exited) {
        r.note = "client failed (status " + std::to_string(status) + ")";
        return r;
    }
    if (r.sent != args.bytes) {
        r.note = "client left after " + std::to_string(r.sent) + " bytes";
        return r;
    }
    // What each client says it received must be the whole stream.
    bool whole = true;
    if (key == "vesk") {
        auto f = fields(said, '=');
        whole = f["video_bytes"] == args.meta["unit_bytes"] &&
                f["video_packets"] == args.meta["units"] && f["bad_start"] == "0" &&
                f["dropped"] == "0";
    } else if (key == "bare") {
        whole = said == "bytes " + std::to_string(args.bytes) + "\n";
    }
    r.ok = whole;
    if (!whole) r.note = benchproc::incomplete(said);
    return r;
}

}  // namespace

int main(int argc, char** argv)
{
    if (const int status =
            args.start(argc, argv,
                       "rtsp-bench RECORDING BINDIR [--runs N] [--only vesk,ffmpeg,bare] "
                       "[--sink-thread]",
                       {"units"}, "rtsp-bench"))
        return status;
    // Into the page cache, so that no round waits for the disk.
    {
        const int fd = open(args.recording.c_str(), O_RDONLY);
        std::unique_ptr<char[]> buf(new char[1 << 20]);
        while (fd >= 0 && read(fd, buf.get(), 1 << 20) > 0) {
        }
        if (fd >= 0) close(fd);
    }

    std::vector<Client> clients;
    for (const auto& c : {std::make_pair("vesk", "VeskInputRtsp (host, counting sink)"),
                          std::make_pair("ffmpeg", "ffmpeg -c copy -f null"),
                          std::make_pair("bare", "bare recv loop (limit)")})
        if (benchproc::listed(args.only, c.first)) clients.push_back({c.first, c.second, {}});

    const double gb = double(args.bytes) / 1e9;
    std::printf("rtsp-ingest: %s: %.1f MB, %s pictures, %s NAL units in %s RTP packets\n",
                args.recording.c_str(), double(args.bytes) / 1e6, args.meta["frames"].c_str(),
                args.meta["units"].c_str(), args.meta["rtp_packets"].c_str());
    std::fflush(stdout);
    for (int round = 1; round <= args.runs; ++round)
        for (Client& c : clients) {
            Run r = runOnce(c.key, args.recording, args.bin, args.sinkThread);
            std::printf("  round %d %-7s cpu %6.3f s (user %6.3f sys %6.3f) %7.1f MB/s %s\n", round,
                        c.key.c_str(), r.cpu(), r.use.user, r.use.sys,
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
    std::printf("\nbest of %d rounds, per 10^9 bytes of stream:\n", args.runs);
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
                    b->use.user / gb, b->use.sys / gb,
                    fast > 0 ? double(args.bytes) / 1e6 / fast : 0.0, b->cpu() / gb / ff);
        for (const Run& r : c.runs) allOk = allOk && r.ok;
    }
    std::printf("cpu_per_gb vesk=%s ffmpeg=%s limit=%s ratio=%s\n", fixed(vesk, 3).c_str(),
                fixed(ff, 3).c_str(), fixed(bare, 3).c_str(), fixed(vesk / ff, 3).c_str());
    return allOk ? 0 : 1;
}
