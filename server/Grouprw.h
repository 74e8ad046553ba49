// GroupRW: reads and writes the group file multi_group_play.ini.
//
// The file, CR LF lines, one block per group:
//   [GROUP]
//   name:<group name>
//   mode:<GROUP_MODE>
//   device:<MAC>|<channel role>|<in service 0/1>     (one per member)
// Only the members' MACs are kept; everything else about a device is learnt
// again from the network.
//
// Owns: the file buffer while loading, and the groups and device records it
// reads until GetGroupList / GetDeviceList hand them over. Allocates: the
// buffer, groups, members, device records. Threads: the caller's (the
// manager uses a short-lived GroupRW on the stack). Locks: none of its own;
// the manager holds its group lock around Save.
//
// The file may have been edited by hand or cut short: every line is bounded
// to the line buffer, every field to its array; a bad device line drops the
// group it is in and keeps the groups read before it.
#ifndef GROUPRW_H
#define GROUPRW_H

#include "SonvaraMgrRecord.h"

#define GROUP_FILE_NAME "multi_group_play.ini"
#define GROUP_RW_LINE_LEN 1024
#define GROUP_RW_PATH_LEN 1024

struct GroupRWDeviceIndex;

typedef enum group_rw_error_type {
    GROUP_RW_OK = 0,
    GROUP_RW_ERR_FILE_OPEN = 1,
    GROUP_RW_ERR_MEMORY_ALLOC = 2,
    GROUP_RW_ERR_FILE_IO = 3,
    GROUP_RW_ERR_INVALID_DATA = 4,
    GROUP_RW_ERR_UNKNOWN = 100,
} group_rw_error_type;

class GroupRW {
public:
    GroupRW();
    virtual ~GroupRW();

    int Save(const char* dir, LPGROUP_INFO lpgroup);
    int Load(const char* dir);
    // Parses a file already in memory, as Load does after reading it.
    int LoadBuffer(const char* data, unsigned int size);
    unsigned int GetGroupCount() const { return _group_cnt; }
    // Each hands its list over to the caller and forgets it.
    LPGROUP_INFO GetGroupList();
    LPDEVICE_INFO GetDeviceList();

private:
    GroupRW(const GroupRW&) = delete;
    GroupRW& operator=(const GroupRW&) = delete;

    int _make_path(const char* dir, char* path);
    int _read_file(const char* path);
    int _parse();
    unsigned int _read_line(char* line);
    int _trime(char* line);
    bool _is_eof() const { return _offset >= _fbuf_size; }
    int _load_group();
    int _load_device(const char* text, LPGROUP_INFO group);
    LPDEVICE_INFO _find_device(const char* mac);
    void _add_group(LPGROUP_INFO group);
    void _add_device(LPDEVICE_INFO device);
    void _save_group(long file, LPGROUP_INFO group);
    void _delete_group(LPGROUP_INFO group);
    void _delete_group_list();
    void _delete_device_list();

    char* _fbuf;
    unsigned int _fbuf_size;
    unsigned int _offset;
    unsigned int _group_cnt;
    LPGROUP_INFO _lpgroup_list;
    LPGROUP_INFO _lpgroup_list_end;
    LPDEVICE_INFO _lpdevice_list;
    GroupRWDeviceIndex* _index;  // the records read so far, by MAC
};

#endif
