// Where the project's tools are built: build/tools/<name>, next to the
// build/tests directory of the running test executable. Header only.
#ifndef TOOL_PATH_H
#define TOOL_PATH_H

#include <unistd.h>

#include <string>

inline std::string tool_path(const char* name) {
    char self[512] = {0};
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string dir = n > 0 ? std::string(self, (size_t)n) : "";
    dir = dir.substr(0, dir.rfind('/'));
    return dir.substr(0, dir.rfind('/')) + "/tools/" + name;
}

#endif
