// The sonvara-receiver command as a test peer: a child process of it that a test can stop (SIGSTOP)
// like a speaker that vanishes without closing anything. Header only.
#ifndef RECEIVERPROCESS_H
#define RECEIVERPROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "netns_rig.h"
#include "tool_path.h"

// One sonvara-receiver on its own address, quiet, killed with the object.
class ReceiverProcess {
public:
    explicit ReceiverProcess(const char* address) {
        std::string cmd = tool_path("sonvara-receiver");
        m_pid = fork();
        if (m_pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            // In a cross build the command runs under the emulator.
            const char* args[] = {sonvara_emulator(), cmd.c_str(),  "--address", address,
                                  "--quiet",          "--duration", "120",       nullptr};
            const char** argv = args[0] ? args : args + 1;
            execv(argv[0], const_cast<char* const*>(argv));
            _exit(127);
        }
    }
    ~ReceiverProcess() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    ReceiverProcess(const ReceiverProcess&) = delete;
    ReceiverProcess& operator=(const ReceiverProcess&) = delete;
    bool Started() const { return m_pid > 0; }
    int Signal(int sig) { return kill(m_pid, sig); }

private:
    pid_t m_pid;
};

#endif
