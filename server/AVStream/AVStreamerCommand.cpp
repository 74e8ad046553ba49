// Receiver setting commands: DEVICETYPE, UITYPE, VOLUME and START, queued on
// a receiver's control connection, and the one queue every text to a session
// goes through (the control-server thread is its only sender).
//
// Allocates nothing (commands are formatted in stack buffers). Runs on the
// caller's thread (sender facade) or the control-server thread.
// Locks: the addressed session's `_lpmutex`, only around the append to its
// outgoing queue (no socket I/O under it); scans over sessions take each
// session's lock in turn.
#include <stdio.h>
#include <string.h>

#include "AVStreamer.h"

static const char kRoleNames[8][20] = {"None",   "Front_Left", "Front_Right", "Center",
                                       "Woofer", "Rear_Left",  "Rear_Right",  "Party"};
static const char kRuleLine[] = "====================================";

int CAVStreamer::_queue_l(int index, const char* text, int len) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    if (s.hTcpClientSock < 0 || s.pOutQ == nullptr) return AV_WRITE_NO_CONN;
    if (s.outFault != AV_OUT_FAULT_NONE) return AV_WRITE_FAIL;  // being dropped
    uint32_t used = s.outTail - s.outHead;
    if (len < 0 || (uint32_t)len > AV_OUT_QUEUE_SIZE - used) {
        s.outFault = AV_OUT_FAULT_OVERFLOW;
        return AV_WRITE_FAIL;
    }
    if (used == 0) s.outProgressClock = PAL_GetClock();  // the stall clock starts now
    uint32_t at = s.outTail & (AV_OUT_QUEUE_SIZE - 1);
    uint32_t first = AV_OUT_QUEUE_SIZE - at;
    if (first > (uint32_t)len) first = (uint32_t)len;
    memcpy(s.pOutQ + at, text, first);
    memcpy(s.pOutQ, text + first, (uint32_t)len - first);
    s.outTail += (uint32_t)len;
    return AV_WRITE_OK;
}

int CAVStreamer::_session_write(int index, const char* text, int newState) {
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    PalLock lock(s._lpmutex);
    int ret = _queue_l(index, text, (int)strlen(text));
    if (ret == AV_WRITE_OK && newState >= 0) s.ServerState = (uint8_t)newState;
    lock.Unlock();
    if (ret != AV_WRITE_NO_CONN) _wake_server();  // to send, or to drop the session
    return ret;
}

int CAVStreamer::_find_session(const char* ip, int from) {
    if (ip == nullptr) return -1;
    for (int i = from; i < AV_MAX_RECEIVER; i++) {
        AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[i];
        PalLock lock(s._lpmutex);
        if (s.bActive && strcmp(s.pReceiverIP, ip) == 0) return i;
    }
    return -1;
}

int CAVStreamer::_send_comman_packet(int index, const char* text) {
    debug_UI("%s", text);
    int res = _session_write(index, text);
    if (res == AV_WRITE_NO_CONN) return AV_ERR_NO_CONNECTION;
    if (res == AV_WRITE_FAIL) {
        debug_UI("_send_comman_packet fail(idx %d) ret %d", index, -1);
        return AV_ERR_WRITE_FAILED;
    }
    return 0;
}

int CAVStreamer::ReceiverUpdateChannelType(const char* ip, int type) {
    char cmd[AV_CMD_BUF_SIZE] = {0};
    snprintf(cmd, sizeof(cmd), "DEVICETYPE: %d\r\n\r\n", type);
    debug_UI("[AVStreamer m_groupId : %d] DEVICETYPE[%d], IP: %s========", m_groupId, type,
             ip ? ip : "");
    debug_UI("%s", cmd);
    debug_UI("%s", kRuleLine);
    int index = _find_session(ip, 0);
    if (index < 0) return AV_ERR_RECEIVER_NOT_FOUND;
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    int ret = 0;
    int prev = s.ChannelType;
    if (prev != type) {
        ret = _send_comman_packet(index, cmd);
        if (ret == 0) {
            debug_UI(">>>> ChannelChange  prev type %d => change type %d", prev, type);
            // From now on the music source filters this receiver's PCM for the
            // new role.
            s.ChannelType = (AV_CHANNEL_TYPE)type;
        }
    }
    debug_UI("ReceiverUpdateChannelType---");
    return ret;
}

int CAVStreamer::SetReceiverUIType(int index, int type) {
    if (index < 0 || index >= AV_MAX_RECEIVER) return 1;
    char cmd[AV_CMD_BUF_SIZE] = {0};
    snprintf(cmd, sizeof(cmd), "UITYPE: %d\r\n\r\n", type);
    debug_UI("[AVStreamer m_groupId : %d] nUIType[%d] : %d========", m_groupId, index, type);
    debug_UI("%s", cmd);
    debug_UI("%s", kRuleLine);
    return _session_write(index, cmd) == AV_WRITE_FAIL ? 0 : 1;
}

int CAVStreamer::SetReceiverUIType(const char* ip, int type) {
    debug_UI("[AVStreamer m_groupId : %d] nUIType : %d========", m_groupId, type);
    for (int i = _find_session(ip, 0); i >= 0; i = _find_session(ip, i + 1))
        SetReceiverUIType(i, type);
    return 0;
}

int CAVStreamer::SetReceiverUITypeAll(int type) {
    debug_UI("[AVStreamer m_groupId : %d] nUIType : %d========", m_groupId, type);
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if (m_AVRcvSessInfo.AVRcvSess[i].bActive) SetReceiverUIType(i, type);
    }
    return 0;
}

int CAVStreamer::ReceiverVolume(int index, int volume) {
    if (index < 0 || index >= AV_MAX_RECEIVER) return 1;
    char cmd[AV_CMD_BUF_SIZE] = {0};
    snprintf(cmd, sizeof(cmd), "VOLUME: %d\r\n\r\n", volume);
    debug_UI("[AVStreamer m_groupId : %d] Volume[%d] : %d========", m_groupId, index, volume);
    debug_UI("%s", cmd);
    debug_UI("%s", kRuleLine);
    return _session_write(index, cmd) == AV_WRITE_FAIL ? 0 : 1;
}

// Volumes from the application are capped at 15 at the top only; a negative
// value passes unchanged. The entry keeps the value whether the send works
// or not, so a later PLAY sends it again.
void CAVStreamer::_store_and_send_volume(int index, int volume) {
    int v = volume < 15 ? volume : 15;
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[index];
    {
        PalLock lock(s._lpmutex);
        m_AVReceiverInfo.AVReceiver[index]._volume = v;
    }
    ReceiverVolume(index, v);
}

int CAVStreamer::ReceiverDeviceVolumeControl(const char* ip, int volume) {
    debug_UI("[AVStreamer m_groupId : %d] Volume : %d========", m_groupId, volume);
    for (int i = _find_session(ip, 0); i >= 0; i = _find_session(ip, i + 1))
        _store_and_send_volume(i, volume);
    return 0;
}

int CAVStreamer::ReceiverVolumeControl(int volume) {
    debug_UI("[AVStreamer m_groupId : %d] Volume : %d========", m_groupId, volume);
    for (int i = 0; i < AV_MAX_RECEIVER; i++) {
        if (m_AVRcvSessInfo.AVRcvSess[i].bActive) _store_and_send_volume(i, volume);
    }
    return 0;
}

int CAVStreamer::ReceiverAddStart(int index) {
    if (index < 0 || index >= AV_MAX_RECEIVER) return 1;
    char refIp[AV_IP_LEN] = {0};
    int refPort = 0;
    for (int r = 0; r < AV_MAX_RECEIVER; r++) {
        AV_RCV_SESS& ref = m_AVRcvSessInfo.AVRcvSess[r];
        PalLock lock(ref._lpmutex);
        if (ref.bRefRcv) {
            memcpy(refIp, ref.pReceiverIP, sizeof(refIp) - 1);
            refPort = ref.uwClientSyncPort;
            break;
        }
    }
    unsigned type = (unsigned)m_AVRcvSessInfo.AVRcvSess[index].ChannelType.load();
    const char* role = type < 8 ? kRoleNames[type] : kRoleNames[0];
    char cmd[AV_CMD_BUF_SIZE] = {0};
    snprintf(cmd, sizeof(cmd), "START\r\nRef: %s:%d\r\nRole: %s\r\n\r\n", refIp, refPort, role);
    debug_UI("[AVStreamer m_groupId : %d] Start[%d]========", m_groupId, index);
    debug_UI("%s", kRuleLine);
    _session_write(index, cmd, AV_STREAMER_STATE_START);
    return 1;
}
