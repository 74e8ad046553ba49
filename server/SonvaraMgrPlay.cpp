// PlurafonMgr: playback of a group (one streamer per playing group, through
// the facade), the controls forwarded to a group's streamer, and the content
// queries with their one-entry cache.
//
// Allocates: one stop thread per Stop (joined before Stop returns).
// Threads: the application's; Stop's slow part runs on the stop thread,
// which works on the streamer handle Stop took away from the group.
// Locks: _lpmutex while a group's members are read or their states set;
// released before any call into a streamer.
#include <string.h>

#include "SonvaraMgr.h"
#include "thinSender.h"

namespace {

// The stop thread's longest run (receivers' leave, then the close); Stop logs
// a later end, and waits on.
const unsigned int kStopThreadMs = 6000;

int _cap_volume(int volume) {
    return volume > MAX_RECEIVER_VOLUME ? MAX_RECEIVER_VOLUME : volume;
}

// A role read from a hand-edited group file may be any number; the streamer
// gets only roles it knows, anything else as "None".
AV_CHANNEL_TYPE _channel_of(int type) {
    return (type >= AV_CHANNEL_NA && type <= AV_CHANNEL_PARTY) ? (AV_CHANNEL_TYPE)type
                                                               : AV_CHANNEL_NA;
}

}  // namespace

int PlurafonMgr::Open(int group_id, const char* source_url, const char* contentTitle,
                      const char* mime, int channel_count, int sampleRate, int nVolume,
                      int offset_time, int bReuse) {
    if (IsContentValidFromMime(source_url, mime) != 0) {
        debug_UI("not support contents");
        return PLURAFON_ERR_CONTENTS;
    }
    debug_UI("PlurafonMgr::Open+++");
    AV_MUSIC_INFO music;
    memset(&music, 0, sizeof(music));
    CopyField(music.pMusicURI, sizeof(music.pMusicURI), source_url);
    CopyField(music.pContentTitle, sizeof(music.pContentTitle), contentTitle);
    CopyField(music.pMime, sizeof(music.pMime), mime);
    music.NumChannels = (uint8_t)channel_count;
    music.SampleRate = (uint32_t)sampleRate;
    AV_RECEIVER_INFO receivers;
    memset(&receivers, 0, sizeof(receivers));

    int ret = 0;
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) {
        ret = PLURAFON_ERR_GROUP_ID;
    } else if (group->_gitem_cnt == 0) {
        debug_UI("PlurafonMgr::open--- group item count 0");
        ret = PLURAFON_ERR_NO_PLAY_DEVICE;
    } else if (group->_gitem_cnt > CLIENT_CNT) {
        debug_UI("PlurafonMgr::open--- group item count(%d) > CLIENT_CNT(%d)", group->_gitem_cnt,
                 CLIENT_CNT);
        ret = PLURAFON_ERR_TOO_MANY_DEVICE;
    } else if (group->bIsPlay == 1) {
        debug_UI("PlurafonMgr::open--- already play");
        ret = PLURAFON_ERR_ALREADY_PLAY;
    } else {
        int n = 0;
        for (LPGITEM item = group->_lpdevice_list; item; item = item->_next) {
            LPDEVICE_INFO device = item->_lpdevice;
            if (item->bIsService != 1 || !device->_isExist || n >= AV_MAX_RECEIVER) {
                bool bOff = !device->_isExist || item->bIsService == 1;
                item->DeviceState = bOff ? DEVICE_STATE_OFF : DEVICE_STATE_STANDBY;
                continue;
            }
            item->DeviceState = DEVICE_STATE_PLAY;
            AV_RECEIVER* rx = &receivers.AVReceiver[n++];
            CopyField(rx->pReceiverIP, sizeof(rx->pReceiverIP), device->_ip);
            rx->ChannelType = _channel_of(item->_type);
            rx->bIsSync = 1;
            rx->bActive = 1;
            rx->_volume = _cap_volume(nVolume);
            debug_UI("[device] copy ");
        }
        receivers.nAVReceiverCnt = (char)n;
        if (n == 0) {
            debug_UI("no exist play device");
            ret = PLURAFON_ERR_NO_PLAY_DEVICE;
        }
    }
    lock.Unlock();  // the streamer is made without it
    if (ret != 0) return ret;

    int handle = 0;
    ret = AVSenderCreate(&handle, sender_notify, this, group_id);
    if (ret != 0) {
        debug_UI("AVSenderCreate fail %d", ret);
        return ret;
    }
    ret = AVSenderOpen(handle, MGR_CONTROL_PORT, MGR_STREAM_PORT, m_pMulticastUrl, &music,
                       &receivers, nVolume, offset_time);
    if (ret != 0) {
        debug_UI("PlurafonMgr::open--- AVSenderOpen fail %u", (unsigned)ret);
        AVSenderClose(handle);
        AVSenderDelete(handle);
        return ret;
    }
    group->_lpavsender = handle;
    group->bIsPlay = 1;
    if (bReuse == 0) {
        for (int i = 0; i < (int)receivers.nAVReceiverCnt; i++) {
            ServiceDeviceAdd(group_id, receivers.AVReceiver[i].pReceiverIP);
        }
    }
    debug_UI("PlurafonMgr::open---");
    return 0;
}

int PlurafonMgr::_stop_thread(void* arg) {
    int handle = (int)(intptr_t)arg;
    int r = AVSenderStop(handle);
    if (r == 0) {
        debug_UI("check receiver +++");
        // Give the receivers up to two seconds to leave: 40 rounds of 50 ms,
        // and no more than two seconds however late the sleeps wake.
        int loop_cnt = 40;
        unsigned int start = PAL_GetClock();
        while (loop_cnt > 0 && AVSenderIsStreamReceiverExist(handle) &&
               PAL_GetClock() - start < 2000) {
            PAL_ThreadSleep(50);
            loop_cnt--;
        }
        debug_UI("check receiver ---  loop_cnt %d", loop_cnt);
    } else {
        debug_UI("AVSenderStop error %d", r);
    }
    AVSenderClose(handle);
    AVSenderDelete(handle);
    return 0;
}

int PlurafonMgr::Stop(int group_id, int bReuse) {
    int handle = 0;
    int ret = StopBegin(group_id, &handle);
    if (ret != 0) return ret;
    StopStreamer(handle);
    StopEnd(group_id, bReuse);
    return 0;
}

int PlurafonMgr::StopBegin(int group_id, int* handle) {
    debug_UI("PlurafonMgr::Stop +++ group_id %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) {
        debug_UI("PlurafonMgr::Stop --- not found group id");
        return PLURAFON_ERR_GROUP_ID;
    }
    if (!group->_lpavsender) {
        debug_UI("PlurafonMgr::Stop --- already stop");
        return PLURAFON_ERR_NO_STREAMER;
    }
    // Events that arrive from now on see the group stopped, and every call
    // made while the streamer ends finds the group without one (a second
    // Stop answers "already stop", a Resume 265) instead of reaching a
    // streamer that is being closed.
    group->bIsPlay = 0;
    *handle = group->_lpavsender;
    group->_lpavsender = 0;
    return 0;
}

void PlurafonMgr::StopStreamer(int handle) {
    PalWorker stopper;
    if (stopper.Start("stop", _stop_thread, (void*)(intptr_t)handle) != PalWorker::kStarted) {
        _stop_thread((void*)(intptr_t)handle);
        PAL_ThreadSleep(500);
    }
    debug_UI("wait _stop_thread+++");
    // The stop thread's own waits are bounded: two seconds for the receivers
    // to leave, then the streamer's close (3.5 s at most for its threads).
    stopper.Stop(kStopThreadMs);
    debug_UI("wait _stop_thread---");
}

void PlurafonMgr::StopEnd(int group_id, int bReuse) {
    // The group may have been deleted, or opened again, while its old
    // streamer ended; a new stream keeps its registry entries and states.
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(group_id);
    bool reopened = group && group->_lpavsender;
    if (bReuse == 0 && !reopened) ServiceDeviceDeleteGroup(group_id);
    debug_UI("PlurafonMgr::Stop m_pDeviceList->DeviceCnt : %d", ServiceDeviceGetCntList());
    if (group && !group->_lpavsender) {
        for (LPGITEM item = group->_lpdevice_list; item; item = item->_next) {
            if (item->DeviceState == DEVICE_STATE_PLAY) item->DeviceState = DEVICE_STATE_STANDBY;
        }
    }
    debug_UI("PlurafonMgr::Stop---");
}

int PlurafonMgr::stopPlayer(int group_id) {
    debug_UI("PlurafonMgr::stopPlayer, group_id : %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group || !group->_lpavsender) return PLURAFON_ERR_GROUP_ID;
    AVSenderStopNotify(group->_lpavsender);
    return 0;
}

int PlurafonMgr::seekTo(int group_id, int progress) {
    int handle = 0;
    int ret = SeekBegin(group_id, progress, &handle);
    return ret != 0 ? ret : SeekStreamer(handle, progress);
}

int PlurafonMgr::SeekBegin(int group_id, int progress, int* handle) {
    debug_UI("PlurafonMgr::seekTo +++ group_id %d, progress : %d", group_id, progress);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) {
        debug_UI("PlurafonMgr::seekTo --- not found group id");
        return PLURAFON_ERR_SEEK_GROUP_ID;
    }
    if (!group->_lpavsender) {
        debug_UI("PlurafonMgr::seekTo --- already stopped");
        return PLURAFON_ERR_NO_STREAMER;
    }
    if (group->bIsPlay != 1) {
        debug_UI("PlurafonMgr::seekTo --- not playing");
        return PLURAFON_ERR_NOT_PLAYING;
    }
    *handle = group->_lpavsender;
    return 0;
}

int PlurafonMgr::SeekStreamer(int handle, int progress) {
    // A Stop on another thread waits in the facade until this seek is done.
    int r = AVSenderSeek(handle, progress);
    debug_UI("PlurafonMgr::seekTo --- Ret %d", r);
    return r;
}

int PlurafonMgr::Pause(int group_id) {
    debug_UI("PlurafonMgr::Pause, group_id : %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return PLURAFON_ERR_GROUP_ID;
    if (!group->_lpavsender) return PLURAFON_ERR_NO_STREAMER;
    if (group->bIsPlay == 1) AVSenderPause(group->_lpavsender);
    return 0;
}

int PlurafonMgr::Resume(int group_id) {
    debug_UI("PlurafonMgr::Resume, group_id : %d", group_id);
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return PLURAFON_ERR_GROUP_ID;
    if (!group->_lpavsender) return PLURAFON_ERR_NO_STREAMER;
    AVSenderResume(group->_lpavsender);
    return 0;
}

int PlurafonMgr::DevicePlay(int group_id, const char* pReceiverIP, const char* pMacAddr, int type,
                            int volume) {
    debug_UI("PlurafonMgr::DevicePlay+++");
    PalLock lock(_lpmutex);
    LPGROUP_INFO group = _group_by_id(group_id);
    LPGITEM item = _find_item_in_group_l(group, pMacAddr);
    bool bAlready = item && item->DeviceState == DEVICE_STATE_PLAY;
    if (item) item->DeviceState = DEVICE_STATE_PLAY;
    int handle = group ? (int)group->_lpavsender : 0;
    lock.Unlock();
    if (!item) return PLURAFON_ERR_ITEM_NOT_FOUND;
    if (bAlready) {
        debug_UI("PlurafonMgr::DevicePlay--- AlreadyPlay");
        return 0;
    }
    AV_RECEIVER rx;
    memset(&rx, 0, sizeof(rx));
    CopyField(rx.pReceiverIP, sizeof(rx.pReceiverIP), pReceiverIP);
    rx.ChannelType = _channel_of(type);
    rx._volume = _cap_volume(volume);
    int r = AVSenderReceiverIn(handle, rx);
    if (r == 0) ServiceDeviceAdd(group_id, rx.pReceiverIP);
    debug_UI("PlurafonMgr::DevicePlay 2 End");
    return r;
}

int PlurafonMgr::ReceiverVolumeControl(int group_id, int nVolume) {
    LPGROUP_INFO group = _group_by_id(group_id);
    if (group && group->_lpavsender && group->bIsPlay == 1) {
        AVSenderReceiverVolumeControl(group->_lpavsender, nVolume);
        group->_mVol = nVolume;
    }
    return 0;
}

int PlurafonMgr::ReceiverDeviceVolumeControl(const char* pReceiverIP, const char* pMacAddr,
                                             int nVolume) {
    debug_UI("ReceiverDeviceVolumeControl+++");
    debug_UI("[ReceiverDeviceVolumeControl] _find_device");
    int r = 0;
    LPGROUP_INFO group = nullptr;
    LPDEVICE_INFO device = _find_device(pReceiverIP, pMacAddr);
    if (!device) {
        r = PLURAFON_ERR_DEVICE_NOT_FOUND;
    } else {
        debug_UI("[ReceiverDeviceVolumeControl] _find_group_id_by_receiverIP");
        group = _group_by_id(_find_group_id_by_receiverIP(pReceiverIP));
        if (!group) {
            r = PLURAFON_ERR_ITEM_NOT_FOUND;
        } else if (!group->_lpavsender) {
            r = PLURAFON_ERR_NO_STREAMER;
        } else {
            r = AVSenderReceiverDeviceVolumeControl(group->_lpavsender, pReceiverIP, nVolume);
            PalLock lock(_lpdevmutex);
            device->_mVol = nVolume;
        }
    }
    debug_UI("ReceiverDeviceVolumeControl--- Ret %d", r);
    return r;
}

int PlurafonMgr::SetReceiverUIType(const char* pReceiverIP, const char* pMacAddr, int nUIType) {
    if (!_find_device(pReceiverIP, pMacAddr)) return PLURAFON_ERR_DEVICE_NOT_FOUND;
    LPGROUP_INFO group = _group_by_id(_find_group_id_by_receiverIP(pReceiverIP));
    if (!group) return PLURAFON_ERR_ITEM_NOT_FOUND;
    if (!group->_lpavsender) return PLURAFON_ERR_NO_STREAMER;
    AVSenderSetReceiverUIType(group->_lpavsender, pReceiverIP, nUIType);
    return 0;
}

int PlurafonMgr::SetReceiverUITypeAll(int group_id, int nUIType) {
    LPGROUP_INFO group = _group_by_id(group_id);
    if (!group) return PLURAFON_ERR_ITEM_NOT_FOUND;
    if (!group->_lpavsender) return PLURAFON_ERR_NO_STREAMER;
    if (group->bIsPlay == 1) AVSenderSetReceiverUITypeAll(group->_lpavsender, nUIType);
    return 0;
}

// ------------------------------------------------------------ content queries

int PlurafonMgr::_refresh_content_cache(const char* path, const char* mime) {
    memset(&m_MgrMusicInfo, 0, sizeof(m_MgrMusicInfo));
    CopyField(m_MgrMusicInfo.pMusicURI, sizeof(m_MgrMusicInfo.pMusicURI), path);
    AV_CONTENT_INFO* info = &m_MgrMusicInfo.AVContentInfo;
    int r = mime ? AVGetContentInfoFromMime(_dlna_handle, m_MgrMusicInfo.pMusicURI, mime, info)
                 : AVGetContentInfo(_dlna_handle, m_MgrMusicInfo.pMusicURI, info);
    if (r != 0) memset(info, 0, sizeof(*info));
    return r;
}

int PlurafonMgr::GetContentSampleRate(const char* path) {
    if (!path || strcmp(path, m_MgrMusicInfo.pMusicURI) != 0) _refresh_content_cache(path, nullptr);
    return (int)m_MgrMusicInfo.AVContentInfo.SampleRate;
}

int PlurafonMgr::GetContentChannel(const char* path) {
    if (!path || strcmp(path, m_MgrMusicInfo.pMusicURI) != 0) _refresh_content_cache(path, nullptr);
    return (int)m_MgrMusicInfo.AVContentInfo.NumChannels;
}

int PlurafonMgr::IsContentValid(const char* path) {
    return _refresh_content_cache(path, nullptr);
}

int PlurafonMgr::IsContentValidFromMime(const char* path, const char* mime) {
    return _refresh_content_cache(path, mime ? mime : "");
}

int PlurafonMgr::GetContentInfo(const char* pUri) {
    AV_CONTENT_INFO info;
    memset(&info, 0, sizeof(info));
    char uri[AV_URI_LEN] = {0};
    CopyField(uri, sizeof(uri), pUri);
    int r = AVGetContentInfo(_dlna_handle, uri, &info);
    if (r != 0) memset(&info, 0, sizeof(info));
    if (_lpnotify) _lpnotify->NotifyContentsInfo(info.NumChannels, (int)info.SampleRate);
    return r;
}
