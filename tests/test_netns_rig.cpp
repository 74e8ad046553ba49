// The rig itself: tests run isolated, with multicast routed on loopback.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <string.h>

#include "netns_rig.h"

TEST(NetnsRig, RunsInsideALoopbackOnlyNamespace) {
    ASSERT_TRUE(sonvara_netns_active());
    struct ifaddrs* list = nullptr;
    ASSERT_EQ(0, getifaddrs(&list));
    for (struct ifaddrs* it = list; it; it = it->ifa_next) EXPECT_STREQ("lo", it->ifa_name);
    freeifaddrs(list);
    EXPECT_EQ(0, system("ip route show 224.0.0.0/4 | grep -q 'dev lo'"));
}
