// The manager's records: devices, groups and group members, the helpers that
// make, free and fill them, and the fields of a receiver's JOIN request. The
// group file reader and the JOIN parser need only these, not the manager.
//
// Records are plain data; who owns them and which lock guards them is said
// by their holders (PlurafonMgr, GroupRW). The helpers take no locks and may
// run on any thread.
#ifndef SONVARAMGRRECORD_H
#define SONVARAMGRRECORD_H

#include <stddef.h>

#include <atomic>

#include "AVStreamerDef.h"

#define GROUP_NAME_LEN 64
#define JOIN_REQ_TS_LEN 64

typedef enum _DEVICE_STATE : int {
    DEVICE_STATE_STANDBY = 0,
    DEVICE_STATE_PLAY = 1,
    DEVICE_STATE_OFF = 2,
} DEVICE_STATE;

// Any int is a valid value: a hand-edited group file may hold any mode.
typedef enum _GROUP_MODE : int {
    GROUP_MODE_NONE = 0,
    CHANNEL_MODE = 1,
    PARTY_MODE = 2,
} GROUP_MODE;

// One receiver the manager knows (plus one for the phone itself). Never
// unlinked one by one: group members point at these records.
typedef struct _device_info {
    char _ip[AV_IP_LEN];
    char _MacAddr[AV_MAC_LEN];  // the identity of the device
    char _Guid[AV_GUID_LEN];
    char _DeviceName[AV_NAME_LEN];
    std::atomic<bool> _isExist;        // present on the network (search and event threads write it)
    std::atomic<bool> _bserch_notify;  // already reported to the application
    std::atomic<int> _bIsPlay;
    int _mVol;
    int _mReceiverType;
    _device_info* _next;
    int _handle;  // the device handle the application sees; 0 until registered
} DEVICE_INFO, *LPDEVICE_INFO;

// One member of a group; points at a device record it does not own.
typedef struct _gitem {
    LPDEVICE_INFO _lpdevice;
    int _type;       // AV_CHANNEL_TYPE; kept as an int since a group file may hold any number
    int bIsService;  // takes part when the group plays
    std::atomic<int> DeviceState;  // DEVICE_STATE; the streamers' events change it too
    _gitem* _next;
} GITEM, *LPGITEM;

typedef struct _group_info {
    char group_name[GROUP_NAME_LEN];
    LPGITEM _lpdevice_list;
    GROUP_MODE _emode;
    std::atomic<int>
        _lpavsender;  // streamer handle while a stream exists; the stop thread clears it
    int _gitem_cnt;
    std::atomic<int> bIsPlay;
    int _mVol;
    int _port;
    _group_info* _next;
    int _gid;  // the group id the application sees; 0 until registered
} GROUP_INFO, *LPGROUP_INFO;

// Copies src into the dst array of dstSize bytes, cut to dstSize - 1 and
// NUL-terminated; a null src gives an empty text.
void CopyField(char* dst, size_t dstSize, const char* src);

// Zero-filled records (the atomics are value-initialised); freed with delete.
LPDEVICE_INFO NewDeviceInfo();
LPGITEM NewGroupItem();
LPGROUP_INFO NewGroupInfo();
// Frees a group with all its members.
void FreeGroupInfo(LPGROUP_INFO group);

// The fields of one JOIN request text, each cut to its array.
typedef struct _join_req {
    char mac[AV_MAC_LEN];
    char guid[AV_GUID_LEN];
    char name[AV_NAME_LEN];
    unsigned int vol;
    bool bHasTs;  // the request carried "VOL: " and "REQ_TS: "
    unsigned int req_ts;
} JOIN_REQ;

// Reads the JOIN request a receiver multicasts to a running stream: "MAC: ",
// "GUID: " and "NAME: " (to the line end), then optional "VOL: " and
// "REQ_TS: ". 0, or 1, 2, 3 when the MAC, GUID or name is missing (logged).
int ParseJoinReq(const char* text, JOIN_REQ* out);

#endif
