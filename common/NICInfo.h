// The phone's own network identity.
//
// GetNICInfo picks the interface named by SONVARA_IFACE if set; otherwise the
// first interface that is up, not loopback, multicast-capable and has IPv4;
// otherwise loopback.
// Threads: any.
#ifndef NICINFO_H
#define NICINFO_H

#include "PAL_Export.h"

extern "C" {

// Fills mac ("aa:bb:cc:dd:ee:ff", lower case) and ip (dotted text); each
// buffer must hold 20 bytes and gets at most 19 characters. Non-zero on
// success, 0 when no IPv4 address could be found.
SONVARA_COMMON_API int GetNICInfo(char* mac, char* ip);

// The address of the master receiver, as discovery last saw it ("" if none).
SONVARA_COMMON_API extern char gmasterip[20];
}

#endif
