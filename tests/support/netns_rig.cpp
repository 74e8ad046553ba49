// Re-executes the process inside a fresh network namespace (see netns_rig.h).
#include "netns_rig.h"

#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

namespace {

const char* kMarker = "SONVARA_NETNS";

bool only_loopback_exists() {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    bool ok = true;
    bool lo_up = false;
    for (struct ifaddrs* it = list; it; it = it->ifa_next) {
        if (strcmp(it->ifa_name, "lo") != 0) {
            ok = false;
        } else if ((it->ifa_flags & IFF_UP) && (it->ifa_flags & IFF_MULTICAST)) {
            lo_up = true;
        }
    }
    freeifaddrs(list);
    return ok && lo_up;
}

int prepare_loopback() {
    // `ip` is from iproute2 (installed by scripts/setup).
    int rc = system("ip link set lo up multicast on && ip route replace 224.0.0.0/4 dev lo");
    return rc == 0 ? 0 : -1;
}

}  // namespace

const char* sonvara_emulator() {
    const char* v = getenv("SONVARA_EMULATOR");
    return v && *v ? v : nullptr;
}

bool sonvara_netns_active() {
    const char* v = getenv(kMarker);
    return v && strcmp(v, "1") == 0;
}

int sonvara_netns_isolate(int argc, char** argv) {
    if (sonvara_netns_active()) {
        if (prepare_loopback() != 0 || !only_loopback_exists()) {
            fprintf(stderr, "netns rig: could not prepare a loopback-only namespace\n");
            return -1;
        }
        return 0;
    }
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        fprintf(stderr, "netns rig: cannot find own executable\n");
        return -1;
    }
    self[n] = 0;
    std::vector<char*> args = {(char*)"unshare", (char*)(geteuid() == 0 ? "-n" : "-rn"),
                               (char*)"--"};
    if (sonvara_emulator()) args.push_back((char*)sonvara_emulator());
    args.push_back(self);
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    setenv(kMarker, "1", 1);
    fflush(stdout);
    fflush(stderr);
    execvp("unshare", args.data());
    fprintf(stderr,
            "netns rig: cannot isolate the network (unshare failed: %s); refusing to run "
            "tests that open sockets outside a private namespace\n",
            strerror(errno));
    return -1;
}
