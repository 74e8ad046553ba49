// Byte layouts of the time-synchronisation messages on port 1235 (see
// docs/time-sync-protocol.md): encoders and checked decoders, and the read
// that stamps a datagram's arrival, shared by the initiator and by receivers
// built in this tree. Header-only, no state, no allocation; safe on any
// thread.
//
// Every message starts with the 8-byte header "SVTS", version 1, the type and
// two zero bytes; all integers are big-endian.
#ifndef TIMESYNCWIRE_H
#define TIMESYNCWIRE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>

enum {
    TSW_VERSION = 1,
    TSW_TYPE_ANNOUNCE = 1,
    TSW_TYPE_REQUEST = 2,
    TSW_TYPE_RESPONSE = 3,
    TSW_HEADER_LEN = 8,
    TSW_ANNOUNCE_LEN = 32,
    TSW_REQUEST_LEN = 24,
    TSW_RESPONSE_LEN = 40,
};

// Master -> group: "the master is here; ask me now".
struct TswAnnounce {
    unsigned int seq;
    unsigned int masterAddr;  // network byte order, as inet_addr gives it
    unsigned short port;      // where requests go (the master's unicast port)
    long long masterUs;       // master clock when sent
    unsigned int nextMs;      // until the next scheduled announcement, 0 = none
};

// Receiver -> master, unicast.
struct TswRequest {
    unsigned int id;
    long long t1;  // receiver's clock at send, microseconds
};

// Master -> receiver, to the request's source address and port.
struct TswResponse {
    unsigned int id;
    long long t1;  // echoed
    long long t2;  // master clock when the request arrived
    long long t3;  // master clock when the response left
};

inline void tsw_put32(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)(v >> 24);
    p[1] = (unsigned char)(v >> 16);
    p[2] = (unsigned char)(v >> 8);
    p[3] = (unsigned char)v;
}
inline uint32_t tsw_get32(const unsigned char* p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}
inline void tsw_put64(unsigned char* p, long long v) {
    tsw_put32(p, (uint32_t)((uint64_t)v >> 32));
    tsw_put32(p + 4, (uint32_t)(uint64_t)v);
}
inline long long tsw_get64(const unsigned char* p) {
    return (long long)(((uint64_t)tsw_get32(p) << 32) | tsw_get32(p + 4));
}

inline void tsw_put_header(unsigned char* p, int type) {
    memcpy(p, "SVTS", 4);
    p[4] = TSW_VERSION;
    p[5] = (unsigned char)type;
    p[6] = 0;
    p[7] = 0;
}
// 0 when p holds at least `need` bytes and a header of this version and type.
inline int tsw_check_header(const unsigned char* p, size_t len, int type, size_t need) {
    if (len < need || memcmp(p, "SVTS", 4) != 0 || p[4] != TSW_VERSION || p[5] != type) return -1;
    return 0;
}

inline void tsw_put_announce(unsigned char* p, const TswAnnounce* a) {
    tsw_put_header(p, TSW_TYPE_ANNOUNCE);
    tsw_put32(p + 8, a->seq);
    memcpy(p + 12, &a->masterAddr, 4);  // already in network order
    p[16] = (unsigned char)(a->port >> 8);
    p[17] = (unsigned char)a->port;
    p[18] = 0;
    p[19] = 0;
    tsw_put64(p + 20, a->masterUs);
    tsw_put32(p + 28, a->nextMs);
}
inline int tsw_get_announce(const unsigned char* p, size_t len, TswAnnounce* a) {
    if (tsw_check_header(p, len, TSW_TYPE_ANNOUNCE, TSW_ANNOUNCE_LEN) != 0) return -1;
    a->seq = tsw_get32(p + 8);
    memcpy(&a->masterAddr, p + 12, 4);
    a->port = (unsigned short)((p[16] << 8) | p[17]);
    a->masterUs = tsw_get64(p + 20);
    a->nextMs = tsw_get32(p + 28);
    return 0;
}

inline void tsw_put_request(unsigned char* p, const TswRequest* r) {
    tsw_put_header(p, TSW_TYPE_REQUEST);
    tsw_put32(p + 8, r->id);
    tsw_put32(p + 12, 0);
    tsw_put64(p + 16, r->t1);
}
inline int tsw_get_request(const unsigned char* p, size_t len, TswRequest* r) {
    if (tsw_check_header(p, len, TSW_TYPE_REQUEST, TSW_REQUEST_LEN) != 0) return -1;
    r->id = tsw_get32(p + 8);
    r->t1 = tsw_get64(p + 16);
    return 0;
}

inline void tsw_put_response(unsigned char* p, const TswResponse* r) {
    tsw_put_header(p, TSW_TYPE_RESPONSE);
    tsw_put32(p + 8, r->id);
    tsw_put32(p + 12, 0);
    tsw_put64(p + 16, r->t1);
    tsw_put64(p + 24, r->t2);
    tsw_put64(p + 32, r->t3);
}
inline int tsw_get_response(const unsigned char* p, size_t len, TswResponse* r) {
    if (tsw_check_header(p, len, TSW_TYPE_RESPONSE, TSW_RESPONSE_LEN) != 0) return -1;
    r->id = tsw_get32(p + 8);
    r->t1 = tsw_get64(p + 16);
    r->t2 = tsw_get64(p + 24);
    r->t3 = tsw_get64(p + 32);
    return 0;
}

// Time stamps close to the wire: the kernel stamps every datagram as it
// arrives (SO_TIMESTAMPNS, or SO_TIMESTAMP with microseconds where only that
// exists), so a reader that waited for a core still knows when its datagram
// came. Both sides turn the stamp into the datagram's age and subtract it
// from their own clock read just after; the stamp's clock (CLOCK_REALTIME)
// is never used for anything else. Where the platform has neither, the age
// is 0 and the time is that of the read.
inline void tsw_stamp_arrivals(int sock) {
    int on = 1;
#if defined(SO_TIMESTAMPNS)
    setsockopt(sock, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
#elif defined(SO_TIMESTAMP)
    setsockopt(sock, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof(on));
#else
    (void)sock;
    (void)on;
#endif
}

// Age in microseconds of the datagram whose control data is in msg: 0 when
// there is no stamp or it is not credible (negative, or over one second:
// the wall clock was set meanwhile).
inline long long tsw_arrival_age_us(struct msghdr* msg) {
    long long stampUs = -1;
    for (struct cmsghdr* c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level != SOL_SOCKET) continue;
#if defined(SO_TIMESTAMPNS)
        if (c->cmsg_type == SCM_TIMESTAMPNS && c->cmsg_len >= CMSG_LEN(sizeof(struct timespec))) {
            struct timespec ts;
            memcpy(&ts, CMSG_DATA(c), sizeof(ts));
            stampUs = (long long)ts.tv_sec * 1000000 + ts.tv_nsec / 1000;
        }
#endif
#if defined(SO_TIMESTAMP)
        if (c->cmsg_type == SCM_TIMESTAMP && c->cmsg_len >= CMSG_LEN(sizeof(struct timeval))) {
            struct timeval tv;
            memcpy(&tv, CMSG_DATA(c), sizeof(tv));
            stampUs = (long long)tv.tv_sec * 1000000 + tv.tv_usec;
        }
#endif
    }
    if (stampUs < 0) return 0;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    long long age = (long long)now.tv_sec * 1000000 + now.tv_nsec / 1000 - stampUs;
    return age >= 0 && age <= 1000000 ? age : 0;
}

// recvfrom that also gives the datagram's age (see tsw_arrival_age_us).
// from may be null. Bytes read, or -1.
inline ssize_t tsw_recv_stamped(int sock, unsigned char* buf, size_t len, struct sockaddr_in* from,
                                socklen_t* fromLen, long long* ageUs) {
    struct iovec iov = {buf, len};
    union {
        char space[CMSG_SPACE(sizeof(struct timespec)) + CMSG_SPACE(sizeof(struct timeval))];
        struct cmsghdr align;
    } control;
    struct msghdr msg;
    memset(&msg, 0, sizeof(msg));
    msg.msg_name = from;
    msg.msg_namelen = from ? *fromLen : 0;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.space;
    msg.msg_controllen = sizeof(control.space);
    ssize_t n = recvmsg(sock, &msg, 0);
    *ageUs = n >= 0 ? tsw_arrival_age_us(&msg) : 0;
    if (from) *fromLen = msg.msg_namelen;
    return n;
}

#endif
