// The sender facade (see thinSender.h): handle check, one call into the
// streamer or discovery object, one log line.
//
// Owns: the two process-wide handle tables. Allocates: every CAVStreamer and
// CAVRepDlna; the only place that frees them. Threads: the caller's. Locks:
// each table's own mutex, only inside its calls. Every call holds its object
// (HandleTable::Acquire) for its duration, so a delete on another thread
// waits for it instead of freeing the object under it.
#include "thinSender.h"

#include <limits.h>

#include <new>

#include "AVRepDlna.h"
#include "AVStreamer.h"
#include "HandleTable.h"
#include "PAL.h"

namespace {

HandleTable& _streamers() {
    static HandleTable table(1);
    return table;
}

HandleTable& _dlnas() {
    static HandleTable table(1);
    return table;
}

// Holds the object behind a handle for one facade call.
template <class T>
class Held {
public:
    Held(HandleTable& table, int handle)
        : m_table(table), m_handle(handle), m_obj(static_cast<T*>(table.Acquire(handle))) {}
    ~Held() {
        if (m_obj) m_table.Release(m_handle);
    }
    T* operator->() const { return m_obj; }
    explicit operator bool() const { return m_obj != nullptr; }

private:
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    HandleTable& m_table;
    int m_handle;
    T* m_obj;
};

typedef Held<CAVStreamer> HeldStreamer;
typedef Held<CAVRepDlna> HeldDlna;

// Closes and frees a discovery object that is not (or no longer) in the table.
void _destroy_dlna(CAVRepDlna* dlna, bool bReceiveOpen) {
    if (bReceiveOpen) dlna->ReceiveMsgClose();
    dlna->CAVRepDlnaClose();
    delete dlna;
}

}  // namespace

// ---------------------------------------------------------------- streamers

int AVSenderCreate(int* pNewHandle, AV_NOTIFY_MSG NotifyMsg, void* pParent, int groupId) {
    debug_UI("[thinSender] AVSenderCreate()");
    if (!pNewHandle) return AVSENDER_ERR_NULL_HANDLE;
    CAVStreamer* streamer = new (std::nothrow) CAVStreamer(NotifyMsg, pParent, groupId);
    if (!streamer) return AVSENDER_ERR_CREATE;
    int handle = _streamers().Add(streamer);
    if (!handle) {
        delete streamer;
        return AVSENDER_ERR_CREATE;
    }
    *pNewHandle = handle;
    return AVSENDER_OK;
}

int AVSenderOpen(int handle, uint16_t TcpSvrPort, uint16_t UdpSvrPort, const char* pMulticastUrl,
                 AV_MUSIC_INFO* pAVMusicInfo, AV_RECEIVER_INFO* pAVReceiverInfo, int nVolume,
                 int offset_time) {
    debug_UI(">>>> [thinSender] AVSenderOpen() volume %d, offset_time: %d sec", nVolume,
             offset_time);
    HeldStreamer s(_streamers(), handle);
    if (!s || !pAVMusicInfo) return AVSENDER_ERR_NULL_HANDLE;
    int r = s->AVStreamerInit(pAVReceiverInfo, pAVMusicInfo, offset_time);
    if (r != 0) {
        debug_UI("AVStreamerInit err %d", r);
        return AVSENDER_ERR_INIT;
    }
    r = s->AVStreamerOpen(TcpSvrPort, UdpSvrPort, pMulticastUrl, nVolume, offset_time);
    if (r != 0) {
        debug_UI("AVStreamerOpen err %d", r);
        return AVSENDER_ERR_OPEN;
    }
    return s->ReceiverSearch(pAVReceiverInfo);
}

int AVSenderClose(int handle) {
    debug_UI("[thinSender] AVSenderClose()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    s->AVStreamerClose();
    return AVSENDER_OK;
}

int AVSenderDelete(int handle) {
    debug_UI("[thinSender] AVSenderDelete() start");
    CAVStreamer* streamer = static_cast<CAVStreamer*>(_streamers().Remove(handle));
    if (!streamer) return AVSENDER_ERR_NULL_STREAMER;
    delete streamer;
    debug_UI("[thinSender] AVSenderDelete() finish");
    return AVSENDER_OK;
}

int AVSenderSeek(int handle, int offset) {
    debug_UI("[thinSender] AVSenderSeek()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    s->AVStreamerSeek(offset);
    return AVSENDER_OK;
}

int AVSenderPause(int handle) {
    debug_UI("[thinSender] AVSenderPause()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_HANDLE;
    s->AVStreamerPause();
    return AVSENDER_OK;
}

int AVSenderResume(int handle) {
    debug_UI("[thinSender] AVSenderResume()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_HANDLE;
    s->AVStreamerResume();
    return AVSENDER_OK;
}

int AVSenderStop(int handle) {
    debug_UI("[thinSender] AVSenderStop()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    s->AVStreamerStop();
    return AVSENDER_OK;
}

int AVSenderStopNotify(int handle) {
    debug_UI("[thinSender] AVSenderStopNotify()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_HANDLE;
    s->AVSenderStopNotify();
    return AVSENDER_OK;
}

int AVSenderReceiverIn(int handle, AV_RECEIVER AVReceiver) {
    debug_UI("[thinSender] AVSenderReceiverIn()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    return s->AVStreamerReceiverIn(AVReceiver);
}

int AVSenderReceiverOut(int handle, const char* pReceiverIP) {
    debug_UI("[thinSender] AVSenderReceiverOut()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    if (!pReceiverIP) return TAV_PARAM_INVALID;
    return s->AVStreamerReceiverOut(pReceiverIP);
}

int AVSenderReceiverUpdateChannel(int handle, const char* ip, int type) {
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_HANDLE;
    if (!ip) return TAV_PARAM_INVALID;
    return s->ReceiverUpdateChannelType(ip, type);
}

int AVSenderReceiverVolumeControl(int handle, int nVolume) {
    debug_UI("[thinSender] AVSenderReceiverVolumeControl()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    return s->ReceiverVolumeControl(nVolume);
}

int AVSenderReceiverDeviceVolumeControl(int handle, const char* pReceiverIP, int nVolume) {
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    if (!pReceiverIP) return TAV_PARAM_INVALID;
    return s->ReceiverDeviceVolumeControl(pReceiverIP, nVolume);
}

int AVSenderSetReceiverUIType(int handle, const char* pReceiverIP, int nUIType) {
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    if (!pReceiverIP) return TAV_PARAM_INVALID;
    return s->SetReceiverUIType(pReceiverIP, nUIType);
}

int AVSenderSetReceiverUITypeAll(int handle, int nUIType) {
    debug_UI("[thinSender] AVSenderSetReceiverUITypeAll()");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    return s->SetReceiverUITypeAll(nUIType);
}

bool AVSenderIsStreamReceiverExist(int handle) {
    debug_UI("[thinSender] AVSenderIsStreamReceiverExist");
    HeldStreamer s(_streamers(), handle);
    if (!s) return false;
    return s->AVStreamerIsStreamReceiverExist();
}

bool AVSenderIsOwnThread(int handle) {
    HeldStreamer s(_streamers(), handle);
    return s && s->AVStreamerIsOwnThread();
}

int AVSenderResetAcceptWaitReceiverInfo(int handle, const char* pReceiverIP) {
    debug_UI("[thinSender] AVSenderResetAcceptReceiverInfo");
    HeldStreamer s(_streamers(), handle);
    if (!s) return AVSENDER_ERR_NULL_STREAMER;
    if (!pReceiverIP) return TAV_PARAM_INVALID;
    return s->ResetAcceptWaitReceiverInfo(pReceiverIP);
}

void AVSenderSetGUID(const char* guid) {
    CAVStreamer::SetGUID(guid ? guid : "");
}

int AVSenderHandleOf(intptr_t streamer) {
    int handle = _streamers().HandleOf(reinterpret_cast<const void*>(streamer));
    if (handle) return handle;
    if (streamer > 0 && streamer <= INT_MAX && _streamers().Find((int)streamer))
        return (int)streamer;
    return 0;
}

// ---------------------------------------------------------------- discovery

int AVRepDlnaCreate(int* pNewHandle, const char* pMulticastUrl, AV_DLNA_NOTIFY_MSG NotifyMsg,
                    void* pParent) {
    if (!pNewHandle) return AVSENDER_ERR_NULL_HANDLE;
    CAVRepDlna* dlna = new (std::nothrow) CAVRepDlna(NotifyMsg, pParent);
    if (!dlna) return AVSENDER_ERR_NO_MEMORY;
    int r = dlna->CAVRepDlnaInit(pMulticastUrl);
    bool bReceiveOpen = false;
    if (r == 0) {
        r = dlna->ReceiveMsgOpen();
        bReceiveOpen = (r == 0);
    }
    int handle = 0;
    if (r == 0) {
        handle = _dlnas().Add(dlna);
        if (!handle) r = AVSENDER_ERR_NO_MEMORY;
    }
    if (r != 0) {
        _destroy_dlna(dlna, bReceiveOpen);
        return r;
    }
    debug_UI("[thinSender] pAVRepDlna : %d", handle);
    *pNewHandle = handle;
    return AVSENDER_OK;
}

int AVRepDlnaOpen(int handle, const char* pMulticastUrl) {
    int r = AVSENDER_OK;
    bool bReceiveFailed = false;
    {
        HeldDlna d(_dlnas(), handle);
        if (!d) return AVSENDER_ERR_NULL_HANDLE;
        r = d->CAVRepDlnaInit(pMulticastUrl);
        if (r == 0) {
            r = d->ReceiveMsgOpen();
            bReceiveFailed = (r != 0);
        }
    }
    if (r != 0) {
        // A failed open takes the object with it: the caller forgets the handle.
        CAVRepDlna* dlna = static_cast<CAVRepDlna*>(_dlnas().Remove(handle));
        if (dlna) {
            if (bReceiveFailed) dlna->CAVRepDlnaClose();
            delete dlna;
        }
    }
    return r;
}

int AVRepDlnaClose(int handle) {
    HeldDlna d(_dlnas(), handle);
    if (!d) return AVSENDER_ERR_NULL_HANDLE;
    d->ReceiveMsgClose();
    d->CAVRepDlnaClose();
    return AVSENDER_OK;
}

int AVRepDlnaDelete(int handle) {
    CAVRepDlna* dlna = static_cast<CAVRepDlna*>(_dlnas().Remove(handle));
    if (!dlna) return AVSENDER_ERR_NULL_HANDLE;
    _destroy_dlna(dlna, true);
    return AVSENDER_OK;
}

void AVRepDlnaSetGUID(const char* guid) {
    CAVRepDlna::SetGUID(guid ? guid : "");
}

int AVGetDeviceInfo(int handle, const char* pMulticastUrl, AV_DEVICE_INFO* pAVDeviceInfo,
                    int search_time) {
    HeldDlna d(_dlnas(), handle);
    if (!d || !pAVDeviceInfo) return AVSENDER_ERR_NULL_HANDLE;
    return d->GetDeviceInfo(pMulticastUrl, pAVDeviceInfo, search_time);
}

int AVGetMyDevice(int handle, AV_DEVICE* pMyDevice) {
    HeldDlna d(_dlnas(), handle);
    if (!d || !pMyDevice) return AVSENDER_ERR_NULL_HANDLE;
    d->GetMyDevice(pMyDevice);
    return AVSENDER_OK;
}

int AVGetContentInfo(int handle, const char* pUri, AV_CONTENT_INFO* pAVContentInfo) {
    HeldDlna d(_dlnas(), handle);
    if (!d || !pAVContentInfo) return AVSENDER_ERR_NULL_HANDLE;
    // Discovery reads the texts without writing them.
    return d->GetContentInfo(const_cast<char*>(pUri), pAVContentInfo);
}

int AVGetContentInfoFromMime(int handle, const char* pUri, const char* pMimeType,
                             AV_CONTENT_INFO* pAVContentInfo) {
    HeldDlna d(_dlnas(), handle);
    if (!d || !pAVContentInfo) return AVSENDER_ERR_NULL_HANDLE;
    return d->GetContentInfoFromMime(const_cast<char*>(pUri), const_cast<char*>(pMimeType),
                                     pAVContentInfo);
}

int AVSyncTrigOpen(int handle) {
    HeldDlna d(_dlnas(), handle);
    if (!d) return AVSENDER_ERR_NULL_HANDLE;
    d->SyncTrigOpen();
    return AVSENDER_OK;
}

int AVSyncTrigClose(int handle) {
    debug_UI("AVSyncTrigClose Start");
    HeldDlna d(_dlnas(), handle);
    if (!d) return AVSENDER_ERR_NULL_HANDLE;
    d->SyncTrigClose();
    debug_UI("AVSyncTrigClose Finish");
    return AVSENDER_OK;
}
