// Shared start of every benchmark that opens sockets: it must run inside the
// private loopback-only namespace (scripts/netns-run), and the engine's log
// stays off unless the caller asked for it, so that logging is not measured.
#ifndef BENCH_START_H
#define BENCH_START_H

#include <cstdio>
#include <cstdlib>

// False (after saying how to run it) when outside the namespace.
inline bool bench_start(const char* name) {
    if (getenv("SONVARA_NETNS") == nullptr) {
        fprintf(stderr, "run me inside the private namespace: scripts/netns-run %s\n", name);
        return false;
    }
    setenv("SONVARA_LOG", "off", 0);
    return true;
}

#endif
