// PlurafonMgr: device searches (blocking, and one background thread at a
// time), the JOIN requests receivers send to a running stream, and the
// events of streamers (sender_notify) and discovery (dlna_notify).
//
// Threads: SearchDevice runs on the application's thread, the background
// search on its own (m_searchWorker), sender_notify on the streamers'
// threads, dlna_notify on discovery's receive thread. Locks: _lpmutex while
// member states are looked at or changed (then _lpdevmutex, then a
// registry's mutex); _lpjoinmutex for the JOIN list alone; _lpSearchingLock
// for m_bSearching. The notifier is always called with no lock held, and no
// lock is held across a call into a streamer.
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "SonvaraMgr.h"
#include "thinSender.h"

namespace {

// Discovery copies its texts without terminators into a zeroed record: make
// sure every field ends inside its array whatever was received.
void _terminate_device(AV_DEVICE* d) {
    d->pReceiverIP[sizeof(d->pReceiverIP) - 1] = '\0';
    d->pReceiverMac[sizeof(d->pReceiverMac) - 1] = '\0';
    d->pReceiverGuid[sizeof(d->pReceiverGuid) - 1] = '\0';
    d->pReceiverName[sizeof(d->pReceiverName) - 1] = '\0';
}

int _device_count(const AV_DEVICE_INFO* info) {
    int n = (int)(signed char)info->nAVDeviceCnt;
    if (n < 0) return 0;
    return n > AV_MAX_DEVICE ? AV_MAX_DEVICE : n;
}

}  // namespace

// ------------------------------------------------------------ searches

void PlurafonMgr::_update_member_state_after_search(bool bLog) {
    PalLock lock(_lpmutex);
    for (LPGROUP_INFO g = _lpgroup_info; g; g = g->_next) {
        for (LPGITEM item = g->_lpdevice_list; item; item = item->_next) {
            if (!item->_lpdevice->_isExist) {
                item->DeviceState = DEVICE_STATE_OFF;
            } else if (g->bIsPlay != 1) {
                item->DeviceState = DEVICE_STATE_STANDBY;
            } else if (item->DeviceState == DEVICE_STATE_OFF) {
                item->DeviceState = DEVICE_STATE_STANDBY;
            }
            if (bLog) {
                debug_UI("[SearchDevice] lpGroupInfo id : %d, lpDeviceList->DeviceState : %d",
                         g->_gid, (int)item->DeviceState);
            }
        }
    }
}

int PlurafonMgr::SearchDevice(bool bNotify) {
    debug_UI("PlurafonMgr::SearchDevice+++");
    debug_UI("[Mgr] SearchDevice()");
    AV_DEVICE_INFO* result = new AV_DEVICE_INFO();
    int r = AVGetDeviceInfo(_dlna_handle, m_pMulticastUrl, result, m_searchtime);
    if (r != 0) {
        debug_UI("PlurafonMgr::SearchDevice--- AVGetDeviceInfo fail");
        delete result;
        return r;
    }
    int count = _device_count(result);
    debug_UI("[Mgr] SearchDevice : %d", count);
    for (int i = 0; i < count; i++) {
        AV_DEVICE* found = &result->AVDevice[i];
        _terminate_device(found);
        LPDEVICE_INFO device = _find_device(found->pReceiverIP, found->pReceiverMac);
        bool bReport = false;
        if (device) {
            {
                PalLock lock(_lpdevmutex);
                if (!device->_isExist) {
                    device->_isExist = true;
                    CopyField(device->_ip, sizeof(device->_ip), found->pReceiverIP);
                    device->_bIsPlay = 1;
                }
            }
            bReport = bNotify && !device->_bserch_notify && _lpnotify;
            if (bReport) debug_UI("[SearchDevice] notify device 2");
        } else {
            device =
                _add_receiver_device(found->pReceiverIP, found->pReceiverMac, found->pReceiverGuid);
            bReport = device && bNotify && _lpnotify;
            if (bReport) debug_UI("[SearchDevice] notify device");
        }
        if (bReport) {
            _lpnotify->NotifyDeviceInfo(found->pReceiverIP, found->pReceiverMac, i, count);
            device->_bserch_notify = true;
        }
    }
    delete result;
    _update_member_state_after_search(true);
    debug_UI("PlurafonMgr::SearchDevice---");
    return 0;
}

int PlurafonMgr::SearchDeviceAsync(int search_time) {
    int ret = 0;
    PalLock lock(_lpSearchingLock);
    if (!m_bSearching) {
        // The previous search thread has finished its work; release it.
        _stop_search_worker();
        m_searchtime = search_time;
        m_bSearching = true;
        if (m_searchWorker.Start("background search", _device_search_thread, this) !=
            PalWorker::kStarted) {
            m_bSearching = false;
            ret = PLURAFON_ERR_THREAD;
        }
    }
    return ret;
}

void PlurafonMgr::_stop_search_worker() {
    // A search takes its collection time plus the eight requests' gaps.
    unsigned int bound = (m_searchtime > 0 ? (unsigned int)m_searchtime : 0) + 5000;
    m_searchWorker.Stop(bound);
}

int PlurafonMgr::_device_search_thread(void* arg) {
    PlurafonMgr* mgr = static_cast<PlurafonMgr*>(arg);
    debug_UI("_device_search_thread+++");
    bool ok = mgr->_device_search_async();
    if (ok) mgr->_update_member_state_after_search(false);
    if (mgr->_lpnotify) mgr->_lpnotify->NoitfyDeviceSearchComplete(ok ? 1 : 0);
    debug_UI("_device_search_thread---b: %d", ok ? 1 : 0);
    PalLock lock(mgr->_lpSearchingLock);
    mgr->m_bSearching = false;
    return 0;
}

bool PlurafonMgr::_device_search_async() {
    if (!_bsetNICinfo && !_read_nic_info()) {
        debug_UI("GetNICInfo fail");
        return false;
    }
    AV_DEVICE_INFO* result = new AV_DEVICE_INFO();
    if (AVGetDeviceInfo(_dlna_handle, m_pMulticastUrl, result, m_searchtime) != 0) {
        debug_UI("_device_search_thread--- search device fail");
        delete result;
        return false;
    }
    int count = _device_count(result);
    debug_UI(">>> search device count %d", count);

    // What did not answer is gone, except the phone itself.
    {
        PalLock lock(_lpdevmutex);
        for (LPDEVICE_INFO d = _lpdevice_info; d; d = d->_next) {
            if (strcmp(d->_ip, m_MyDevice.pReceiverIP) != 0) d->_isExist = false;
        }
    }

    for (int i = 0; i < count; i++) {
        AV_DEVICE* found = &result->AVDevice[i];
        _terminate_device(found);
        LPDEVICE_INFO device = _find_device(found->pReceiverIP, found->pReceiverMac);
        if (!device) {
            debug_UI(">>> ....!!!!!!  add receiver device name %s", found->pReceiverName);
            _add_receiver_device(found->pReceiverIP, found->pReceiverMac, found->pReceiverGuid,
                                 found->pReceiverName, found->isMaster, found->_vol);
            continue;
        }
        PalLock lock(_lpdevmutex);
        device->_isExist = true;
        CopyField(device->_ip, sizeof(device->_ip), found->pReceiverIP);
        CopyField(device->_Guid, sizeof(device->_Guid), found->pReceiverGuid);
        CopyField(device->_DeviceName, sizeof(device->_DeviceName), found->pReceiverName);
        device->_mReceiverType = found->isMaster;
        device->_mVol = found->_vol;
    }
    delete result;
    return true;
}

// ------------------------------------------------------------ JOIN requests

bool PlurafonMgr::_is_duplicate_mcast_req(LPMCAST_REQ_NODE* lppReqs, const char* guid,
                                          unsigned int ts, bool* lpbExist) {
    *lpbExist = false;
    if (!*lppReqs) {
        debug_UI("req list NULL");
        return false;
    }
    LPMCAST_REQ_NODE node = *lppReqs;
    while (node && strcmp(node->guid, guid) != 0) node = node->_lpnext;
    if (!node) return false;
    if (node->send_ts == ts) {
        debug_UI("find dup req guid %s ts %u  ts %u", guid, node->send_ts, ts);
        return true;
    }
    node->send_ts = ts;
    *lpbExist = true;
    return false;
}

LPMCAST_REQ_NODE PlurafonMgr::_create_mcast_req(const char* guid, unsigned int ts) {
    LPMCAST_REQ_NODE node = new (std::nothrow) MCAST_REQ_NODE();
    if (!node) return nullptr;
    CopyField(node->guid, sizeof(node->guid), guid);
    node->send_ts = ts;
    return node;
}

void PlurafonMgr::_add_mcast_req(LPMCAST_REQ_NODE* lppReqs, LPMCAST_REQ_NODE node) {
    node->_lpnext = *lppReqs;
    *lppReqs = node;
}

void PlurafonMgr::_release_mcast_req(LPMCAST_REQ_NODE* lppReqs) {
    LPMCAST_REQ_NODE node = *lppReqs;
    while (node) {
        LPMCAST_REQ_NODE next = node->_lpnext;
        delete node;
        node = next;
    }
    *lppReqs = nullptr;
}

// True when a request with a time stamp is to be acted on; a GUID not seen
// before is remembered.
bool PlurafonMgr::_is_new_join_l(const JOIN_REQ* req) {
    bool bExist = false;
    if (_is_duplicate_mcast_req(&_lpjoin_req, req->guid, req->req_ts, &bExist)) {
        debug_UI("duplicate join");
        return false;
    }
    if (!bExist) {
        LPMCAST_REQ_NODE node = _create_mcast_req(req->guid, req->req_ts);
        if (node) _add_mcast_req(&_lpjoin_req, node);
    }
    return true;
}

void PlurafonMgr::_on_receiver_found(const char* ipText, const char* text, int hStreamer) {
    JOIN_REQ req;
    if (ParseJoinReq(text, &req) != 0) return;
    if (req.bHasTs) {
        PalLock guard(_lpjoinmutex);
        if (!_is_new_join_l(&req)) return;
    }
    if (!req.mac[0] || !req.guid[0] || !req.name[0]) {
        debug_UI("INVALID JOIN packet");
        return;
    }
    char ip[AV_IP_LEN] = {0};
    CopyField(ip, sizeof(ip), ipText);

    LPDEVICE_INFO device = _find_device(ip, req.mac);
    if (device) {
        PalLock lock(_lpdevmutex);
        device->_isExist = true;
        CopyField(device->_ip, sizeof(device->_ip), ip);
        CopyField(device->_MacAddr, sizeof(device->_MacAddr), req.mac);
        CopyField(device->_Guid, sizeof(device->_Guid), req.guid);
        CopyField(device->_DeviceName, sizeof(device->_DeviceName), req.name);
        device->_mVol = (int)req.vol;
    }

    // A receiver the stream was still waiting for is dropped from that wait
    // (it now asks to join anew); its member waits in standby.
    bool bWaitReset = AVSenderResetAcceptWaitReceiverInfo(hStreamer, ip) != 0;
    int groupId = 0;
    PalLock lock(_lpmutex);
    groupId = _find_group_id_by_device(ip, req.mac);
    LPGITEM item = groupId ? _find_item_in_group_l(_group_by_id(groupId), req.mac) : nullptr;
    if (item && (bWaitReset || (device && item->DeviceState != DEVICE_STATE_PLAY))) {
        item->DeviceState = DEVICE_STATE_STANDBY;
    }
    lock.Unlock();  // the notifier is called with no lock held

    LPDEVICE_INFO added = nullptr;
    if (!device) {
        added = _add_receiver_device(ip, req.mac, req.guid, req.name, 1, (int)req.vol);
        if (!added) return;
    }
    if (_lpnotify) {
        _lpnotify->NotifyJoinDeviceInfo(groupId, ip, req.mac, req.guid, req.name);
        if (added) added->_bserch_notify = true;
    }
}

// ------------------------------------------------------------ other events

void PlurafonMgr::_on_receiver_reset(const char* ipText) {
    char ip[AV_IP_LEN] = {0};
    CopyField(ip, sizeof(ip), ipText);
    LPDEVICE_INFO device = _find_device_by_ip(ip);
    if (!device || !_lpnotify) return;
    PalLock lock(_lpmutex);
    int groupId = _find_group_id_by_receiverIP(ip);
    LPGITEM item =
        groupId ? _find_item_in_group_l(_group_by_id(groupId), device->_MacAddr) : nullptr;
    if (item) {
        if (item->DeviceState == DEVICE_STATE_PLAY) ServiceDeviceDeleteReceiver(ip);
        item->DeviceState = DEVICE_STATE_STANDBY;
    }
    lock.Unlock();
    if (item) _lpnotify->NotifyResetDeviceInfo(groupId, ip);
}

void PlurafonMgr::_on_volume_changed(const char* ipText, int volume) {
    char ip[AV_IP_LEN] = {0};
    CopyField(ip, sizeof(ip), ipText);
    LPDEVICE_INFO device = _find_device_by_ip(ip);
    if (!device) return;
    int groupId = _find_group_id_by_device(ip, device->_MacAddr);
    debug_UI("sender_notify groupId : %d", groupId);
    if (_lpnotify) {
        _lpnotify->NoitfyReceiverVolumeChanged(groupId, ip, device->_MacAddr, device->_Guid,
                                               device->_DeviceName, volume & 0xffff);
    }
}

void PlurafonMgr::_on_receiver_died(const char* ipText) {
    char ip[AV_IP_LEN] = {0};
    CopyField(ip, sizeof(ip), ipText);
    // Streams to take the receiver out of: collected under the lock, told
    // after it, so that no streamer is entered with the group lock held.
    std::vector<int> streams;
    PalLock lock(_lpmutex);
    for (LPGROUP_INFO g = _lpgroup_info; g; g = g->_next) {
        for (LPGITEM item = g->_lpdevice_list; item; item = item->_next) {
            if (strcmp(item->_lpdevice->_ip, ip) != 0) continue;
            item->DeviceState = DEVICE_STATE_OFF;
            item->_lpdevice->_isExist = false;
            if (g->bIsPlay == 1 && g->_lpavsender) streams.push_back(g->_lpavsender);
        }
    }
    lock.Unlock();
    for (int handle : streams) {
        AVSenderReceiverOut(handle, ip);
        ServiceDeviceDeleteReceiver(ip);
    }
    if (_lpnotify) _lpnotify->NotifyDieDeviceInfo(ip);
}

void PlurafonMgr::sender_notify(intptr_t object, intptr_t nMsg, intptr_t param1, intptr_t param2,
                                intptr_t param3, intptr_t param4) {
    (void)param4;
    PlurafonMgr* mgr = reinterpret_cast<PlurafonMgr*>(object);
    if (!mgr) return;
    xPlurafonNotify* notify = mgr->_lpnotify;
    switch (nMsg) {
        case AVMSG_RECEIVER_FOUND:
            if (param1 && param2) {
                mgr->_on_receiver_found((const char*)param1, (const char*)param2,
                                        AVSenderHandleOf(param3));
            }
            break;
        case AVMSG_RECEIVER_RESET:
            if (param1) mgr->_on_receiver_reset((const char*)param1);
            break;
        case AVMSG_RECEIVER_LEAVE:
            if (param1 && notify) notify->NotifyLeaveDeviceInfo((int)param2, (char*)param1);
            break;
        case AVMSG_SERVICE_STOP:
            if (notify) notify->NotifyServiceStop((int)param1, (int)param2);
            break;
        case AVMSG_PLAY_PROGRESS:
            if (notify) notify->NoitfyPlayProgress((int)param1, (int)param2);
            break;
        case AVMSG_RECEIVER_VOLUMECHANGED:
            if (param2) mgr->_on_volume_changed((const char*)param2, (int)param1);
            break;
        default:  // AVMSG_RECEIVER_DIED, AVMSG_MASTER_FOUND: discovery's business
            break;
    }
}

void PlurafonMgr::dlna_notify(intptr_t object, intptr_t nMsg, intptr_t param1, intptr_t param2) {
    (void)param2;
    PlurafonMgr* mgr = reinterpret_cast<PlurafonMgr*>(object);
    if (!mgr || nMsg != AVMSG_RECEIVER_DIED || !param1) return;
    mgr->_on_receiver_died((const char*)param1);
}
