// Fuzzes discovery's TCP answer path: receivers that connect to the answer
// port and send their answer (the form without VOL) in one or more pieces,
// this phone's own connection among them, as the TCP collector handles them
// one readable connection at a time.
//
// Input: a run of events, each [op][length lo][length hi][bytes]. An op with
// its top bit set opens a connection from the address its low bits pick (0:
// this phone, 127.0.0.1; else 127.0.0.2 .. 127.0.0.41); otherwise the bytes
// go to a pending connection (op picks which; a new one when none is
// pending). A length of 0 closes the sending side. Lengths are cut to 2048
// and to the input left. Connections are socket pairs: no network.
// After every event: count at most 30; counted records complete, closed,
// terminated, with distinct addresses and never this phone's; pending
// connections sit at or after the count. At the end no descriptor is left.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include "AVRepDlna.h"
#include "fuzz_support.h"

namespace {

const char kMyIp[] = "127.0.0.1";

int _lowest_free_fd() {
    const int fd = open("/dev/null", O_RDONLY);
    if (fd >= 0) close(fd);
    return fd;
}

}  // namespace

// Reaches the collector's per-connection steps (a friend of CAVRepDlna).
struct CAVRepDlnaProbe {
    static int Place(AV_DEVICE_SEARCH_INFO* list, int client, const char* ip) {
        return CAVRepDlna::_tcp_place(list, client, ip);
    }
    static void Read(CAVRepDlna* d, AV_DEVICE_SEARCH_INFO* list, int slot) {
        d->_tcp_client_read(list, slot, kMyIp);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CAVRepDlna* dlna = new CAVRepDlna();
    static AV_DEVICE_SEARCH_INFO list;
    memset(&list, 0, sizeof(list));
    const int firstFree = _lowest_free_fd();
    std::map<int, int> peerOf;  // collector side -> receiver side
    for (size_t pos = 0; pos + 3 <= size;) {
        const uint8_t op = data[pos];
        const size_t len = std::min(
            {(size_t)data[pos + 1] | ((size_t)data[pos + 2] << 8), (size_t)2048, size - pos - 3});
        pos += 3;
        // The next piece of a pending connection (op picks which), or a new one.
        std::vector<int> pending;
        for (int i = (unsigned char)list.nAVDeviceCnt; i < AV_MAX_DEVICE; i++)
            if (list.AVDeviceDlna[i].hTcpClientSock > 0) pending.push_back(i);
        int slot = !pending.empty() && !(op & 0x80) ? pending[op % pending.size()] : -1;
        if (slot < 0) {
            int sp[2];
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, sp) != 0) break;
            char ip[AV_IP_LEN];
            snprintf(ip, sizeof(ip), "127.0.0.%d", (op & 0x3f) ? 2 + ((op & 0x3f) - 1) % 40 : 1);
            slot = CAVRepDlnaProbe::Place(&list, sp[0], ip);
            if (slot < 0) {
                close(sp[1]);  // the collector closed its side: every slot taken
                pos += len;
                continue;
            }
            peerOf[sp[0]] = sp[1];
        }
        const int peer = peerOf[list.AVDeviceDlna[slot].hTcpClientSock];
        if (len == 0) {
            shutdown(peer, SHUT_WR);
        } else if (send(peer, data + pos, len, MSG_NOSIGNAL) != (ssize_t)len) {
            break;
        }
        pos += len;
        CAVRepDlnaProbe::Read(dlna, &list, slot);
        fuzz_check_device_list(list, AV_MAX_DEVICE);
        for (int i = 0; i < (unsigned char)list.nAVDeviceCnt; i++) {
            const AV_DEVICE_DLNA& d = list.AVDeviceDlna[i];
            fuzz_require(d.hTcpClientSock == 0 && strcmp(d.pReceiverIP, kMyIp) != 0);
        }
        // Forget the pairs whose collector side was closed.
        for (auto it = peerOf.begin(); it != peerOf.end();) {
            bool open = false;
            for (const AV_DEVICE_DLNA& d : list.AVDeviceDlna) open |= d.hTcpClientSock == it->first;
            if (open) {
                ++it;
            } else {
                close(it->second);
                it = peerOf.erase(it);
            }
        }
    }
    // The end of the search: the collector closes what is still pending.
    for (const AV_DEVICE_DLNA& d : list.AVDeviceDlna)
        if (d.hTcpClientSock > 0) close(d.hTcpClientSock);
    for (auto& p : peerOf) close(p.second);
    fuzz_require(_lowest_free_fd() == firstFree);
    return 0;
}
