// sonvara-receiver: one receiver (Wi-Fi speaker) in software.
//
// Parses the options into a ReceiverConfig, runs a ReceiverEmulator until
// SIGINT/SIGTERM or the given duration, prints a status line every second and
// the report as JSON at the end. Main thread only; the emulator runs its own.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "PAL_Clock.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

const char kHelp[] =
    "sonvara-receiver: a multi-room speaker in software.\n"
    "\n"
    "It answers the phone's device search, connects when the phone plays to it,\n"
    "receives the audio stream, follows the phone's commands (volume, pause, ...)\n"
    "and keeps its clock in step with the phone's. Use it to develop and test the\n"
    "sender without real speakers.\n"
    "\n"
    "Usage: sonvara-receiver --address A.B.C.D [options]\n"
    "\n"
    "Identity:\n"
    "  --address IP        own IPv4 address; every socket is bound to it (required)\n"
    "  --mac TEXT          MAC text (default 02:00:<address bytes>)\n"
    "  --guid TEXT         GUID (default derived from the address)\n"
    "  --name TEXT         device name, any UTF-8 (default \"Speaker <last byte>\")\n"
    "  --master N          MASTER value in the discovery answer, 0 = master (default 1)\n"
    "  --volume N          volume reported to the phone (default 7)\n"
    "  --sync-port N       SyncPort sent in CHANNEL (default 5000)\n"
    "  --rtp-port N        RTP port, RTCP is N+1 (default: any free pair)\n"
    "Behaviour:\n"
    "  --wav FILE          write the received stream to FILE (2-channel WAV)\n"
    "  --duration SEC      stop after SEC seconds (default: until Ctrl-C)\n"
    "  --json FILE         write the final report there (default: standard output)\n"
    "  --join              announce itself with JOIN once started (join a playing group)\n"
    "  --refuse-connect    never connect (a speaker that is switched off)\n"
    "  --no-bye-ack        never answer BYE\n"
    "  --no-timesync       do not synchronise the clock\n"
    "  --clock-offset-us N give the own clock an artificial offset\n"
    "  --quiet             no status line\n"
    "  --help              this text\n"
    "\n"
    "Running a speaker on this machine (nothing leaves it): start the emulators\n"
    "and the sender inside one private network namespace, where only loopback\n"
    "exists; the phone is 127.0.0.1, speakers take 127.0.0.2, 127.0.0.3, ...\n"
    "\n"
    "  scripts/netns-run sh -c '\n"
    "    build/tools/sonvara-receiver --address 127.0.0.2 --name Kitchen --wav /tmp/k.wav &\n"
    "    build/tools/sonvara-receiver --address 127.0.0.3 --name Hall &\n"
    "    <the sender or demo here>; kill %1 %2; wait'\n"
    "\n"
    "On a real network give the address of one of this machine's interfaces.\n"
    "The status line shows packets received, the play position taken from the\n"
    "RTP timestamps, and how early packets arrive before their play-out time.\n"
    "At the end the report (packets, gaps, silent packets, commands, handshake\n"
    "errors, clock offset, play-out margin) is printed as JSON.\n";

bool parse_number(const char* text, long long lo, long long hi, long long* out) {
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (!text[0] || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// Applies one option; false on a bad one.
bool apply_option(ReceiverConfig* cfg, const char* opt, const char* val, long long* duration,
                  std::string* json) {
    long long v = 0;
    struct {
        const char* name;
        char* dst;
        size_t size;
    } texts[] = {{"--mac", cfg->mac, sizeof(cfg->mac)},
                 {"--guid", cfg->guid, sizeof(cfg->guid)},
                 {"--name", cfg->name, sizeof(cfg->name)},
                 {"--wav", cfg->wavPath, sizeof(cfg->wavPath)}};
    for (auto& t : texts) {
        if (strcmp(opt, t.name) == 0) {
            if (strlen(val) >= t.size || strpbrk(val, "\r\n")) return false;
            rx_copy_text(t.dst, t.size, val);
            return true;
        }
    }
    if (strcmp(opt, "--json") == 0) {
        *json = val;
    } else if (strcmp(opt, "--master") == 0 && parse_number(val, 0, 65535, &v)) {
        cfg->master = (int)v;
    } else if (strcmp(opt, "--volume") == 0 && parse_number(val, 0, 100, &v)) {
        cfg->volume = (int)v;
    } else if (strcmp(opt, "--sync-port") == 0 && parse_number(val, 0, 65535, &v)) {
        cfg->syncPort = (unsigned short)v;
    } else if (strcmp(opt, "--rtp-port") == 0 && parse_number(val, 1, 65534, &v)) {
        cfg->rtpPort = (unsigned short)v;
    } else if (strcmp(opt, "--duration") == 0 && parse_number(val, 1, 86400 * 365, &v)) {
        *duration = v;
    } else if (strcmp(opt, "--clock-offset-us") == 0 &&
               parse_number(val, -(1LL << 50), 1LL << 50, &v)) {
        cfg->clockOffsetUs = v;
    } else {
        return false;
    }
    return true;
}

void print_status(ReceiverEmulator& rx) {
    ReceiverReport r = rx.Report();
    double position = r.packets ? (double)(r.lastTimestamp - r.firstTimestamp) / 1000.0 : 0.0;
    const char* states[] = {"idle", "channel", "describe", "setup", "play", "playing"};
    fprintf(stderr,
            "\r%s %-8s packets %u  pos %.1fs  gaps %u  silent %u  margin %.1f ms (min %.1f)  "
            "cmds %u  errors %u   ",
            rx.Config().address, states[r.handshake], r.packets, position, r.seqGaps,
            r.silentPackets, r.marginMedianMs, r.marginMinMs, r.commands,
            r.handshakeErrors + r.protocolErrors);
    fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
    ReceiverConfig cfg;
    const char* address = nullptr;
    for (int i = 1; i + 1 < argc; i++) {
        if (strcmp(argv[i], "--address") == 0) address = argv[i + 1];
    }
    ReceiverConfigDefaults(&cfg, address ? address : "");
    long long duration = 0;
    std::string json;
    bool join = false, quiet = false;
    for (int i = 1; i < argc; i++) {
        const char* opt = argv[i];
        if (strcmp(opt, "--help") == 0 || strcmp(opt, "-h") == 0) {
            fputs(kHelp, stdout);
            return 0;
        }
        bool flag = true;
        if (strcmp(opt, "--join") == 0) {
            join = true;
        } else if (strcmp(opt, "--refuse-connect") == 0 || strcmp(opt, "--no-bye-ack") == 0) {
            // applied once the emulator exists
        } else if (strcmp(opt, "--no-timesync") == 0) {
            cfg.timeSync = false;
        } else if (strcmp(opt, "--quiet") == 0) {
            quiet = true;
        } else {
            flag = false;
        }
        if (flag) continue;
        if (i + 1 >= argc || (strcmp(opt, "--address") != 0 &&
                              !apply_option(&cfg, opt, argv[i + 1], &duration, &json))) {
            fprintf(stderr, "sonvara-receiver: bad option %s (see --help)\n", opt);
            return 2;
        }
        i++;
    }
    struct sockaddr_in probe;
    if (!address || strcmp(cfg.address, address) != 0 || !rx_sockaddr(address, 0, &probe) ||
        !address[0]) {
        fprintf(stderr, "sonvara-receiver: --address A.B.C.D is required (see --help)\n");
        return 2;
    }

    ReceiverEmulator rx(cfg);
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--refuse-connect") == 0) rx.SetRefuseConnect(true);
        if (strcmp(argv[i], "--no-bye-ack") == 0) rx.SetAnswerBye(false);
    }
    if (rx.Start() != 0) {
        ReceiverReport r = rx.Report();
        fprintf(stderr, "sonvara-receiver: %s\n",
                r.nErrors ? r.errors[r.nErrors - 1] : "start failed");
        return 1;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    if (join) rx.SendJoin(0, 3);
    long long start = PAL_GetBootTimeUsec();
    while (!g_stop && (duration == 0 || PAL_GetBootTimeUsec() - start < duration * 1000000LL)) {
        PAL_ThreadSleep(200);
        if (!quiet && (PAL_GetBootTimeUsec() - start) / 200000 % 5 == 0) print_status(rx);
    }
    if (!quiet) fputc('\n', stderr);
    rx.Stop();
    std::string report = rx.ReportJson() + "\n";
    FILE* out = json.empty() ? stdout : fopen(json.c_str(), "w");
    if (!out) {
        fprintf(stderr, "sonvara-receiver: cannot write %s\n", json.c_str());
        return 1;
    }
    fputs(report.c_str(), out);
    if (out != stdout) fclose(out);
    return 0;
}
