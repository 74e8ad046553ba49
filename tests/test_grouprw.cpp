// The group file as the group store reads it: hand-edited and damaged files,
// over-long lines and fields, missing files. (What is written, and a whole
// save and load, go through the manager: test_manager.)
#include <gtest/gtest.h>

#include <string>

#include "Grouprw.h"
#include "TempDir.h"

namespace {

// A loaded list as text, "name/mode:mac|role|flag,...;", freeing it.
std::string take_groups(GroupRW& rw, int* devices) {
    std::string s;
    for (LPGROUP_INFO g = rw.GetGroupList(), next; g; g = next) {
        s += std::string(g->group_name) + "/" + std::to_string((int)g->_emode) + ":";
        int n = 0;
        for (LPGITEM it = g->_lpdevice_list; it; it = it->_next, n++) {
            s += std::string(it->_lpdevice->_MacAddr) + "|" + std::to_string(it->_type) + "|" +
                 std::to_string(it->bIsService) + ",";
        }
        EXPECT_EQ(n, g->_gitem_cnt) << g->group_name;
        s += ";";
        next = g->_next;
        FreeGroupInfo(g);
    }
    *devices = 0;
    for (LPDEVICE_INFO d = rw.GetDeviceList(), next; d; d = next, ++*devices) {
        EXPECT_FALSE(d->_isExist);  // only the MAC comes from the file
        EXPECT_EQ('\0', d->_ip[0]);
        next = d->_next;
        delete d;
    }
    return s;
}

}  // namespace

TEST(GroupRW, HandEditedAndDamagedFiles) {
    const std::string longName(3000, 'n'), longMac(500, 'm');
    const struct {
        const char* what;
        std::string bytes;
        int ret;
        std::string groups;  // members come back in reverse
        int devices;
    } cases[] = {
        {"two groups sharing a device",
         "[GROUP]\r\nname:One\r\nmode:1\r\ndevice:m1|1|1\r\ndevice:m2|2|0\r\ndevice:m3|3|1\r\n"
         "[GROUP]\r\nname:Two\r\nmode:2\r\ndevice:m2|7|1\r\n",
         GROUP_RW_OK, "One/1:m3|3|1,m2|2|0,m1|1|1,;Two/2:m2|7|1,;", 3},
        // Text before the first header, LF-only lines, trailing blanks, blank
        // lines, unknown keys, a mode with text after it, two-digit roles.
        {"hand-edited",
         "junk\nname:ignored\ndevice:nobar\n"
         "[GROUP]   \nname:Kitchen  \n\nmode:2abc\ncolour:blue\n"
         "device:k1|12|1\ndevice:k2|7|1   \ndevice:k3|99|1|1\ndevice:k4|\n"
         "  [GROUP]\n[GROUP]\r\nmode:\r\n[GROUP]\r\nname:  lead\tblanks\r\nmode:-1\r\n",
         GROUP_RW_OK, "Kitchen/2:k4|0|0,k3|99|0,k2|7|1,k1|12|0,;/0:;  lead\tblanks/-1:;", 4},
        {"empty", "", GROUP_RW_OK, "", 0},
        {"cut short after the header", "[GROUP]", GROUP_RW_OK, "/0:;", 0},
        // A device line without a bar drops its group and ends the load.
        {"a device line without a bar",
         "[GROUP]\r\nname:Good\r\nmode:1\r\ndevice:g1|1|1\r\n"
         "[GROUP]\r\nname:Bad\r\ndevice:b1|1|1\r\ndevice:no-bar-here\r\n[GROUP]\r\nname:After\r\n",
         GROUP_RW_ERR_INVALID_DATA, "Good/1:g1|1|1,;", 2},
        {"an empty device line", "[GROUP]\r\nname:A\r\n[GROUP]\r\nname:B\r\ndevice:\r\n",
         GROUP_RW_ERR_INVALID_DATA, "A/0:;", 0},
        // Over-long lines keep their first 1023 bytes, fields their arrays.
        {"a 2000-byte line without a bar",
         "[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac +
             "|1|1\r\ndevice:" + std::string(2000, 'x') + "\r\ndevice:ok|2|1\r\n",
         GROUP_RW_ERR_INVALID_DATA, "", 1},
        {"a bar past the 1023 bytes kept",
         "[GROUP]\r\nname:A\r\ndevice:" + std::string(1100, 'm') + "|1|1\r\n",
         GROUP_RW_ERR_INVALID_DATA, "", 0},
        {"long name and MAC",
         "[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac + "|1|1\r\ndevice:ok|2|1\r\n",
         GROUP_RW_OK, std::string(63, 'n') + "/0:ok|2|1," + std::string(19, 'm') + "|1|1,;", 2},
    };
    for (const auto& c : cases) {
        GroupRW rw;
        EXPECT_EQ(c.ret, rw.LoadBuffer(c.bytes.data(), (unsigned int)c.bytes.size())) << c.what;
        size_t groups = 0;
        for (char ch : c.groups) groups += ch == ';';
        EXPECT_EQ(groups, rw.GetGroupCount()) << c.what;
        int devices = 0;
        EXPECT_EQ(c.groups, take_groups(rw, &devices)) << c.what;
        EXPECT_EQ(c.devices, devices) << c.what;
    }

    // Files: a real one, none at all, a path too long to form, no directory.
    TempDir dir("grouprw");
    GroupRW rw;
    ASSERT_EQ(GROUP_RW_OK, rw.Save(dir.path.c_str(), nullptr));
    EXPECT_EQ(GROUP_RW_OK, rw.Load(dir.path.c_str()));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Save(nullptr, nullptr));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load("/nonexistent/dir"));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load(std::string(2000, 'd').c_str()));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load(nullptr));
}
