// The music source thread: turns the open content into PCM, cuts it per
// receiver to the receiver's channel role and fills each session's ring
// buffer; carries out the source side of a seek and reports the end of the
// content.
//
// Allocates nothing: its two 12288-byte work buffers live on its stack.
// Runs on: MusicSourceThread (started by AVStreamerInit).
// Locks: a session's `_lpmutex` only while scanning for the end of a seek.
#include <string.h>

#include "AVStreamer.h"

bool CAVStreamer::ReceiverMediaWrite(unsigned char nIndex, char* pBuffer, unsigned long unLength) {
    if (nIndex >= AV_MAX_RECEIVER) return true;
    AV_RCV_SESS& s = m_AVRcvSessInfo.AVRcvSess[nIndex];
    PAL_RINGBUF* rb = s.pFD;
    if (!s.bActive || rb == nullptr) return true;  // nobody to deliver to: counts as done
    if (Pal_RingBufAvailable(rb) < unLength) return false;
    Pal_RingBufWrite(rb, pBuffer, unLength);
    return true;
}
