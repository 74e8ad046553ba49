// Device discovery: CAVRepDlna.
//
// Owns the multicast socket requests leave by, the answer socket of the
// running search, the group address text and the collector, receive and
// sync-trigger threads (see AVRepDlna.h). Every datagram and file read here
// comes from outside: each text is terminated before it is searched, each
// copy into a record is cut to its array less one.
// Threads: public operations on the owner's thread; DeviceThreadUdp (or
// DeviceThread) per search, ReceiveMsgThread and SyncTrigThread as opened.
// Locks: m_pSockLock around searches and the socket's open and close (see the
// header); the workers' exit flags are atomic.
#include "AVRepDlna.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <new>

#include "ContentFile.h"
#include "MP3Parser.h"

char CAVRepDlna::mguid[AV_GUID_LEN];
unsigned int CAVRepDlna::device_search_seq;

namespace {

const int kDeviceRequestCount = 8;
const unsigned int kDeviceRequestGapMs = 10;
const unsigned int kDefaultWaitMs = 2000;
const int kRequestBufSize = 1400;
const int kAnswerBufSize = 1400;  // an answer is at most 1399 bytes
const int kExitBufSize = 1024;    // an EXIT announcement is at most 1023 bytes
const int kTcpAnswerBufSize = 1024;
// A discovery thread's stop waits this long before it logs the thread as
// late (and waits on); every thread wakes at once when asked to end.
const unsigned int kWorkerStopMs = 2000;

// Copies at most size - 1 bytes of src and terminates dst.
void _copy_text(char* dst, size_t size, const char* src, size_t maxLen) {
    size_t n = strnlen(src, maxLen < size - 1 ? maxLen : size - 1);
    memcpy(dst, src, n);
    dst[n] = 0;
}

// An unsigned decimal after optional blanks and sign, as scanf's %u reads
// it; 0 when no digit follows.
int _scan_number(const char* p, unsigned long long* value) {
    char* end = NULL;
    unsigned long long v = strtoull(p, &end, 10);
    if (end == p) return 0;
    *value = v;
    return 1;
}

// Sleeps until sock is readable (1), the worker is asked to end or the clock
// reaches deadline (0; the caller looks at its flag and its deadline), or
// poll fails or a descriptor is not open (-1). sock -1: no socket; bDeadline false: no deadline.
// poll rather than select: descriptors above FD_SETSIZE are possible in a busy process.
int _wait_readable(int sock, const PalWorker& worker, bool bDeadline, unsigned int deadline) {
    int timeoutMs = -1;
    if (bDeadline) {
        int left = (int)(deadline - PAL_GetClock());
        if (left <= 0) return 0;
        timeoutMs = left;
    }
    struct pollfd pfd[2];
    int n = 0;
    pfd[n].fd = worker.ExitFd();
    pfd[n].events = POLLIN;
    pfd[n++].revents = 0;
    if (sock >= 0) {
        pfd[n].fd = sock;
        pfd[n].events = POLLIN;
        pfd[n++].revents = 0;
    }
    int r = poll(pfd, n, timeoutMs);
    if (r < 0 && errno == EINTR) return 0;
    if (r < 0 || (pfd[0].revents & POLLNVAL)) return -1;
    if (sock < 0) return 0;
    if (pfd[1].revents & POLLNVAL) return -1;
    return (pfd[1].revents & (POLLIN | POLLERR)) ? 1 : 0;
}

// Parses "host:port" into a heap host text; 0, 1 malformed, 4 no memory.
int _split_host_port(const char* addr, char** pHost, unsigned short* pPort) {
    size_t n = addr ? strlen(addr) : 0;
    // Only the low 8 bits of the length are looked at: a 256-character
    // address counts as empty, as it always has.
    if ((n & 0xFF) == 0) return 1;
    char* host = (char*)malloc(n + 1);
    if (!host) return 4;
    // host holds n + 1 bytes, more than %[^:] can take from addr.
    if (sscanf(addr, "%[^:]:%hu", host, pPort) < 2) {
        free(host);
        return 1;
    }
    *pHost = host;
    return 0;
}

void _copy_device(AV_DEVICE* dst, const AV_DEVICE_DLNA* src) {
    _copy_text(dst->pReceiverIP, sizeof(dst->pReceiverIP), src->pReceiverIP, AV_IP_LEN);
    _copy_text(dst->pReceiverMac, sizeof(dst->pReceiverMac), src->pReceiverMac, AV_MAC_LEN);
    _copy_text(dst->pReceiverGuid, sizeof(dst->pReceiverGuid), src->pReceiverGuid, AV_GUID_LEN);
    _copy_text(dst->pReceiverName, sizeof(dst->pReceiverName), src->pReceiverName, AV_NAME_LEN);
    dst->isMaster = src->isMaster;
    dst->_vol = src->_vol;
}

int _ip_recorded(const AV_DEVICE_SEARCH_INFO* list, int count, const char* ip) {
    for (int i = 0; i < count; i++) {
        if (strncmp(list->AVDeviceDlna[i].pReceiverIP, ip, AV_IP_LEN) == 0) return 1;
    }
    return 0;
}

}  // namespace

CAVRepDlna::CAVRepDlna(AV_DLNA_NOTIFY_MSG notify, void* parent) : m_pSockLock(NULL) {
    debug_UI("[AVRepDlna] CAVRepDlna");
    CAVRepDlnaSetDefault();
    m_NotifyMsg = notify;
    m_pParent = parent;
    // Without it (no memory) the object still works for one caller at a time.
    if (!PAL_MutexCreate(&m_pSockLock)) m_pSockLock = NULL;
}

CAVRepDlna::CAVRepDlna() : CAVRepDlna(NULL, NULL) {
    m_nUdpSock = 0;
    m_nTcpSock = 0;
}

CAVRepDlna::~CAVRepDlna() {
    debug_UI("[AVRepDlna] CAVRepDlna delete");
    // An owner closes first; a thread still running here would outlive us.
    if (m_receiveWorker.Started()) ReceiveMsgClose();
    if (m_syncWorker.Started()) SyncTrigClose();
    if (m_pMulticastIP) CAVRepDlnaClose();
    PAL_MutexDelete(m_pSockLock);
}

void CAVRepDlna::CAVRepDlnaSetDefault() {
    m_NotifyMsg = NULL;
    m_pMp3Decoder = NULL;
    m_pParent = NULL;
    memset(&m_Mp3Inst, 0, sizeof(m_Mp3Inst));
    memset(&m_ContentInfo, 0, sizeof(m_ContentInfo));
    memset(&m_DeviceSearch, 0, sizeof(m_DeviceSearch));
    memset(&m_AVReceiverInfo, 0, sizeof(m_AVReceiverInfo));
    memset(&m_AVMusicInfo, 0, sizeof(m_AVMusicInfo));
    m_pMulticastIP = NULL;
    m_MulticastPort = 0;
    memset(m_pMyIP, 0, sizeof(m_pMyIP));
    m_nMulticastSock = 0;
    m_nTcpSock = 0;
    m_nUdpSock = 0;
    m_TcpPort = 0;
}

void CAVRepDlna::SetGUID(const char* guid) {
    memset(mguid, 0, sizeof(mguid));
    if (guid) _copy_text(mguid, sizeof(mguid), guid, sizeof(mguid) - 1);
}

int CAVRepDlna::GetMyDevice(AV_DEVICE* dst) {
    char mac[AV_MAC_LEN] = {0};
    char ip[AV_IP_LEN] = {0};
    if (!GetNICInfo(mac, ip)) return 7;
    if (dst) {
        _copy_text(dst->pReceiverIP, sizeof(dst->pReceiverIP), ip, sizeof(ip));
        _copy_text(dst->pReceiverMac, sizeof(dst->pReceiverMac), mac, sizeof(mac));
    }
    return TAV_OK;
}

// ---------------------------------------------------------------------------
// Multicast socket

int CAVRepDlna::CAVRepDlnaInit(const char* addr) {
    // Opened again without a close (Wi-Fi reported connected twice): let go
    // of the old socket and its listener first.
    if (m_receiveWorker.Started()) ReceiveMsgClose();
    PalLock lock(m_pSockLock);
    if (m_pMulticastIP) CAVRepDlnaClose();

    int ret = _split_host_port(addr, &m_pMulticastIP, &m_MulticastPort);
    if (ret != 0) return ret;

    memset(&m_DeviceSearch, 0, sizeof(m_DeviceSearch));
    m_TcpPort = AV_DLNA_ANSWER_PORT;
    memset(m_pMyIP, 0, sizeof(m_pMyIP));
    char mac[AV_MAC_LEN] = {0};
    int sock = -1;
    if (!GetNICInfo(mac, m_pMyIP)) {
        ret = 7;  // no network interface
    } else if ((sock = PAL_SockCreate(PAL_SOCK_UDP)) == -1) {
        debug_UI(">>>> device udp open fail");
        ret = 12;
    } else if (PAL_SockServerOpen(sock, m_pMulticastIP, m_MulticastPort, PAL_SOCK_UDP,
                                  PAL_NET_MULTI) == -1) {
        debug_UI("CAVRepDlnaInit PAL_SockServerOpen fail");
        ret = 13;
    } else if (PAL_SockJoinGroup(sock, m_pMulticastIP, m_pMyIP) == -1) {
        debug_UI("CAVRepDlnaInit PAL_SockJoinGroup fail");
        ret = 14;
    }
    if (ret != 0) {
        if (sock != -1) PAL_SockClose(sock);
        free(m_pMulticastIP);
        m_pMulticastIP = NULL;
        return ret;
    }
    m_nMulticastSock = sock;
    // The thread members are clear here: a fresh object has them zeroed and
    // every close clears its own.
    debug_UI("[AVRepDlna] CAVRepDlnaInit  finish");
    return TAV_OK;
}

int CAVRepDlna::CAVRepDlnaClose() {
    PalLock lock(m_pSockLock);
    if (m_pMulticastIP) {
        PAL_SockLeaveGroup(m_nMulticastSock, m_pMulticastIP, m_pMyIP);
        PAL_SockClose(m_nMulticastSock);
        m_nMulticastSock = 0;
        free(m_pMulticastIP);
        m_pMulticastIP = NULL;
    }
    return TAV_OK;
}

// ---------------------------------------------------------------------------
// Device search

int CAVRepDlna::_start_worker(PalWorker* worker, const char* name, PAL_THREAD_FUNC body) {
    // Every discovery thread sleeps in poll and is woken by its exit pipe.
    switch (worker->Start(name, body, this, PalWorker::kExitFd)) {
        case PalWorker::kStarted:
            return TAV_OK;
        case PalWorker::kNoSemaphore:
            return AV_ERR_SEMAPHORE;
        default:
            return AV_ERR_THREAD_START;
    }
}

int CAVRepDlna::GetDeviceInfo(const char* addr, AV_DEVICE_INFO* pAVDeviceInfo, int waitMs) {
    // One search at a time, and none while the multicast socket is opened
    // or closed: a second caller waits for the first to end.
    PalLock lock(m_pSockLock);
    m_nUdpSock = PAL_SockCreate(PAL_SOCK_UDP);
    if (m_nUdpSock == -1) {
        m_nUdpSock = 0;
        return 10;  // no socket
    }
    if (PAL_SockOpen(m_nUdpSock, NULL, m_TcpPort, PAL_SOCK_UDP, PAL_NET_UNI) == -1) {
        PAL_SockClose(m_nUdpSock);
        m_nUdpSock = 0;
        return 12;  // answer port taken
    }
    char* host = NULL;
    unsigned short port = 0;
    int ret = _split_host_port(addr, &host, &port);
    if (ret == 0) {
        memset(&m_DeviceSearch, 0, sizeof(m_DeviceSearch));
        ret = _start_worker(&m_searchWorker, "search collector", DeviceThreadUdp);
    }
    if (ret != 0) {
        free(host);
        PAL_SockClose(m_nUdpSock);
        m_nUdpSock = 0;
        return ret;
    }

    // One time stamp for all copies: receivers see the same request 8 times.
    char request[kRequestBufSize];
    memset(request, 0, sizeof(request));
    snprintf(request, sizeof(request), "DEVICE %s:%d\r\nGUID: %s\r\nREQ_TS: %u\r\n", m_pMyIP,
             m_TcpPort, mguid, PAL_GetClock());
    int requestLen = (int)strlen(request);
    // Each request, and the end of the collection, at its time from the
    // first request, however long a send or a log line took.
    unsigned int start = PAL_GetClock();
    for (int i = 0; i < kDeviceRequestCount; i++) {
        PAL_ThreadSleepUntil(start + (unsigned int)i * kDeviceRequestGapMs);
        debug_UI("===========DEVICE[%d]=================", i);
        debug_UI("====================================");
        // Closed (Wi-Fi lost): nothing goes out, and nobody answers.
        if (m_pMulticastIP) {
            PAL_SockWrite(m_nMulticastSock, PAL_SOCK_UDP, request, requestLen, host, port);
        }
    }
    PAL_ThreadSleepUntil(start + kDeviceRequestCount * kDeviceRequestGapMs +
                         (waitMs > 0 ? (unsigned int)waitMs : kDefaultWaitMs));

    m_searchWorker.Stop(kWorkerStopMs);

    const AV_DEVICE_SEARCH_INFO* found = &m_DeviceSearch.AVDeviceSearchInfo;
    if (pAVDeviceInfo) {
        pAVDeviceInfo->nAVDeviceCnt = found->nAVDeviceCnt;
        for (int i = 0; i < AV_MAX_DEVICE; i++) {
            _copy_device(&pAVDeviceInfo->AVDevice[i], &found->AVDeviceDlna[i]);
        }
    }
    free(host);
    __atomic_add_fetch(&device_search_seq, 1, __ATOMIC_RELAXED);
    PAL_SockClose(m_nUdpSock);
    m_nUdpSock = 0;
    return TAV_OK;
}

int CAVRepDlna::ParseDeviceAnswer(const char* text, const char* fromIp, int bWithVol,
                                  AV_DEVICE_DLNA* slot) {
    const char* device = strstr(text, "DEVICE");
    if (!device) return AV_DLNA_ANSWER_NOT_DEVICE;

    const char* mac = strstr(device, "MAC:");
    if (!mac) {
        debug_UI("invalid device search response packet (not found mac)");
        return AV_DLNA_ANSWER_PARTIAL;
    }
    sscanf(mac, "MAC: %19s", slot->pReceiverMac);
    _copy_text(slot->pReceiverIP, sizeof(slot->pReceiverIP), fromIp, AV_IP_LEN);

    const char* guid = strstr(mac, "GUID: ");
    if (!guid) {
        debug_UI("invalid device search response packet (not found guid)");
        return AV_DLNA_ANSWER_PARTIAL;
    }
    sscanf(guid, "GUID: %39s", slot->pReceiverGuid);
    debug_UI("Socket pReceiverGuid = %s", slot->pReceiverGuid);

    const char* name = strstr(guid, "NAME: ");
    if (!name) {
        debug_UI("invalid device search response packet (not found name)");
        return AV_DLNA_ANSWER_PARTIAL;
    }
    name += strlen("NAME: ");
    // The name runs to the CR LF; without one, or when longer, it is cut to
    // what the field holds with its terminator.
    const char* crlf = strstr(name, "\r\n");
    size_t nameLen = crlf ? (size_t)(crlf - name) : sizeof(slot->pReceiverName) - 1;
    _copy_text(slot->pReceiverName, sizeof(slot->pReceiverName), name, nameLen);
    debug_UI("Socket pReceiverName = %s", slot->pReceiverName);

    const char* master = crlf ? strstr(crlf, "MASTER: ") : NULL;
    if (!master) {
        debug_UI("invalid device search response packet (not found type)");
        return AV_DLNA_ANSWER_PARTIAL;
    }
    unsigned long long value = 0;
    // MASTER is a 16-bit value: larger numbers keep their low 16 bits.
    if (_scan_number(master + strlen("MASTER: "), &value)) slot->isMaster = (uint16_t)value;
    debug_UI("Socket pReceiverType = %d", slot->isMaster);
    if (slot->isMaster == 0) memcpy(gmasterip, slot->pReceiverIP, sizeof(gmasterip));
    if (!bWithVol) return AV_DLNA_ANSWER_RECORDED;

    const char* vol = strstr(master, "VOL: ");
    if (!vol) {
        debug_UI("invalid device search response packet (not found volume)");
        return AV_DLNA_ANSWER_PARTIAL;
    }
    if (_scan_number(vol + strlen("VOL: "), &value)) slot->_vol = (int32_t)(uint32_t)value;
    debug_UI("Socket Volume = %d", slot->_vol);
    return AV_DLNA_ANSWER_RECORDED;
}

int CAVRepDlna::AddDeviceAnswer(AV_DEVICE_SEARCH_INFO* list, const char* text, const char* fromIp) {
    int count = (unsigned char)list->nAVDeviceCnt;
    if (count >= AV_MAX_DEVICE) return AV_DLNA_ANSWER_FULL;
    AV_DEVICE_DLNA* slot = &list->AVDeviceDlna[count];
    memset(slot, 0, sizeof(*slot));
    if (_ip_recorded(list, count, fromIp)) return AV_DLNA_ANSWER_DUPLICATE;
    int ret = ParseDeviceAnswer(text, fromIp, 1, slot);
    if (ret == AV_DLNA_ANSWER_RECORDED) list->nAVDeviceCnt = (char)(count + 1);
    return ret;
}

int CAVRepDlna::DeviceThreadUdp(void* arg) {
    static_cast<CAVRepDlna*>(arg)->_collect_udp();
    return 0;
}

void CAVRepDlna::_collect_udp() {
    AV_DEVICE_SEARCH* search = &m_DeviceSearch;
    char mac[AV_MAC_LEN] = {0};
    char myIp[AV_IP_LEN] = {0};
    // Without a network interface there is nothing to collect: the search
    // completes with no devices.
    bool bRun = GetNICInfo(mac, myIp) != 0;
    while (bRun && !m_searchWorker.Exiting()) {
        // No deadline of its own: the searcher asks it to end when the
        // collection period is over.
        int ready = _wait_readable(m_nUdpSock, m_searchWorker, false, 0);
        if (ready < 0) break;
        if (ready == 0) continue;
        char buf[kAnswerBufSize];
        char fromIp[AV_IP_LEN] = {0};
        memset(buf, 0, sizeof(buf));
        int n = PAL_SockRecvFrom(m_nUdpSock, buf, sizeof(buf) - 1, fromIp, NULL);
        if (n < 1) {
            debug_UI("[CommunicationThread] >>>>> recvfrom fail");
            continue;
        }
        buf[n] = 0;
        AddDeviceAnswer(&search->AVDeviceSearchInfo, buf, fromIp);
    }
    debug_UI("[DeviceThread] PAL_SemSignal(pAVDeviceSearch->pDeviceSem, 1) ---");
}

// The TCP collector: receivers that answer over a connection to m_nTcpSock.
// Each pending connection waits in a free slot at or after the count; a
// complete answer is moved to the slot at the count and counted.
int CAVRepDlna::DeviceThread(void* arg) {
    static_cast<CAVRepDlna*>(arg)->_collect_tcp();
    return 0;
}

void CAVRepDlna::_collect_tcp() {
    AV_DEVICE_SEARCH* search = &m_DeviceSearch;
    AV_DEVICE_SEARCH_INFO* list = &search->AVDeviceSearchInfo;
    char mac[AV_MAC_LEN] = {0};
    char myIp[AV_IP_LEN] = {0};
    bool bRun = GetNICInfo(mac, myIp) != 0;
    while (bRun && !m_searchWorker.Exiting()) {
        // The listening socket, each pending connection and the exit pipe;
        // like the UDP collector, no deadline of its own.
        struct pollfd fds[2 + AV_MAX_DEVICE];
        int slotOf[2 + AV_MAX_DEVICE];
        int nfds = 0;
        fds[nfds].fd = m_searchWorker.ExitFd();
        fds[nfds].events = POLLIN;
        fds[nfds].revents = 0;
        slotOf[nfds++] = -1;
        fds[nfds].fd = m_nTcpSock;
        fds[nfds].events = POLLIN;
        fds[nfds].revents = 0;
        slotOf[nfds++] = -1;
        for (int i = (unsigned char)list->nAVDeviceCnt; i < AV_MAX_DEVICE; i++) {
            if (list->AVDeviceDlna[i].hTcpClientSock <= 0) continue;
            fds[nfds].fd = list->AVDeviceDlna[i].hTcpClientSock;
            fds[nfds].events = POLLIN;
            fds[nfds].revents = 0;
            slotOf[nfds++] = i;
        }
        int ready = poll(fds, nfds, -1);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) break;
        if (fds[0].revents) continue;  // asked to end: the loop test ends it
        for (int k = 2; k < nfds; k++) {
            if (fds[k].revents & (POLLIN | POLLHUP | POLLERR)) {
                _tcp_client_read(list, slotOf[k], myIp);
            }
        }
        if (fds[1].revents & POLLIN) _tcp_accept(list);
    }
    for (int i = 0; i < AV_MAX_DEVICE; i++) {
        if (list->AVDeviceDlna[i].hTcpClientSock > 0) {
            PAL_SockClose(list->AVDeviceDlna[i].hTcpClientSock);
            list->AVDeviceDlna[i].hTcpClientSock = 0;
        }
    }
    debug_UI("[DeviceThread] PAL_SemSignal(pAVDeviceSearch->pDeviceSem, 1) ---");
}

void CAVRepDlna::_tcp_accept(AV_DEVICE_SEARCH_INFO* list) {
    struct sockaddr_in from;
    socklen_t fromLen = sizeof(from);
    memset(&from, 0, sizeof(from));
    int client = accept(m_nTcpSock, (struct sockaddr*)&from, &fromLen);
    if (client < 0) {
        int err = errno;
        debug_UI("DeviceThread Socket accept Fail code = %d  strerror %s", err, strerror(err));
        return;
    }
    char fromIp[AV_IP_LEN] = {0};
    inet_ntop(AF_INET, &from.sin_addr, fromIp, sizeof(fromIp));
    _tcp_place(list, client, fromIp);
}

int CAVRepDlna::_tcp_place(AV_DEVICE_SEARCH_INFO* list, int client, const char* fromIp) {
    for (int i = (unsigned char)list->nAVDeviceCnt; i < AV_MAX_DEVICE; i++) {
        AV_DEVICE_DLNA* slot = &list->AVDeviceDlna[i];
        if (slot->hTcpClientSock > 0) continue;
        memset(slot, 0, sizeof(*slot));
        slot->hTcpClientSock = client;
        _copy_text(slot->pReceiverIP, sizeof(slot->pReceiverIP), fromIp, AV_IP_LEN);
        return i;
    }
    PAL_SockClose(client);  // every slot taken
    return -1;
}

void CAVRepDlna::_tcp_client_read(AV_DEVICE_SEARCH_INFO* list, int i, const char* myIp) {
    AV_DEVICE_DLNA* slot = &list->AVDeviceDlna[i];
    char buf[kTcpAnswerBufSize];
    memset(buf, 0, sizeof(buf));
    int n = PAL_SockRead(slot->hTcpClientSock, PAL_SOCK_TCP, buf, sizeof(buf) - 1);
    if (n < 0) debug_UI("[DeviceThread] PAL_SockRead fail");
    if (n > 0) buf[n] = 0;
    // Our own request looping back over TCP: drop it once it has shown
    // itself, keep listening until then.
    bool bOwn = strncmp(slot->pReceiverIP, myIp, AV_IP_LEN) == 0;
    if (n > 0 && bOwn && !strstr(buf, "DEVICE")) return;

    char fromIp[AV_IP_LEN];
    _copy_text(fromIp, sizeof(fromIp), slot->pReceiverIP, AV_IP_LEN);
    PAL_SockClose(slot->hTcpClientSock);
    memset(slot, 0, sizeof(*slot));
    int count = (unsigned char)list->nAVDeviceCnt;
    if (n < 1 || bOwn || count >= AV_MAX_DEVICE || _ip_recorded(list, count, fromIp)) return;
    if (ParseDeviceAnswer(buf, fromIp, 0, slot) != AV_DLNA_ANSWER_RECORDED) return;
    if (i != count) {
        AV_DEVICE_DLNA pending = list->AVDeviceDlna[count];
        list->AVDeviceDlna[count] = *slot;
        *slot = pending;
    }
    list->nAVDeviceCnt = (char)(count + 1);
}

// ---------------------------------------------------------------------------
// EXIT listener

int CAVRepDlna::ParseExitMessage(const char* text, char* exitWord, char* mac, char* guid) {
    memset(exitWord, 0, AV_IP_LEN);
    memset(mac, 0, AV_MAC_LEN);
    memset(guid, 0, AV_GUID_LEN);
    const char* exit = strstr(text, "EXIT");
    if (!exit) return 0;
    sscanf(exit, "EXIT %19s", exitWord);
    const char* macLabel = strstr(exit, "MAC: ");
    if (macLabel) {
        sscanf(macLabel, "MAC: %19s", mac);
        const char* guidLabel = strstr(macLabel, "GUID: ");
        if (guidLabel) sscanf(guidLabel, "GUID: %39s", guid);
    }
    return 1;
}

int CAVRepDlna::ReceiveMsgOpen() {
    if (m_receiveWorker.Started()) ReceiveMsgClose();  // one listener per socket
    return _start_worker(&m_receiveWorker, "discovery receive", ReceiveMsgThread);
}

int CAVRepDlna::ReceiveMsgThread(void* arg) {
    CAVRepDlna* self = static_cast<CAVRepDlna*>(arg);
    // Nothing is ever due here: it sleeps until a datagram comes or its
    // close asks it to end.
    while (!self->m_receiveWorker.Exiting()) {
        int ready = _wait_readable(self->m_nMulticastSock, self->m_receiveWorker, false, 0);
        if (ready < 0) break;  // the socket is gone: nothing more will come
        if (ready > 0) self->OnMulticastReceiveRead();
    }
    return 0;
}

int CAVRepDlna::ReceiveMsgClose() {
    m_receiveWorker.Stop(kWorkerStopMs);
    return TAV_OK;
}

int CAVRepDlna::OnMulticastReceiveRead() {
    char buf[kExitBufSize];
    memset(buf, 0, sizeof(buf));
    int n = PAL_SockRead(m_nMulticastSock, PAL_SOCK_UDP, buf, sizeof(buf) - 1);
    if (n < 1) return 0;
    buf[n] = 0;
    // Everything else on the group, our own DEVICE requests included, is
    // not for us.
    if (!strstr(buf, "EXIT")) return 1;
    debug_UI("EXIT");
    char exitWord[AV_IP_LEN];
    char mac[AV_MAC_LEN];
    char guid[AV_GUID_LEN];
    ParseExitMessage(buf, exitWord, mac, guid);
    if (m_NotifyMsg) {
        m_NotifyMsg((intptr_t)m_pParent, AVMSG_RECEIVER_DIED, (intptr_t)exitWord, (intptr_t)mac);
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Sync trigger

int CAVRepDlna::SyncTrigOpen() {
    if (m_syncWorker.Started()) return TAV_OK;  // already running
    // Failures are not reported; nothing runs.
    _start_worker(&m_syncWorker, "sync trigger", SyncTrigThread);
    return TAV_OK;
}

int CAVRepDlna::SyncTrigThread(void* arg) {
    CAVRepDlna* self = static_cast<CAVRepDlna*>(arg);
    // One sync step, then sleep until the next is due or the close asks it
    // to end.
    while (!self->m_syncWorker.Exiting()) {
        unsigned int due = PAL_GetClock() + PAL_SyncInterval();
        while (!self->m_syncWorker.Exiting() && (int)(due - PAL_GetClock()) > 0) {
            if (_wait_readable(-1, self->m_syncWorker, true, due) < 0) PAL_ThreadSleepUntil(due);
        }
    }
    return 0;
}

int CAVRepDlna::SyncTrigClose() {
    m_syncWorker.Stop(kWorkerStopMs);
    return TAV_OK;
}

// ---------------------------------------------------------------------------
// Content information

int CAVRepDlna::GetContentInfo(char* path, AV_CONTENT_INFO* out) {
    const char* dot = path ? strrchr(path, '.') : NULL;
    if (!dot) return 1;
    // A prefix test of four characters: ".mp3x" counts as MP3, ".Mp3" not.
    if (strncmp(dot, ".mp3", 4) == 0 || strncmp(dot, ".MP3", 4) == 0) {
        return GetMp3Info(path, out);
    }
    if (strncmp(dot, ".wav", 4) == 0 || strncmp(dot, ".WAV", 4) == 0) {
        return GetWaveInfo(path, out);
    }
    return AV_ERR_CONTENT_UNSUPPORTED;
}

int CAVRepDlna::GetContentInfoFromMime(char* path, char* mime, AV_CONTENT_INFO* out) {
    if (mime && strncmp(mime, "audio/mpeg", 10) == 0) return GetMp3Info(path, out);
    if (mime && strncmp(mime, "audio/x-wav", 11) == 0) return GetWaveInfo(path, out);
    return AV_ERR_CONTENT_UNSUPPORTED;
}

int CAVRepDlna::GetMp3Info(char* path, AV_CONTENT_INFO* out) {
    memset(&m_ContentInfo, 0, sizeof(m_ContentInfo));
    long handle = path ? PAL_FileOpen(path, FOPEN_READ, 0) : 0;
    if (handle <= 0) return AV_READ_NOT_OPENED;
    MP3Parser* parser = new (std::nothrow) MP3Parser(handle);
    if (!parser) {
        PAL_FileClose(handle);
        return AV_READ_NOT_OPENED;
    }
    int channels = 0;
    int rate = 0;
    int ret = parser->GetFileInfo(&channels, &rate);
    m_ContentInfo.NumChannels = (uint8_t)channels;
    m_ContentInfo.SampleRate = (uint32_t)rate;
    if (ret == 0 && out) {
        out->NumChannels = m_ContentInfo.NumChannels;
        out->SampleRate = m_ContentInfo.SampleRate;
    }
    delete parser;
    PAL_FileClose(handle);
    return ret;
}

int CAVRepDlna::GetWaveInfo(char* path, AV_CONTENT_INFO* out) {
    memset(&m_ContentInfo, 0, sizeof(m_ContentInfo));
    long handle = Wav_FileOpen(path);
    if (handle < 0) return AV_READ_NOT_OPENED;
    Wav_FileClose(handle);
    if (out) {
        out->NumChannels = m_ContentInfo.NumChannels;
        out->SampleRate = m_ContentInfo.SampleRate;
    }
    return 0;
}

long CAVRepDlna::Wav_FileOpen(char* path) {
    long handle = path ? PAL_FileOpen(path, FOPEN_READ, 0) : 0;
    if (handle <= 0) return AV_DLNA_WAV_NOT_OPENED;
    if (_wav_find_samples(handle) != 0) {
        PAL_FileClose(handle);
        return AV_DLNA_WAV_NOT_OPENED;
    }
    return handle;
}

// Checks the head with the content probe, the streamer's own check, and
// leaves the handle at the sample data; fills m_ContentInfo. 0 or -7.
int CAVRepDlna::_wav_find_samples(long handle) {
    WaveFormat fmt;
    long n = 0;
    uint32_t dataStart = 0;
    if (ContentWaveReadHead(handle, &fmt, &n) != WAVE_PROBE_OK ||
        !ContentWaveSeekSamples(handle, fmt, &dataStart))
        return AV_DLNA_WAV_NOT_OPENED;
    m_ContentInfo.SampleRate = fmt.sampleRate;
    m_ContentInfo.NumChannels = fmt.numChannels;
    return 0;
}

long CAVRepDlna::Wav_FileRead(long handle, char* buf, unsigned long n) {
    return PAL_FileRead(handle, buf, n);
}

int CAVRepDlna::Wav_FileClose(long handle) {
    PAL_FileClose(handle);
    return 0;
}
