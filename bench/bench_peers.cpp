// The engine beside its peers: what the sending process spends to stream
// 44.1 kHz stereo 16-bit PCM to 1, 10 and 30 receivers on loopback, for
//   - the floor: a bare loop with the engine's pacing rule (bench_floor.h),
//     into one sink process that drains every receiver's port, and again
//     into a sink process per receiver (the engine's receivers are N
//     processes, and on loopback waking each costs the sender);
//   - GStreamer: gst-launch-1.0 audiotestsrc ! rtpL16pay mtu=1412 ! multiudpsink
//     (350 frames a buffer, so that every datagram is 1412 bytes);
//   - Snapcast: snapserver (pcm codec, file source) with N snapclients;
//   - this engine as the phone runs it: the real JVM, SonvaraNativeMgr and the
//     demo app (java/demo) playing a WAV and an MP3 to N emulated receivers
//     (sonvara-receiver, roles Front_Left, Front_Right, Woofer, then Party).
//   scripts/bench peers
//   scripts/netns-run build/bench/bench_peers [WINDOW_S [RUNS [N...]]]
// Each sender runs alone, as its own process; after a warm-up its CPU (the
// run time of all its threads, /proc/PID/task/*/schedstat: the nanosecond
// sum that utime + stime are a tick-rounded split of) and its context
// switches (voluntary and not, /proc/PID/task/*/status) are taken over a
// steady window of WINDOW_S seconds (default 10). Printed per receiver
// count: the floor's ms of CPU per second of audio, every sender's ratio to
// it, context switches per second, and for the engine the lateness at the
// receivers (median / p99 / max ms, worst receiver, from their reports).
// Peers and engine are started here and stopped by their own pid.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "RxSocket.h"
#include "bench_floor.h"
#include "bench_mp3_file.h"
#include "bench_start.h"

namespace {

const unsigned short kSinkPort = 5004;
double g_window = 10;
std::string g_build, g_dir, g_log;

std::string rx_ip(int i) {
    return "127.0.0." + std::to_string(2 + i);
}

void sleep_s(double s) {
    if (s > 0) usleep((useconds_t)(s * 1e6));
}

// CPU seconds and context switches of every thread of a process so far.
struct ProcUse {
    double cpuS;
    double ctx;
};

bool proc_use(pid_t pid, ProcUse* u) {
    std::string base = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(base.c_str());
    if (d == nullptr) return false;
    *u = ProcUse{0, 0};
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string t = base + "/" + e->d_name;
        unsigned long long ns = 0;
        if (FILE* f = fopen((t + "/schedstat").c_str(), "r")) {
            if (fscanf(f, "%llu", &ns) != 1) ns = 0;
            fclose(f);
        }
        u->cpuS += ns / 1e9;
        if (FILE* f = fopen((t + "/status").c_str(), "r")) {
            char line[256];
            while (fgets(line, sizeof line, f)) {
                unsigned long long v = 0;
                if (sscanf(line, "voluntary_ctxt_switches: %llu", &v) == 1 ||
                    sscanf(line, "nonvoluntary_ctxt_switches: %llu", &v) == 1)
                    u->ctx += (double)v;
            }
            fclose(f);
        }
    }
    closedir(d);
    return true;
}

// Starts argv with stdout into *outPipe (or the log), stderr into the log.
pid_t spawn(const std::vector<std::string>& argv, int* outPipe = nullptr) {
    int p[2] = {-1, -1};
    if (outPipe != nullptr && pipe(p) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int log = open(g_log.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        dup2(outPipe != nullptr ? p[1] : log, 1);
        dup2(log, 2);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back((char*)a.c_str());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    if (outPipe != nullptr) {
        close(p[1]);
        *outPipe = p[0];
    }
    return pid;
}

// Ends a process started here: sig, then SIGKILL if it is still there after
// timeoutS. Its exit status, or -1.
int stop(pid_t pid, int sig, double timeoutS) {
    if (pid <= 0) return -1;
    if (sig != 0) kill(pid, sig);
    int status = 0;
    for (double waited = 0; waited < timeoutS; waited += 0.02) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        sleep_s(0.02);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

struct Measure {
    double msPerS;  // CPU ms per second of audio (= of wall time: all play in real time)
    double ctxPerS;
    bool ok;
};

// The sender's use over the window, after warmupS.
Measure measure(pid_t pid, double warmupS) {
    sleep_s(warmupS);
    ProcUse a, b;
    double t0 = bench_now_s();
    bool ok = proc_use(pid, &a);
    sleep_s(g_window);
    double t1 = bench_now_s();
    ok = ok && proc_use(pid, &b) && waitpid(pid, nullptr, WNOHANG) == 0;
    return Measure{(b.cpuS - a.cpuS) * 1000 / (t1 - t0), (b.ctx - a.ctx) / (t1 - t0), ok};
}

// A child that drains UDP port kSinkPort on the addresses of receivers
// first .. first + n - 1 until stopFd closes; exits 0 when every one got
// datagrams and all were 1412 bytes. It closes the stop pipes of the sinks
// started before it (others), so that each one sees only its own close.
pid_t start_sink(int first, int n, int* stopFd, const std::vector<int>& others) {
    int p[2];
    if (pipe(p) != 0) return -1;
    pid_t pid = fork();
    if (pid != 0) {
        close(p[0]);
        *stopFd = p[1];
        return pid;
    }
    close(p[1]);
    for (int fd : others) close(fd);
    std::vector<struct pollfd> pfd(n + 1);
    std::vector<unsigned long> good(n), bad(n);
    for (int i = 0; i < n; i++) {
        pfd[i] = {rx_udp_bind(rx_ip(first + i).c_str(), kSinkPort), POLLIN, 0};
        int size = 4 << 20;
        setsockopt(pfd[i].fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    pfd[n] = {p[0], POLLIN, 0};
    while (poll(pfd.data(), pfd.size(), -1) >= 0 && !pfd[n].revents) {
        for (int i = 0; i < n; i++) {
            unsigned char buf[2048];
            ssize_t len;
            while ((len = recv(pfd[i].fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0)
                (len == 1412 ? good : bad)[i]++;
        }
    }
    for (int i = 0; i < n; i++) {
        if (good[i] != 0 && bad[i] == 0) continue;
        fprintf(stderr, "sink %s: %lu datagrams of 1412 bytes, %lu of other sizes\n",
                rx_ip(first + i).c_str(), good[i], bad[i]);
        _exit(1);
    }
    _exit(0);
}

// The sinks of n receivers: one process draining them all (a sender's one
// peer, woken once per burst of datagrams), or one process each (as the
// engine's emulated receivers are, each woken by its own datagram, a wake
// that loopback charges to the sender).
struct Sinks {
    std::vector<pid_t> pids;
    std::vector<int> stopFds;
};

Sinks start_sinks(int n, bool each) {
    Sinks s;
    for (int first = 0; first < n; first += each ? 1 : n) {
        int fd = -1;
        s.pids.push_back(start_sink(first, each ? 1 : n, &fd, s.stopFds));
        s.stopFds.push_back(fd);
    }
    return s;
}

bool stop_sinks(const Sinks& s) {
    bool ok = true;
    for (size_t i = 0; i < s.pids.size(); i++) {
        if (s.stopFds[i] >= 0) close(s.stopFds[i]);
        ok = stop(s.pids[i], 0, 5) == 0 && ok;
    }
    return ok;
}

Measure run_floor(int n, bool sinkEach) {
    Sinks sinks = start_sinks(n, sinkEach);
    sleep_s(0.2);
    pid_t pid = fork();
    if (pid == 0) {
        std::vector<int> socks(n);
        std::vector<struct sockaddr_in> to(n);
        for (int i = 0; i < n; i++) {
            socks[i] = socket(AF_INET, SOCK_DGRAM, 0);
            rx_sockaddr(rx_ip(i).c_str(), kSinkPort, &to[i]);
        }
        unsigned char pkt[1412] = {0x80, 0xE0};
        bench_floor_loop(socks.data(), to.data(), n, pkt, 0);
        _exit(0);
    }
    Measure m = measure(pid, 1);
    stop(pid, SIGTERM, 5);
    m.ok = stop_sinks(sinks) && m.ok;
    return m;
}

Measure run_gstreamer(int n) {
    Sinks sinks = start_sinks(n, false);
    std::string clients;
    for (int i = 0; i < n; i++)
        clients += (i ? "," : "") + rx_ip(i) + ":" + std::to_string(kSinkPort);
    // 350 frames a buffer: one 1400-byte payload each, as the others send.
    pid_t pid =
        spawn({"gst-launch-1.0", "-q", "audiotestsrc", "is-live=true", "samplesperbuffer=350", "!",
               "audio/x-raw,format=S16BE,rate=44100,channels=2", "!", "rtpL16pay", "mtu=1412", "!",
               "multiudpsink", "clients=" + clients});
    Measure m = measure(pid, 2);
    stop(pid, SIGINT, 5);
    m.ok = stop_sinks(sinks) && m.ok;
    return m;
}

Measure run_snapcast(int n, const std::string& pcm) {
    std::string source = "file://" + pcm + "?name=default&sampleformat=44100:16:2&codec=pcm";
    pid_t server =
        spawn({"snapserver", "-c", "/dev/null", "--server.datadir=" + g_dir, "--http.enabled=0",
               "--tcp.enabled=0", "--stream.bind_to_address=127.0.0.1", "--stream.source=" + source,
               "--logging.sink=null"});
    sleep_s(1);
    std::vector<pid_t> clients;
    for (int i = 0; i < n; i++)
        clients.push_back(
            spawn({"snapclient", "-h", "127.0.0.1", "--hostID", "bench-" + std::to_string(i),
                   "--player", "file:filename=null", "--logsink", "null"}));
    Measure m = measure(server, 3);
    for (pid_t c : clients) m.ok = stop(c, SIGTERM, 5) == 0 && m.ok;
    stop(server, SIGTERM, 5);
    return m;
}

// A number from a flat JSON object ("key":value), or 0.
double json_number(const std::string& text, const char* key) {
    std::string k = std::string("\"") + key + "\":";
    size_t at = text.find(k);
    return at == std::string::npos ? 0 : strtod(text.c_str() + at + k.size(), nullptr);
}

struct EngineResult {
    Measure m;
    double lateMedian, lateP99, lateMax;  // worst receiver's
    unsigned long packets, silent;
};

EngineResult run_engine(int n, const std::string& file, int seconds) {
    EngineResult r{};
    std::vector<pid_t> rx;
    for (int i = 0; i < n; i++)
        rx.push_back(spawn({g_build + "/tools/sonvara-receiver", "--address", rx_ip(i), "--quiet",
                            "--json", g_dir + "/rx" + std::to_string(i) + ".json"}));
    sleep_s(0.5);
    std::string jars = g_build + "/java/sonvara.jar:" + g_build +
                       "/java/sonvara-android-stub.jar:" + g_build + "/java/demo/sonvara-demo.jar";
    setenv("SONVARA_IFACE", "lo", 1);
    int out = -1;
    pid_t app =
        spawn({"java", "-Djava.library.path=" + g_build + "/server:" + g_build + "/common", "-cp",
               jars, "com.sonvara.multiroom.demo.Demo", "--file", file, "--dir", g_dir,
               "--speakers", std::to_string(n), "--duration", std::to_string(seconds)},
              &out);
    // Measured once it plays; its output is drained to the end.
    FILE* f = fdopen(out, "r");
    char line[512];
    bool playing = false;
    while (!playing && f != nullptr && fgets(line, sizeof line, f))
        playing = strstr(line, "playing to the group") != nullptr;
    if (playing) r.m = measure(app, 4);
    while (f != nullptr && fgets(line, sizeof line, f)) {
    }
    if (f != nullptr) fclose(f);
    r.m.ok = stop(app, 0, 30) == 0 && r.m.ok;
    for (int i = 0; i < n; i++) {
        stop(rx[i], SIGINT, 10);
        std::string path = g_dir + "/rx" + std::to_string(i) + ".json";
        std::string json;
        if (FILE* j = fopen(path.c_str(), "r")) {
            char buf[4096];
            size_t got;
            while ((got = fread(buf, 1, sizeof buf, j)) > 0) json.append(buf, got);
            fclose(j);
        }
        remove(path.c_str());
        r.lateMedian = std::max(r.lateMedian, json_number(json, "lateness_median_ms"));
        r.lateP99 = std::max(r.lateP99, json_number(json, "lateness_p99_ms"));
        r.lateMax = std::max(r.lateMax, json_number(json, "lateness_max_ms"));
        r.packets += (unsigned long)json_number(json, "packets");
        r.silent += (unsigned long)json_number(json, "silent_packets");
    }
    return r;
}

void print_ratio(const char* name, const Measure& m, double floorMs) {
    printf("  %-22s %6.2f x floor  %6.0f ctx/s%s\n", name, m.msPerS / floorMs, m.ctxPerS,
           m.ok ? "" : "  (FAILED: see the log)");
}

void print_engine(const char* name, const EngineResult& e, double floorMs) {
    print_ratio(name, e.m, floorMs);
    printf("  %-22s late %.2f / %.2f / %.2f ms, %lu packets, %lu silent\n", "", e.lateMedian,
           e.lateP99, e.lateMax, e.packets, e.silent);
}

}  // namespace

int main(int argc, char** argv) {
    if (!bench_start(argv[0])) return 2;
    g_window = argc > 1 ? atof(argv[1]) : 10;
    int runs = argc > 2 ? atoi(argv[2]) : 1;
    std::vector<int> counts;
    for (int i = 3; i < argc; i++) counts.push_back(atoi(argv[i]));
    if (counts.empty()) counts = {1, 10, 30};
    bool bad = g_window < 1 || runs < 1;
    for (int n : counts) bad = bad || n < 1 || n > 30;
    if (bad) {
        fprintf(stderr, "usage: bench_peers [WINDOW_S >= 1 [RUNS [N (1-30)...]]]\n");
        return 2;
    }
    char exe[4096];
    ssize_t len = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (len <= 0) return 1;
    exe[len] = 0;
    g_build = exe;
    g_build = g_build.substr(0, g_build.rfind('/'));  // build/bench
    g_build = g_build.substr(0, g_build.rfind('/'));  // build
    char dir[] = "/tmp/bench_peers_XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    g_dir = dir;
    g_log = g_dir + "/peers.log";
    // Long enough for the app's search, the warm-up and the window.
    int seconds = (int)g_window + 8;
    std::string stem = "bench_peers_" + std::to_string(getpid());  // runs may overlap
    std::string wav = bench_make_wav(stem.c_str(), seconds);
    std::string mp3 = bench_make_mp3((stem + "_mp3").c_str(), seconds, "");
    std::string pcm = g_dir + "/snap.pcm";
    std::string cmd = "sox '" + wav + "' -t raw '" + pcm + "' 2>>" + g_log;
    if (wav.empty() || mp3.empty() || system(cmd.c_str()) != 0) return 1;
    signal(SIGPIPE, SIG_IGN);
    printf("window %.0f s, CPU of the sending process only; log %s\n", g_window, g_log.c_str());
    for (int run = 1; run <= runs; run++) {
        for (int n : counts) {
            Measure floor = run_floor(n, false);
            Measure floorEach = run_floor(n, true);
            Measure gst = run_gstreamer(n);
            Measure snap = run_snapcast(n, pcm);
            EngineResult ew = run_engine(n, wav, seconds);
            EngineResult em = run_engine(n, mp3, seconds);
            printf("run %d, %d receiver(s): floor %.2f ms CPU per s of audio, %.0f ctx/s%s\n", run,
                   n, floor.msPerS, floor.ctxPerS, floor.ok ? "" : " (FAILED)");
            print_ratio("floor, a sink each", floorEach, floor.msPerS);
            print_ratio("GStreamer", gst, floor.msPerS);
            print_ratio("Snapcast", snap, floor.msPerS);
            print_engine("engine WAV (JVM)", ew, floor.msPerS);
            print_engine("engine MP3 (JVM)", em, floor.msPerS);
            fflush(stdout);
        }
    }
    remove(wav.c_str());
    remove(mp3.c_str());
    return 0;
}
