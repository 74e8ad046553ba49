// The sender facade: placeholder bodies until the streamer and discovery land.
#include "thinSender.h"

int AVSenderCreate(int*, AV_NOTIFY_MSG, void*, int) {
    return 1;
}
int AVSenderOpen(int, uint16_t, uint16_t, char*, AV_MUSIC_INFO*, AV_RECEIVER_INFO*, int, int) {
    return 1;
}
int AVSenderClose(int) {
    return 1;
}
int AVSenderDelete(int) {
    return 1;
}
int AVSenderSeek(int, int) {
    return 1;
}
int AVSenderPause(int) {
    return 1;
}
int AVSenderResume(int) {
    return 1;
}
int AVSenderStop(int) {
    return 1;
}
int AVSenderStopNotify(int) {
    return 1;
}
int AVSenderReceiverIn(int, AV_RECEIVER) {
    return 1;
}
int AVSenderReceiverOut(int, char*) {
    return 1;
}
int AVSenderReceiverUpdateChannel(int, char*, int) {
    return 1;
}
int AVSenderReceiverVolumeControl(int, int) {
    return 1;
}
int AVSenderReceiverDeviceVolumeControl(int, char*, int) {
    return 1;
}
int AVSenderSetReceiverUIType(int, char*, int) {
    return 1;
}
int AVSenderSetReceiverUITypeAll(int, int) {
    return 1;
}
bool AVSenderIsStreamReceiverExist(int) {
    return false;
}
int AVSenderResetAcceptWaitReceiverInfo(int, char*) {
    return 1;
}
void AVSenderSetGUID(const char*) {}
int AVRepDlnaCreate(int*, char*, AV_DLNA_NOTIFY_MSG, void*) {
    return 1;
}
int AVRepDlnaOpen(int, char*) {
    return 1;
}
int AVRepDlnaClose(int) {
    return 1;
}
int AVRepDlnaDelete(int) {
    return 1;
}
void AVRepDlnaSetGUID(const char*) {}
int AVGetDeviceInfo(int, char*, AV_DEVICE_INFO*, int) {
    return 1;
}
int AVGetMyDevice(int, AV_DEVICE*) {
    return 1;
}
int AVGetContentInfo(int, char*, AV_CONTENT_INFO*) {
    return 1;
}
int AVGetContentInfoFromMime(int, char*, char*, AV_CONTENT_INFO*) {
    return 1;
}
int AVSyncTrigOpen(int) {
    return 1;
}
int AVSyncTrigClose(int) {
    return 1;
}
