// PlurafonMgr: the sender's one central object.
//
// Owns: the device registry (records live until the manager dies, so group
// members may point at them), the group list and its members, the list of
// JOIN requests already seen, the service device registry (and the service
// group registry, declared but never created), the discovery object (by its
// facade handle, created at construction, deleted at destruction) and one
// streamer per playing group (created by Open, deleted by the stop path).
// Group ids and device handles handed to the application are ints from two
// HandleTables: a deleted group's id is unknown afterwards, never a dangling
// pointer.
//
// Threads: the application's (through the Java bridge, one at a time), the
// discovery receive thread (dlna_notify), the streamers' threads
// (sender_notify), the background search thread and the stop threads.
// Locks, always in this order: _lpmutex (group list and group playback
// state), _lpdevmutex (device list), then a registry's own mutex
// (m_pDeviceList->pMutex). _lpSearchingLock guards the search state alone,
// _lpjoinmutex the list of JOIN requests seen.
// The notifier is never called with a manager lock held.
//
// Sources: SonvaraMgr.cpp (lifecycle, device registry), SonvaraMgrGroup.cpp
// (groups and members), SonvaraMgrSearch.cpp (search, joins, events),
// SonvaraMgrPlay.cpp (group playback, content queries), SonvaraMgrService.cpp
// (service registries), SonvaraMgrRecord.cpp (records and the JOIN text).
#ifndef SONVARAMGR_H
#define SONVARAMGR_H

#include <stdint.h>

#include <atomic>
#include <vector>

#include "AVRepDlna.h"
#include "AVStreamerDef.h"
#include "HandleTable.h"
#include "PAL.h"
#include "PAL_Worker.h"
#include "SonvaraMgrRecord.h"
#include "xPlurafonNotify.h"

// Result codes of the manager (the facade's and the streamer's pass through).
#define PLURAFON_OK 0
#define PLURAFON_ERR_GROUP_ID 1  // group id 0 (or unknown)
#define PLURAFON_ERR_NO_MEMORY 4
#define PLURAFON_ERR_MUTEX 5
#define PLURAFON_ERR_THREAD 6
#define PLURAFON_ERR_NIC 7                // the phone's own address can't be read
#define PLURAFON_ERR_CONTENTS 100         // content not supported
#define PLURAFON_ERR_NO_PLAY_DEVICE 259   // no member can play
#define PLURAFON_ERR_TOO_MANY_DEVICE 260  // more than CLIENT_CNT members
#define PLURAFON_ERR_ALREADY_PLAY 261
#define PLURAFON_ERR_NO_STREAMER 265
#define PLURAFON_ERR_DEVICE_NOT_FOUND 266  // no device with that MAC
#define PLURAFON_ERR_ITEM_NOT_FOUND 267    // member or group not found
#define PLURAFON_ERR_SEEK_GROUP_ID 272     // group id 0 in seekTo / ChangeGroupName
#define PLURAFON_ERR_GROUP_PLAYING 273     // DeleteGroup of a playing group
#define PLURAFON_ERR_NOT_PLAYING 274

#define CLIENT_CNT 30           // most members a group may have when it starts playing
#define MAX_RECEIVER_VOLUME 15  // volume sent to a receiver is capped here
#define MGR_CONTROL_PORT 1554
#define MGR_STREAM_PORT 15000
#define MGR_MULTICAST_GROUP "224.1.2.4"
#define MGR_MULTICAST_URL "224.1.2.4:1234"
#define MGR_TIMESYNC_PORT 1235

// The last content examined by the content queries.
typedef struct _MGR_MUSIC_INFO {
    char pMusicURI[AV_URI_LEN];
    AV_CONTENT_INFO AVContentInfo;
} MGR_MUSIC_INFO;

// A JOIN request already handled, by receiver GUID.
typedef struct _mcast_req_node {
    char guid[AV_GUID_LEN];
    unsigned int send_ts;
    _mcast_req_node* _lpnext;
} MCAST_REQ_NODE, *LPMCAST_REQ_NODE;

// Receivers currently served a stream, tagged with the stream's group id.
// Circular doubly linked; the same IP may appear more than once.
typedef struct _SERVICE_DEVICE_ITEM {
    int groupId;
    char pIP[AV_IP_LEN];
    _SERVICE_DEVICE_ITEM* pPrev;
    _SERVICE_DEVICE_ITEM* pNext;
} SERVICE_DEVICE_ITEM;

typedef struct _SERVICE_DEVICE_LIST {
    PAL_MUTEX* pMutex;  // guards list and DeviceCnt
    SERVICE_DEVICE_ITEM* list;
    int DeviceCnt;
} SERVICE_DEVICE_LIST;

// The service group registry: declared, never created (ServiceGroupInit is
// not called), so every operation on it finds no list and returns at once.
typedef struct _SERVICE_GROUP_ITEM {
    int group_id;
    int bIsPlay;
    _SERVICE_GROUP_ITEM* pPrev;
    _SERVICE_GROUP_ITEM* pNext;
} SERVICE_GROUP_ITEM;

typedef struct _SERVICE_GROUP_LIST {
    PAL_MUTEX* pMutex;  // guards list and GroupCnt
    SERVICE_GROUP_ITEM* list;
    int GroupCnt;
} SERVICE_GROUP_LIST;

// A group whose streamer a stop (or a Wi-Fi loss) has taken away and is
// ending.
typedef struct _MGR_STOPPING {
    int groupId;
    int handle;  // the streamer's facade handle
} MGR_STOPPING;

// What the first phase of a Wi-Fi loss took: the streamers of the groups
// that played, and the discovery object to close.
typedef struct _MGR_WIFI_LOSS {
    std::vector<MGR_STOPPING> stops;
    int dlnaHandle;
} MGR_WIFI_LOSS;

// The clock the bridge hands in: microseconds since boot.
typedef long long (*GET_BOOTTIME_USEC)(void);

class PlurafonMgr {
public:
    PlurafonMgr(const char* guid, GET_BOOTTIME_USEC _get_boottime_usec);
    virtual ~PlurafonMgr();

    int initCheck() const { return _init_status; }
    void SetNoitfyObject(xPlurafonNotify* lpnotify) { _lpnotify = lpnotify; }

    // ---- lifecycle and device registry ----
    int Play() { return 0; }  // playback starts through Open
    int GetDeviceCount();
    int GetDeviceHandle(int index);
    const char* GetDeviceIp(int hInst);
    const char* GetDeviceMac(int hInst);
    const char* GetDeviceGuid(int hInst);
    const char* GetDeviceName(int hInst);
    int GetDeviceReceiverType(int hInst);
    int GetDeviceVolume(int hInst);
    int LoadMyDevice();
    int AddMyDevice(int group_id);
    int ConnectedWiFi();
    int DisconnectedWiFi();
    // DisconnectedWiFi in the phases of its waits, as Stop's (below): Begin
    // takes every playing group's streamer away and turns every member off;
    // Wait ends those streamers and closes discovery, touching no manager
    // record; End does each stopped group's bookkeeping as StopEnd does.
    void DisconnectBegin(MGR_WIFI_LOSS* loss);
    static void DisconnectWait(const MGR_WIFI_LOSS* loss);
    void DisconnectEnd(const MGR_WIFI_LOSS* loss);

    // ---- groups and members ----
    int CreateGroup(const char* GName);
    int AddDevice(int group_id, const char* DeviceInfo, const char* pDeviceMac, int type,
                  int bIsService);
    int DeleteDevice(int group_id, const char* DeviceInfo, const char* pDeviceMac);
    int ReceiverIn(int group_id, const char* DeviceInfo, const char* pDeviceMac, int type,
                   int bIsService);
    int ReceiverOut(int group_id, const char* pReceiverIP, const char* pMacAddr);
    int DeleteGroup(int group_id);
    int ChangeGroupName(int group_id, const char* newGrougName);
    int GetGroupID(int idx);
    int GetGroupIDByName(const char* name);
    const char* GetGroupName(int group_id);
    int GetDeviceCountInGroup(int group_id);
    const char* GetDeviceIpInGroup(int groupId, int idx);
    const char* GetDeviceMacInGroup(int groupId, int idx);
    const char* GetDeviceGuidInGroup(int groupId, int idx);
    const char* GetDeviceNameInGroup(int groupId, int idx);
    int GetDeviceTypeInGroup(int groupId, int idx);
    int IsDeviceServiceInGroup(int groupId, int idx);
    int GetDeviceServiceIsPlayInGroup(int groupId, int idx);
    int GetDeviceStateInGroup(int groupId, int idx);
    int SetDeviceEnableInGroup(int group_id, const char* pReceiverIP, const char* pMacAddr,
                               int bIsService);
    int UpdateDeviceChannelType(int group_id, const char* DeviceInfo, const char* pDeviceMac,
                                int type);
    int SaveGroup(const char* path);
    int LoadGroup(const char* path);
    // Logs every group; 0.
    int _debug_print_all_group();

    // ---- search and joins ----
    int SearchDevice(bool bNotify);
    int SearchDeviceAsync(int search_time);
    // Event callbacks: object is the manager. sender_notify is given to every
    // streamer, dlna_notify to the discovery object.
    static void sender_notify(intptr_t object, intptr_t nMsg, intptr_t param1, intptr_t param2,
                              intptr_t param3, intptr_t param4);
    static void dlna_notify(intptr_t object, intptr_t nMsg, intptr_t param1, intptr_t param2);
    // Reads the fields of a JOIN request text. 0 when MAC, GUID and NAME were
    // found (the time stamp is optional), else a non-zero code with the log
    // line of the missing field. Never reads past text's terminating NUL.

    // ---- group playback ----
    int Open(int group_id, const char* source_url, const char* contentTitle, const char* mime,
             int channel_count, int sampleRate, int nVolume, int offset_time, int bReuse);
    int Stop(int group_id, int bReuse);
    int stopPlayer(int group_id);
    int seekTo(int group_id, int progress);
    // Stop and seekTo in the phases of their waits, for a caller that must
    // not hold its own lock while the streamer's threads are waited for
    // (their events may call back into that caller). Begin takes the
    // group's streamer (Stop: away from the group) under the caller's lock
    // and answers 0 or the refusal code; the middle phase touches no
    // manager record and may run without it; StopEnd, under the lock again,
    // finishes the group's bookkeeping. The manager outlives the phases.
    int StopBegin(int group_id, int* handle);
    static void StopStreamer(int handle);
    void StopEnd(int group_id, int bReuse);
    int SeekBegin(int group_id, int progress, int* handle);
    static int SeekStreamer(int handle, int progress);
    int Pause(int group_id);
    int Resume(int group_id);
    int DevicePlay(int group_id, const char* pReceiverIP, const char* pMacAddr, int type,
                   int volume);
    // Has no result of its own; always 0.
    int ReceiverVolumeControl(int group_id, int nVolume);
    int ReceiverDeviceVolumeControl(const char* pReceiverIP, const char* pMacAddr, int nVolume);
    int SetReceiverUIType(const char* pReceiverIP, const char* pMacAddr, int nUIType);
    int SetReceiverUITypeAll(int group_id, int nUIType);
    int GetContentSampleRate(const char* path);
    int GetContentChannel(const char* path);
    int IsContentValid(const char* path);
    int GetContentInfo(const char* pUri);
    int IsContentValidFromMime(const char* path, const char* mime);

    // ---- service registries ----
    int ServiceDeviceInit();
    void ServiceDeviceClose();
    void ServiceDeviceAdd(int groupId, const char* ip);
    void ServiceDeviceDeleteReceiver(const char* ip);
    void ServiceDeviceDeleteGroup(int groupId);
    void ServiceDeviceDeleteAll();
    int ServiceDeviceGetCntList();
    // Copies each item's IP into the next caller buffer (20 zero-filled bytes
    // each, at least ServiceDeviceGetCntList() of them); no NUL is written.
    void ServiceDeviceGetList(char** buffers);
    int ServiceDeviceGetGroupIdOfReceiver(const char* ip);
    int ServiceGroupInit();
    void ServiceGroupClose();
    void ServiceGroupAdd(int group_id);
    void ServiceGroupDelete(int group_id);
    void ServiceGroupDeleteAll();
    void SetServiceGroup(int group_id, int bIsPlay);

private:
    PlurafonMgr(const PlurafonMgr&) = delete;
    PlurafonMgr& operator=(const PlurafonMgr&) = delete;

    int _init(const char* guid, GET_BOOTTIME_USEC _get_boottime_usec);

    // device registry
    LPDEVICE_INFO _add_receiver_device(const char* ip, const char* pMacAddr, const char* pGuid,
                                       const char* pDeviceName, int ReceiverType, int vol);
    LPDEVICE_INFO _add_receiver_device(const char* ip, const char* pMacAddr, const char* pGuid);
    LPDEVICE_INFO _find_device(const char* device_ip, const char* pDeviceMac);
    LPDEVICE_INFO _find_device_by_ip(const char* ip);
    LPDEVICE_INFO _device_by_handle(int hInst) const;
    bool _is_my_device(const char* mac);
    bool _read_nic_info();
    void _remove_all_device_info();

    // groups
    LPGROUP_INFO _group_by_id(int group_id) const;
    int _add_group(LPGROUP_INFO group);
    void _delete_group(LPGROUP_INFO group);
    void _remove_all_group();
    void _add_group_item(LPGROUP_INFO group, LPGITEM item);
    void _delete_group_item(LPGROUP_INFO group, const char* pDeviceMac);
    void _remove_all_group_item(LPGROUP_INFO group);
    LPGITEM _find_device_in_group(int groupId, const char* device_ip, const char* pDeviceMac);
    LPGITEM _find_item_in_group_l(LPGROUP_INFO group, const char* pDeviceMac);
    LPGITEM _get_device_in_group_by_index(int groupId, int idx);
    int _find_group_id_by_device(const char* device_ip, const char* pDeviceMac);
    int _find_group_id_by_receiverIP(const char* ip);

    // search and joins
    static int _device_search_thread(void* arg);
    bool _device_search_async();
    void _update_member_state_after_search(bool bLog);
    void _on_receiver_found(const char* ip, const char* text, int hStreamer);
    bool _is_new_join_l(const JOIN_REQ* req);
    void _on_receiver_reset(const char* ip);
    void _on_volume_changed(const char* ip, int volume);
    void _on_receiver_died(const char* ip);
    bool _is_duplicate_mcast_req(LPMCAST_REQ_NODE* lppReqs, const char* guid, unsigned int ts,
                                 bool* lpbExist);
    LPMCAST_REQ_NODE _create_mcast_req(const char* guid, unsigned int ts);
    void _add_mcast_req(LPMCAST_REQ_NODE* lppReqs, LPMCAST_REQ_NODE node);
    void _release_mcast_req(LPMCAST_REQ_NODE* lppReqs);

    // playback
    static int _stop_thread(void* arg);
    // The stop thread of a Stop made inside one of the streamer's own
    // events runs on by itself (see _defer_stop); it is joined once it has
    // finished, by a later Stop, at the latest by the destructor (its
    // streamer reports to the manager until it is closed).
    static void _defer_stop(int handle);
    // Joins the deferred stop threads that have finished; all of them
    // (waiting) when all is set.
    static void _reap_deferred_stops(bool all);
    // Releases the finished (or waits for the running) background search.
    void _stop_search_worker();
    int _refresh_content_cache(const char* path, const char* mime);
    bool _is_exist_servicedevice(const char* ip);

    LPGROUP_INFO _lpgroup_info;
    LPGROUP_INFO _lpgroup_info_last;
    LPDEVICE_INFO _lpdevice_info;
    LPDEVICE_INFO _lpdevice_info_last;
    int _device_cnt;
    int _group_cnt;
    bool _bsearch;
    xPlurafonNotify* _lpnotify;  // not owned
    const char* m_pMulticastUrl;
    PAL_MUTEX* _lpmutex;     // guards the group list and group playback state
    PAL_MUTEX* _lpdevmutex;  // guards the device list (appends, lookups, text fields)
    MGR_MUSIC_INFO m_MgrMusicInfo;
    int _dlna_handle;
    SERVICE_GROUP_LIST* m_pGroupList;
    SERVICE_DEVICE_LIST* m_pDeviceList;
    bool m_bSyncService;
    bool _bsetNICinfo;
    AV_DEVICE m_MyDevice;
    int m_searchtime;
    std::atomic<bool> m_bSearching;
    PAL_MUTEX* _lpSearchingLock;  // guards m_bSearching and m_searchtime
    LPDEVICE_INFO _lpmydivice_info;
    char mGuid[AV_GUID_LEN];
    LPMCAST_REQ_NODE _lpjoin_req;  // JOIN requests seen; guarded by _lpjoinmutex
    PAL_MUTEX* _lpjoinmutex;       // two streamers may report joins at once
    int _init_status;

    HandleTable m_groupIds;       // group id -> LPGROUP_INFO
    HandleTable m_deviceHandles;  // device handle -> LPDEVICE_INFO
    // The background search thread; released by the next search or the destructor.
    PalWorker m_searchWorker;  // the background search
};

#endif
