// sonvara-receiver: one receiver (Wi-Fi speaker) in software.
//
// Parses the options into a ReceiverConfig, runs a ReceiverEmulator until
// SIGINT/SIGTERM or the given duration, prints a status line every second and
// the report as JSON at the end. With --play (built where ALSA is installed)
// an AlsaOut plays the stream on a sound device. Main thread only; the
// emulator and the player run their own.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "NICInfo.h"
#include "PAL_Clock.h"
#include "ReceiverEmulator.h"
#include "RxSocket.h"
#ifdef SONVARA_HAVE_ALSA
#include "AlsaOut.h"
#endif

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
    "       sonvara-receiver --play [DEVICE] [options]\n"
    "\n"
    "Identity:\n"
    "  --address IP        own IPv4 address; every socket is bound to it (required\n"
    "                      unless --play: then the host's, as for SONVARA_IFACE below)\n"
    "  --mac TEXT          MAC text (default 02:00:<address bytes>; with --play and no\n"
    "                      --address, the interface's own)\n"
    "  --guid TEXT         GUID (default derived from the address)\n"
    "  --name TEXT         device name, any UTF-8 (default \"Speaker <last byte>\"; with\n"
    "                      --play and no --address, the host name)\n"
    "  --master N          MASTER value in the discovery answer, 0 = master (default 1)\n"
    "  --volume N          volume reported to the phone (default 7)\n"
    "  --sync-port N       SyncPort sent in CHANNEL (default 5000)\n"
    "  --rtp-port N        RTP port, RTCP is N+1 (default: any free pair)\n"
    "Behaviour:\n"
    "  --play [DEVICE]     play the stream on an ALSA device (default \"default\") at the\n"
    "                      time the phone's clock says: a real speaker\n"
    "  --wav FILE          write the received stream to FILE (2-channel WAV)\n"
    "  --duration SEC      stop after SEC seconds (default: until Ctrl-C)\n"
    "  --json FILE         write the final report there (default: standard output)\n"
    "  --join              announce itself with JOIN once started (join a playing group)\n"
    "  --leave-after SEC   send LEAVE on the connection SEC seconds after start\n"
    "  --drop-after SEC    drop the connection SEC seconds after start\n"
    "  --refuse-connect    never connect (a speaker that is switched off)\n"
    "  --no-bye-ack        never answer BYE\n"
    "  --stop-at-setup     never ask to PLAY (stop after SETUP)\n"
    "  --flood-describe    once playing, stop reading the connection and flood it\n"
    "                      with DESCRIBE requests\n"
    "  --no-timesync       do not synchronise the clock\n"
    "  --clock-offset-us N give the own clock an artificial offset\n"
    "  --clock-drift-ppm N and an artificial drift (parts per million, +-1000)\n"
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
    "As a speaker in the house (only on a network of your own): --play alone takes\n"
    "the address and MAC of the interface named by SONVARA_IFACE, else of the first\n"
    "one that is up, multicast-capable and not loopback, and the host name.\n"
    "  sonvara-receiver --play --name \"Kitchen\"\n"
    "The status line shows packets received, the play position taken from the\n"
    "RTP timestamps, and how early packets arrive before their play-out time.\n"
    "At the end the report (packets, gaps, silent packets, commands, handshake\n"
    "errors, clock offset and its error against this machine's clock, play-out\n"
    "margin) is printed as JSON.\n";

bool parse_number(const char* text, long long lo, long long hi, long long* out) {
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (!text[0] || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// What the command does besides being a receiver.
struct RunOptions {
    long long durationS;    // 0 = until a signal
    long long leaveAfterS;  // send LEAVE after this long (0 = never)
    long long dropAfterS;   // drop the control connection after this long (0 = never)
    std::string json;       // "" = standard output
    bool join, quiet, refuseConnect, noByeAck, floodDescribe, stopAtSetup;
    bool play;           // --play: to a sound device
    std::string device;  // its ALSA name ("" = default)
};

// The lab's options (the clock's drift and the impairments of the
// time-sync datagrams): 1 applied, 0 not one of them, -1 bad value.
int apply_lab_option(ReceiverConfig* cfg, const char* opt, const char* val) {
    if (strcmp(opt, "--clock-drift-ppm") != 0) return NetLabOption(&cfg->net, opt, val);
    char* end = nullptr;
    double v = strtod(val, &end);
    if (!val[0] || *end || !(v >= -1000 && v <= 1000)) return -1;
    cfg->clockDriftPpm = v;
    return 1;
}

// Applies one option that takes a value; false on a bad one.
bool apply_option(ReceiverConfig* cfg, RunOptions* run, const char* opt, const char* val) {
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
    struct {
        const char* name;
        long long lo, hi;
    } numbers[] = {{"--master", 0, 65535},        {"--volume", 0, 100},
                   {"--sync-port", 0, 65535},     {"--rtp-port", 1, 65534},
                   {"--duration", 1, 31536000},   {"--leave-after", 1, 31536000},
                   {"--drop-after", 1, 31536000}, {"--clock-offset-us", -(1LL << 50), 1LL << 50}};
    int which = -1;
    for (int i = 0; i < (int)(sizeof(numbers) / sizeof(numbers[0])); i++) {
        if (strcmp(opt, numbers[i].name) == 0) which = i;
    }
    int lab = apply_lab_option(cfg, opt, val);
    if (lab != 0) return lab > 0;
    if (strcmp(opt, "--json") == 0) {
        run->json = val;
        return true;
    }
    if (which < 0 || !parse_number(val, numbers[which].lo, numbers[which].hi, &v)) return false;
    switch (which) {
        case 0:
            cfg->master = (int)v;
            break;
        case 1:
            cfg->volume = (int)v;
            break;
        case 2:
            cfg->syncPort = (unsigned short)v;
            break;
        case 3:
            cfg->rtpPort = (unsigned short)v;
            break;
        case 4:
            run->durationS = v;
            break;
        case 5:
            run->leaveAfterS = v;
            break;
        case 6:
            run->dropAfterS = v;
            break;
        default:
            cfg->clockOffsetUs = v;
            break;
    }
    return true;
}

// Applies one flag; false when opt is not one.
bool apply_flag(ReceiverConfig* cfg, RunOptions* run, const char* opt) {
    struct {
        const char* name;
        bool* flag;
    } flags[] = {{"--join", &run->join},
                 {"--quiet", &run->quiet},
                 {"--refuse-connect", &run->refuseConnect},
                 {"--no-bye-ack", &run->noByeAck},
                 {"--flood-describe", &run->floodDescribe},
                 {"--stop-at-setup", &run->stopAtSetup}};
    for (auto& f : flags) {
        if (strcmp(opt, f.name) == 0) {
            *f.flag = true;
            return true;
        }
    }
    if (strcmp(opt, "--no-timesync") != 0) return false;
    cfg->timeSync = false;
    return true;
}

#ifdef SONVARA_HAVE_ALSA
// The player's clock: this receiver's own time-sync estimate.
class ReceiverClock : public PlayClock {
public:
    ReceiverEmulator* rx = nullptr;
    bool MasterNowUs(long long* us) override { return rx && rx->MasterNowUs(us); }
};
#else
// Without ALSA there is nothing to play on (--play is refused).
class ReceiverClock {
public:
    ReceiverEmulator* rx = nullptr;
};
class AlsaOut {
public:
    AlsaOut(const char*, ReceiverClock*) {}
    int Start() { return -1; }
    void Stop() {}
    std::string StatsJson() { return ""; }
};
#endif

// Address, MAC and name of this host's interface for --play without --address.
bool host_identity(ReceiverConfig* cfg, char* address, size_t size) {
    char mac[20] = {0}, ip[20] = {0};
    if (!GetNICInfo(mac, ip) || strcmp(ip, "127.0.0.1") == 0) return false;
    rx_copy_text(address, size, ip);
    ReceiverConfigDefaults(cfg, address);
    rx_copy_text(cfg->mac, sizeof(cfg->mac), mac);
    char host[244] = {0};
    if (gethostname(host, sizeof(host) - 1) == 0 && host[0]) {
        rx_copy_text(cfg->name, sizeof(cfg->name), host);
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
    bool play = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--address") == 0 && i + 1 < argc) address = argv[i + 1];
        if (strcmp(argv[i], "--play") == 0) play = true;
    }
    char hostAddress[20] = {0};
    if (!address && play && host_identity(&cfg, hostAddress, sizeof(hostAddress))) {
        address = hostAddress;
    } else {
        ReceiverConfigDefaults(&cfg, address ? address : "");
    }
    cfg.keepPcm = false;  // the stream goes to the WAV file, if any, not to memory
    RunOptions run = {0, 0, 0, "", false, false, false, false, false, false, false, ""};
    for (int i = 1; i < argc; i++) {
        const char* opt = argv[i];
        if (strcmp(opt, "--help") == 0 || strcmp(opt, "-h") == 0) {
            fputs(kHelp, stdout);
            fputs(kNetLabHelp, stdout);
            return 0;
        }
        if (strcmp(opt, "--play") == 0) {
            run.play = true;
            if (i + 1 < argc && strncmp(argv[i + 1], "--", 2) != 0) run.device = argv[++i];
            continue;
        }
        if (apply_flag(&cfg, &run, opt)) continue;
        if (i + 1 >= argc ||
            (strcmp(opt, "--address") != 0 && !apply_option(&cfg, &run, opt, argv[i + 1]))) {
            fprintf(stderr, "sonvara-receiver: bad option %s (see --help)\n", opt);
            return 2;
        }
        i++;
    }
    struct sockaddr_in probe;
    if (!address || !address[0] || strcmp(cfg.address, address) != 0 ||
        !rx_sockaddr(address, 0, &probe)) {
        fprintf(stderr, "sonvara-receiver: --address A.B.C.D is required (see --help)\n");
        return 2;
    }

#ifndef SONVARA_HAVE_ALSA
    if (run.play) {
        fprintf(stderr, "sonvara-receiver: built without ALSA, so it cannot --play\n");
        return 2;
    }
#endif
    if (run.play && !cfg.timeSync) {
        fprintf(stderr, "sonvara-receiver: --play needs the clock: drop --no-timesync\n");
        return 2;
    }
    ReceiverClock clock;
    std::unique_ptr<AlsaOut> player;
    if (run.play) {
        player.reset(new AlsaOut(run.device.c_str(), &clock));
#ifdef SONVARA_HAVE_ALSA
        cfg.playSink = player.get();
#endif
    }
    ReceiverEmulator rx(cfg);
    clock.rx = &rx;
    rx.SetRefuseConnect(run.refuseConnect);
    rx.SetAnswerBye(!run.noByeAck);
    rx.SetStopAtSetup(run.stopAtSetup);
    if (player && player->Start() != 0) {
        fprintf(stderr, "sonvara-receiver: cannot start the player\n");
        return 1;
    }
    if (rx.Start() != 0) {
        ReceiverReport r = rx.Report();
        fprintf(stderr, "sonvara-receiver: %s\n",
                r.nErrors ? r.errors[r.nErrors - 1] : "start failed");
        return 1;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    if (run.join) rx.SendJoin(0, 3);
    long long start = PAL_GetBootTimeUsec();
    bool left = false, dropped = false, flooding = false;
    for (;;) {
        long long elapsed = PAL_GetBootTimeUsec() - start;
        if (g_stop || (run.durationS && elapsed >= run.durationS * 1000000LL)) break;
        if (run.leaveAfterS && !left && elapsed >= run.leaveAfterS * 1000000LL) {
            left = true;
            rx.SendLeave();
        }
        if (run.dropAfterS && !dropped && elapsed >= run.dropAfterS * 1000000LL) {
            dropped = true;
            rx.DropConnection();
        }
        if (run.floodDescribe && !flooding && rx.Report().handshake == RX_HS_PLAYING) {
            flooding = true;
            rx.SetFloodDescribe(true);
        }
        PAL_ThreadSleep(200);
        if (!run.quiet && elapsed / 200000 % 5 == 0) print_status(rx);
    }
    if (!run.quiet) fputc('\n', stderr);
    rx.Stop();
    std::string report = rx.ReportJson();
    if (player) {
        player->Stop();
        report.insert(report.size() - 1, "," + player->StatsJson());
    }
    report += "\n";
    FILE* out = run.json.empty() ? stdout : fopen(run.json.c_str(), "w");
    if (!out) {
        fprintf(stderr, "sonvara-receiver: cannot write %s\n", run.json.c_str());
        return 1;
    }
    fputs(report.c_str(), out);
    if (out != stdout) fclose(out);
    return 0;
}
