// Sockets (IPv4). A socket handle is the descriptor itself (an int), so the
// engine may also select() and accept() on it directly.
//
// Multicast: TTL stays 1 and loop-back is on (receivers on the phone itself
// must hear the group). Sending to the group and joining it use the interface
// of the phone's own address (PAL_SockJoinGroup / PAL_SockSetMulticastIf).
// Every UDP socket is bound with SO_REUSEADDR (and SO_REUSEPORT where it
// exists): discovery and every streamer bind the same group port and must all
// receive the group's datagrams, and two streamers share the stream port.
// TCP writes never raise SIGPIPE.
// Threads: a socket is used by one thread at a time, except that any thread
// may write to a TCP connection another thread reads (the engine serialises
// writes with the session lock).
#ifndef PAL_SOCKET_H
#define PAL_SOCKET_H

#include "PAL_Export.h"

extern "C" {

enum PAL_SOCK {
    PAL_SOCK_TCP = 1,
    PAL_SOCK_UDP = 2,
};

enum PAL_NET {
    PAL_NET_UNI = 0,
    PAL_NET_MULTI = 1,
};

// A new socket of the type, or -1.
SONVARA_COMMON_API int PAL_SockCreate(int type);

// Server side. TCP: bind to addr (null or "" = any) : port and listen.
// UDP + PAL_NET_UNI: bind to addr (or any) : port.
// UDP + PAL_NET_MULTI: bind to the group address addr : port, so that the
// socket hears only that group on the port (it can still send).
// 0 on success, -1 on failure.
SONVARA_COMMON_API int PAL_SockServerOpen(int sock, const char* addr, unsigned short port, int type,
                                          int netType);

// Client side. TCP: connect to addr:port (blocking). UDP: bind to addr (null
// or "" = any) : port. 0 on success, -1 on failure.
SONVARA_COMMON_API int PAL_SockOpen(int sock, const char* addr, unsigned short port, int type,
                                    int netType);

// Join / leave the group on the interface that has the address myIp; joining
// also makes myIp's interface the one multicast is sent from. 0 or -1.
SONVARA_COMMON_API int PAL_SockJoinGroup(int sock, const char* group, const char* myIp);
SONVARA_COMMON_API int PAL_SockLeaveGroup(int sock, const char* group, const char* myIp);
SONVARA_COMMON_API int PAL_SockSetMulticastIf(int sock, const char* myIp);

// TCP: recv. UDP: recvfrom, source discarded. Bytes read; 0 when a TCP peer
// closed; -1 on error (including "would block" on a non-blocking socket).
SONVARA_COMMON_API int PAL_SockRead(int sock, int type, void* buf, int len);
// UDP receive that also reports the source (fromIp: at least 20 bytes, may be
// null; fromPort may be null). Bytes read or -1.
SONVARA_COMMON_API int PAL_SockRecvFrom(int sock, void* buf, int len, char* fromIp,
                                        unsigned short* fromPort);

// TCP (addr null, port 0): sends all len bytes. UDP: one datagram to
// addr:port. Bytes sent, or -1 on failure.
SONVARA_COMMON_API int PAL_SockWrite(int sock, int type, const void* data, int len,
                                     const char* addr, unsigned short port);

// A UDP destination resolved once, for a sender that writes to the same
// receiver many times a second (address and port in network byte order).
typedef struct _PAL_SOCK_DEST {
    unsigned int addr;
    unsigned short port;
} PAL_SOCK_DEST;
// Resolves dotted IPv4 text and a port into *dest: 0, or -1 (dest zeroed)
// for a missing or malformed address.
SONVARA_COMMON_API int PAL_SockDestSet(PAL_SOCK_DEST* dest, const char* addr, unsigned short port);
// One UDP datagram to a resolved destination. Bytes sent, or -1.
SONVARA_COMMON_API int PAL_SockWriteDest(int sock, const void* data, int len,
                                         const PAL_SOCK_DEST* dest);

SONVARA_COMMON_API int PAL_SockClose(int sock);
// blocking = 1 makes the socket blocking, 0 non-blocking. 0 or -1.
SONVARA_COMMON_API int PAL_SetBlockingMode(int sock, int blocking);

// Dotted IPv4 text to an address in network byte order; 0 on failure.
SONVARA_COMMON_API unsigned int PAL_inet_addr(const char* text);
}

#endif
