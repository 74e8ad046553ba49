// Cross builds only: linked into every program of the build that runs under
// qemu-user (tests, benchmarks, the receiver command; see
// sonvara_emulated_program in the top CMakeLists.txt). Owns nothing, takes no
// lock, runs on whatever thread calls setsockopt.
//
// qemu-user (7.2, Debian 12) answers IP_MULTICAST_IF with ENOPROTOOPT
// instead of passing it to the kernel. Inside the private network namespace
// loopback is the only interface a multicast datagram can take, so there the
// option would change nothing, and it is accepted once its argument is
// checked. Outside the namespace, and for every other option, the answer is
// the emulator's own.
#include <dlfcn.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

namespace {

typedef int (*SETSOCKOPT_FN)(int, int, int, const void*, socklen_t);

bool _in_private_namespace() {
    const char* v = getenv("SONVARA_NETNS");
    return v && strcmp(v, "1") == 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int setsockopt(int fd, int level, int name,
                                                                 const void* value,
                                                                 socklen_t len) noexcept {
    static SETSOCKOPT_FN real = (SETSOCKOPT_FN)dlsym(RTLD_NEXT, "setsockopt");
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    int rc = real(fd, level, name, value, len);
    if (rc != 0 && errno == ENOPROTOOPT && level == IPPROTO_IP && name == IP_MULTICAST_IF &&
        value && len >= (socklen_t)sizeof(struct in_addr) && _in_private_namespace()) {
        errno = 0;
        return 0;
    }
    return rc;
}
