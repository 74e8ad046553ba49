// A receiver (Wi-Fi speaker) in software: the peer of the sender engine in
// tests, demos and benchmarks, and a tool for working without speakers.
//
// One ReceiverEmulator is one receiver with its own address (every socket is
// bound to it: 127.0.0.2, 127.0.0.3, ... in the test namespace). It answers
// discovery, connects when a SEARCH lists it, steps through the control
// handshake checking every reply, receives and checks the RTP stream, follows
// and records the sender's commands, keeps its clock in step with the master
// (TimeSyncClient) and reports what it saw. Bad input from the sender is
// counted and described in the report, never fatal.
//
// Owns: its sockets (discovery on the group and on its own address, the
// control connection, RTP and RTCP), one worker thread, a TimeSyncClient, the
// received PCM (memory, optionally a WAV file). Threads: every public method
// may be called from any thread; the worker does all the reading.
// Locks: m_lock guards the report, the command log, the PCM and the fault
// switches; m_writeLock serialises writes on the control connection. Neither
// is held across a blocking call, and never both at once.
#ifndef RECEIVEREMULATOR_H
#define RECEIVEREMULATOR_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TimeSyncClient.h"

// Something that plays what the receiver gets (sonvara-receiver --play).
// Called on the emulator's worker thread with none of its locks held; an
// implementation must not block there (it only queues).
enum ReceiverPlayEvent {
    RX_PLAY_NEW_STREAM = 0,  // connected to a sender: a new stream begins
    RX_PLAY_SEEK,            // SEEK: the stream jumped
    RX_PLAY_PAUSE,           // PAUSE: stop at once
    RX_PLAY_RESUME,          // RESUME
    RX_PLAY_STOP,            // BYE or the connection closed: the stream is over
};
class ReceiverPlaySink {
public:
    virtual ~ReceiverPlaySink() {}
    virtual void OnPlayFormat(int rate, int bits) = 0;  // from the SDP
    virtual void OnPlayEvent(int event) = 0;            // ReceiverPlayEvent
    // A well-formed RTP packet: sequence number, timestamp, 1400 payload bytes.
    virtual void OnPlayPacket(unsigned short seq, unsigned int timestamp,
                              const unsigned char* payload, int len) = 0;
};

struct ReceiverConfig {
    char address[20];  // own IPv4 address, e.g. "127.0.0.2"
    char mac[20];      // "aa:bb:cc:dd:ee:ff"
    char guid[40];
    char name[244];                // any bytes but CR LF, UTF-8 included
    int master;                    // MASTER value in the discovery answer (0 = the master device)
    int volume;                    // VOL value in the discovery answer and JOIN
    unsigned short syncPort;       // sent as "SyncPort: " in CHANNEL
    char group[20];                // "224.1.2.4"
    unsigned short discoveryPort;  // 1234: DEVICE, SEARCH, JOIN, EXIT
    unsigned short timeSyncPort;   // 1235
    unsigned short rtpPort;        // RTP client port (RTCP = +1); 0 = pick free ones
    char wavPath[260];             // "" = no file; else the stream is written there
    bool keepPcm;                  // keep the received payload in memory
    unsigned int pcmLimitBytes;    // at most this much is kept in memory
    bool timeSync;                 // run the time-synchronisation client
    long long clockOffsetUs;       // artificial offset of this receiver's own clock
    double clockDriftPpm;          // artificial drift of this receiver's own clock
    NetLabConfig net;              // impairments on the time-sync datagrams (none)
    unsigned int replyTimeoutMs;   // a handshake step fails after this long
    ReceiverPlaySink* playSink;    // null = nothing plays what arrives
};

// Fills every field with a usable default derived from the address (MAC
// 02:00:7f:00:00:<last octet>, GUID and name from the address, volume 7,
// MASTER 1, sync port 5000, ports 1234/1235, PCM kept up to 64 MB).
void ReceiverConfigDefaults(ReceiverConfig* cfg, const char* address);

// One command the sender sent on the control connection.
struct ReceiverCommand {
    char keyword[20];    // "VOLUME", "START", "BYE", ... or "?" when unknown
    char text[256];      // the message as received (cut to 255 bytes)
    int value;           // the number of DEVICETYPE / UITYPE / VOLUME, else 0
    long long localUs;   // arrival, this receiver's clock
    long long masterUs;  // arrival, estimated master clock (0 = not synchronised)
};

enum ReceiverHandshake {
    RX_HS_IDLE = 0,    // not connected
    RX_HS_WAIT_START,  // CHANNEL sent
    RX_HS_WAIT_SDP,    // DESCRIBE sent
    RX_HS_WAIT_SETUP,  // SETUP sent
    RX_HS_WAIT_PLAY,   // PLAY sent
    RX_HS_PLAYING,     // PLAY answered
};

struct ReceiverReport {
    // Discovery and control.
    unsigned int deviceRequests;   // DEVICE requests answered
    unsigned int searchesSeen;     // SEARCH datagrams read (any list)
    unsigned int searchesForMe;    // SEARCH datagrams listing this receiver
    unsigned int connects;         // control connections made
    int handshake;                 // ReceiverHandshake
    unsigned int handshakeErrors;  // deviations in START / SDP / SETUP / PLAY replies
    unsigned int protocolErrors;   // malformed or unknown datagrams and commands
    unsigned int commands;         // commands received
    char serverAddr[20];           // control server of the last SEARCH acted on
    unsigned short serverPort;
    // From the handshake and the commands.
    int sdpBits, sdpRate, sdpChannels;
    char sdpTitle[256];
    char startRef[40];               // "ip:port" of the START command
    char startRole[20];              // "Front_Left", ...
    int volume, deviceType, uiType;  // last values commanded, -1 = none
    unsigned short rtpPort, rtcpPort;
    // RTP.
    unsigned int packets;          // well-formed packets
    unsigned long long bytes;      // payload bytes of those
    unsigned int badLength;        // datagrams that are not 1412 bytes
    unsigned int badVersion;       // first byte not 0x80
    unsigned int badPayloadType;   // payload type not 96
    unsigned int badMarker;        // marker bit clear
    unsigned int seqGaps;          // jumps forward in the sequence, not explained below
    unsigned int lostPackets;      // packets those jumps skipped
    unsigned int expectedGaps;     // jumps across a PAUSE or a SEEK (the sender's clock runs on)
    unsigned int outOfOrder;       // repeated or older sequence numbers
    unsigned int timestampErrors;  // timestamp off its sequence's expected value by > 1 ms
    unsigned int silentPackets;    // payload all zeros
    unsigned int firstTimestamp, lastTimestamp;
    unsigned short lastSeq;
    // Clock.
    bool clockSynced;
    long long clockOffsetUs;  // estimated master - own clock
    // Error of that estimate against the truth (this host's boot clock: the
    // master's when the sender runs on this host), estimate minus truth over
    // the steady part (from 3 s after the first announcement), in us.
    unsigned int clockErrorCount;
    long long clockErrorP50Us, clockErrorP95Us, clockErrorMaxUs;  // signed / |e| / |e|
    long long clockConvergeMs;  // first announcement to within 100 us; -1 not yet
    // Play-out margin: RTP timestamp minus the master clock at arrival, ms
    // (how early a packet came). p99: 99 % of packets came at least this early.
    unsigned int marginCount;
    double marginMinMs, marginMedianMs, marginP99Ms;
    // Lateness: arrival minus the packet's due time from its sequence
    // number, relative to the earliest packet, ms. Shows how steadily the
    // sender paces, whatever its fixed delay.
    double latenessMedianMs, latenessP99Ms, latenessMaxMs;
    // The last errors, oldest first (cut to 127 bytes each).
    enum { kMaxErrors = 16 };
    int nErrors;
    char errors[kMaxErrors][128];
};

class ReceiverEmulator {
public:
    explicit ReceiverEmulator(const ReceiverConfig& cfg);
    ~ReceiverEmulator();  // Stop()s

    // Opens the sockets and starts the worker. 0 on success, -1 (with the
    // reason in the report's errors) when a socket could not be opened.
    int Start();
    // Drops the connection, stops the worker, completes the WAV file.
    void Stop();

    // Waiting helpers for tests (false on time-out).
    bool WaitForPackets(unsigned int n, unsigned int timeoutMs);
    bool WaitForHandshake(int state, unsigned int timeoutMs);  // ReceiverHandshake
    bool WaitForCommand(const char* keyword, unsigned int timeoutMs);
    bool WaitForClockSync(unsigned int timeoutMs);
    bool WaitForDisconnect(unsigned int timeoutMs);

    ReceiverReport Report();
    ClockErrorLog ClockErrors();  // the clock's error against the truth, in full
    std::vector<ReceiverCommand> Commands();
    std::vector<unsigned char> Pcm();  // payloads in arrival order
    // The kept PCM as a 2-channel WAV file at the SDP's rate and sample size.
    int WriteWav(const char* path);
    // The report as one JSON object.
    std::string ReportJson();
    unsigned short RtpPort() const { return m_rtpPort; }
    const ReceiverConfig& Config() const { return m_cfg; }
    // This receiver's own clock (with the artificial offset and drift).
    long long LocalNowUs() const;
    // The master clock now as this receiver estimates it; false until the
    // time-sync client has an estimate.
    bool MasterNowUs(long long* masterUs);

    // Announcements and requests this receiver can make. The REQ_TS used is
    // returned (0 = now on the sender's style of millisecond clock).
    unsigned int SendJoin(unsigned int reqTs = 0, int repeat = 1);  // multicast JOIN
    int SendExit();                                                 // multicast EXIT
    int SendLeave(unsigned int reqTs = 0);  // LEAVE on the connection (0 = last JOIN's)
    int SendTeardown();
    int SendVolumeChanged(int volume);
    int SendAlived();
    int SendRaw(const char* text, int len);  // any bytes on the connection

    // Faults the sender must survive.
    void DropConnection();             // close the control connection now
    void SetRefuseConnect(bool on);    // ignore SEARCH (never connect)
    void SetStopReading(bool on);      // stop reading the control connection
    void SetAnswerBye(bool on);        // answer BYE with BYE_ACK (default on)
    void SetAnswerDiscovery(bool on);  // answer DEVICE requests (default on)
    // A receiver that stops reading its control connection and floods it
    // with DESCRIBE requests as fast as the socket takes them.
    void SetFloodDescribe(bool on);
    void SetStopAtSetup(bool on);  // answer SETUP's reply with silence: never PLAY

    class Impl;

private:
    Impl* m;
    ReceiverConfig m_cfg;
    unsigned short m_rtpPort;
};

#endif
