// The demo's verdict on each emulated speaker: what its role should get from
// a content file, and whether the audio it received is that, bit for bit.
//
// The reference is made the way the sender makes a receiver's stream: WAV
// sample bytes are taken as the sender's WAV reader takes them, MP3 frames are
// cut by the engine's MP3Parser and decoded by the platform's MP3Decoder, and
// every frame goes through the channel rule of the receiver's role (2-channel
// output, samples copied, never mixed). The comparison walks the received
// stream packet by packet (1400 payload bytes) and finds each packet in the
// reference, so that late starts, underruns (silent packets), seeks and
// pauses are told apart from wrong audio.
//
// Owns nothing beyond the vectors it fills; no threads, no locks. Files are
// outside input: every header and length is checked, sizes are capped.
#ifndef DEMOCHECK_H
#define DEMOCHECK_H

#include <stddef.h>

#include <string>
#include <vector>

#define DEMO_PACKET_BYTES 1400
#define DEMO_MAX_CONTENT_BYTES (512u * 1024u * 1024u)

// Interleaved PCM as the sender reads it from a content file.
struct DemoPcm {
    std::vector<unsigned char> bytes;
    int rate;
    int channels;
    int bytesPerSample;  // 1 or 2
};

// Loads a .wav/.mp3 content file (by extension, as the sender decides).
// 0 on success; otherwise -1 and a reason in err.
int DemoLoadContent(const char* path, DemoPcm* out, std::string* err);

// True for a name the sender plays as MP3 (".mp3"/".MP3").
bool DemoIsMp3(const char* path);

// What the sender streams after a seek to `seconds` in MP3 content: the
// parser moves and the decoder restarts, so the first frames differ from the
// same place in a whole decode. 0, or -1 and err.
int DemoLoadContentFrom(const char* path, unsigned int seconds, DemoPcm* out, std::string* err);

// Channel role from its wire name ("Front_Left", ..., "Party"); -1 if unknown.
int DemoRoleFromName(const char* name);

// The 2-channel stream a receiver of `role` (AV_CHANNEL_TYPE) gets from src.
// 0, or -1 when src has no channels or an unsupported sample size.
int DemoRoleFilter(const DemoPcm& src, int role, std::vector<unsigned char>* out);

// Loads a received WAV file (any chunk layout, PCM). 0, or -1 and err.
int DemoLoadReceived(const char* path, DemoPcm* out, std::string* err);

enum DemoVerdict {
    DEMO_EXACT = 0,   // every packet matched, from the start to the end
    DEMO_EXACT_PART,  // every packet matched, but part of the content is missing
    DEMO_EXACT_RUNS,  // every packet matched, in several runs (seek, pause)
    DEMO_DIFFERS,     // some packets are not in the reference
    DEMO_NOTHING,     // no audio was received
};

struct DemoMatch {
    unsigned int packets;    // packets in the received stream
    unsigned int matched;    // packets equal to the reference at their place
    unsigned int silent;     // all-zero packets not explained by the reference
    unsigned int differing;  // packets found nowhere in the reference
    unsigned int jumps;      // times the stream moved to another place
    size_t startOffset;      // reference byte where the first run begins
    size_t endOffset;        // reference byte after the last matched packet
    size_t referenceBytes;   // size of the reference
    int verdict;             // DemoVerdict
};

// Compares a received stream with the reference of its role. frameBytes is
// the size of one output frame (4 for 16-bit stereo); runs start on frames.
void DemoCompare(const std::vector<unsigned char>& reference,
                 const std::vector<unsigned char>& received, int frameBytes, DemoMatch* out);
// The same with several references (a whole decode and the decode after a
// seek): a run may be in any of them, searched in order.
void DemoCompareAny(const std::vector<const std::vector<unsigned char>*>& refs,
                    const std::vector<unsigned char>& received, int frameBytes, DemoMatch* out);

// One line a person can read: "bit-exact", "bit-exact from 0.32 s", ...
std::string DemoDescribe(const DemoMatch& m, int rate, int frameBytes);

// How what a speaker played (the frames a --play receiver wrote to its
// device) lines up with its role's reference: the silence before the start,
// the scheduler's single-frame corrections and its jumps are told apart from
// wrong audio. Frames are compared whole.
struct DemoPlayMatch {
    long long startFrame;     // played frame where reference frame 0 sits, -1 = not found
    size_t matched;           // frames equal to the reference in place
    unsigned int inserted;    // frames repeated (one at a time)
    unsigned int dropped;     // single reference frames left out
    size_t skipped;           // reference frames left out by longer jumps
    size_t silence;           // silent frames inside the stream (gaps, held back)
    size_t differing;         // frames nothing explains
    size_t referenceFrames;   // size of the reference
    size_t referenceReached;  // reference frames up to where the played stream ends
};
// The played stream reaches the reference's end: all of it but a last part
// smaller than one packet, which is never sent.
bool DemoPlayedToTheEnd(const DemoPlayMatch& m, int frameBytes);
void DemoComparePlayed(const std::vector<unsigned char>& reference,
                       const std::vector<unsigned char>& played, int frameBytes,
                       DemoPlayMatch* out);

// When played frame `frame` left the speaker, from the clock-paced device's
// start log ("start <boot us> <frames before>" lines, see AlsaClockPcm.cpp)
// at `rate`. False when the log has no start before that frame.
bool DemoPlayedFrameTime(const std::string& startLog, long long frame, int rate, long long* us);

// How long after its due time (us, master clock) a played content started:
// startUs is when its first frame left; it was due at the received stream's
// first time stamp (ms) plus its place in that stream (streamFrame frames:
// silent packets may come first). The time stamp is the exact time rounded
// down to the millisecond, so an exact start gives 0 to 1000 us.
long long DemoStartLateUs(long long startUs, unsigned int firstTimestampMs, long long streamFrame,
                          int rate);

// A number from a flat JSON report ("key": 12.5); false if absent.
bool DemoJsonNumber(const std::string& json, const char* key, double* out);

// Reads at most maxBytes of a text file; false if missing or larger.
bool DemoReadSmallFile(const char* path, size_t maxBytes, std::string* out);

#endif
