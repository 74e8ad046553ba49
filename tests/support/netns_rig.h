// Private-network rig for tests, demos and benchmarks.
//
// A process that opens sockets first calls sonvara_netns_isolate(): if it is
// not yet inside a private network namespace it re-executes itself under
// `unshare -n` (root) or `unshare -rn` (unprivileged); inside, loopback is
// brought up with multicast on and a route for 224.0.0.0/4 on lo, and the
// namespace is checked to hold nothing but lo. Inside, the phone is
// 127.0.0.1 and emulated receivers take 127.0.0.2, 127.0.0.3, ...
#ifndef NETNS_RIG_H
#define NETNS_RIG_H

// Returns 0 when the calling process is isolated and loopback is ready.
// Does not return when it re-executes itself. On failure prints why and
// returns -1; the caller must then not open any socket.
int sonvara_netns_isolate(int argc, char** argv);

// True inside a namespace made by the rig.
bool sonvara_netns_active();

// The emulator a cross-built test runs under (qemu-user, named by
// SONVARA_EMULATOR), or null when the test runs natively. A program of the
// build that a test starts itself must be started through it: the kernel
// cannot run the target's executables directly.
const char* sonvara_emulator();

#endif
