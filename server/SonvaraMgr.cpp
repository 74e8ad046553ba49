// PlurafonMgr: placeholder bodies while the manager is being written.
#include "SonvaraMgr.h"

LPDEVICE_INFO NewDeviceInfo() {
    return new _device_info();
}
LPGITEM NewGroupItem() {
    return new _gitem();
}
LPGROUP_INFO NewGroupInfo() {
    return new _group_info();
}
void FreeGroupInfo(LPGROUP_INFO group) {
    if (!group) return;
    LPGITEM it = group->_lpdevice_list;
    while (it) {
        LPGITEM next = it->_next;
        delete it;
        it = next;
    }
    delete group;
}

PlurafonMgr::PlurafonMgr(const char*, GET_BOOTTIME_USEC) : _init_status(0) {}
PlurafonMgr::~PlurafonMgr() {}

int PlurafonMgr::GetDeviceCount() {
    return 0;
}
int PlurafonMgr::GetDeviceHandle(int) {
    return 0;
}
const char* PlurafonMgr::GetDeviceIp(int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceMac(int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceGuid(int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceName(int) {
    return nullptr;
}
int PlurafonMgr::GetDeviceReceiverType(int) {
    return 0;
}
int PlurafonMgr::GetDeviceVolume(int) {
    return 0;
}
int PlurafonMgr::LoadMyDevice() {
    return 0;
}
int PlurafonMgr::AddMyDevice(int) {
    return 0;
}
int PlurafonMgr::ConnectedWiFi() {
    return 0;
}
int PlurafonMgr::DisconnectedWiFi() {
    return 0;
}
int PlurafonMgr::CreateGroup(const char*) {
    return 0;
}
int PlurafonMgr::AddDevice(int, const char*, const char*, int, int) {
    return 0;
}
int PlurafonMgr::DeleteDevice(int, const char*, const char*) {
    return 0;
}
int PlurafonMgr::ReceiverIn(int, const char*, const char*, int, int) {
    return 0;
}
int PlurafonMgr::ReceiverOut(int, const char*, const char*) {
    return 0;
}
int PlurafonMgr::DeleteGroup(int) {
    return 0;
}
int PlurafonMgr::ChangeGroupName(int, const char*) {
    return 0;
}
int PlurafonMgr::GetGroupID(int) {
    return 0;
}
int PlurafonMgr::GetGroupIDByName(const char*) {
    return 0;
}
const char* PlurafonMgr::GetGroupName(int) {
    return nullptr;
}
int PlurafonMgr::GetDeviceCountInGroup(int) {
    return 0;
}
const char* PlurafonMgr::GetDeviceIpInGroup(int, int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceMacInGroup(int, int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceGuidInGroup(int, int) {
    return nullptr;
}
const char* PlurafonMgr::GetDeviceNameInGroup(int, int) {
    return nullptr;
}
int PlurafonMgr::GetDeviceTypeInGroup(int, int) {
    return 0;
}
int PlurafonMgr::IsDeviceServiceInGroup(int, int) {
    return 0;
}
int PlurafonMgr::GetDeviceServiceIsPlayInGroup(int, int) {
    return 0;
}
int PlurafonMgr::GetDeviceStateInGroup(int, int) {
    return 0;
}
int PlurafonMgr::SetDeviceEnableInGroup(int, const char*, const char*, int) {
    return 0;
}
int PlurafonMgr::UpdateDeviceChannelType(int, const char*, const char*, int) {
    return 0;
}
int PlurafonMgr::SaveGroup(const char*) {
    return 0;
}
int PlurafonMgr::LoadGroup(const char*) {
    return 0;
}
int PlurafonMgr::_debug_print_all_group() {
    return 0;
}
int PlurafonMgr::SearchDevice(bool) {
    return 0;
}
int PlurafonMgr::SearchDeviceAsync(int) {
    return 0;
}
void PlurafonMgr::sender_notify(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {}
void PlurafonMgr::dlna_notify(intptr_t, intptr_t, intptr_t, intptr_t) {}
int PlurafonMgr::_parse_join_req(const char*, JOIN_REQ*) {
    return 0;
}
int PlurafonMgr::Open(int, const char*, const char*, const char*, int, int, int, int, int) {
    return 0;
}
int PlurafonMgr::Stop(int, int) {
    return 0;
}
int PlurafonMgr::stopPlayer(int) {
    return 0;
}
int PlurafonMgr::seekTo(int, int) {
    return 0;
}
int PlurafonMgr::Pause(int) {
    return 0;
}
int PlurafonMgr::Resume(int) {
    return 0;
}
int PlurafonMgr::DevicePlay(int, const char*, const char*, int, int) {
    return 0;
}
int PlurafonMgr::ReceiverVolumeControl(int, int) {
    return 0;
}
int PlurafonMgr::ReceiverDeviceVolumeControl(const char*, const char*, int) {
    return 0;
}
int PlurafonMgr::SetReceiverUIType(const char*, const char*, int) {
    return 0;
}
int PlurafonMgr::SetReceiverUITypeAll(int, int) {
    return 0;
}
int PlurafonMgr::GetContentSampleRate(const char*) {
    return 0;
}
int PlurafonMgr::GetContentChannel(const char*) {
    return 0;
}
int PlurafonMgr::IsContentValid(const char*) {
    return 0;
}
int PlurafonMgr::GetContentInfo(const char*) {
    return 0;
}
int PlurafonMgr::IsContentValidFromMime(const char*, const char*) {
    return 0;
}
int PlurafonMgr::ServiceDeviceInit() {
    return 0;
}
void PlurafonMgr::ServiceDeviceClose() {}
void PlurafonMgr::ServiceDeviceAdd(int, const char*) {}
void PlurafonMgr::ServiceDeviceDeleteReceiver(const char*) {}
void PlurafonMgr::ServiceDeviceDeleteGroup(int) {}
void PlurafonMgr::ServiceDeviceDeleteAll() {}
int PlurafonMgr::ServiceDeviceGetCntList() {
    return 0;
}
void PlurafonMgr::ServiceDeviceGetList(char**) {}
int PlurafonMgr::ServiceDeviceGetGroupIdOfReceiver(const char*) {
    return 0;
}
int PlurafonMgr::ServiceGroupInit() {
    return 0;
}
void PlurafonMgr::ServiceGroupClose() {}
void PlurafonMgr::ServiceGroupAdd(int) {}
void PlurafonMgr::ServiceGroupDelete(int) {}
void PlurafonMgr::ServiceGroupDeleteAll() {}
void PlurafonMgr::SetServiceGroup(int, int) {}
LPDEVICE_INFO PlurafonMgr::_add_receiver_device(const char*, const char*, const char*, const char*,
                                                int, int) {
    return nullptr;
}
LPDEVICE_INFO PlurafonMgr::_add_receiver_device(const char*, const char*, const char*) {
    return nullptr;
}
LPDEVICE_INFO PlurafonMgr::_find_device(const char*, const char*) {
    return nullptr;
}
LPDEVICE_INFO PlurafonMgr::_find_device_by_ip(const char*) {
    return nullptr;
}
LPDEVICE_INFO PlurafonMgr::_find_my_device_record() {
    return nullptr;
}
bool PlurafonMgr::_is_my_device(const char*) {
    return false;
}
bool PlurafonMgr::_read_nic_info() {
    return false;
}
void PlurafonMgr::_remove_all_device_info() {}
int PlurafonMgr::_add_group(LPGROUP_INFO) {
    return 0;
}
void PlurafonMgr::_delete_group(LPGROUP_INFO) {}
void PlurafonMgr::_remove_all_group() {}
void PlurafonMgr::_add_group_item(LPGROUP_INFO, LPGITEM) {}
void PlurafonMgr::_delete_group_item(LPGROUP_INFO, const char*) {}
void PlurafonMgr::_remove_all_group_item(LPGROUP_INFO) {}
LPGITEM PlurafonMgr::_find_device_in_group(int, const char*, const char*) {
    return nullptr;
}
LPGITEM PlurafonMgr::_find_item_in_group_l(LPGROUP_INFO, const char*) {
    return nullptr;
}
LPGITEM PlurafonMgr::_get_device_in_group_by_index(int, int) {
    return nullptr;
}
int PlurafonMgr::_find_group_id_by_device(const char*, const char*) {
    return 0;
}
int PlurafonMgr::_find_group_id_by_receiverIP(const char*) {
    return 0;
}
int PlurafonMgr::_device_search_thread(void*) {
    return 0;
}
bool PlurafonMgr::_device_search_async() {
    return false;
}
void PlurafonMgr::_update_member_state_after_search() {}
void PlurafonMgr::_on_receiver_found(const char*, const char*, int) {}
void PlurafonMgr::_on_receiver_reset(const char*) {}
void PlurafonMgr::_on_volume_changed(const char*, int) {}
void PlurafonMgr::_on_receiver_died(const char*) {}
bool PlurafonMgr::_is_duplicate_mcast_req(LPMCAST_REQ_NODE*, const char*, unsigned int, bool*) {
    return false;
}
LPMCAST_REQ_NODE PlurafonMgr::_create_mcast_req(const char*, unsigned int) {
    return nullptr;
}
void PlurafonMgr::_add_mcast_req(LPMCAST_REQ_NODE*, LPMCAST_REQ_NODE) {}
void PlurafonMgr::_release_mcast_req(LPMCAST_REQ_NODE*) {}
int PlurafonMgr::_stop_thread(void*) {
    return 0;
}
int PlurafonMgr::_refresh_content_cache(const char*, const char*) {
    return 0;
}
bool PlurafonMgr::_is_exist_servicedevice(const char*) {
    return false;
}
