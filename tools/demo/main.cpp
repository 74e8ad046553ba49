// sonvara-demo-check: the demo's report. For each speaker listed in
// DIR/speakers.tsv it reads the emulator's JSON report and received WAV,
// makes the reference of the speaker's role from the content file, prints
// one table row, and writes the table to DIR/report.txt as well.
// Single-threaded; owns only its buffers.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "DemoCheck.h"

namespace {

const size_t kMaxReportBytes = 1 << 20;
const int kMaxSpeakers = 30;

void usage() {
    fprintf(stderr,
            "usage: sonvara-demo-check [--seek SEC] CONTENT DIR\n"
            "       sonvara-demo-check --info CONTENT\n"
            "  CONTENT  the .mp3/.wav file the sender played\n"
            "  DIR      holds speakers.tsv: name<TAB>role<TAB>received.wav<TAB>report.json\n"
            "           (paths relative to DIR; role as on the wire: Front_Left, ..., Party)\n"
            "Prints, per speaker, packets, gaps, silent packets, clock error, play-out\n"
            "margin and whether the audio equals what its role should get; exits 1 when\n"
            "any speaker's audio differs or is missing.\n"
            "With <speaker>.played.wav and <speaker>.starts beside a speaker's WAV (the demo's\n"
            "--play) it also checks what the speaker played: its role's audio apart from the\n"
            "corrections it reported, started on the shared clock, all within 1 ms.\n"
            "--seek: the sender was asked to seek to SEC (an MP3 decode restarts there).\n"
            "--info prints the content's channels, rate, bytes per sample and seconds\n"
            "as the sender reads it.\n");
}

struct Speaker {
    std::string name, role, wav, json;
};

// Splits a tab-separated line into at most four bounded fields.
bool parse_line(const char* line, Speaker* sp) {
    std::string fields[4];
    int n = 0;
    for (const char* p = line; *p != 0 && *p != '\n' && *p != '\r'; p++) {
        if (*p == '\t') {
            if (++n == 4) break;
        } else if (fields[n].size() < 255) {
            fields[n] += *p;
        }
    }
    if (n < 2 || fields[0].empty()) return false;
    sp->name = fields[0];
    sp->role = fields[1];
    sp->wav = fields[2];
    sp->json = n >= 3 ? fields[3] : "";
    return true;
}

std::string in_dir(const std::string& dir, const std::string& file) {
    return file.empty() || file[0] == '/' ? file : dir + "/" + file;
}

// One table row; true when the speaker got its role's audio.
bool check_speaker(const DemoPcm& content, const DemoPcm* afterSeek, const std::string& dir,
                   const Speaker& sp, std::string* row) {
    char cells[200];
    std::string json;
    double packets = -1, gaps = -1, silent = -1, synced = 0, mMin = 0, mMed = 0;
    double errN = 0, errP50 = 0, errP95 = 0, errMax = 0;
    bool haveReport = DemoReadSmallFile(in_dir(dir, sp.json).c_str(), kMaxReportBytes, &json) &&
                      DemoJsonNumber(json, "packets", &packets);
    if (haveReport) {
        DemoJsonNumber(json, "seq_gaps", &gaps);
        DemoJsonNumber(json, "silent_packets", &silent);
        DemoJsonNumber(json, "clock_synced", &synced);
        DemoJsonNumber(json, "clock_error_count", &errN);
        DemoJsonNumber(json, "clock_error_p50_us", &errP50);
        DemoJsonNumber(json, "clock_error_p95_us", &errP95);
        DemoJsonNumber(json, "clock_error_max_us", &errMax);
        DemoJsonNumber(json, "margin_min_ms", &mMin);
        DemoJsonNumber(json, "margin_median_ms", &mMed);
    }
    std::string audio;
    bool ok = false;
    int role = DemoRoleFromName(sp.role.c_str());
    DemoPcm received;
    std::string err;
    std::vector<unsigned char> reference, seekReference;
    if (role < 0) {
        audio = "unknown role";
    } else if (DemoRoleFilter(content, role, &reference) != 0 ||
               (afterSeek != nullptr && DemoRoleFilter(*afterSeek, role, &seekReference) != 0)) {
        audio = "content not checkable";
    } else if (DemoLoadReceived(in_dir(dir, sp.wav).c_str(), &received, &err) != 0) {
        audio = "NO AUDIO (" + err + ")";
    } else {
        DemoMatch m;
        const int frameBytes = 2 * content.bytesPerSample;
        DemoCompareAny({&reference, &seekReference}, received.bytes, frameBytes, &m);
        audio = DemoDescribe(m, content.rate, frameBytes);
        if (m.verdict != DEMO_NOTHING && received.rate != content.rate) {
            audio += " (received at another rate)";
        }
        ok = m.verdict == DEMO_EXACT || m.verdict == DEMO_EXACT_RUNS;
    }
    char name[25];
    snprintf(name, sizeof(name), "%s", sp.name.c_str());
    if (haveReport) {
        // The speaker's estimate of the shared clock minus the truth (the
        // emulators share the phone's machine, so the truth is known).
        char clock[40];
        if (synced == 0) {
            snprintf(clock, sizeof(clock), "not synced");
        } else if (errN == 0) {
            snprintf(clock, sizeof(clock), "synced, run too short");
        } else {
            snprintf(clock, sizeof(clock), "%+.0f/%.0f/%.0f", errP50, errP95, errMax);
        }
        snprintf(cells, sizeof(cells), "%-24s %-12s %7.0f %5.0f %6.0f %21s %7.1f/%-7.1f ", name,
                 sp.role.c_str(), packets, gaps, silent, clock, mMin, mMed);
    } else {
        snprintf(cells, sizeof(cells), "%-24s %-12s %7s %5s %6s %21s %15s ", name, sp.role.c_str(),
                 "-", "-", "-", "no report", "-");
    }
    *row = std::string(cells) + audio;
    return ok;
}

// What a --play speaker wrote to its (file) device: <name>.played.wav and
// the device's start log <name>.starts beside its received <name>.wav.
// Empty when the speaker did not play; else one row, with *startUs the
// shared-clock time its content's first frame left, 0 when unknown.
std::string played_row(const DemoPcm& content, const std::string& dir, const Speaker& sp, bool* ok,
                       long long* startUs) {
    *ok = false;
    *startUs = 0;
    std::string base = in_dir(dir, sp.wav);
    if (base.size() > 4 && base.compare(base.size() - 4, 4, ".wav") == 0)
        base.resize(base.size() - 4);
    DemoPcm played;
    std::string err, json, starts;
    if (DemoLoadReceived((base + ".played.wav").c_str(), &played, &err) != 0) return "";
    std::vector<unsigned char> reference;
    int role = DemoRoleFromName(sp.role.c_str());
    const int frameBytes = 2 * content.bytesPerSample;
    char cells[300];
    if (role < 0 || DemoRoleFilter(content, role, &reference) != 0)
        return sp.name + ": no reference";
    DemoPlayMatch m;
    DemoComparePlayed(reference, played.bytes, frameBytes, &m);
    double ins = -1, drop = -1, resyncs = -1, firstTs = -1;
    DemoReadSmallFile(in_dir(dir, sp.json).c_str(), kMaxReportBytes, &json);
    DemoJsonNumber(json, "play_inserted", &ins);
    DemoJsonNumber(json, "play_dropped", &drop);
    DemoJsonNumber(json, "play_resyncs", &resyncs);
    DemoJsonNumber(json, "first_timestamp", &firstTs);
    // Where the content begins in the received stream says when it was due.
    DemoPcm received;
    DemoPlayMatch inStream;
    inStream.startFrame = -1;
    if (DemoLoadReceived(in_dir(dir, sp.wav).c_str(), &received, &err) == 0) {
        DemoComparePlayed(reference, received.bytes, frameBytes, &inStream);
    }
    long long offUs = 0;
    bool timed = m.startFrame >= 0 && firstTs >= 0 && inStream.startFrame >= 0 &&
                 DemoReadSmallFile((base + ".starts").c_str(), 1 << 16, &starts) &&
                 DemoPlayedFrameTime(starts, m.startFrame, content.rate, startUs);
    if (timed) {
        offUs = DemoStartLateUs(*startUs, (unsigned int)firstTs, inStream.startFrame, content.rate);
    } else {
        *startUs = 0;
    }
    // Counted corrections only; the stamp is the start rounded down to 1 ms.
    const bool whole = DemoPlayedToTheEnd(m, frameBytes);
    *ok = m.startFrame >= 0 && m.differing == 0 && whole && ins == m.inserted &&
          drop == m.dropped && (resyncs > 0 || m.skipped + m.silence == 0) && timed &&
          offUs > -1000 && offUs < 2000;
    const char* verdict = m.startFrame < 0   ? "NOT FOUND"
                          : m.differing != 0 ? "DIFFERS"
                          : !whole           ? "part of it"
                                             : "bit-exact";
    snprintf(cells, sizeof(cells),
             "%-24.24s %-12s %s: %u inserted, %u dropped (reported %.0f, %.0f), %zu jumped, "
             "start %+.3f ms from its time stamp",
             sp.name.c_str(), sp.role.c_str(), verdict, m.inserted, m.dropped, ins, drop, m.skipped,
             timed ? offUs / 1000.0 : 0.0);
    return cells;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--help") == 0) {
        usage();
        return 0;
    }
    long seek = -1;
    if (argc == 5 && strcmp(argv[1], "--seek") == 0) {
        char* end = nullptr;
        seek = strtol(argv[2], &end, 10);
        if (end == argv[2] || *end != 0 || seek < 0 || seek > 86400) {
            usage();
            return 2;
        }
        argc -= 2;
        argv += 2;
    }
    if (argc != 3) {
        usage();
        return 2;
    }
    const bool info = strcmp(argv[1], "--info") == 0;
    const char* file = info ? argv[2] : argv[1];
    DemoPcm content;
    std::string err;
    if (DemoLoadContent(file, &content, &err) != 0) {
        fprintf(stderr, "sonvara-demo-check: %s: %s\n", file, err.c_str());
        return 2;
    }
    if (info) {
        double perSec = (double)content.rate * content.channels * content.bytesPerSample;
        printf("%d %d %d %.3f\n", content.channels, content.rate, content.bytesPerSample,
               content.bytes.size() / perSec);
        return 0;
    }
    const std::string dir = argv[2];
    DemoPcm afterSeek;
    const bool seekRef = seek >= 0 && DemoIsMp3(file);
    if (seekRef && DemoLoadContentFrom(file, (unsigned int)seek, &afterSeek, &err) != 0) {
        fprintf(stderr, "sonvara-demo-check: %s: %s\n", file, err.c_str());
        return 2;
    }
    FILE* list = fopen((dir + "/speakers.tsv").c_str(), "r");
    if (list == nullptr) {
        fprintf(stderr, "sonvara-demo-check: cannot read %s/speakers.tsv\n", dir.c_str());
        return 2;
    }
    std::string table =
        "Speaker                  Role         Packets  Gaps Silent "
        "Clock error us p50/p95/max  Margin min/med  Audio\n";
    char line[1024];
    int speakers = 0, good = 0, players = 0, goodPlayers = 0;
    long long firstStart = 0, lastStart = 0;
    std::string playedTable;
    while (speakers < kMaxSpeakers && fgets(line, sizeof(line), list) != nullptr) {
        Speaker sp;
        if (line[0] == '#' || !parse_line(line, &sp)) continue;
        std::string row;
        speakers++;
        if (check_speaker(content, seekRef ? &afterSeek : nullptr, dir, sp, &row)) good++;
        table += row + "\n";
        bool ok = false;
        long long startUs = 0;
        row = played_row(content, dir, sp, &ok, &startUs);
        if (row.empty()) continue;
        players++;
        goodPlayers += ok ? 1 : 0;
        playedTable += row + "\n";
        if (startUs != 0 && (firstStart == 0 || startUs < firstStart)) firstStart = startUs;
        if (startUs > lastStart) lastStart = startUs;
    }
    fclose(list);
    char summary[200];
    snprintf(summary, sizeof(summary), "%d of %d speakers got their role's audio bit-exact\n", good,
             speakers);
    table += summary;
    if (players > 0) {
        const long long spread = lastStart - firstStart;
        snprintf(summary, sizeof(summary),
                 "%d of %d speakers played it bit-exact apart from counted corrections, on "
                 "time; starts %.3f ms apart\n",
                 goodPlayers, players, spread / 1000.0);
        table += "\nWhat each speaker played (--play, from its device's file):\n" + playedTable +
                 summary;
        if (goodPlayers < players || spread > 1000) good = -1;
    }
    fputs(table.c_str(), stdout);
    FILE* out = fopen((dir + "/report.txt").c_str(), "w");
    if (out != nullptr) {
        fputs(table.c_str(), out);
        fclose(out);
    }
    return speakers > 0 && good == speakers ? 0 : 1;
}
