// What the fuzz targets share: a failed check ends the run, scratch folders and file writes.
#pragma once
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <string>

inline void check(bool ok) {
    if (!ok) std::abort();
}

// A fresh folder under /tmp; each target makes one per process.
inline std::string fuzz_folder(const std::string& name) {
    std::string tmpl = "/tmp/qm-fuzz-" + name + "-XXXXXX";
    check(mkdtemp(tmpl.data()) != nullptr);
    return tmpl;
}

inline void put_file(const std::string& path, const void* data, size_t len) {
    FILE* f = std::fopen(path.c_str(), "wb");
    check(f != nullptr);
    if (len) std::fwrite(data, 1, len, f);
    std::fclose(f);
}
