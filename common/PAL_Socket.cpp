// IPv4 sockets over BSD sockets (see PAL_Socket.h).
//
// Owns: nothing beyond the descriptors it creates; a handle is the descriptor.
// Threads: no shared state and no locks. A TCP write that meets a full send
// buffer on a non-blocking socket waits for room (bounded) so that the whole
// text goes out or the write fails.
#include "PAL_Socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// How long a TCP write waits for room in the send buffer before it gives up.
const int kWriteStallMs = 3000;

int _set_int_opt(int sock, int level, int name, int value) {
    return setsockopt(sock, level, name, &value, sizeof(value));
}

// addr null or "" means any; otherwise it must be dotted IPv4 text.
int _make_addr(const char* addr, unsigned short port, struct sockaddr_in* sa) {
    memset(sa, 0, sizeof(*sa));
    sa->sin_family = AF_INET;
    sa->sin_port = htons(port);
    if (!addr || !addr[0]) {
        sa->sin_addr.s_addr = htonl(INADDR_ANY);
        return 0;
    }
    return inet_pton(AF_INET, addr, &sa->sin_addr) == 1 ? 0 : -1;
}

int _bind(int sock, const char* addr, unsigned short port) {
    struct sockaddr_in sa;
    if (_make_addr(addr, port, &sa) != 0) return -1;
    return bind(sock, (struct sockaddr*)&sa, sizeof(sa)) == 0 ? 0 : -1;
}

int _membership(int sock, const char* group, const char* myIp, int option) {
    struct ip_mreq mreq;
    memset(&mreq, 0, sizeof(mreq));
    if (!group || inet_pton(AF_INET, group, &mreq.imr_multiaddr) != 1) return -1;
    struct sockaddr_in ifa;
    if (_make_addr(myIp, 0, &ifa) != 0) return -1;
    mreq.imr_interface = ifa.sin_addr;
    return setsockopt(sock, IPPROTO_IP, option, &mreq, sizeof(mreq)) == 0 ? 0 : -1;
}

int _tcp_send_all(int sock, const char* p, int len) {
    int done = 0;
    while (done < len) {
        ssize_t n = send(sock, p + done, (size_t)(len - done), MSG_NOSIGNAL);
        if (n > 0) {
            done += (int)n;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            struct pollfd pfd = {sock, POLLOUT, 0};
            if (poll(&pfd, 1, kWriteStallMs) > 0) continue;
        }
        return -1;
    }
    return done;
}

}  // namespace

int PAL_SockCreate(int type) {
    int sock;
    if (type == PAL_SOCK_TCP) {
        sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (sock < 0) return -1;
        // A restarted control server must get its port back from TIME_WAIT.
        // (No SO_REUSEPORT here: a second listener on a busy port must fail.)
        _set_int_opt(sock, SOL_SOCKET, SO_REUSEADDR, 1);
        return sock;
    }
    if (type != PAL_SOCK_UDP) return -1;
    sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    _set_int_opt(sock, SOL_SOCKET, SO_REUSEADDR, 1);
#ifdef SO_REUSEPORT
    _set_int_opt(sock, SOL_SOCKET, SO_REUSEPORT, 1);
#endif
    // The group lives on the local link only, and receivers on the phone
    // itself must hear it too.
    unsigned char ttl = 1;
    unsigned char loop = 1;
    setsockopt(sock, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
    setsockopt(sock, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop));
    return sock;
}

int PAL_SockServerOpen(int sock, const char* addr, unsigned short port, int type, int netType) {
    if (sock < 0) return -1;
    if (type == PAL_SOCK_TCP) {
        if (_bind(sock, addr, port) != 0) return -1;
        return listen(sock, SOMAXCONN) == 0 ? 0 : -1;
    }
    if (type != PAL_SOCK_UDP) return -1;
    // A multicast server binds the group address itself, so that it hears only
    // that group on the port and not unicast datagrams meant for a neighbour.
    if (netType == PAL_NET_MULTI && (!addr || !addr[0])) return -1;
    return _bind(sock, addr, port);
}

int PAL_SockOpen(int sock, const char* addr, unsigned short port, int type, int netType) {
    (void)netType;
    if (sock < 0) return -1;
    if (type == PAL_SOCK_UDP) return _bind(sock, addr, port);
    if (type != PAL_SOCK_TCP) return -1;
    struct sockaddr_in sa;
    if (!addr || !addr[0] || _make_addr(addr, port, &sa) != 0) return -1;
    int rc;
    do {
        rc = connect(sock, (struct sockaddr*)&sa, sizeof(sa));
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? 0 : -1;
}

int PAL_SockJoinGroup(int sock, const char* group, const char* myIp) {
    if (sock < 0) return -1;
    if (_membership(sock, group, myIp, IP_ADD_MEMBERSHIP) != 0) return -1;
    return PAL_SockSetMulticastIf(sock, myIp);
}

int PAL_SockLeaveGroup(int sock, const char* group, const char* myIp) {
    if (sock < 0) return -1;
    return _membership(sock, group, myIp, IP_DROP_MEMBERSHIP);
}

int PAL_SockSetMulticastIf(int sock, const char* myIp) {
    if (sock < 0) return -1;
    struct sockaddr_in ifa;
    if (_make_addr(myIp, 0, &ifa) != 0) return -1;
    return setsockopt(sock, IPPROTO_IP, IP_MULTICAST_IF, &ifa.sin_addr, sizeof(ifa.sin_addr)) == 0
               ? 0
               : -1;
}

int PAL_SockRead(int sock, int type, void* buf, int len) {
    if (sock < 0 || !buf || len < 0) return -1;
    ssize_t n;
    do {
        n = type == PAL_SOCK_TCP ? recv(sock, buf, (size_t)len, 0)
                                 : recvfrom(sock, buf, (size_t)len, 0, nullptr, nullptr);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : (int)n;
}

int PAL_SockRecvFrom(int sock, void* buf, int len, char* fromIp, unsigned short* fromPort) {
    if (fromIp) fromIp[0] = 0;
    if (fromPort) *fromPort = 0;
    if (sock < 0 || !buf || len < 0) return -1;
    struct sockaddr_in sa;
    socklen_t salen;
    ssize_t n;
    do {
        salen = sizeof(sa);
        memset(&sa, 0, sizeof(sa));
        n = recvfrom(sock, buf, (size_t)len, 0, (struct sockaddr*)&sa, &salen);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    if (sa.sin_family == AF_INET) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &sa.sin_addr, text, sizeof(text));
        // Callers hand 20-byte fields: at most 19 characters.
        if (fromIp) {
            strncpy(fromIp, text, 19);
            fromIp[19] = 0;
        }
        if (fromPort) *fromPort = ntohs(sa.sin_port);
    }
    return (int)n;
}

int PAL_SockWrite(int sock, int type, const void* data, int len, const char* addr,
                  unsigned short port) {
    if (sock < 0 || len < 0 || (!data && len)) return -1;
    if (type == PAL_SOCK_TCP) return _tcp_send_all(sock, static_cast<const char*>(data), len);
    if (type != PAL_SOCK_UDP) return -1;
    PAL_SOCK_DEST dest;
    if (PAL_SockDestSet(&dest, addr, port) != 0) return -1;
    return PAL_SockWriteDest(sock, data, len, &dest);
}

int PAL_SockDestSet(PAL_SOCK_DEST* dest, const char* addr, unsigned short port) {
    if (!dest) return -1;
    memset(dest, 0, sizeof(*dest));
    struct sockaddr_in sa;
    if (!addr || !addr[0] || _make_addr(addr, port, &sa) != 0) return -1;
    dest->addr = sa.sin_addr.s_addr;
    dest->port = sa.sin_port;
    return 0;
}

int PAL_SockWriteDest(int sock, const void* data, int len, const PAL_SOCK_DEST* dest) {
    if (sock < 0 || len < 0 || (!data && len) || !dest) return -1;
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof(sa));
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = dest->addr;
    sa.sin_port = dest->port;
    ssize_t n;
    do {
        n = sendto(sock, data, (size_t)len, MSG_NOSIGNAL, (struct sockaddr*)&sa, sizeof(sa));
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : (int)n;
}

int PAL_SockClose(int sock) {
    if (sock < 0) return -1;
    return close(sock) == 0 ? 0 : -1;
}

int PAL_SetBlockingMode(int sock, int blocking) {
    if (sock < 0) return -1;
    int fl = fcntl(sock, F_GETFL, 0);
    if (fl < 0) return -1;
    fl = blocking ? (fl & ~O_NONBLOCK) : (fl | O_NONBLOCK);
    return fcntl(sock, F_SETFL, fl) == 0 ? 0 : -1;
}

unsigned int PAL_inet_addr(const char* text) {
    struct in_addr a;
    if (!text || inet_pton(AF_INET, text, &a) != 1) return 0;
    return a.s_addr;
}
