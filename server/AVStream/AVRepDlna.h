// Device discovery: CAVRepDlna.
//
// Owns: the multicast socket discovery requests leave by (joined to the
// group, also heard by the EXIT listener), the UDP socket a search collects
// answers on (port 9090, open only during a search), the heap copy of the
// group address, and three workers (PalWorker: thread, exit flag and exit
// semaphore): the search collector (one per search), the multicast receive
// thread (EXIT announcements) and the clock-sync trigger thread.
// Allocates: the group address text (init), the host text of one search,
// and an MP3Parser for the length of one content query.
// Threads: the owner's thread calls the public operations, except that a
// search (GetDeviceInfo) may come from any thread; the collector
// writes m_DeviceSearch until its worker is stopped; the receive thread reads
// m_nMulticastSock and calls m_NotifyMsg on its own thread; the sync thread
// only drives the platform's sync step.
// Locks: m_pSockLock (a PAL mutex) serialises searches with each other and
// with the multicast socket's open and close; it is never taken by the
// receive or sync thread, and never held while the receive thread is
// stopped. The workers' exit flags are written by the owner and polled by
// the threads; records pass from the collector to the owner through the
// collector's exit semaphore.
#ifndef AVREPDLNA_H
#define AVREPDLNA_H

#include <stdint.h>

#include "AVStreamerDef.h"
#include "PAL.h"
#include "PAL_Worker.h"

// Capacity of every device list of discovery.
#define AV_MAX_DEVICE 30

// Discovery answers arrive on this port; requests name it.
#define AV_DLNA_ANSWER_PORT 9090

// One found device, as returned to callers.
typedef struct _AV_DEVICE {
    char pReceiverIP[AV_IP_LEN];      // source address of the answer
    char pReceiverMac[AV_MAC_LEN];    // "MAC: " of the answer
    char pReceiverGuid[AV_GUID_LEN];  // "GUID: " of the answer
    char pReceiverName[AV_NAME_LEN];  // "NAME: " of the answer, raw bytes
    int32_t isMaster;                 // "MASTER: "; 0 marks the master
    int32_t _vol;                     // "VOL: "
} AV_DEVICE;

typedef struct _AV_DEVICE_INFO {
    AV_DEVICE AVDevice[AV_MAX_DEVICE];
    char nAVDeviceCnt;  // valid leading entries
} AV_DEVICE_INFO;

// A collector's slot: a device record plus the TCP connection it came on.
typedef struct _AV_DEVICE_DLNA {
    char pReceiverIP[AV_IP_LEN];
    char pReceiverMac[AV_MAC_LEN];
    char pReceiverGuid[AV_GUID_LEN];
    char pReceiverName[AV_NAME_LEN];
    int32_t isMaster;
    int32_t _vol;
    int32_t hTcpClientSock;  // TCP collector only; 0 = none
} AV_DEVICE_DLNA;

typedef struct _AV_DEVICE_SEARCH_INFO {
    AV_DEVICE_DLNA AVDeviceDlna[AV_MAX_DEVICE];
    char nAVDeviceCnt;  // valid leading entries
} AV_DEVICE_SEARCH_INFO;

// What one search collects (its collector runs as m_searchWorker).
typedef struct _AV_DEVICE_SEARCH {
    AV_DEVICE_SEARCH_INFO AVDeviceSearchInfo;
} AV_DEVICE_SEARCH;

// Event callback of the discovery object: (owner, AVMSG_REPORT code, two
// arguments). Texts travel as addresses in the intptr_t arguments and are
// valid only during the call.
typedef void (*AV_DLNA_NOTIFY_MSG)(intptr_t parent, intptr_t nMsg, intptr_t param1,
                                   intptr_t param2);

// What one discovery answer turned out to be.
enum AV_DLNA_ANSWER {
    AV_DLNA_ANSWER_RECORDED = 0,    // complete, counted
    AV_DLNA_ANSWER_NOT_DEVICE = 1,  // no "DEVICE"
    AV_DLNA_ANSWER_PARTIAL = 2,     // a label missing; fields stay in the slot, not counted
    AV_DLNA_ANSWER_DUPLICATE = 3,   // that address is already recorded
    AV_DLNA_ANSWER_FULL = 4,        // the list holds AV_MAX_DEVICE devices
};

class CAVRepDlna {
public:
    CAVRepDlna(AV_DLNA_NOTIFY_MSG notify, void* parent);
    CAVRepDlna();
    ~CAVRepDlna();
    CAVRepDlna(const CAVRepDlna&) = delete;
    CAVRepDlna& operator=(const CAVRepDlna&) = delete;

    void CAVRepDlnaSetDefault();
    static void SetGUID(const char* guid);
    int GetMyDevice(AV_DEVICE* dst);

    // Multicast socket on the group ("224.1.2.4:1234"), joined on this
    // phone's interface.
    int CAVRepDlnaInit(const char* addr);
    int CAVRepDlnaClose();

    // One complete search: blocks about 80 ms + waitMs (2000 when 0).
    // pAVDeviceInfo must be zeroed by the caller.
    int GetDeviceInfo(const char* addr, AV_DEVICE_INFO* pAVDeviceInfo, int waitMs = 2000);

    // The EXIT listener on the multicast socket.
    int ReceiveMsgOpen();
    int ReceiveMsgClose();
    int OnMulticastReceiveRead();

    // The clock-sync trigger thread.
    int SyncTrigOpen();
    int SyncTrigClose();

    // Content questions: channel count and sample rate from the headers.
    int GetContentInfo(char* path, AV_CONTENT_INFO* out);
    int GetContentInfoFromMime(char* path, char* mime, AV_CONTENT_INFO* out);
    int GetMp3Info(char* path, AV_CONTENT_INFO* out);
    int GetWaveInfo(char* path, AV_CONTENT_INFO* out);
    long Wav_FileOpen(char* path);
    long Wav_FileRead(long handle, char* buf, unsigned long n);
    int Wav_FileClose(long handle);

    // Thread bodies (arg: the CAVRepDlna).
    static int DeviceThreadUdp(void* arg);
    static int DeviceThread(void* arg);
    static int ReceiveMsgThread(void* arg);
    static int SyncTrigThread(void* arg);

    // Parsers of outside input, usable on a buffer without sockets.
    // ParseDeviceAnswer reads the labels of one answer (text NUL-terminated)
    // into slot, the address fromIp; bWithVol = 0 for the TCP form that
    // ends at MASTER. Returns AV_DLNA_ANSWER_RECORDED when complete.
    static int ParseDeviceAnswer(const char* text, const char* fromIp, int bWithVol,
                                 AV_DEVICE_DLNA* slot);
    // One UDP answer into the list: full list, duplicate address, then the
    // labels into the slot at the count, which is counted when complete.
    static int AddDeviceAnswer(AV_DEVICE_SEARCH_INFO* list, const char* text, const char* fromIp);
    // An EXIT announcement: 1 with the word after EXIT (20 bytes), the MAC
    // (20) and GUID (40) texts, each empty when absent; 0 without "EXIT".
    static int ParseExitMessage(const char* text, char* exitWord, char* mac, char* guid);

    static char mguid[AV_GUID_LEN];         // this sender's GUID
    static unsigned int device_search_seq;  // completed searches, process-wide

private:
    // Starts one of the workers on this object: 0, 15 (no semaphore) or 6
    // (no thread).
    int _start_worker(PalWorker* worker, const char* name, PAL_THREAD_FUNC body);
    void _collect_udp();
    void _collect_tcp();
    void _tcp_accept(AV_DEVICE_SEARCH_INFO* list);
    // A new connection into the first free slot at or after the count: its
    // index, or -1 with the connection closed when every slot is taken.
    static int _tcp_place(AV_DEVICE_SEARCH_INFO* list, int client, const char* fromIp);
    void _tcp_client_read(AV_DEVICE_SEARCH_INFO* list, int slot, const char* myIp);
    int _wav_find_samples(long handle);

    AV_DLNA_NOTIFY_MSG m_NotifyMsg;
    MP3Decoder* m_pMp3Decoder;
    void* m_pParent;
    AV_MP3_INST m_Mp3Inst;
    AV_CONTENT_INFO m_ContentInfo;
    AV_DEVICE_SEARCH m_DeviceSearch;
    AV_RECEIVER_INFO m_AVReceiverInfo;
    AV_MUSIC_INFO m_AVMusicInfo;
    char* m_pMulticastIP;
    uint16_t m_MulticastPort;
    char m_pMyIP[AV_IP_LEN];
    int32_t m_nMulticastSock;
    int32_t m_nTcpSock;
    int32_t m_nUdpSock;
    uint16_t m_TcpPort;
    PalWorker m_searchWorker;   // the collector of the search under way
    PalWorker m_syncWorker;     // the sync trigger
    PalWorker m_receiveWorker;  // the multicast receive thread
    // Held by a search for its whole run and by the multicast socket's open
    // and close: searches from two threads (the application's and the
    // background search) and a close on a third take turns.
    PAL_MUTEX* m_pSockLock;

    friend struct CAVRepDlnaProbe;  // tests and fuzzing drive the TCP collector directly
};

#endif
