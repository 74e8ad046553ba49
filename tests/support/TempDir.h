// TempDir: a fresh directory under /tmp for one test, removed with all it
// holds when the object goes. Header only.
#ifndef TEMPDIR_H
#define TEMPDIR_H

#include <stdio.h>
#include <stdlib.h>

#include <string>

class TempDir {
public:
    explicit TempDir(const char* prefix = "sonvara") {
        std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
        char* made = mkdtemp(&tmpl[0]);
        path = made ? made : "";
    }
    ~TempDir() {
        if (path.empty()) return;
        std::string cmd = "rm -rf '" + path + "'";
        if (system(cmd.c_str()) != 0) perror("rm");
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string path;
};

#endif
