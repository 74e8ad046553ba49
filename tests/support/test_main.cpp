// main() of every test executable: isolate the network, then run GoogleTest.
// Listing the tests (CTest's discovery at build time) opens no socket and so
// runs outside the namespace.
#include <gtest/gtest.h>
#include <string.h>

#include "netns_rig.h"

int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) listing = true;
    }
    if (!listing && sonvara_netns_isolate(argc, argv) != 0) return 2;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
