// libSonvaraCommon: the platform layer the sender engine is written against.
//
// Owns: nothing by itself; this umbrella header pulls in every facade of the
// platform library so that engine code includes one file.
// Threads / locks: see each facade's header.
#ifndef PAL_H
#define PAL_H

#include "NICInfo.h"
#include "PAL_Clock.h"
#include "PAL_File.h"
#include "PAL_Socket.h"
#include "PAL_Sync.h"
#include "PAL_Thread.h"
#include "Pal_RingBuf.h"
#include "TimeSyncInitiator.h"
#include "debug_UI.h"

#endif
