// Records and codes shared by the streamer, the discovery object, the sender
// facade and the manager: result codes, channel roles, event codes, the
// receiver / music / content records that travel from the manager through
// the facade into a streamer, the MP3 decode workspace, and the event
// callback type.
//
// Text fields are fixed arrays, always cut to the array size less one.
// Pointers travel through the callback's integer arguments, so they are
// intptr_t: correct on 64-bit as on 32-bit ARM.
#ifndef AVSTREAMERDEF_H
#define AVSTREAMERDEF_H

#include <stdint.h>

#include "MP3Decoder.h"

#define AV_MAX_RECEIVER 30
#define AV_IP_LEN 20
#define AV_MAC_LEN 20
#define AV_GUID_LEN 40
#define AV_NAME_LEN 244
#define AV_URI_LEN 260
#define AV_TITLE_LEN 256
#define AV_MIME_LEN 20
#define AV_MP3_BUF_SIZE 12288

typedef enum _TAV_RET {
    TAV_OK = 0,
    TAV_WORKING = 1,
    TAV_FAIL = 2,
    TAV_BAD_DATA_FOUND = 3,
    TAV_UNSUPPORTED_SERVICE = 4,
    TAV_UNSUPPORTED_MEDIA = 5,
    TAV_COMMAND_INVALID = 6,
    TAV_NOT_READY = 7,
    TAV_INSUFFICIENT_RESOURCE = 8,
    TAV_PARAM_INVALID = 9,
    TAV_URL_INVALID = 10,
    TAV_CONNECTION_ERROR = 11,
    TAV_PORT_ERROR = 12,
    TAV_CONTENTS_NOT_FOUND = 13,
    TAV_NETWORK_ERROR = 14,
    TAV_SERVER_SENT_ERROR_CODE = 15,
    TAV_OBJECT_CLASS_ERROR = 16,
    TAV_CALLVOIDMETHOD_ERROR = 17,
} TAV_RET;

// Result numbers beside TAV_RET, each returned by one layer. The streamer's
// init, open and server open share TAV_RET's values with meanings of their
// own:
#define AV_ERR_NO_MUSIC_INFO 1          // AVStreamerInit without a music description
#define AV_ERR_NO_MEMORY 4              // an allocation failed
#define AV_ERR_NO_MUTEX 5               // a lock or wake-up of the streamer could not be made
#define AV_ERR_THREAD_START 6           // a thread could not be started
#define AV_ERR_NO_NETWORK_ADDRESS 7     // the phone's own address is not known
#define AV_ERR_MULTICAST_URL 9          // the multicast address is malformed
#define AV_ERR_TCP_PORT 11              // no control port, retries included
#define AV_ERR_RTP_PORT 12              // the RTP or RTCP port could not be opened
#define AV_ERR_MULTICAST_OPEN 13        // the multicast socket could not be opened
#define AV_ERR_GROUP_JOIN 14            // the multicast group could not be joined
#define AV_ERR_SEMAPHORE 15             // a thread's exit semaphore could not be made
#define AV_ERR_WRITE_FAILED 18          // a command could not be written to the receiver
#define AV_ERR_NO_CONNECTION 19         // the receiver has no control connection
#define AV_ERR_CONTENT_OPEN 66          // AVStreamerInit: the content cannot be opened
#define AV_ERR_CONTENT_UNSUPPORTED 100  // no reader for the extension or the MIME type
#define AV_ERR_INIT_REFUSED 263         // AVStreamerInit refused in this state
#define AV_ERR_OPEN_REFUSED 264         // AVStreamerOpen refused in this state
#define AV_ERR_RECEIVER_NOT_FOUND 268   // no receiver with that address
#define AV_ERR_RECEIVER_NOT_ACTIVE 269  // leave for an unknown or inactive address
#define AV_ERR_NO_FREE_SLOT 270         // a join with every receiver slot taken
#define AV_ERR_SERVER_INIT 271          // the control server could not be set up
#define AV_ERR_WAV_SEEK 275             // the WAV reader could not move to the time
// The content readers' negative results.
#define AV_READ_SEEK_FAILED (-1)  // the MP3 byte seek could not position the file
#define AV_READ_NOT_OPENED (-2)   // file not opened or not a usable WAV; MP3 end of stream
#define AV_READ_DECODE_FAILED (-3)
#define AV_DLNA_WAV_NOT_OPENED (-7)  // discovery's WAV open

typedef enum _AV_CHANNEL_TYPE {
    AV_CHANNEL_NA = 0,
    AV_CHANNEL_FRONT_LEFT = 1,
    AV_CHANNEL_FRONT_RIGHT = 2,
    AV_CHANNEL_CENTER = 3,
    AV_CHANNEL_WOOFER = 4,
    AV_CHANNEL_REAR_LEFT = 5,
    AV_CHANNEL_REAR_RIGHT = 6,
    AV_CHANNEL_PARTY = 7,
} AV_CHANNEL_TYPE;

typedef enum _AVMSG_REPORT {
    AVMSG_RECEIVER_FOUND = 1,
    AVMSG_RECEIVER_DIED = 2,
    AVMSG_SERVICE_STOP = 3,
    AVMSG_RECEIVER_LEAVE = 4,
    AVMSG_RECEIVER_RESET = 5,
    AVMSG_PLAY_PROGRESS = 6,
    AVMSG_MASTER_FOUND = 7,
    AVMSG_RECEIVER_VOLUMECHANGED = 8,
} AVMSG_REPORT;

// One receiver of a group, as the manager knows it.
typedef struct _AV_RECEIVER {
    char pReceiverIP[AV_IP_LEN];
    AV_CHANNEL_TYPE ChannelType;
    uint8_t bIsSync;
    int32_t _volume;
    uint8_t bActive;
    uint32_t SearchTs;
} AV_RECEIVER;

// Entries are not kept packed: a released entry is zeroed in place.
typedef struct _AV_RECEIVER_INFO {
    AV_RECEIVER AVReceiver[AV_MAX_RECEIVER];
    char nAVReceiverCnt;
} AV_RECEIVER_INFO;

typedef struct _AV_MUSIC_INFO {
    char pMusicURI[AV_URI_LEN];
    char pContentTitle[AV_TITLE_LEN];
    char pMime[AV_MIME_LEN];
    uint8_t NumChannels;
    uint32_t SampleRate;
    uint8_t BytesPerSample;
} AV_MUSIC_INFO;

typedef struct _AV_CONTENT_INFO {
    uint8_t NumChannels;
    uint32_t SampleRate;
} AV_CONTENT_INFO;

// The MP3 decode workspace.
typedef struct _AV_MP3_INST {
    unsigned char bitbuffer[AV_MP3_BUF_SIZE];
    int32_t dec_pos;
    unsigned char pcmbuffer[AV_MP3_BUF_SIZE];
    uint32_t frame_count;
    MP3DEC_DATA audiodata;
} AV_MP3_INST;

// Event callback of a streamer: (owner, AVMSG_REPORT code, four arguments).
// Texts and handles travel in the arguments as intptr_t.
typedef void (*AV_NOTIFY_MSG)(intptr_t parent, intptr_t nMsg, intptr_t param1, intptr_t param2,
                              intptr_t param3, intptr_t param4);

#endif
