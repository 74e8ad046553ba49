// GroupRW: reads and writes the group file (see Grouprw.h for the format,
// ownership and threading).
#include "Grouprw.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <unordered_map>

#include "PAL.h"

// A group file is a few hundred bytes; anything beyond this is not ours and
// is refused as if memory had run out rather than read into memory.
#define GROUP_RW_MAX_FILE_SIZE (64u * 1024u * 1024u)

namespace {

// Decimal value at the start of text, the lenient way: leading blanks, an
// optional sign, then digits; no digits gives 0; out of range is clamped.
int _lenient_int(const char* text) {
    char* end = nullptr;
    long long v = strtoll(text, &end, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return (int)v;
}

bool _starts_with(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

}  // namespace

// MAC -> record, for the records read by one Load: a hand-made file of
// thousands of device lines must not make the lookup quadratic.
struct GroupRWDeviceIndex {
    std::unordered_map<std::string, LPDEVICE_INFO> byMac;
};

GroupRW::GroupRW()
    : _fbuf(nullptr),
      _fbuf_size(0),
      _offset(0),
      _group_cnt(0),
      _lpgroup_list(nullptr),
      _lpgroup_list_end(nullptr),
      _lpdevice_list(nullptr),
      _index(nullptr) {}

GroupRW::~GroupRW() {
    delete[] _fbuf;
    delete _index;
    _delete_group_list();
    _delete_device_list();
}

LPGROUP_INFO GroupRW::GetGroupList() {
    LPGROUP_INFO list = _lpgroup_list;
    _lpgroup_list = nullptr;
    _lpgroup_list_end = nullptr;
    return list;
}

LPDEVICE_INFO GroupRW::GetDeviceList() {
    LPDEVICE_INFO list = _lpdevice_list;
    _lpdevice_list = nullptr;
    if (_index) _index->byMac.clear();
    return list;
}

int GroupRW::_make_path(const char* dir, char* path) {
    if (!dir) return GROUP_RW_ERR_FILE_OPEN;
    int n = snprintf(path, GROUP_RW_PATH_LEN, "%s/%s", dir, GROUP_FILE_NAME);
    if (n < 0 || n >= GROUP_RW_PATH_LEN) return GROUP_RW_ERR_FILE_OPEN;
    return GROUP_RW_OK;
}

int GroupRW::Save(const char* dir, LPGROUP_INFO lpgroup) {
    char path[GROUP_RW_PATH_LEN] = {0};
    if (_make_path(dir, path) != GROUP_RW_OK) return GROUP_RW_ERR_FILE_OPEN;
    debug_UI("[GroupRW] Save +++ %s", path);
    long file = PAL_FileOpen(path, FOPEN_CREATE, 0);
    if (file <= 0) return GROUP_RW_ERR_FILE_OPEN;
    for (LPGROUP_INFO g = lpgroup; g; g = g->_next) _save_group(file, g);
    PAL_FileClose(file);
    debug_UI("[GroupRW] Save ---");
    return GROUP_RW_OK;
}

void GroupRW::_save_group(long file, LPGROUP_INFO group) {
    char line[GROUP_RW_LINE_LEN];
    // A name is written up to its first line break, so that a name cannot
    // forge further lines of the file.
    char name[GROUP_NAME_LEN] = {0};
    CopyField(name, sizeof(name), group->group_name);
    name[strcspn(name, "\r\n")] = '\0';
    int n =
        snprintf(line, sizeof(line), "[GROUP]\r\nname:%s\r\nmode:%d\r\n", name, (int)group->_emode);
    PAL_FileWrite(file, line, (unsigned long)n);
    for (LPGITEM item = group->_lpdevice_list; item; item = item->_next) {
        const char* mac = item->_lpdevice ? item->_lpdevice->_MacAddr : "";
        n = snprintf(line, sizeof(line), "device:%s|%d|%d\r\n", mac, item->_type, item->bIsService);
        PAL_FileWrite(file, line, (unsigned long)n);
    }
}

int GroupRW::Load(const char* dir) {
    _group_cnt = 0;
    char path[GROUP_RW_PATH_LEN] = {0};
    if (_make_path(dir, path) != GROUP_RW_OK) return GROUP_RW_ERR_FILE_OPEN;
    debug_UI("[GroupRW] Load +++ %s", path);
    int ret = _read_file(path);
    if (ret != GROUP_RW_OK) return ret;
    ret = _parse();
    debug_UI("[GroupRW] Load ---");
    return ret;
}

int GroupRW::LoadBuffer(const char* data, unsigned int size) {
    _group_cnt = 0;
    if (!data && size) return GROUP_RW_ERR_INVALID_DATA;
    if (size > GROUP_RW_MAX_FILE_SIZE) return GROUP_RW_ERR_MEMORY_ALLOC;
    delete[] _fbuf;
    _fbuf = new (std::nothrow) char[size + 1];
    if (!_fbuf) return GROUP_RW_ERR_MEMORY_ALLOC;
    if (size) memcpy(_fbuf, data, size);
    _fbuf_size = size;
    _offset = 0;
    return _parse();
}

int GroupRW::_read_file(const char* path) {
    long file = PAL_FileOpen(path, FOPEN_READ, 0);
    if (file <= 0) return GROUP_RW_ERR_FILE_OPEN;
    int ret = GROUP_RW_OK;
    unsigned int got = 0;
    long long size = PAL_FileSeek(file, 0, FSEEK_END);
    if (size < 0 || PAL_FileSeek(file, 0, FSEEK_START) != 0) {
        ret = GROUP_RW_ERR_FILE_OPEN;
    } else if (size > (long long)GROUP_RW_MAX_FILE_SIZE) {
        ret = GROUP_RW_ERR_MEMORY_ALLOC;
    } else {
        delete[] _fbuf;
        _fbuf_size = 0;
        _fbuf = new (std::nothrow) char[(size_t)size + 1];
        if (!_fbuf) ret = GROUP_RW_ERR_MEMORY_ALLOC;
    }
    while (ret == GROUP_RW_OK && got < (unsigned int)size) {
        long n = PAL_FileRead(file, _fbuf + got, (unsigned long)(size - got));
        if (n < 0) {
            ret = GROUP_RW_ERR_FILE_IO;
        } else if (n == 0) {
            size = got;  // the file shrank under us: take what was there
        } else {
            got += (unsigned int)n;
        }
    }
    PAL_FileClose(file);
    if (ret != GROUP_RW_OK) {
        delete[] _fbuf;
        _fbuf = nullptr;
        return ret;
    }
    _fbuf_size = got;
    _offset = 0;
    return GROUP_RW_OK;
}

int GroupRW::_parse() {
    if (!_index) _index = new (std::nothrow) GroupRWDeviceIndex();
    if (!_index) return GROUP_RW_ERR_MEMORY_ALLOC;
    int ret = GROUP_RW_OK;
    char line[GROUP_RW_LINE_LEN];
    while (ret == GROUP_RW_OK && !_is_eof()) {
        memset(line, 0, sizeof(line));
        _offset += _read_line(line);
        _trime(line);
        if (strcmp(line, "[GROUP]") == 0) ret = _load_group();
    }
    delete[] _fbuf;
    _fbuf = nullptr;
    _fbuf_size = 0;
    _offset = 0;
    return ret;
}

unsigned int GroupRW::_read_line(char* line) {
    const char* start = _fbuf + _offset;
    unsigned int left = _fbuf_size - _offset;
    const char* lf = (const char*)memchr(start, '\n', left);
    unsigned int len = lf ? (unsigned int)(lf - start) + 1 : left;
    // A line longer than the buffer keeps its first GROUP_RW_LINE_LEN - 1
    // bytes; the rest of it is passed over.
    unsigned int copy = len < GROUP_RW_LINE_LEN - 1 ? len : GROUP_RW_LINE_LEN - 1;
    memcpy(line, start, copy);
    line[copy] = '\0';
    return len;
}

int GroupRW::_trime(char* line) {
    int n = (int)strlen(line);
    while (n > 0 && (line[n - 1] == ' ' || line[n - 1] == '\r' || line[n - 1] == '\n')) {
        line[--n] = '\0';
    }
    return n;
}

int GroupRW::_load_group() {
    LPGROUP_INFO group = NewGroupInfo();
    if (!group) return GROUP_RW_ERR_MEMORY_ALLOC;
    int ret = GROUP_RW_OK;
    int count = 0;
    char line[GROUP_RW_LINE_LEN];
    while (ret == GROUP_RW_OK && !_is_eof()) {
        unsigned int start = _offset;
        memset(line, 0, sizeof(line));
        _offset += _read_line(line);
        if (_trime(line) == 0) continue;
        if (strcmp(line, "[GROUP]") == 0) {
            _offset = start;  // the next group's header: Load reads it again
            break;
        }
        if (_starts_with(line, "device:")) {
            ret = _load_device(line + 7, group);
            if (ret == GROUP_RW_OK) count++;
        } else if (_starts_with(line, "name:")) {
            CopyField(group->group_name, sizeof(group->group_name), line + 5);
            debug_UI("[_load_group]group name : %s", group->group_name);
        } else if (_starts_with(line, "mode:")) {
            group->_emode = (GROUP_MODE)_lenient_int(line + 5);
            debug_UI("[_load_group]group mode : %d", (int)group->_emode);
        }
    }
    if (ret != GROUP_RW_OK) {
        FreeGroupInfo(group);
        return ret;
    }
    group->_gitem_cnt = count;
    _add_group(group);
    return GROUP_RW_OK;
}

int GroupRW::_load_device(const char* text, LPGROUP_INFO group) {
    const char* bar = strchr(text, '|');
    if (!text[0] || !bar) return GROUP_RW_ERR_INVALID_DATA;
    char mac[AV_MAC_LEN] = {0};
    size_t macLen = (size_t)(bar - text);
    if (macLen > sizeof(mac) - 1) macLen = sizeof(mac) - 1;
    memcpy(mac, text, macLen);
    int role = _lenient_int(bar + 1);
    // The service flag follows only a one-digit role ("MAC|7|1").
    int service = (bar[1] && bar[2] == '|') ? _lenient_int(bar + 3) : 0;

    LPGITEM item = NewGroupItem();
    if (!item) return GROUP_RW_ERR_MEMORY_ALLOC;
    item->_type = role;
    item->bIsService = service;
    item->DeviceState = DEVICE_STATE_STANDBY;
    LPDEVICE_INFO device = _find_device(mac);
    if (!device) {
        device = NewDeviceInfo();
        if (!device) {
            delete item;
            return GROUP_RW_ERR_MEMORY_ALLOC;
        }
        CopyField(device->_MacAddr, sizeof(device->_MacAddr), mac);
        _add_device(device);
    }
    item->_lpdevice = device;
    item->_next = group->_lpdevice_list;
    group->_lpdevice_list = item;
    return GROUP_RW_OK;
}

LPDEVICE_INFO GroupRW::_find_device(const char* mac) {
    auto it = _index->byMac.find(mac);
    return it == _index->byMac.end() ? nullptr : it->second;
}

void GroupRW::_add_group(LPGROUP_INFO group) {
    group->_next = nullptr;
    if (_lpgroup_list_end) {
        _lpgroup_list_end->_next = group;
    } else {
        _lpgroup_list = group;
    }
    _lpgroup_list_end = group;
    _group_cnt++;
}

void GroupRW::_add_device(LPDEVICE_INFO device) {
    device->_next = _lpdevice_list;
    _lpdevice_list = device;
    _index->byMac[device->_MacAddr] = device;
}

void GroupRW::_delete_group(LPGROUP_INFO group) {
    FreeGroupInfo(group);
}

void GroupRW::_delete_group_list() {
    LPGROUP_INFO g = _lpgroup_list;
    while (g) {
        LPGROUP_INFO next = g->_next;
        _delete_group(g);
        g = next;
    }
    _lpgroup_list = nullptr;
    _lpgroup_list_end = nullptr;
}

void GroupRW::_delete_device_list() {
    LPDEVICE_INFO d = _lpdevice_list;
    while (d) {
        LPDEVICE_INFO next = d->_next;
        delete d;
        d = next;
    }
    _lpdevice_list = nullptr;
}
