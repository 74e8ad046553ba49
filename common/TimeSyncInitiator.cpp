// Time synchronisation initiator: the phone is the master clock of the group.
//
// Owns the process-wide initiator record: one UDP socket bound to the phone's
// own address on the time-sync port (1235), and one service thread. The
// thread answers receivers' unicast time requests (their t1 echoed with our
// receive and send times) and multicasts announcements on the group on the
// schedule set by SyncOnce / StartSync. The protocol is written down in
// docs/time-sync-protocol.md.
//
// The master clock: the clock handed to Create may have only millisecond
// resolution (Android's elapsedRealtime x 1000, read through JNI). The
// initiator calibrates it once against the platform's own boot-time clock
// (PAL_GetBootTimeUsec, microseconds) and from then on reads only that one,
// adding the calibrated offset; when the two are the same clock the offset is
// exactly 0. The handed-in clock is thus never called on the hot path.
//
// Allocates: the service thread (pthread) and a wake-up pipe. Threads: the API is called from
// the engine's threads; the service thread is internal. Locks: g_lock guards
// the record below; it is never held across socket I/O or a wait.
#include "TimeSyncInitiator.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "PAL_Clock.h"
#include "TimeSyncWire.h"
#include "debug_UI.h"

namespace {

// Announcements without a burst or a stream: the sync trigger's keep-alive.
const long long kIdleAnnounceUs = 10000000LL;
// Longest the service thread sleeps, so that Stop is seen promptly.
const int kMaxPollMs = 200;
// The sync trigger's step (kept short: its owner waits for it when closing).
const unsigned int kTriggerStepMs = 1000;

struct Initiator {
    bool created;
    bool started;
    unsigned int groupAddr;  // network byte order
    unsigned short port;
    unsigned int myAddr;  // network byte order
    int sock;
    int wakePipe[2];  // written to wake the service thread on a new schedule
    pthread_t thread;
    bool exitFlag;
    // Schedule, in master microseconds. 0 = none.
    long long burstUntil;
    long long burstIntervalUs;
    long long nextAnnounce;
    long long lastAnnounce;
    int syncNesting;
    long long steadyIntervalUs;
    unsigned int announceSeq;
};

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;  // guards g_init
Initiator g_init = {};
// Master minus PAL_GetBootTimeUsec, set before the service thread starts.
std::atomic<long long> g_offsetUs(0);

long long master_now_us() {
    return PAL_GetBootTimeUsec() + g_offsetUs.load();
}

// The handed-in clock against ours: same clock (within its millisecond
// steps) means offset 0; otherwise the offset to the middle of its step.
long long calibrate_offset(TIMESYNC_CLOCK_FUNC clock) {
    if (!clock) return 0;
    long long theirs = clock();
    long long ours = PAL_GetBootTimeUsec();
    if (theirs <= 0) return 0;  // the clock failed: fall back to ours
    long long diff = theirs - ours;
    if (diff > -2000 && diff < 2000) return 0;
    return diff + 500;
}

// Next time an announcement is due after `now` (0 = none scheduled), _l:
// called with g_lock held.
long long next_due_l(long long now) {
    long long next = 0;
    if (g_init.burstUntil > now && g_init.burstIntervalUs > 0) next = now + g_init.burstIntervalUs;
    if (g_init.syncNesting > 0 && g_init.steadyIntervalUs > 0) {
        long long steady = now + g_init.steadyIntervalUs;
        if (next == 0 || steady < next) next = steady;
    }
    return next;
}

void send_announce(int sock) {
    unsigned char buf[TSW_ANNOUNCE_LEN];
    struct sockaddr_in to;
    memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    pthread_mutex_lock(&g_lock);
    TswAnnounce a;
    a.seq = ++g_init.announceSeq;
    a.masterAddr = g_init.myAddr;
    a.port = g_init.port;
    long long next = g_init.nextAnnounce;
    to.sin_addr.s_addr = g_init.groupAddr;
    to.sin_port = htons(g_init.port);
    pthread_mutex_unlock(&g_lock);
    a.masterUs = master_now_us();
    long long gap = next > a.masterUs ? (next - a.masterUs) / 1000 : 0;
    a.nextMs = (unsigned int)(gap > 0xFFFFFFFFLL ? 0xFFFFFFFFLL : gap);
    tsw_put_announce(buf, &a);
    sendto(sock, buf, sizeof(buf), 0, (struct sockaddr*)&to, sizeof(to));
}

// Answers one datagram if it is a well-formed time request.
void answer_request(int sock) {
    unsigned char in[64];
    struct sockaddr_in from;
    socklen_t fromLen = sizeof(from);
    long long age = 0;
    ssize_t n = tsw_recv_stamped(sock, in, sizeof(in), &from, &fromLen, &age);
    // t2 is when the request reached this machine, not when this thread got
    // a core to read it: on a busy phone those differ by milliseconds.
    long long t2 = master_now_us() - age;
    TswRequest req;
    if (n < 0 || tsw_get_request(in, (size_t)n, &req) != 0) return;
    TswResponse res;
    res.id = req.id;
    res.t1 = req.t1;
    res.t2 = t2;
    unsigned char out[TSW_RESPONSE_LEN];
    res.t3 = master_now_us();
    tsw_put_response(out, &res);
    sendto(sock, out, sizeof(out), 0, (struct sockaddr*)&from, fromLen);
}

void* service_thread(void*) {
    for (;;) {
        pthread_mutex_lock(&g_lock);
        bool leave = g_init.exitFlag;
        int sock = g_init.sock;
        int wake = g_init.wakePipe[0];
        long long now = master_now_us();
        bool announce = g_init.nextAnnounce != 0 && g_init.nextAnnounce <= now;
        if (announce) {
            g_init.lastAnnounce = now;
            g_init.nextAnnounce = next_due_l(now);
        }
        long long waitUs =
            g_init.nextAnnounce != 0 ? g_init.nextAnnounce - now : kMaxPollMs * 1000LL;
        pthread_mutex_unlock(&g_lock);
        if (leave) break;
        if (announce) send_announce(sock);
        int waitMs = (int)((waitUs + 999) / 1000);
        if (waitMs > kMaxPollMs) waitMs = kMaxPollMs;
        if (waitMs < 0) waitMs = 0;
        struct pollfd pfd[2] = {{sock, POLLIN, 0}, {wake, POLLIN, 0}};
        int r = poll(pfd, 2, waitMs);
        if (r > 0 && (pfd[0].revents & POLLIN)) answer_request(sock);
        if (r > 0 && (pfd[1].revents & POLLIN)) {
            char drain[16];
            while (read(wake, drain, sizeof(drain)) > 0) {
            }
        }
    }
    return nullptr;
}

int open_socket(unsigned int myAddr, unsigned short port) {
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    int on = 1;
    unsigned char ttl = 1, loop = 1;
    struct in_addr ifAddr;
    ifAddr.s_addr = myAddr;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = myAddr;  // INADDR_ANY when the address is unknown
    addr.sin_port = htons(port);
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    tsw_stamp_arrivals(sock);
    if (bind(sock, (struct sockaddr*)&addr, sizeof(addr)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop)) != 0 ||
        (myAddr != 0 &&
         setsockopt(sock, IPPROTO_IP, IP_MULTICAST_IF, &ifAddr, sizeof(ifAddr)) != 0)) {
        close(sock);
        return -1;
    }
    return sock;
}

// Closes what Start opened (any may be -1) and forgets it; _l: g_lock held.
void close_sockets_l(int sock, int pipeFds[2]) {
    int fds[3] = {sock, pipeFds[0], pipeFds[1]};
    for (int fd : fds) {
        if (fd >= 0) close(fd);
    }
    g_init.sock = -1;
    g_init.wakePipe[0] = g_init.wakePipe[1] = -1;
}

// Makes the service thread re-read the schedule at once; _l: g_lock held.
void wake_l() {
    if (g_init.wakePipe[1] >= 0) {
        char c = 1;
        // Non-blocking: never waits under the lock; a full pipe is already a wake-up.
        ssize_t n = write(g_init.wakePipe[1], &c, 1);
        (void)n;
    }
}

// Schedules a burst starting now; _l: g_lock held.
void start_burst_l(unsigned int intervalUs, unsigned int durationUs) {
    long long now = master_now_us();
    if (intervalUs > 0 && durationUs > 0) {
        long long until = now + durationUs;
        if (until > g_init.burstUntil) g_init.burstUntil = until;
        g_init.burstIntervalUs = intervalUs;
    }
    g_init.nextAnnounce = now;  // one at once, then on the schedule
    wake_l();
}

}  // namespace

int TimeSyncInitiator_Create(unsigned int groupAddr, unsigned short port, unsigned int myAddr,
                             TIMESYNC_CLOCK_FUNC clock) {
    long long offset = calibrate_offset(clock);
    int ok = 0;
    pthread_mutex_lock(&g_lock);
    if (!g_init.started) {
        memset(&g_init, 0, sizeof(g_init));
        g_init.created = true;
        g_init.groupAddr = groupAddr;
        g_init.port = port;
        g_init.myAddr = myAddr;
        g_init.sock = -1;
        g_init.wakePipe[0] = g_init.wakePipe[1] = -1;
        g_offsetUs.store(offset);
        ok = 1;
    }
    pthread_mutex_unlock(&g_lock);
    return ok;
}

int TimeSyncInitiator_Start(void) {
    pthread_mutex_lock(&g_lock);
    int ret = -1;
    if (g_init.started) {
        ret = 0;
    } else if (g_init.created) {
        int sock = open_socket(g_init.myAddr, g_init.port);
        int fds[2] = {-1, -1};
        if (sock >= 0 && pipe(fds) == 0) {
            fcntl(fds[0], F_SETFL, O_NONBLOCK);
            fcntl(fds[1], F_SETFL, O_NONBLOCK);
            g_init.sock = sock;
            g_init.wakePipe[0] = fds[0];
            g_init.wakePipe[1] = fds[1];
            g_init.exitFlag = false;
            if (pthread_create(&g_init.thread, nullptr, service_thread, nullptr) == 0) {
                g_init.started = true;
                ret = 0;
            }
        }
        if (ret != 0) close_sockets_l(sock, fds);
    }
    unsigned short port = g_init.port;
    pthread_mutex_unlock(&g_lock);
    if (ret == 0) {
        debug_UI("TimeSyncInitiator_Start port %u offset %lld us", port, g_offsetUs.load());
    } else {
        debug_UI("TimeSyncInitiator_Start fail (port %u)", port);
    }
    return ret;
}

int TimeSyncInitiator_SyncOnce(unsigned int intervalUs, unsigned int durationUs) {
    pthread_mutex_lock(&g_lock);
    int ret = g_init.started ? 0 : -1;
    if (g_init.started) start_burst_l(intervalUs, durationUs);
    pthread_mutex_unlock(&g_lock);
    return ret;
}

int TimeSyncInitiator_StartSync(unsigned int intervalUs, unsigned int durationUs,
                                unsigned int steadyIntervalUs) {
    pthread_mutex_lock(&g_lock);
    int ret = g_init.started ? 0 : -1;
    if (g_init.started) {
        if (steadyIntervalUs > 0 &&
            (g_init.syncNesting == 0 || steadyIntervalUs < g_init.steadyIntervalUs)) {
            g_init.steadyIntervalUs = steadyIntervalUs;
        }
        g_init.syncNesting++;
        start_burst_l(intervalUs, durationUs);
    }
    pthread_mutex_unlock(&g_lock);
    return ret;
}

int TimeSyncInitiator_StopSync(void) {
    pthread_mutex_lock(&g_lock);
    if (g_init.syncNesting > 0) g_init.syncNesting--;
    if (g_init.syncNesting == 0) {
        g_init.steadyIntervalUs = 0;
        if (g_init.burstUntil <= master_now_us()) g_init.nextAnnounce = 0;
    }
    pthread_mutex_unlock(&g_lock);
    return 0;
}

int TimeSyncInitiator_Stop(void) {
    pthread_mutex_lock(&g_lock);
    bool running = g_init.started;
    g_init.exitFlag = true;
    wake_l();
    pthread_t thread = g_init.thread;
    pthread_mutex_unlock(&g_lock);
    if (!running) return 0;
    pthread_join(thread, nullptr);
    debug_UI("TimeSyncInitiator_Stop");
    pthread_mutex_lock(&g_lock);
    close_sockets_l(g_init.sock, g_init.wakePipe);
    g_init.started = false;
    g_init.syncNesting = 0;
    g_init.nextAnnounce = 0;
    g_init.burstUntil = 0;
    pthread_mutex_unlock(&g_lock);
    return 0;
}

void TimeSyncInitiator_Delete(void) {
    TimeSyncInitiator_Stop();
    pthread_mutex_lock(&g_lock);
    memset(&g_init, 0, sizeof(g_init));
    g_init.sock = -1;
    g_init.wakePipe[0] = g_init.wakePipe[1] = -1;
    g_offsetUs.store(0);
    pthread_mutex_unlock(&g_lock);
}

unsigned int TimeSyncInitiator_GetCurrentClock(void) {
    return (unsigned int)(master_now_us() / 1000);
}

unsigned int PAL_SyncInterval(void) {
    // Only asks for an announcement: the socket is the service thread's.
    pthread_mutex_lock(&g_lock);
    long long now = master_now_us();
    if (g_init.started && g_init.nextAnnounce == 0 &&
        now - g_init.lastAnnounce >= kIdleAnnounceUs) {
        g_init.nextAnnounce = now;
        wake_l();
    }
    pthread_mutex_unlock(&g_lock);
    return kTriggerStepMs;
}
