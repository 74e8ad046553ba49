// The sender facade: flat functions through which the manager creates,
// drives and deletes streamers (CAVStreamer, one per playing group) and the
// discovery object (CAVRepDlna, one per manager).
//
// Owns: the two handle tables that turn the manager's int handles into the
// objects. A handle is a small non-zero int that is never handed out twice,
// so a handle that was deleted (or never existed) simply finds nothing and
// gets the null-handle answer; no pointer ever travels through an int.
// Allocates: the objects themselves (created here, destroyed here).
// Threads: runs on the caller's thread. Locks: each table's own mutex, held
// only while a handle is looked up, added or removed, never across a call
// into a streamer or the discovery object. Create and delete of one handle
// must not overlap another call on the same handle (the manager sees to it).
#ifndef THINSENDER_H
#define THINSENDER_H

#include <stdint.h>

#include "AVRepDlna.h"
#include "AVStreamerDef.h"

// Result codes of the facade itself; anything else comes from the object.
#define AVSENDER_OK 0
#define AVSENDER_ERR_NULL_HANDLE 1      // discovery functions and a few streamer ones
#define AVSENDER_ERR_NO_MEMORY 4        // the discovery object could not be allocated
#define AVSENDER_ERR_CREATE 262         // the streamer object could not be allocated
#define AVSENDER_ERR_INIT 263           // AVStreamerInit failed
#define AVSENDER_ERR_OPEN 264           // AVStreamerOpen failed
#define AVSENDER_ERR_NULL_STREAMER 265  // null streamer handle

// ---- streamers ----
int AVSenderCreate(int* pNewHandle, AV_NOTIFY_MSG NotifyMsg, void* pParent, int groupId);
int AVSenderOpen(int handle, uint16_t TcpSvrPort, uint16_t UdpSvrPort, const char* pMulticastUrl,
                 AV_MUSIC_INFO* pAVMusicInfo, AV_RECEIVER_INFO* pAVReceiverInfo, int nVolume,
                 int offset_time);
int AVSenderClose(int handle);
int AVSenderDelete(int handle);
int AVSenderSeek(int handle, int offset);
int AVSenderPause(int handle);
int AVSenderResume(int handle);
int AVSenderStop(int handle);
int AVSenderStopNotify(int handle);
int AVSenderReceiverIn(int handle, AV_RECEIVER AVReceiver);
int AVSenderReceiverOut(int handle, const char* pReceiverIP);
int AVSenderReceiverUpdateChannel(int handle, const char* ip, int type);
int AVSenderReceiverVolumeControl(int handle, int nVolume);
int AVSenderReceiverDeviceVolumeControl(int handle, const char* pReceiverIP, int nVolume);
int AVSenderSetReceiverUIType(int handle, const char* pReceiverIP, int nUIType);
int AVSenderSetReceiverUITypeAll(int handle, int nUIType);
bool AVSenderIsStreamReceiverExist(int handle);
// True when the caller runs on one of the streamer's own threads (inside one
// of its events): such a caller must not close or delete it, since the close
// waits for that very thread. False for a null handle.
bool AVSenderIsOwnThread(int handle);
int AVSenderResetAcceptWaitReceiverInfo(int handle, const char* pReceiverIP);
void AVSenderSetGUID(const char* guid);
// The handle of a streamer as its events name it: a streamer reports itself
// by its own address (it never learns its handle). A value that is already a
// live handle is returned as it is; anything else gives 0.
int AVSenderHandleOf(intptr_t streamer);

// ---- discovery ----
int AVRepDlnaCreate(int* pNewHandle, const char* pMulticastUrl, AV_DLNA_NOTIFY_MSG NotifyMsg,
                    void* pParent);
int AVRepDlnaOpen(int handle, const char* pMulticastUrl);
int AVRepDlnaClose(int handle);
int AVRepDlnaDelete(int handle);
void AVRepDlnaSetGUID(const char* guid);
int AVGetDeviceInfo(int handle, const char* pMulticastUrl, AV_DEVICE_INFO* pAVDeviceInfo,
                    int search_time);
int AVGetMyDevice(int handle, AV_DEVICE* pMyDevice);
int AVGetContentInfo(int handle, const char* pUri, AV_CONTENT_INFO* pAVContentInfo);
int AVGetContentInfoFromMime(int handle, const char* pUri, const char* pMimeType,
                             AV_CONTENT_INFO* pAVContentInfo);
int AVSyncTrigOpen(int handle);
int AVSyncTrigClose(int handle);

#endif
