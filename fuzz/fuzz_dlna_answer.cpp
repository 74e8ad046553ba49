// Fuzzes what anyone on the network can send to discovery: search answers
// (collected into one device list) and EXIT announcements.
//
// Input: a run of datagrams, each [source][length lo][length hi][bytes];
// the source byte picks 127.0.0.2 .. 127.0.0.41, the length is cut to what
// a datagram can carry (1399) and to the input left.
// After every datagram the list must hold: count at most 30, every text
// terminated inside its field, no address counted twice.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <memory>

#include "AVRepDlna.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static AV_DEVICE_SEARCH_INFO list;
    memset(&list, 0, sizeof(list));
    size_t pos = 0;
    while (pos + 3 <= size) {
        char ip[AV_IP_LEN];
        snprintf(ip, sizeof(ip), "127.0.0.%u", 2u + data[pos] % 40u);
        size_t len = (size_t)data[pos + 1] | ((size_t)data[pos + 2] << 8);
        pos += 3;
        if (len > 1399) len = 1399;
        if (len > size - pos) len = size - pos;

        // Exactly as large as the receive buffers, so that reading past the
        // datagram shows up under AddressSanitizer.
        std::unique_ptr<char[]> text(new char[len + 1]);
        memcpy(text.get(), data + pos, len);
        text[len] = 0;
        pos += len;

        CAVRepDlna::AddDeviceAnswer(&list, text.get(), ip);
        fuzz_check_device_list(list, AV_MAX_DEVICE);

        std::unique_ptr<char[]> word(new char[AV_IP_LEN]);
        std::unique_ptr<char[]> mac(new char[AV_MAC_LEN]);
        std::unique_ptr<char[]> guid(new char[AV_GUID_LEN]);
        int isExit = CAVRepDlna::ParseExitMessage(text.get(), word.get(), mac.get(), guid.get());
        fuzz_require(isExit == (strstr(text.get(), "EXIT") != NULL));
        fuzz_require(fuzz_terminated(word.get(), AV_IP_LEN));
        fuzz_require(fuzz_terminated(mac.get(), AV_MAC_LEN));
        fuzz_require(fuzz_terminated(guid.get(), AV_GUID_LEN));
    }
    return 0;
}
