// Sockets on loopback inside the private namespace: the multicast group as
// discovery and the streamers use it, unicast datagrams with their source,
// and a TCP control connection.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "PAL.h"
#include "netns_rig.h"

namespace {

const char* kGroup = "224.1.2.4";
const char* kPhone = "127.0.0.1";

bool readable(int sock, int ms) {
    struct pollfd pfd = {sock, POLLIN, 0};
    return poll(&pfd, 1, ms) == 1;
}

// Reads one datagram if one arrives within ms; "" otherwise.
std::string recv_text(int sock, int ms) {
    char buf[256];
    if (!readable(sock, ms)) return "";
    int n = PAL_SockRead(sock, PAL_SOCK_UDP, buf, sizeof(buf) - 1);
    if (n < 0) return "";
    return std::string(buf, (size_t)n);
}

int group_listener(unsigned short port) {
    int s = PAL_SockCreate(PAL_SOCK_UDP);
    if (s < 0) return -1;
    if (PAL_SockServerOpen(s, kGroup, port, PAL_SOCK_UDP, PAL_NET_MULTI) != 0 ||
        PAL_SockJoinGroup(s, kGroup, kPhone) != 0) {
        PAL_SockClose(s);
        return -1;
    }
    return s;
}

}  // namespace

TEST(PalSocket, GroupAndUnicastDatagramsWithTheirSource) {
    const unsigned short port = 41234;
    int a = group_listener(port);
    int b = group_listener(port);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    // The sender never joins: it only names the interface to send from.
    int tx = PAL_SockCreate(PAL_SOCK_UDP);
    ASSERT_EQ(0, PAL_SockOpen(tx, "127.0.0.3", 9090, PAL_SOCK_UDP, PAL_NET_UNI));
    ASSERT_EQ(0, PAL_SockSetMulticastIf(tx, kPhone));
    ASSERT_EQ(6, PAL_SockWrite(tx, PAL_SOCK_UDP, "SEARCH", 6, kGroup, port));
    EXPECT_EQ("SEARCH", recv_text(a, 5000));
    EXPECT_EQ("SEARCH", recv_text(b, 5000));

    // A unicast datagram to the same port is not the group's: the group
    // sockets do not hear it; of two unicast sockets sharing the port (two
    // streamers) the kernel hands it to one, with its source.
    int uni[2];
    for (int& u : uni) {
        u = PAL_SockCreate(PAL_SOCK_UDP);
        ASSERT_EQ(0, PAL_SockServerOpen(u, kPhone, port, PAL_SOCK_UDP, PAL_NET_UNI));
    }
    std::vector<unsigned char> dgram(1412), in(2000);
    for (size_t i = 0; i < dgram.size(); i++) dgram[i] = (unsigned char)i;
    PAL_SOCK_DEST dest;
    ASSERT_EQ(0, PAL_SockDestSet(&dest, kPhone, port));
    for (int round = 0; round < 2; round++) {
        // Addressed by text, then through a destination resolved once.
        ASSERT_EQ(1412, round ? PAL_SockWriteDest(tx, dgram.data(), 1412, &dest)
                              : PAL_SockWrite(tx, PAL_SOCK_UDP, dgram.data(), 1412, kPhone, port));
        struct pollfd pfds[2] = {{uni[0], POLLIN, 0}, {uni[1], POLLIN, 0}};
        ASSERT_EQ(1, poll(pfds, 2, 5000));
        int got = (pfds[0].revents & POLLIN) ? uni[0] : uni[1];
        char fromIp[20];
        memset(fromIp, 'x', sizeof(fromIp));
        unsigned short fromPort = 0;
        ASSERT_EQ(1412, PAL_SockRecvFrom(got, in.data(), (int)in.size(), fromIp, &fromPort));
        EXPECT_EQ(0, memcmp(in.data(), dgram.data(), 1412));
        EXPECT_STREQ("127.0.0.3", fromIp);
        EXPECT_EQ(9090, fromPort);
    }
    EXPECT_EQ("", recv_text(a, 200));
    EXPECT_EQ(-1, PAL_SockDestSet(&dest, "127.0.0.300", 15000));
    EXPECT_EQ(-1, PAL_SockDestSet(&dest, nullptr, 15000));
    // Non-blocking with nothing queued: -1 at once.
    ASSERT_EQ(0, PAL_SetBlockingMode(uni[0], 0));
    EXPECT_EQ(-1, PAL_SockRead(uni[0], PAL_SOCK_UDP, in.data(), 10));
    EXPECT_EQ(-1, PAL_SockRecvFrom(uni[0], in.data(), 10, nullptr, nullptr));

    // Leaving works once; a second leave has nothing to drop; a group socket
    // needs the group's address.
    EXPECT_EQ(0, PAL_SockLeaveGroup(b, kGroup, kPhone));
    EXPECT_EQ(-1, PAL_SockLeaveGroup(b, kGroup, kPhone));
    int nogroup = PAL_SockCreate(PAL_SOCK_UDP);
    EXPECT_EQ(-1, PAL_SockServerOpen(nogroup, nullptr, port, PAL_SOCK_UDP, PAL_NET_MULTI));
    for (int s : {a, b, tx, uni[0], uni[1], nogroup}) EXPECT_EQ(0, PAL_SockClose(s));
}

TEST(PalSocket, TcpControlConnection) {
    int srv = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_GE(srv, 0);
    ASSERT_EQ(0, PAL_SockServerOpen(srv, nullptr, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    // A second listener on a busy port must fail (the control server then
    // moves to another port).
    int busy = PAL_SockCreate(PAL_SOCK_TCP);
    EXPECT_EQ(-1, PAL_SockServerOpen(busy, nullptr, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    EXPECT_EQ(0, PAL_SockServerOpen(busy, nullptr, 1555, PAL_SOCK_TCP, PAL_NET_UNI));
    PAL_SockClose(busy);

    int cli = PAL_SockCreate(PAL_SOCK_TCP);
    ASSERT_EQ(0, PAL_SockOpen(cli, kPhone, 1554, PAL_SOCK_TCP, PAL_NET_UNI));
    ASSERT_TRUE(readable(srv, 5000));
    int conn = accept(srv, nullptr, nullptr);
    ASSERT_GE(conn, 0);

    // A big write from a non-blocking socket still goes out whole.
    std::vector<char> big(4 * 1024 * 1024);
    for (size_t i = 0; i < big.size(); i++) big[i] = (char)(i * 7);
    ASSERT_EQ(0, PAL_SetBlockingMode(conn, 0));
    size_t received = 0;
    bool same = true;
    std::thread reader([&] {
        std::vector<char> in(65536);
        while (received < big.size() && readable(cli, 10000)) {
            int n = PAL_SockRead(cli, PAL_SOCK_TCP, in.data(), (int)in.size());
            if (n <= 0) break;
            same = same && memcmp(in.data(), big.data() + received, (size_t)n) == 0;
            received += (size_t)n;
        }
    });
    EXPECT_EQ((int)big.size(),
              PAL_SockWrite(conn, PAL_SOCK_TCP, big.data(), (int)big.size(), nullptr, 0));
    reader.join();
    EXPECT_EQ(big.size(), received);
    EXPECT_TRUE(same);

    // The peer goes away: reads see 0, writes fail without killing us.
    PAL_SockClose(cli);
    char buf[64];
    ASSERT_EQ(0, PAL_SetBlockingMode(conn, 1));
    ASSERT_TRUE(readable(conn, 5000));
    EXPECT_EQ(0, PAL_SockRead(conn, PAL_SOCK_TCP, buf, sizeof(buf)));
    int rc = 0;
    for (int i = 0; i < 10 && rc != -1; i++) {
        rc = PAL_SockWrite(conn, PAL_SOCK_TCP, "ALIVE\r\n", 7, nullptr, 0);
        PAL_ThreadSleep(20);
    }
    EXPECT_EQ(-1, rc);
    PAL_SockClose(conn);

    PAL_SockClose(srv);
}

// The rig itself: tests run isolated, with multicast routed on loopback.
TEST(NetnsRig, RunsInsideALoopbackOnlyNamespace) {
    ASSERT_TRUE(sonvara_netns_active());
    struct ifaddrs* list = nullptr;
    ASSERT_EQ(0, getifaddrs(&list));
    for (struct ifaddrs* it = list; it; it = it->ifa_next) EXPECT_STREQ("lo", it->ifa_name);
    freeifaddrs(list);
    EXPECT_EQ(0, system("ip route show 224.0.0.0/4 | grep -q 'dev lo'"));
}
