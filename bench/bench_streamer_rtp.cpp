// RTP sender cost and pacing: a streamer streams fed PCM to 1, 10 and 30
// receivers and is compared with a bare loop that only sendto()s 1412-byte
// datagrams to the same receivers under the same pacing rule (2 ms passes,
// one packet per receiver per due pass): the floor.
//   scripts/netns-run build/bench/bench_streamer_rtp [SECONDS]   (default 30)
// Prints, per receiver count: sender CPU ms per second of audio, its ratio to
// the floor, departure lateness against the pacing schedule (median, p99,
// max, as seen on arrival at the receivers) and silent packets.
// The receivers run in a child process (their CPU is not the sender's); they
// do the control handshake and time-stamp every datagram on arrival.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "AVStreamer.h"
#include "RxSocket.h"
#include "bench_floor.h"
#include "bench_start.h"
#include "streamer_probe.h"

namespace {

const unsigned short kTcp = 31554, kRtp = 35000;
const double kByteRate = 44100.0 * 2 * 2;

long long mono_us() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

double process_cpu_s() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double thread_cpu_s() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Arrival {
    uint8_t rx;
    uint8_t floor;  // sent by the bare loop
    uint8_t silent;
    uint16_t seq;
    long long us;
};

std::string ip_of(int i) {
    return "127.0.0." + std::to_string(2 + i);
}

// Reads the control connection until a whole reply (and an SDP body) is in.
void read_reply(int fd) {
    std::string buf;
    while (rx_wait_readable(fd, 3000) == 1) {
        char tmp[2048];
        ssize_t n = recv(fd, tmp, sizeof(tmp), 0);
        if (n <= 0) return;
        buf.append(tmp, (size_t)n);
        size_t end = buf.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        size_t cl = buf.find("Content-Length: ");
        if (cl == std::string::npos || buf.size() >= end + 4 + (size_t)atoi(buf.c_str() + cl + 16))
            return;
    }
}

// The receivers: hands shake, then time-stamps every datagram until stopFd
// is readable; the arrivals go to path.
int receivers_main(int n, int stopFd, const char* path) {
    std::vector<int> tcp(n), udp(n);
    for (int i = 0; i < n; i++) {
        udp[i] = rx_udp_bind(ip_of(i).c_str(), 0);
        int rcvbuf = 4 << 20;
        setsockopt(udp[i], SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
        do {
            tcp[i] = rx_tcp_connect(ip_of(i).c_str(), "127.0.0.1", kTcp, 1000);
        } while (tcp[i] < 0 && (usleep(50000), true));
    }
    for (int i = 0; i < n; i++) {
        unsigned short port = rx_local_port(udp[i]);
        const std::string reqs[] = {
            "CHANNEL\r\nSyncPort: 5000\r\n\r\n", "DESCRIBE\r\nCSeq: 1\r\n\r\n",
            "SETUP\r\nCSeq: 2\r\nTransport: RTP/AVP;unicast;client_port=" + std::to_string(port) +
                "-" + std::to_string(port + 1) + "\r\n\r\n",
            "PLAY\r\nCSeq: 3\r\n\r\n"};
        for (const std::string& r : reqs) {
            send(tcp[i], r.data(), r.size(), MSG_NOSIGNAL);
            read_reply(tcp[i]);
        }
    }
    std::vector<Arrival> got;
    got.reserve(1 << 20);
    std::vector<struct pollfd> pfd(n + 1);
    for (int i = 0; i < n; i++) pfd[i] = {udp[i], POLLIN, 0};
    pfd[n] = {stopFd, POLLIN, 0};
    for (;;) {
        if (poll(pfd.data(), pfd.size(), 1000) < 0) continue;
        if (pfd[n].revents) break;
        for (int i = 0; i < n; i++) {
            if (!(pfd[i].revents & POLLIN)) continue;
            unsigned char pkt[2048];
            ssize_t len;
            while ((len = recv(udp[i], pkt, sizeof(pkt), MSG_DONTWAIT)) > 0) {
                Arrival a{(uint8_t)i, (uint8_t)(pkt[0] != 0x80), 1, 0, mono_us()};
                a.seq = (uint16_t)((pkt[2] << 8) | pkt[3]);
                for (ssize_t k = 12; k < len && a.silent; k++) a.silent = pkt[k] == 0;
                got.push_back(a);
            }
        }
    }
    FILE* f = fopen(path, "wb");
    fwrite(got.data(), sizeof(Arrival), got.size(), f);
    fclose(f);
    return 0;
}

// The music source's part: the same non-silent PCM into every active
// session's buffer, as fast as they have room.
void feed(CAVStreamer* st, std::atomic<bool>* run, double* cpu) {
    std::vector<char> chunk(6144);
    for (size_t i = 0; i < chunk.size(); i++) chunk[i] = (char)(1 + i % 200);
    double c0 = thread_cpu_s();
    while (*run) {
        bool room = true;
        for (int i = 0; i < AV_MAX_RECEIVER; i++) {
            AV_RCV_SESS& s = CAVStreamerProbe::Sess(st, i);
            PAL_RINGBUF* rb = s.pFD;
            if (s.bActive && rb && Pal_RingBufAvailable(rb) < chunk.size()) room = false;
        }
        if (room)
            for (int i = 0; i < AV_MAX_RECEIVER; i++)
                st->ReceiverMediaWrite((unsigned char)i, chunk.data(), chunk.size());
        PAL_ThreadSleep(5);
    }
    *cpu = thread_cpu_s() - c0;
}

struct Result {
    double senderMsPerAudioS, floorMsPerAudioS;
    double lateMedian, lateP99, lateMax;
    unsigned long packets, silent;
};

// The bare loop: the pacing rule and sendto, nothing else.
double floor_run(int n, const std::vector<unsigned short>& ports, double seconds, double* audioS) {
    std::vector<int> socks(n);
    std::vector<struct sockaddr_in> to(n);
    for (int i = 0; i < n; i++) {
        socks[i] = socket(AF_INET, SOCK_DGRAM, 0);
        rx_sockaddr(ip_of(i).c_str(), ports[i], &to[i]);
    }
    unsigned char pkt[1412] = {0};  // first byte 0: the receivers keep it apart
    for (int i = 12; i < 1412; i++) pkt[i] = (unsigned char)(1 + i % 200);
    double c0 = process_cpu_s();
    unsigned long long sent = bench_floor_loop(socks.data(), to.data(), n, pkt, seconds);
    double cpu = process_cpu_s() - c0;
    for (int s : socks) close(s);
    *audioS = sent / kByteRate;
    return cpu;
}

int run(int n, double seconds, Result* res) {
    int stopPipe[2];
    if (pipe(stopPipe) != 0) return -1;
    std::string path = "/tmp/bench_streamer_rtp_" + std::to_string(getpid()) + ".bin";
    pid_t child = fork();
    if (child == 0) {
        close(stopPipe[1]);
        _exit(receivers_main(n, stopPipe[0], path.c_str()));
    }
    close(stopPipe[0]);

    CAVStreamer* st = new CAVStreamer(nullptr, nullptr, 1);
    AV_RECEIVER_INFO ri;
    memset(&ri, 0, sizeof ri);
    for (int i = 0; i < n; i++) {
        AV_RECEIVER& r = ri.AVReceiver[i];
        snprintf(r.pReceiverIP, sizeof(r.pReceiverIP), "%s", ip_of(i).c_str());
        r.ChannelType = AV_CHANNEL_PARTY;
        r.bActive = 1;
    }
    ri.nAVReceiverCnt = (char)n;
    AV_MUSIC_INFO mi;
    memset(&mi, 0, sizeof mi);
    mi.SampleRate = 44100;
    mi.NumChannels = 2;
    mi.BytesPerSample = 2;
    CAVStreamerProbe::Prepare(st, ri, mi);
    if (CAVStreamerProbe::OpenServer(st, kTcp, kRtp, 21234) != 0) {
        fprintf(stderr, "server did not open\n");
        kill(child, SIGKILL);
        return -1;
    }
    std::atomic<bool> feeding{true};
    double feederCpu = 0;
    std::thread feeder(feed, st, &feeding, &feederCpu);

    while (CAVStreamerProbe::StartClock(st) == 0) PAL_ThreadSleep(10);
    PAL_ThreadSleep(1000);  // every receiver lined up
    double c0 = process_cpu_s();
    uint32_t sz0 = CAVStreamerProbe::SentBytes(st);
    PAL_ThreadSleep((unsigned int)(seconds * 1000));
    double c1 = process_cpu_s();
    uint32_t sz1 = CAVStreamerProbe::SentBytes(st);
    unsigned int t0 = CAVStreamerProbe::StartClock(st);
    std::vector<unsigned short> ports(n);
    for (int i = 0; i < n; i++) ports[i] = CAVStreamerProbe::Sess(st, i).uwClientRtpPort;
    feeding = false;
    feeder.join();
    // The feeder ran for the whole window and a little longer: its CPU is an
    // upper bound of its share, so the sender's figure errs low by that bit.
    double audioS = (sz1 - sz0) / kByteRate;
    res->senderMsPerAudioS = (c1 - c0 - feederCpu) * 1000 / audioS;
    CAVStreamerProbe::CloseServer(st);
    delete st;

    double floorAudio = 0;
    double floorCpu = floor_run(n, ports, seconds, &floorAudio);
    res->floorMsPerAudioS = floorCpu * 1000 / floorAudio;

    if (write(stopPipe[1], "x", 1) != 1) return -1;
    waitpid(child, nullptr, 0);
    close(stopPipe[1]);
    FILE* f = fopen(path.c_str(), "rb");
    std::vector<Arrival> got;
    Arrival a;
    while (f && fread(&a, sizeof(a), 1, f) == 1) got.push_back(a);
    if (f) fclose(f);
    unlink(path.c_str());

    std::vector<double> late;
    res->packets = res->silent = 0;
    uint16_t firstSeq = 0;
    bool haveFirst = false;
    for (const Arrival& x : got) {
        if (x.floor) continue;
        if (!haveFirst) firstSeq = x.seq, haveFirst = true;
        res->packets++;
        res->silent += x.silent;
        // Sequence numbers of this run do not wrap (under 65536 passes).
        double schedule = t0 + (double)(uint64_t)((x.seq - 1) * 1400ull * 1000 / 176400);
        double seqLate = x.us / 1000.0 - schedule;
        if ((uint16_t)(x.seq - firstSeq) > 126) late.push_back(seqLate);  // after the line-up
    }
    std::sort(late.begin(), late.end());
    res->lateMedian = late.empty() ? 0 : late[late.size() / 2];
    res->lateP99 = late.empty() ? 0 : late[late.size() * 99 / 100];
    res->lateMax = late.empty() ? 0 : late.back();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (!bench_start(argv[0])) return 2;
    double seconds = argc > 1 ? atof(argv[1]) : 30;
    printf(
        "receivers  sender ms/s-audio  floor ms/s-audio  ratio  late median/p99/max ms  "
        "packets  silent\n");
    for (int n : {1, 10, 30}) {
        Result r;
        if (run(n, seconds, &r) != 0) return 1;
        printf("%9d  %17.2f  %16.2f  %5.2f  %6.2f / %5.2f / %6.2f  %8lu  %6lu\n", n,
               r.senderMsPerAudioS, r.floorMsPerAudioS, r.senderMsPerAudioS / r.floorMsPerAudioS,
               r.lateMedian, r.lateP99, r.lateMax, r.packets, r.silent);
        fflush(stdout);
    }
    return 0;
}
