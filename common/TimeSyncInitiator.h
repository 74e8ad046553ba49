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
// One burst of announcements on the group: one at once, then one every
// intervalUs (microseconds) until durationUs (microseconds) have passed.
// Each announcement asks every receiver to measure its clock now. -1 when
// the initiator is not started.
SONVARA_COMMON_API int TimeSyncInitiator_SyncOnce(unsigned int intervalUs, unsigned int durationUs);
// Announcements while a stream plays: a burst as SyncOnce(intervalUs,
// durationUs), then one every steadyIntervalUs until the matching StopSync
// (all in microseconds). Calls nest (one per streamer); while several are
// active the smallest steady interval is used. -1 when not started.
SONVARA_COMMON_API int TimeSyncInitiator_StartSync(unsigned int intervalUs, unsigned int durationUs,
                                                   unsigned int steadyIntervalUs);
SONVARA_COMMON_API int TimeSyncInitiator_StopSync(void);
// Stops the service thread and closes the socket.
SONVARA_COMMON_API int TimeSyncInitiator_Stop(void);
SONVARA_COMMON_API void TimeSyncInitiator_Delete(void);
// The master clock in milliseconds (works before Create, from the boot clock).
SONVARA_COMMON_API unsigned int TimeSyncInitiator_GetCurrentClock(void);

// One sync step of the sync trigger: asks for an announcement when none was
// sent for 10 s (keeps idle receivers in step); returns milliseconds until
// the next step (1000).
SONVARA_COMMON_API unsigned int PAL_SyncInterval(void);
}

#endif
