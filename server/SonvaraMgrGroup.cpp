// PlurafonMgr: groups and their members, the group file (see SonvaraMgr.h).
//
// Groups are named to the application by ids from m_groupIds; a deleted
// group's id finds nothing afterwards. _lpmutex guards the group list and
// every member list: a member is only unlinked with it held, so the event
// threads (dlna_notify, sender_notify) that walk members under it never see
// a freed one. It is released before any call into a streamer.
#include <string.h>

#include <string>
#include <unordered_map>

#include "Grouprw.h"
#include "SonvaraMgr.h"
#include "thinSender.h"

LPGROUP_INFO PlurafonMgr::_group_by_id(int group_id) const {
    return static_cast<LPGROUP_INFO>(m_groupIds.Find(group_id));
}

int PlurafonMgr::_add_group(LPGROUP_INFO group) {
    debug_UI("[_add_group]+++");
    PalLock lock(_lpmutex);
    group->_next = nullptr;
    group->_gid = m_groupIds.Add(group);
    if (group->_gid) {
        if (_lpgroup_info_last) {
            _lpgroup_info_last->_next = group;
        } else {
            _lpgroup_info = group;
        }
        _lpgroup_info_last = group;
        _group_cnt++;
    }
    debug_UI("[_add_group]--- group count %d", _group_cnt);
    return group->_gid;
}

void PlurafonMgr::_delete_group(LPGROUP_INFO group) {
    PalLock lock(_lpmutex);
    LPGROUP_INFO prev = nullptr;
    LPGROUP_INFO g = _lpgroup_info;
    while (g && g != group) {
        prev = g;
        g = g->_next;
    }
    if (g) {
        (prev ? prev->_next : _lpgroup_info) = g->_next;
        if (_lpgroup_info_last == g) _lpgroup_info_last = prev;
        m_groupIds.Remove(g->_gid);
        FreeGroupInfo(g);
        _group_cnt--;
    }
}

void PlurafonMgr::_remove_all_group() {
    PalLock lock(_lpmutex);
    LPGROUP_INFO g = _lpgroup_info;
    while (g) {
        LPGROUP_INFO next = g->_next;
        m_groupIds.Remove(g->_gid);
        FreeGroupInfo(g);
        g = next;
    }
    _lpgroup_info = _lpgroup_info_last = nullptr;
}

void PlurafonMgr::_add_group_item(LPGROUP_INFO group, LPGITEM item) {
    PalLock lock(_lpmutex);
    item->_next = nullptr;
    LPGITEM* at = &group->_lpdevice_list;
    while (*at) at = &(*at)->_next;
    *at = item;
    group->_gitem_cnt++;
}

void PlurafonMgr::_delete_group_item(LPGROUP_INFO group, const char* pDeviceMac) {
    PalLock lock(_lpmutex);
    for (LPGITEM* at = &group->_lpdevice_list; *at; at = &(*at)->_next) {
        if (strcmp((*at)->_lpdevice->_MacAddr, pDeviceMac) == 0) {
            LPGITEM gone = *at;
            *at = gone->_next;
            delete gone;
            group->_gitem_cnt--;
            break;
        }
    }
}

void PlurafonMgr::_remove_all_group_item(LPGROUP_INFO group) {
    PalLock lock(_lpmutex);
    LPGITEM item = group->_lpdevice_list;
    while (item) {
        LPGITEM next = item->_next;
        delete item;
        item = next;
    }
    group->_lpdevice_list = nullptr;
    group->_gitem_cnt = 0;
}

LPGITEM PlurafonMgr::_find_item_in_group_l(LPGROUP_INFO group, const char* pDeviceMac) {
    if (!group || !pDeviceMac) return nullptr;
    LPGITEM item = group->_lpdevice_list;
    while (item && strcmp(item->_lpdevice->_MacAddr, pDeviceMac) != 0) item = item->_next;
    return item;
}

LPGITEM PlurafonMgr::_find_device_in_group(int groupId, const char* device_ip,
                                           const char* pDeviceMac) {
    (void)device_ip;  // membership is decided by the MAC
    PalLock lock(_lpmutex);
    LPGITEM item = _find_item_in_group_l(_group_by_id(groupId), pDeviceMac);
    return item;
}

LPGITEM PlurafonMgr::_get_device_in_group_by_index(int groupId, int idx) {
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(groupId);
    LPGITEM item = (group && idx >= 0) ? group->_lpdevice_list : nullptr;
    for (int i = 0; item && i < idx; i++) item = item->_next;
    return item;
}

// The first playing group with a member that matches: by the device's MAC,
// or with ip set, by the device's address.
static int _find_playing_group_l(LPGROUP_INFO list, const char* mac, const char* ip) {
    for (LPGROUP_INFO g = list; g; g = g->_next) {
        if (g->bIsPlay != 1) continue;
        for (LPGITEM item = g->_lpdevice_list; item; item = item->_next) {
            const char* key = ip ? item->_lpdevice->_ip : item->_lpdevice->_MacAddr;
            if (strcmp(key, ip ? ip : mac) == 0) return g->_gid;
        }
    }
    return 0;
}

int PlurafonMgr::_find_group_id_by_device(const char* device_ip, const char* pDeviceMac) {
    (void)device_ip;
    if (!pDeviceMac) return 0;
    PalLock lock(_lpmutex);
    int id = _find_playing_group_l(_lpgroup_info, pDeviceMac, nullptr);
    return id;
}

int PlurafonMgr::_find_group_id_by_receiverIP(const char* ip) {
    if (!ip) return 0;
    PalLock lock(_lpmutex);
    int id = _find_playing_group_l(_lpgroup_info, nullptr, ip);
    return id;
}

// ------------------------------------------------------------ operations

int PlurafonMgr::CreateGroup(const char* GName) {
    debug_UI("PlurafonMgr::CreateGroup+++ group name %s", GName ? GName : "");
    LPGROUP_INFO group = NewGroupInfo();
    if (!group) return 0;
    CopyField(group->group_name, sizeof(group->group_name), GName);
    int id = _add_group(group);
    if (!id) FreeGroupInfo(group);
    debug_UI("PlurafonMgr::CreateGroup---");
    return id;
}

int PlurafonMgr::AddDevice(int group_id, const char* DeviceInfo, const char* pDeviceMac, int type,
                           int bIsService) {
    PalLock lock(_lpmutex);
    int ret = 0;
    LPGROUP_INFO group = _group_by_id(group_id);
    LPDEVICE_INFO device = nullptr;
    LPGITEM item = nullptr;
    if (!group) {
        ret = PLURAFON_ERR_GROUP_ID;
        goto done;
    }
    // The first member decides a group's mode; it never changes here after.
    if (group->_emode == GROUP_MODE_NONE) {
        group->_emode = (type == AV_CHANNEL_PARTY) ? PARTY_MODE : CHANNEL_MODE;
    }
    device = _find_device(DeviceInfo, pDeviceMac);
    if (!device) {
        debug_UI("PlurafonMgr::AddDevice--- find device fail");
        ret = PLURAFON_ERR_DEVICE_NOT_FOUND;
        goto done;
    }
    item = _find_item_in_group_l(group, pDeviceMac);
    if (item) {
        item->_type = type;
        item->bIsService = bIsService;
        if (item->DeviceState != DEVICE_STATE_PLAY) item->DeviceState = DEVICE_STATE_STANDBY;
        goto done;
    }
    item = NewGroupItem();
    if (!item) {
        debug_UI("PlurafonMgr::AddDevice--- memory alloc fail");
        ret = PLURAFON_ERR_NO_MEMORY;
        goto done;
    }
    item->_lpdevice = device;
    item->_type = type;
    item->bIsService = bIsService;
    item->DeviceState = DEVICE_STATE_STANDBY;
    _add_group_item(group, item);
    debug_UI("PlurafonMgr::AddDevice---");
done:
    return ret;
}

int PlurafonMgr::ReceiverIn(int group_id, const char* DeviceInfo, const char* pDeviceMac, int type,
                            int bIsService) {
    return AddDevice(group_id, DeviceInfo, pDeviceMac, type, bIsService);
}

int PlurafonMgr::DeleteDevice(int group_id, const char* DeviceInfo, const char* pDeviceMac) {
    debug_UI("PlurafonMgr::DeleteDevice+++ group_id %d deviceinfo %s", group_id,
             DeviceInfo ? DeviceInfo : "");
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return PLURAFON_ERR_GROUP_ID;
    // Once added, the phone stays in its group.
    if (!pDeviceMac || _is_my_device(pDeviceMac)) return 0;
    _delete_group_item(group, pDeviceMac);
    debug_UI("PlurafonMgr::DeleteDevice---");
    return 0;
}

int PlurafonMgr::ReceiverOut(int group_id, const char* pReceiverIP, const char* pMacAddr) {
    int r = DeleteDevice(group_id, pReceiverIP, pMacAddr);
    if (r != 0) return r;
    LPGROUP_INFO group = _group_by_id(group_id);
    int handle = group->_lpavsender;
    if (!handle) return PLURAFON_ERR_NO_STREAMER;
    if (group->bIsPlay != 1) return 0;
    r = AVSenderReceiverOut(handle, pReceiverIP);
    ServiceDeviceDeleteReceiver(pReceiverIP);
    return r;
}

int PlurafonMgr::DeleteGroup(int group_id) {
    debug_UI("PlurafonMgr::DeleteGroup+++  group_id %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (group && group->bIsPlay) {
        debug_UI("can't delete group (current playing group)");
        return PLURAFON_ERR_GROUP_PLAYING;
    }
    if (group) _delete_group(group);
    debug_UI("PlurafonMgr::DeleteGroup---");
    return 0;
}

int PlurafonMgr::ChangeGroupName(int group_id, const char* newGrougName) {
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (group) CopyField(group->group_name, sizeof(group->group_name), newGrougName);
    return group ? 0 : PLURAFON_ERR_SEEK_GROUP_ID;
}

int PlurafonMgr::GetGroupID(int idx) {
    PalLock lock(_lpmutex);
    LPGROUP_INFO g = idx >= 0 ? _lpgroup_info : nullptr;
    for (int i = 0; g && i < idx; i++) g = g->_next;
    int id = g ? g->_gid : 0;
    return id;
}

int PlurafonMgr::GetGroupIDByName(const char* name) {
    if (!name) return 0;
    PalLock lock(_lpmutex);
    LPGROUP_INFO g = _lpgroup_info;
    while (g && strcmp(g->group_name, name) != 0) g = g->_next;
    int id = g ? g->_gid : 0;
    return id;
}

const char* PlurafonMgr::GetGroupName(int group_id) {
    LPGROUP_INFO group = _group_by_id(group_id);
    return group ? group->group_name : nullptr;
}

int PlurafonMgr::GetDeviceCountInGroup(int group_id) {
    debug_UI("PlurafonMgr::GetDeviceCountInGroup+++");
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return 0;
    debug_UI("PlurafonMgr::GetDeviceCountInGroup---  lptmp->_gitem_cnt = %d", group->_gitem_cnt);
    return group->_gitem_cnt;
}

const char* PlurafonMgr::GetDeviceIpInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    if (!item) {
        debug_UI("!lpdtmp");
        return nullptr;
    }
    return item->_lpdevice->_isExist ? item->_lpdevice->_ip : nullptr;
}

const char* PlurafonMgr::GetDeviceMacInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    return item ? item->_lpdevice->_MacAddr : nullptr;
}

const char* PlurafonMgr::GetDeviceGuidInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    if (!item) return nullptr;
    debug_UI("GetDeviceGuidInGroup %s", item->_lpdevice->_Guid);
    return item->_lpdevice->_Guid;
}

const char* PlurafonMgr::GetDeviceNameInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    if (!item) return nullptr;
    debug_UI("GetDeviceNameInGroup %s", item->_lpdevice->_DeviceName);
    return item->_lpdevice->_DeviceName;
}

int PlurafonMgr::GetDeviceTypeInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    int type = item ? item->_type : 0;
    debug_UI("GetDeviceTypeInGroup %d", type);
    return type;
}

int PlurafonMgr::IsDeviceServiceInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    int service = item ? item->bIsService : 0;
    debug_UI("IsDeviceServiceInGroup %d", service);
    return service;
}

int PlurafonMgr::GetDeviceServiceIsPlayInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    if (!item) return 0;
    LPDEVICE_INFO device = item->_lpdevice;
    if (!device->_isExist) device->_bIsPlay = 0;
    debug_UI("GetDeviceServiceIsPlayInGroup _bIsPlay:  %d", (int)device->_bIsPlay);
    return device->_bIsPlay;
}

int PlurafonMgr::GetDeviceStateInGroup(int groupId, int idx) {
    LPGITEM item = _get_device_in_group_by_index(groupId, idx);
    int state = item ? (int)item->DeviceState : 0;
    debug_UI("GetDeviceStateInGroup DeviceState:  %d", state);
    return state;
}

int PlurafonMgr::SetDeviceEnableInGroup(int group_id, const char* pReceiverIP, const char* pMacAddr,
                                        int bIsService) {
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(group_id);
    LPGITEM item = _find_item_in_group_l(group, pMacAddr);
    int old = item ? item->bIsService : 0;
    int handle = group ? (int)group->_lpavsender : 0;
    if (item) {
        debug_UI("setEnable bIsService %d gitem bIsService %d", bIsService, old);
        item->bIsService = bIsService;
        if (bIsService == 0 && old != 0 && handle) item->DeviceState = DEVICE_STATE_STANDBY;
    }
    lock.Unlock();  // no streamer is entered with the group lock held

    if (!item) return PLURAFON_ERR_ITEM_NOT_FOUND;
    if (old == bIsService) return 0;
    if (!handle) return PLURAFON_ERR_NO_STREAMER;
    // Put back in service, the receiver joins the stream through DevicePlay.
    if (bIsService != 0) return 1;
    int r = AVSenderReceiverOut(handle, pReceiverIP);
    ServiceDeviceDeleteReceiver(pReceiverIP);
    return r;
}

int PlurafonMgr::UpdateDeviceChannelType(int group_id, const char* DeviceInfo,
                                         const char* pDeviceMac, int type) {
    PalLock lock(_lpmutex);
    int ret = 0;
    int handle = 0;
    LPGROUP_INFO group = _group_by_id(group_id);
    LPGITEM item = nullptr;
    if (!group) {
        ret = PLURAFON_ERR_GROUP_ID;
    } else if (!_find_device(DeviceInfo, pDeviceMac)) {
        debug_UI("PlurafonMgr::UpdateDevice--- find device fail");
        ret = PLURAFON_ERR_DEVICE_NOT_FOUND;
    } else if (!(item = _find_item_in_group_l(group, pDeviceMac))) {
        debug_UI("PlurafonMgr::UpdateDevice--- lpitem is null");
        ret = PLURAFON_ERR_ITEM_NOT_FOUND;
    } else {
        debug_UI("PlurafonMgr::UpdateDeviceChannel--- prev channel id %d", item->_type);
        item->_type = type;
        debug_UI("PlurafonMgr::UpdateDeviceChannel--- current channel id %d", item->_type);
        handle = group->_lpavsender;
    }
    lock.Unlock();
    if (ret == 0 && handle) ret = AVSenderReceiverUpdateChannel(handle, DeviceInfo, type);
    return ret;
}

int PlurafonMgr::_debug_print_all_group() {
    PalLock lock(_lpmutex);
    debug_UI("[_debug_print_all_group] group count %d", _group_cnt);
    for (LPGROUP_INFO g = _lpgroup_info; g; g = g->_next) {
        debug_UI("group_id %u group_name %s device_count %d", (unsigned)g->_gid, g->group_name,
                 g->_gitem_cnt);
    }
    return 0;
}

// ------------------------------------------------------------ the group file

int PlurafonMgr::SaveGroup(const char* path) {
    GroupRW rw;
    PalLock lock(_lpmutex);
    int r = rw.Save(path, _lpgroup_info);
    return r;
}

int PlurafonMgr::LoadGroup(const char* path) {
    GroupRW rw;
    int r = rw.Load(path);
    debug_UI("load ret %d", r);
    // A damaged file still yields the groups read before the damage.
    unsigned int count = rw.GetGroupCount();
    if (count) {
        LPGROUP_INFO groups = rw.GetGroupList();
        LPDEVICE_INFO devices = rw.GetDeviceList();
        PalLock lock(_lpmutex);
        PalLock devLock(_lpdevmutex);
        // A MAC the registry already knows keeps its record: the loaded
        // members are pointed at it and the loaded copy is dropped.
        std::unordered_map<std::string, LPDEVICE_INFO> known;
        for (LPDEVICE_INFO d = _lpdevice_info; d; d = d->_next) known.emplace(d->_MacAddr, d);
        std::unordered_map<LPDEVICE_INFO, LPDEVICE_INFO> replaced;
        while (devices) {
            LPDEVICE_INFO next = devices->_next;
            devices->_next = nullptr;
            auto it = known.find(devices->_MacAddr);
            if (it != known.end()) {
                replaced[devices] = it->second;
                delete devices;
            } else {
                known.emplace(devices->_MacAddr, devices);
                devices->_handle = m_deviceHandles.Add(devices);
                (_lpdevice_info_last ? _lpdevice_info_last->_next : _lpdevice_info) = devices;
                _lpdevice_info_last = devices;
                _device_cnt++;
                debug_UI("_device_cnt++   device count %d", _device_cnt);
                if (strcmp(devices->_MacAddr, m_MyDevice.pReceiverMac) == 0) {
                    _lpmydivice_info = devices;
                }
            }
            devices = next;
        }
        devLock.Unlock();
        while (groups) {
            LPGROUP_INFO next = groups->_next;
            for (LPGITEM item = groups->_lpdevice_list; item; item = item->_next) {
                auto it = replaced.find(item->_lpdevice);
                if (it != replaced.end()) item->_lpdevice = it->second;
            }
            if (!_add_group(groups)) FreeGroupInfo(groups);
            groups = next;
        }
    }
    SearchDeviceAsync(0);
    return _group_cnt;
}
