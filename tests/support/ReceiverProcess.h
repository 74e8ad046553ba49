// The sonvara-receiver command as a test peer: a child process of it that a
// test can stop (SIGSTOP) like a speaker that vanishes without closing
// anything, or end as a user does (Stop: SIGTERM, so its files are
// complete). Header only.
#ifndef RECEIVERPROCESS_H
#define RECEIVERPROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "netns_rig.h"
#include "tool_path.h"

// One sonvara-receiver on its own address, quiet, killed with the object;
// `more` are further options, `env` ("NAME=value") one more environment
// variable.
class ReceiverProcess {
public:
    explicit ReceiverProcess(const char* address, std::vector<std::string> more = {},
                             std::string env = "") {
        std::vector<std::string> args = {
            tool_path("sonvara-receiver"), "--address", address, "--quiet", "--duration", "120"};
        args.insert(args.end(), more.begin(), more.end());
        // In a cross build the command runs under the emulator.
        if (sonvara_emulator()) args.insert(args.begin(), sonvara_emulator());
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            if (!env.empty()) putenv(&env[0]);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~ReceiverProcess() { End(SIGKILL, 0); }
    ReceiverProcess(const ReceiverProcess&) = delete;
    ReceiverProcess& operator=(const ReceiverProcess&) = delete;
    bool Started() const { return m_pid > 0; }
    int Signal(int sig) { return kill(m_pid, sig); }
    // Ends it with SIGTERM; after 10 s without it ending, with SIGKILL.
    void Stop() { End(SIGTERM, 200); }

private:
    void End(int sig, int waits) {
        if (m_pid <= 0) return;
        kill(m_pid, sig);
        for (int i = 0; waitpid(m_pid, nullptr, WNOHANG) != m_pid; usleep(50000)) {
            if (i++ == waits) {
                kill(m_pid, SIGKILL);
                waitpid(m_pid, nullptr, 0);
                break;
            }
        }
        m_pid = -1;
    }
    pid_t m_pid;
};

#endif
