// The history log parser on arbitrary bytes, then every read the log leads to, and one restore
// whose writes must stay inside the drive's own folders.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qm_core.h"

namespace {

std::string g_root;

void put(const std::string& path, const void* data, size_t len) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    if (len) std::fwrite(data, 1, len, f);
    std::fclose(f);
}

// The drive: a document, its history folder, and a version file the log may name.
void make_root() {
    char tmpl[] = "/tmp/qm-fuzz-history-XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    g_root = tmpl;
    mkdir((g_root + "/.qmv").c_str(), 0700);
    mkdir((g_root + "/.qmv/doc").c_str(), 0700);
}

void reset_drive() {
    std::string folder = g_root + "/.qmv/doc";
    if (DIR* d = opendir(folder.c_str())) {
        while (dirent* e = readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) unlink((folder + "/" + e->d_name).c_str());
        closedir(d);
    }
    put(folder + "/v1.txt", "one\n", 4);
    put(g_root + "/doc", "current\n", 8);
}

// Only the document and its history folder may exist at the drive's root.
void check_nothing_outside() {
    DIR* d = opendir(g_root.c_str());
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != ".." && n != ".qmv" && n != "doc") std::abort();
    }
    closedir(d);
    d = opendir((g_root + "/.qmv").c_str());
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != ".." && n != "doc") std::abort();
    }
    closedir(d);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_root.empty()) make_root();
    reset_drive();
    put(g_root + "/.qmv/doc/history.log", data, size);

    int32_t err = 0;
    qm_history* h = qm_history_open(g_root.c_str(), "doc", &err);
    if (!h) {
        if (err != QM_ENOHISTORY && err != QM_EIO) std::abort();
        return 0;
    }
    int32_t n = qm_history_count(h);
    std::vector<uint8_t> buf(64);
    for (int32_t i = 0; i < n; ++i) {
        qm_version_entry e;
        if (qm_history_get(h, i, &e) != 0) std::abort();
        if (e.hash != 0 || std::strlen(e.branch) > 31 || std::strlen(e.file) > 63 || std::strlen(e.when) > 23 ||
            std::strlen(e.tag) > 63)
            std::abort();
        int32_t rc = qm_version_read(h, e.id, buf.data(), int32_t(buf.size()));
        if (rc >= 0 && std::strlen(reinterpret_cast<char*>(buf.data())) >= buf.size()) std::abort();
    }
    if (n > 0) {
        qm_version_entry first;
        qm_history_get(h, 0, &first);
        qm_qmv_revert(h, first.id, "2025-03-03 14:05:09");
        check_nothing_outside();
    }
    qm_history_close(h);
    return 0;
}
