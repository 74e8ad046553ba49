// The group file: the bytes written, what loads back, and hand-edited or
// damaged files.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Grouprw.h"
#include "TempDir.h"

namespace {

// A temporary directory holding one group file.
class GroupDir : public TempDir {
public:
    GroupDir() : TempDir("grouprw") {}
    std::string file() const { return path + "/multi_group_play.ini"; }
    void write(const std::string& bytes) const {
        std::ofstream out(file(), std::ios::binary);
        out << bytes;
    }
    std::string read() const {
        std::ifstream in(file(), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
};

// Groups and device records built by hand, freed at the end of a test.
struct Fixture {
    std::vector<LPDEVICE_INFO> devices;
    LPGROUP_INFO head = nullptr;
    LPGROUP_INFO tail = nullptr;

    ~Fixture() {
        for (LPGROUP_INFO g = head; g;) {
            LPGROUP_INFO next = g->_next;
            FreeGroupInfo(g);
            g = next;
        }
        for (auto d : devices) delete d;
    }
    LPDEVICE_INFO device(const char* mac) {
        LPDEVICE_INFO d = NewDeviceInfo();
        strcpy(d->_MacAddr, mac);
        devices.push_back(d);
        return d;
    }
    LPGROUP_INFO group(const char* name, GROUP_MODE mode) {
        LPGROUP_INFO g = NewGroupInfo();
        snprintf(g->group_name, sizeof(g->group_name), "%s", name);
        g->_emode = mode;
        (tail ? tail->_next : head) = g;
        tail = g;
        return g;
    }
    void member(LPGROUP_INFO g, LPDEVICE_INFO d, int type, int service) {
        LPGITEM item = NewGroupItem();
        item->_lpdevice = d;
        item->_type = type;
        item->bIsService = service;
        LPGITEM* at = &g->_lpdevice_list;
        while (*at) at = &(*at)->_next;
        *at = item;
        g->_gitem_cnt++;
    }
};

// What a loaded list looks like, as text: "name/mode:mac|role|flag,...;".
std::string describe(LPGROUP_INFO list) {
    std::string s;
    for (LPGROUP_INFO g = list; g; g = g->_next) {
        s += std::string(g->group_name) + "/" + std::to_string((int)g->_emode) + ":";
        int n = 0;
        for (LPGITEM it = g->_lpdevice_list; it; it = it->_next, n++) {
            s += std::string(it->_lpdevice->_MacAddr) + "|" + std::to_string(it->_type) + "|" +
                 std::to_string(it->bIsService) + ",";
        }
        EXPECT_EQ(n, g->_gitem_cnt) << g->group_name;
        s += ";";
    }
    return s;
}

// Loads text through a real file; returns the result and the groups.
struct Loaded {
    int ret;
    unsigned int count;
    std::string groups;
    int devices = 0;
};

Loaded load(const std::string& bytes) {
    GroupDir dir;
    dir.write(bytes);
    GroupRW rw;
    Loaded r;
    r.ret = rw.Load(dir.path.c_str());
    r.count = rw.GetGroupCount();
    LPGROUP_INFO groups = rw.GetGroupList();
    LPDEVICE_INFO devices = rw.GetDeviceList();
    r.groups = describe(groups);
    while (groups) {
        LPGROUP_INFO next = groups->_next;
        FreeGroupInfo(groups);
        groups = next;
    }
    while (devices) {
        LPDEVICE_INFO next = devices->_next;
        EXPECT_FALSE(devices->_isExist);
        EXPECT_EQ('\0', devices->_ip[0]);
        delete devices;
        devices = next;
        r.devices++;
    }
    return r;
}

}  // namespace

TEST(GroupRW, SaveWritesCrLfBlocksInListAndMemberOrder) {
    Fixture f;
    LPDEVICE_INFO a = f.device("aa:00:00:00:00:01");
    LPDEVICE_INFO b = f.device("aa:00:00:00:00:02");
    LPGROUP_INFO living = f.group("Living room", CHANNEL_MODE);
    f.member(living, a, AV_CHANNEL_FRONT_LEFT, 1);
    f.member(living, b, AV_CHANNEL_FRONT_RIGHT, 0);
    LPGROUP_INFO party = f.group("Party\r\n[GROUP]\r\nname:forged", PARTY_MODE);
    f.member(party, b, AV_CHANNEL_PARTY, 1);
    f.group("Empty", GROUP_MODE_NONE);

    GroupDir dir;
    GroupRW rw;
    ASSERT_EQ(GROUP_RW_OK, rw.Save(dir.path.c_str(), f.head));
    EXPECT_EQ(
        "[GROUP]\r\nname:Living room\r\nmode:1\r\n"
        "device:aa:00:00:00:00:01|1|1\r\ndevice:aa:00:00:00:00:02|2|0\r\n"
        "[GROUP]\r\nname:Party\r\nmode:2\r\ndevice:aa:00:00:00:00:02|7|1\r\n"
        "[GROUP]\r\nname:Empty\r\nmode:0\r\n",
        dir.read());

    // Saving again replaces the file; a directory that does not exist fails.
    ASSERT_EQ(GROUP_RW_OK, rw.Save(dir.path.c_str(), nullptr));
    EXPECT_EQ("", dir.read());
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Save("/nonexistent/dir", f.head));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Save(nullptr, f.head));
}

TEST(GroupRW, LoadReversesMembersAndSharesDeviceRecords) {
    Loaded r = load(
        "[GROUP]\r\nname:One\r\nmode:1\r\n"
        "device:m1|1|1\r\ndevice:m2|2|0\r\ndevice:m3|3|1\r\n"
        "[GROUP]\r\nname:Two\r\nmode:2\r\ndevice:m2|7|1\r\n");
    EXPECT_EQ(GROUP_RW_OK, r.ret);
    EXPECT_EQ(2u, r.count);
    EXPECT_EQ("One/1:m3|3|1,m2|2|0,m1|1|1,;Two/2:m2|7|1,;", r.groups);
    EXPECT_EQ(3, r.devices);  // m2 is one record shared by both groups

    // A save/load cycle reverses the members once more.
    GroupDir dir;
    dir.write("[GROUP]\r\nname:G\r\nmode:1\r\ndevice:x1|1|1\r\ndevice:x2|2|1\r\n");
    GroupRW first;
    ASSERT_EQ(GROUP_RW_OK, first.Load(dir.path.c_str()));
    LPGROUP_INFO groups = first.GetGroupList();
    LPDEVICE_INFO devices = first.GetDeviceList();
    GroupRW writer;
    ASSERT_EQ(GROUP_RW_OK, writer.Save(dir.path.c_str(), groups));
    EXPECT_EQ("[GROUP]\r\nname:G\r\nmode:1\r\ndevice:x2|2|1\r\ndevice:x1|1|1\r\n", dir.read());
    FreeGroupInfo(groups);
    while (devices) {
        LPDEVICE_INFO next = devices->_next;
        delete devices;
        devices = next;
    }
}

TEST(GroupRW, LenientReadingOfHandEditedFiles) {
    // Text before the first header, LF-only lines, trailing blanks, blank
    // lines, unknown keys, a mode with text after it, two-digit roles.
    Loaded r = load(
        "junk\nname:ignored\ndevice:nobar\n"
        "[GROUP]   \nname:Kitchen  \n\nmode:2abc\ncolour:blue\n"
        "device:k1|12|1\ndevice:k2|7|1   \ndevice:k3|99|1|1\ndevice:k4|\n"
        "  [GROUP]\n"
        "[GROUP]\r\nmode:\r\n"
        "[GROUP]\r\nname:  lead\tblanks\r\nmode:-1\r\n");
    EXPECT_EQ(GROUP_RW_OK, r.ret);
    EXPECT_EQ(3u, r.count);
    EXPECT_EQ("Kitchen/2:k4|0|0,k3|99|0,k2|7|1,k1|12|0,;/0:;  lead\tblanks/-1:;", r.groups);

    r = load("");
    EXPECT_EQ(GROUP_RW_OK, r.ret);
    EXPECT_EQ(0u, r.count);
    r = load("[GROUP]");  // cut short after the header
    EXPECT_EQ(GROUP_RW_OK, r.ret);
    EXPECT_EQ("/0:;", r.groups);
}

TEST(GroupRW, DamagedFilesKeepTheGroupsBeforeTheDamage) {
    // A device line without a bar drops its group and ends the load.
    Loaded r = load(
        "[GROUP]\r\nname:Good\r\nmode:1\r\ndevice:g1|1|1\r\n"
        "[GROUP]\r\nname:Bad\r\ndevice:b1|1|1\r\ndevice:no-bar-here\r\n"
        "[GROUP]\r\nname:After\r\n");
    EXPECT_EQ(GROUP_RW_ERR_INVALID_DATA, r.ret);
    EXPECT_EQ("Good/1:g1|1|1,;", r.groups);
    EXPECT_EQ(1u, r.count);
    r = load("[GROUP]\r\nname:A\r\n[GROUP]\r\nname:B\r\ndevice:\r\n");
    EXPECT_EQ(GROUP_RW_ERR_INVALID_DATA, r.ret);
    EXPECT_EQ("A/0:;", r.groups);

    // Over-long lines keep their first 1023 bytes; fields are cut to their
    // arrays; the lines after them still load.
    std::string longName(3000, 'n');
    std::string longMac(500, 'm');
    r = load("[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac + "|1|1\r\n" +
             "device:" + std::string(2000, 'x') + "\r\ndevice:ok|2|1\r\n");
    EXPECT_EQ(GROUP_RW_ERR_INVALID_DATA, r.ret);  // the 2000-byte line has no bar
    EXPECT_EQ("", r.groups);
    r = load("[GROUP]\r\nname:A\r\ndevice:" + std::string(1100, 'm') + "|1|1\r\n");
    EXPECT_EQ(GROUP_RW_ERR_INVALID_DATA, r.ret);  // its bar lies past the 1023 bytes kept
    r = load("[GROUP]\r\nname:" + longName + "\r\ndevice:" + longMac + "|1|1\r\ndevice:ok|2|1\r\n");
    EXPECT_EQ(GROUP_RW_OK, r.ret);
    EXPECT_EQ(std::string(63, 'n') + "/0:ok|2|1," + std::string(19, 'm') + "|1|1,;", r.groups);

    // No file at all, and a path too long to form.
    GroupRW rw;
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load("/nonexistent/dir"));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load(std::string(2000, 'd').c_str()));
    EXPECT_EQ(GROUP_RW_ERR_FILE_OPEN, rw.Load(nullptr));
}
