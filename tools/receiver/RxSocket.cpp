// Socket helpers of the receiver emulator (see RxSocket.h).
#include "RxSocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

bool rx_sockaddr(const char* addr, unsigned short port, struct sockaddr_in* sa) {
    memset(sa, 0, sizeof(*sa));
    sa->sin_family = AF_INET;
    sa->sin_port = htons(port);
    if (!addr || !*addr) return true;  // INADDR_ANY
    return inet_pton(AF_INET, addr, &sa->sin_addr) == 1;
}

int rx_udp_bind(const char* ownAddr, unsigned short port) {
    struct sockaddr_in sa;
    if (!rx_sockaddr(ownAddr, port, &sa)) return -1;
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    unsigned char ttl = 1, loop = 1;
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(sock, (struct sockaddr*)&sa, sizeof(sa)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_MULTICAST_IF, &sa.sin_addr, sizeof(sa.sin_addr)) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

int rx_udp_group(const char* group, unsigned short port, const char* ownAddr) {
    struct sockaddr_in sa, own;
    if (!rx_sockaddr(group, port, &sa) || !rx_sockaddr(ownAddr, 0, &own)) return -1;
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return -1;
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
#ifdef SO_REUSEPORT
    setsockopt(sock, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
#endif
    struct ip_mreq mreq;
    mreq.imr_multiaddr = sa.sin_addr;
    mreq.imr_interface = own.sin_addr;
    if (bind(sock, (struct sockaddr*)&sa, sizeof(sa)) != 0 ||
        setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

int rx_tcp_connect(const char* ownAddr, const char* addr, unsigned short port, int timeoutMs) {
    struct sockaddr_in own, peer;
    if (!rx_sockaddr(ownAddr, 0, &own) || !rx_sockaddr(addr, port, &peer) || !addr || !*addr) {
        return -1;
    }
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0) return -1;
    int ok = bind(sock, (struct sockaddr*)&own, sizeof(own)) == 0;
    int flags = fcntl(sock, F_GETFL, 0);
    if (ok) fcntl(sock, F_SETFL, flags | O_NONBLOCK);
    if (ok && connect(sock, (struct sockaddr*)&peer, sizeof(peer)) != 0) {
        ok = 0;
        if (errno == EINPROGRESS) {
            struct pollfd pfd = {sock, POLLOUT, 0};
            int err = 0;
            socklen_t len = sizeof(err);
            ok = poll(&pfd, 1, timeoutMs) == 1 &&
                 getsockopt(sock, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
        }
    }
    if (!ok) {
        close(sock);
        return -1;
    }
    fcntl(sock, F_SETFL, flags);
    return sock;
}

unsigned short rx_local_port(int sock) {
    struct sockaddr_in sa;
    socklen_t len = sizeof(sa);
    if (getsockname(sock, (struct sockaddr*)&sa, &len) != 0) return 0;
    return ntohs(sa.sin_port);
}

namespace {

int wait_for(int fd, short events, int timeoutMs) {
    struct pollfd pfd = {fd, events, 0};
    int r = poll(&pfd, 1, timeoutMs);
    if (r < 0) return errno == EINTR ? 0 : -1;
    return r > 0 ? 1 : 0;
}

}  // namespace

int rx_wait_readable(int fd, int timeoutMs) {
    return wait_for(fd, POLLIN, timeoutMs);
}

int rx_wait_writable(int fd, int timeoutMs) {
    return wait_for(fd, POLLOUT, timeoutMs);
}

void rx_copy_text(char* dst, size_t size, const char* src) {
    if (size == 0) return;
    size_t n = src ? strnlen(src, size - 1) : 0;
    if (n) memcpy(dst, src, n);
    dst[n] = 0;
}
