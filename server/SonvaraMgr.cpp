// PlurafonMgr: construction, destruction, the phone's own record and the
// device registry (see SonvaraMgr.h for ownership, threads and lock order).
//
// Device records are appended under _lpdevmutex and never unlinked while
// the manager lives; each gets a device handle from m_deviceHandles when it
// is appended. The getters by handle look the record up in that table, so a
// made-up handle answers like handle 0.
#include <arpa/inet.h>
#include <string.h>

#include "SonvaraMgr.h"
#include "thinSender.h"

namespace {

// Used when the caller hands in no boot-time clock (C++ callers, tests).
long long _default_boottime_usec(void) {
    return PAL_GetBootTimeUsec();
}

}  // namespace

PlurafonMgr::PlurafonMgr(const char* guid, GET_BOOTTIME_USEC _get_boottime_usec)
    : _lpgroup_info(nullptr),
      _lpgroup_info_last(nullptr),
      _lpdevice_info(nullptr),
      _lpdevice_info_last(nullptr),
      _device_cnt(0),
      _group_cnt(0),
      _bsearch(false),
      _lpnotify(nullptr),
      m_pMulticastUrl(MGR_MULTICAST_URL),
      _lpmutex(nullptr),
      _lpdevmutex(nullptr),
      _dlna_handle(0),
      m_pGroupList(nullptr),
      m_pDeviceList(nullptr),
      m_bSyncService(false),
      _bsetNICinfo(false),
      m_searchtime(0),
      m_bSearching(false),
      _lpSearchingLock(nullptr),
      _lpmydivice_info(nullptr),
      _lpjoin_req(nullptr),
      _lpjoinmutex(nullptr),
      _init_status(0),
      m_groupIds(1),
      m_deviceHandles(1),
      m_searchWorker() {
    if (!guid) guid = "";
    debug_UI("PlurafonMgr::PlurafonMgr+++, GUID:%s", guid);
    memset(&m_MgrMusicInfo, 0, sizeof(m_MgrMusicInfo));
    memset(&m_MyDevice, 0, sizeof(m_MyDevice));
    memset(mGuid, 0, sizeof(mGuid));
    _init_status = _init(guid, _get_boottime_usec);
    if (_init_status == 0) debug_UI("PlurafonMgr::PlurafonMgr---");
}

int PlurafonMgr::_init(const char* guid, GET_BOOTTIME_USEC _get_boottime_usec) {
    AVRepDlnaSetGUID(guid);
    int r = AVRepDlnaCreate(&_dlna_handle, m_pMulticastUrl, dlna_notify, this);
    if (r != 0) {
        _dlna_handle = 0;
        return r;
    }
    if (!PAL_MutexCreate(&_lpmutex) || !PAL_MutexCreate(&_lpdevmutex) ||
        !PAL_MutexCreate(&_lpSearchingLock) || !PAL_MutexCreate(&_lpjoinmutex)) {
        return PLURAFON_ERR_MUTEX;
    }
    r = ServiceDeviceInit();
    if (r != 0) return r;
    memset(&m_MyDevice, 0, sizeof(m_MyDevice));
    if (!GetNICInfo(m_MyDevice.pReceiverMac, m_MyDevice.pReceiverIP)) return PLURAFON_ERR_NIC;
    _bsetNICinfo = true;
    CopyField(m_MyDevice.pReceiverGuid, sizeof(m_MyDevice.pReceiverGuid), guid);
    CopyField(mGuid, sizeof(mGuid), guid);
    AVSenderSetGUID(mGuid);

    // The phone is the group's clock: time synchronisation runs on the
    // multicast group, one port above discovery, for the manager's lifetime.
    if (!_get_boottime_usec) _get_boottime_usec = _default_boottime_usec;
    TimeSyncInitiator_Create(inet_addr(MGR_MULTICAST_GROUP), MGR_TIMESYNC_PORT,
                             inet_addr(m_MyDevice.pReceiverIP), _get_boottime_usec);
    TimeSyncInitiator_Start();
    TimeSyncInitiator_SyncOnce(20000, 3000000);
    m_bSyncService = true;
    return 0;
}

PlurafonMgr::~PlurafonMgr() {
    debug_UI("PlurafonMgr::~PlurafonMgr+++");
    TimeSyncInitiator_Stop();
    m_bSyncService = false;
    TimeSyncInitiator_Delete();
    debug_UI("TimeSyncInitiator is deleted");

    // Waits for a background search to end (it ends by itself after its
    // collection time).
    _stop_search_worker();

    for (LPGROUP_INFO g = _lpgroup_info; g; g = g->_next) {
        if (g->bIsPlay == 1) Stop(g->_gid, 0);
    }
    if (_lpgroup_info) _remove_all_group();
    if (_lpdevice_info) _remove_all_device_info();
    if (_dlna_handle) {
        AVRepDlnaDelete(_dlna_handle);
        _dlna_handle = 0;
    }
    if (_lpmutex) PAL_MutexDelete(_lpmutex);
    if (_lpSearchingLock) PAL_MutexDelete(_lpSearchingLock);
    if (_lpdevmutex) PAL_MutexDelete(_lpdevmutex);
    _lpmutex = _lpSearchingLock = _lpdevmutex = nullptr;
    _release_mcast_req(&_lpjoin_req);
    PAL_MutexDelete(_lpjoinmutex);
    _lpjoinmutex = nullptr;
    ServiceDeviceDeleteAll();
    ServiceDeviceClose();
    debug_UI("PlurafonMgr::~PlurafonMgr ---");
}

// ------------------------------------------------------------ device records

LPDEVICE_INFO PlurafonMgr::_add_receiver_device(const char* ip, const char* pMacAddr,
                                                const char* pGuid, const char* pDeviceName,
                                                int ReceiverType, int vol) {
    LPDEVICE_INFO device = NewDeviceInfo();
    if (!device) return nullptr;
    CopyField(device->_ip, sizeof(device->_ip), ip);
    CopyField(device->_MacAddr, sizeof(device->_MacAddr), pMacAddr);
    CopyField(device->_Guid, sizeof(device->_Guid), pGuid);
    CopyField(device->_DeviceName, sizeof(device->_DeviceName), pDeviceName);
    device->_mReceiverType = ReceiverType;
    device->_mVol = vol;
    device->_isExist = true;
    device->_handle = m_deviceHandles.Add(device);

    PalLock lock(_lpdevmutex);
    if (_lpdevice_info_last) {
        _lpdevice_info_last->_next = device;
    } else {
        _lpdevice_info = device;
    }
    _lpdevice_info_last = device;
    _device_cnt++;
    debug_UI("_device_cnt++   device count %d", _device_cnt);
    return device;
}

LPDEVICE_INFO PlurafonMgr::_add_receiver_device(const char* ip, const char* pMacAddr,
                                                const char* pGuid) {
    return _add_receiver_device(ip, pMacAddr, pGuid, "", 0, 0);
}

LPDEVICE_INFO PlurafonMgr::_find_device(const char* device_ip, const char* pDeviceMac) {
    (void)device_ip;  // the MAC alone names a device
    if (!pDeviceMac) return nullptr;
    PalLock lock(_lpdevmutex);
    LPDEVICE_INFO found = _lpdevice_info;
    while (found && strcmp(found->_MacAddr, pDeviceMac) != 0) found = found->_next;
    return found;
}

LPDEVICE_INFO PlurafonMgr::_find_device_by_ip(const char* ip) {
    if (!ip) return nullptr;
    PalLock lock(_lpdevmutex);
    LPDEVICE_INFO found = _lpdevice_info;
    while (found && strcmp(found->_ip, ip) != 0) found = found->_next;
    return found;
}

LPDEVICE_INFO PlurafonMgr::_device_by_handle(int hInst) const {
    return static_cast<LPDEVICE_INFO>(m_deviceHandles.Find(hInst));
}

bool PlurafonMgr::_is_my_device(const char* mac) {
    if (!mac) return false;
    if (_lpmydivice_info) return strcmp(mac, _lpmydivice_info->_MacAddr) == 0;
    char myMac[AV_MAC_LEN] = {0};
    char myIp[AV_IP_LEN] = {0};
    if (!GetNICInfo(myMac, myIp)) return false;
    return strcmp(mac, myMac) == 0;
}

bool PlurafonMgr::_read_nic_info() {
    memset(m_MyDevice.pReceiverMac, 0, sizeof(m_MyDevice.pReceiverMac));
    memset(m_MyDevice.pReceiverIP, 0, sizeof(m_MyDevice.pReceiverIP));
    if (!GetNICInfo(m_MyDevice.pReceiverMac, m_MyDevice.pReceiverIP)) return false;
    _bsetNICinfo = true;
    return true;
}

void PlurafonMgr::_remove_all_device_info() {
    PalLock lock(_lpdevmutex);
    LPDEVICE_INFO device = _lpdevice_info;
    _lpdevice_info = _lpdevice_info_last = nullptr;
    _lpmydivice_info = nullptr;
    lock.Unlock();  // the records are no one else's now
    while (device) {
        LPDEVICE_INFO next = device->_next;
        m_deviceHandles.Remove(device->_handle);
        delete device;
        device = next;
    }
}

// ------------------------------------------------------------ registry queries

int PlurafonMgr::GetDeviceCount() {
    debug_UI("[GetDeviceCount] device count %d", _device_cnt);
    return _device_cnt;
}

int PlurafonMgr::GetDeviceHandle(int index) {
    if (index < 0) return 0;
    PalLock lock(_lpdevmutex);
    LPDEVICE_INFO device = _lpdevice_info;
    for (int i = 0; device && i < index; i++) device = device->_next;
    int handle = device ? device->_handle : 0;
    return handle;
}

const char* PlurafonMgr::GetDeviceIp(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    return (device && device->_isExist) ? device->_ip : nullptr;
}

const char* PlurafonMgr::GetDeviceMac(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    return device ? device->_MacAddr : nullptr;
}

const char* PlurafonMgr::GetDeviceGuid(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    if (!device) return nullptr;
    debug_UI("PlurafonMgr::GetDeviceGuid %s", device->_Guid);
    return device->_Guid;
}

const char* PlurafonMgr::GetDeviceName(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    if (!device) return nullptr;
    debug_UI("PlurafonMgr::GetDeviceName %s", device->_DeviceName);
    return device->_DeviceName;
}

// The numbers of a record change under _lpdevmutex on the search and event
// threads; they are read under it too.
static int _read_locked(PAL_MUTEX* mutex, const int* field) {
    PalLock lock(mutex);
    int v = *field;
    return v;
}

int PlurafonMgr::GetDeviceReceiverType(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    return device ? _read_locked(_lpdevmutex, &device->_mReceiverType) : 0;
}

int PlurafonMgr::GetDeviceVolume(int hInst) {
    LPDEVICE_INFO device = _device_by_handle(hInst);
    return device ? _read_locked(_lpdevmutex, &device->_mVol) : 0;
}

// ------------------------------------------------------------ the phone itself

int PlurafonMgr::LoadMyDevice() {
    debug_UI("PlurafonMgr::LoadMyDevice+++");
    if (!_bsetNICinfo && !_read_nic_info()) {
        debug_UI("GetNICInfo fail");
        return -1;
    }
    LPDEVICE_INFO mine = _find_device(nullptr, m_MyDevice.pReceiverMac);
    if (mine && !mine->_isExist) {
        PalLock lock(_lpdevmutex);
        CopyField(mine->_ip, sizeof(mine->_ip), m_MyDevice.pReceiverIP);
        mine->_isExist = true;
    } else {
        // A record already present is not reused: the phone is appended
        // once more.
        debug_UI("PlurafonMgr::LoadMyDevice _add_receiver_device");
        mine = _add_receiver_device(m_MyDevice.pReceiverIP, m_MyDevice.pReceiverMac,
                                    m_MyDevice.pReceiverGuid);
        if (mine) mine->_bserch_notify = true;
    }
    debug_UI("PlurafonMgr::LoadMyDevice---");
    return 0;
}

int PlurafonMgr::AddMyDevice(int group_id) {
    debug_UI("PlurafonMgr::AddMyDevice+++ group_id %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return -1;
    group->_emode = PARTY_MODE;
    if (!_bsetNICinfo && !_read_nic_info()) {
        debug_UI("PlurafonMgr::AddMyDevice--- GetNICInfo fail");
        return PLURAFON_ERR_NIC;
    }
    LPDEVICE_INFO mine = _find_device(nullptr, m_MyDevice.pReceiverMac);
    if (mine) {
        {
            PalLock lock(_lpdevmutex);
            CopyField(mine->_ip, sizeof(mine->_ip), m_MyDevice.pReceiverIP);
            CopyField(mine->_Guid, sizeof(mine->_Guid), m_MyDevice.pReceiverGuid);
            mine->_mReceiverType = 0;
            mine->_isExist = true;
        }
        debug_UI("PlurafonMgr::AddMyDevice IsExistedDevice %d", 1);
    } else {
        mine = _add_receiver_device(m_MyDevice.pReceiverIP, m_MyDevice.pReceiverMac,
                                    m_MyDevice.pReceiverGuid);
        if (!mine) {
            debug_UI("PlurafonMgr::AddMyDevice--- fail");
            return PLURAFON_ERR_NO_MEMORY;
        }
        mine->_bserch_notify = true;
        _lpmydivice_info = mine;
    }
    LPGITEM item = _find_device_in_group(group_id, m_MyDevice.pReceiverIP, mine->_MacAddr);
    if (item) {
        debug_UI("PlurafonMgr::AddMyDevice _is_device_duplicate");
        item->bIsService = 1;
        item->_type = AV_CHANNEL_PARTY;
        return 0;
    }
    item = NewGroupItem();
    if (!item) {
        debug_UI("PlurafonMgr::AddMyDevice--- memory alloc fail");
        return PLURAFON_ERR_NO_MEMORY;
    }
    item->_lpdevice = mine;
    item->_type = AV_CHANNEL_PARTY;
    item->bIsService = 1;
    _add_group_item(group, item);
    debug_UI("PlurafonMgr::AddMyDevice---");
    return 0;
}

// ------------------------------------------------------------ Wi-Fi

int PlurafonMgr::ConnectedWiFi() {
    if (!_read_nic_info()) return PLURAFON_ERR_NIC;
    int r = AVRepDlnaOpen(_dlna_handle, m_pMulticastUrl);
    // A failed open has taken the discovery object with it.
    if (r != 0) _dlna_handle = 0;
    return r;
}

int PlurafonMgr::DisconnectedWiFi() {
    MGR_WIFI_LOSS loss;
    DisconnectBegin(&loss);
    DisconnectWait(&loss);
    DisconnectEnd(&loss);
    return 0;
}

void PlurafonMgr::DisconnectBegin(MGR_WIFI_LOSS* loss) {
    loss->stops.clear();
    PalLock lock(_lpmutex);
    for (LPGROUP_INFO g = _lpgroup_info; g; g = g->_next) {
        MGR_STOPPING stopping = {g->_gid, 0};
        if (g->bIsPlay == 1 && StopBegin(g->_gid, &stopping.handle) == 0) {
            loss->stops.push_back(stopping);
        }
        for (LPGITEM item = g->_lpdevice_list; item; item = item->_next) {
            item->DeviceState = DEVICE_STATE_OFF;
        }
    }
    loss->dlnaHandle = _dlna_handle;
}

void PlurafonMgr::DisconnectWait(const MGR_WIFI_LOSS* loss) {
    for (const MGR_STOPPING& s : loss->stops) StopStreamer(s.handle);
    AVRepDlnaClose(loss->dlnaHandle);
}

void PlurafonMgr::DisconnectEnd(const MGR_WIFI_LOSS* loss) {
    for (const MGR_STOPPING& s : loss->stops) StopEnd(s.groupId, 0);
}
