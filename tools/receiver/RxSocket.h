// Socket helpers of the receiver emulator: every socket is bound to the
// emulated receiver's own address before it connects or sends, so that many
// emulators can share one host (127.0.0.2, 127.0.0.3, ... in the test
// namespace). Plain POSIX descriptors; no state, no allocation; any thread.
#ifndef RXSOCKET_H
#define RXSOCKET_H

#include <netinet/in.h>

// UDP socket bound to ownAddr:port (port 0 = any). Multicast sent from it
// leaves by ownAddr's interface, TTL 1. Descriptor or -1.
int rx_udp_bind(const char* ownAddr, unsigned short port);

// UDP socket bound to group:port (shared: SO_REUSEADDR/SO_REUSEPORT) and
// joined to the group on the interface of ownAddr. Descriptor or -1.
int rx_udp_group(const char* group, unsigned short port, const char* ownAddr);

// TCP connection from ownAddr (any port) to addr:port, waiting at most
// timeoutMs. Descriptor (blocking) or -1.
int rx_tcp_connect(const char* ownAddr, const char* addr, unsigned short port, int timeoutMs);

// Local port of a bound socket, 0 on failure.
unsigned short rx_local_port(int sock);

// Fills sa with addr:port; false when addr is not dotted IPv4 text.
bool rx_sockaddr(const char* addr, unsigned short port, struct sockaddr_in* sa);

// Waits up to timeoutMs for fd to be readable: 1 readable, 0 time-out, -1 error.
int rx_wait_readable(int fd, int timeoutMs);

// Waits up to timeoutMs for fd to be writable: 1 writable, 0 time-out, -1 error.
int rx_wait_writable(int fd, int timeoutMs);

// Copies src into dst (size bytes), always terminated, at most size-1 chars.
void rx_copy_text(char* dst, size_t size, const char* src);

#endif
