// The phone's own network identity (see NICInfo.h), and gmasterip.
//
// Owns: nothing; every call lists the interfaces afresh (the Wi-Fi address
// changes when the phone roams). Uses getifaddrs where the C library has it;
// older Android (bionic before API 24) lists IPv4 interfaces with
// SIOCGIFCONF instead. The MAC comes from SIOCGIFHWADDR on both paths.
// Threads: any; no shared state.
#include "NICInfo.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#if defined(__ANDROID__) && __ANDROID_API__ < 24
#define NICINFO_USE_IFCONF 1
#else
#include <ifaddrs.h>
#endif

#include "debug_UI.h"

char gmasterip[20] = "";

namespace {

struct NIC_CANDIDATE {
    char name[IFNAMSIZ];
    unsigned int flags;
    struct in_addr addr;
};

// Which interface wins: the named one; else the first usable one; else lo.
struct NIC_CHOICE {
    const char* wanted;  // SONVARA_IFACE, or null
    NIC_CANDIDATE named;
    NIC_CANDIDATE usable;
    NIC_CANDIDATE loopback;
    bool hasNamed;
    bool hasUsable;
    bool hasLoopback;
};

void _consider(NIC_CHOICE* c, const char* name, unsigned int flags, struct in_addr addr) {
    NIC_CANDIDATE cand;
    memset(&cand, 0, sizeof(cand));
    snprintf(cand.name, sizeof(cand.name), "%s", name);
    cand.flags = flags;
    cand.addr = addr;
    if (c->wanted) {
        if (!c->hasNamed && strcmp(c->wanted, cand.name) == 0) {
            c->named = cand;
            c->hasNamed = true;
        }
        return;
    }
    if (!(flags & IFF_UP)) return;
    if (flags & IFF_LOOPBACK) {
        if (!c->hasLoopback) c->loopback = cand;
        c->hasLoopback = true;
    } else if ((flags & IFF_MULTICAST) && !c->hasUsable) {
        c->usable = cand;
        c->hasUsable = true;
    }
}

#ifdef NICINFO_USE_IFCONF
void _collect(NIC_CHOICE* c) {
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return;
    struct ifreq reqs[32];
    struct ifconf conf;
    memset(reqs, 0, sizeof(reqs));
    conf.ifc_len = sizeof(reqs);
    conf.ifc_req = reqs;
    if (ioctl(sock, SIOCGIFCONF, &conf) == 0) {
        int count = conf.ifc_len / (int)sizeof(struct ifreq);
        for (int i = 0; i < count && i < 32; i++) {
            if (reqs[i].ifr_addr.sa_family != AF_INET) continue;
            struct in_addr addr = ((struct sockaddr_in*)&reqs[i].ifr_addr)->sin_addr;
            struct ifreq fl;
            memset(&fl, 0, sizeof(fl));
            memcpy(fl.ifr_name, reqs[i].ifr_name, IFNAMSIZ - 1);
            if (ioctl(sock, SIOCGIFFLAGS, &fl) != 0) continue;
            char name[IFNAMSIZ];
            memcpy(name, reqs[i].ifr_name, IFNAMSIZ - 1);
            name[IFNAMSIZ - 1] = 0;
            _consider(c, name, (unsigned short)fl.ifr_flags, addr);
        }
    }
    close(sock);
}
#else
void _collect(NIC_CHOICE* c) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    for (struct ifaddrs* it = list; it; it = it->ifa_next) {
        if (!it->ifa_name || !it->ifa_addr || it->ifa_addr->sa_family != AF_INET) continue;
        _consider(c, it->ifa_name, it->ifa_flags, ((struct sockaddr_in*)it->ifa_addr)->sin_addr);
    }
    freeifaddrs(list);
}
#endif

// The interface's hardware address as "aa:bb:cc:dd:ee:ff" (zeros when the
// system does not tell it, as loopback and newer Android do).
void _format_mac(const char* ifname, char* mac) {
    unsigned char hw[6] = {0, 0, 0, 0, 0, 0};
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock >= 0) {
        struct ifreq req;
        memset(&req, 0, sizeof(req));
        snprintf(req.ifr_name, sizeof(req.ifr_name), "%s", ifname);
        if (ioctl(sock, SIOCGIFHWADDR, &req) == 0) memcpy(hw, req.ifr_hwaddr.sa_data, 6);
        close(sock);
    }
    snprintf(mac, 20, "%02x:%02x:%02x:%02x:%02x:%02x", hw[0], hw[1], hw[2], hw[3], hw[4], hw[5]);
}

}  // namespace

int GetNICInfo(char* mac, char* ip) {
    if (!mac || !ip) return 0;
    mac[0] = 0;
    ip[0] = 0;
    NIC_CHOICE choice;
    memset(&choice, 0, sizeof(choice));
    const char* wanted = getenv("SONVARA_IFACE");
    choice.wanted = (wanted && wanted[0]) ? wanted : nullptr;
    _collect(&choice);

    const NIC_CANDIDATE* pick = nullptr;
    if (choice.wanted) {
        if (choice.hasNamed) pick = &choice.named;
    } else if (choice.hasUsable) {
        pick = &choice.usable;
    } else if (choice.hasLoopback) {
        pick = &choice.loopback;
    }
    if (!pick) {
        debug_UI("GetNICInfo: no IPv4 interface%s%s", choice.wanted ? " named " : "",
                 choice.wanted ? choice.wanted : "");
        return 0;
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &pick->addr, text, sizeof(text));
    snprintf(ip, 20, "%s", text);
    _format_mac(pick->name, mac);
    return 1;
}
