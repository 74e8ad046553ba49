// Time synchronisation initiator: the phone is the master clock of the group.
//
// Owns one UDP socket on the multicast group's time-sync port and one service
// thread that answers receivers' time requests and announces the master on
// the group. Process-wide (one initiator; no handle). The wire protocol is
// written down in docs/time-sync-protocol.md.
// Threads: the calls are made from the engine's threads; the service thread
// is internal.
#ifndef TIMESYNCINITIATOR_H
#define TIMESYNCINITIATOR_H

#include "PAL_Export.h"

extern "C" {

// Boot-time clock in microseconds, supplied by the caller (on Android it may
// only have millisecond resolution).
typedef long long (*TIMESYNC_CLOCK_FUNC)(void);

// groupAddr and myAddr in network byte order (inet_addr). Non-zero on success.
SONVARA_COMMON_API int TimeSyncInitiator_Create(unsigned int groupAddr, unsigned short port,
                                                unsigned int myAddr, TIMESYNC_CLOCK_FUNC clock);
// Opens the socket and starts answering time requests. 0 on success.
SONVARA_COMMON_API int TimeSyncInitiator_Start(void);
// One burst of announcements: every intervalUs for durationUs.
SONVARA_COMMON_API int TimeSyncInitiator_SyncOnce(unsigned int intervalUs, unsigned int durationUs);
// Announcements while a stream plays: every intervalUs for durationUs, then
// every steadyIntervalUs until StopSync. Calls nest (one per streamer).
SONVARA_COMMON_API int TimeSyncInitiator_StartSync(unsigned int intervalUs, unsigned int durationUs,
                                                   unsigned int steadyIntervalUs);
SONVARA_COMMON_API int TimeSyncInitiator_StopSync(void);
// Stops the service thread and closes the socket.
SONVARA_COMMON_API int TimeSyncInitiator_Stop(void);
SONVARA_COMMON_API void TimeSyncInitiator_Delete(void);
// The master clock in milliseconds (works before Create, from the boot clock).
SONVARA_COMMON_API unsigned int TimeSyncInitiator_GetCurrentClock(void);

// One sync step of the sync trigger; returns milliseconds until the next.
SONVARA_COMMON_API unsigned int PAL_SyncInterval(void);
}

#endif
