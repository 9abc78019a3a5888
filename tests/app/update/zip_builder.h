// Release archives built in memory with libarchive's zip writer, for the unpacker and updater tests.
#pragma once
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

struct Planned {
    Planned(std::string path, unsigned type = AE_IFREG, std::string data = {}, unsigned perm = 0644)
        : path(std::move(path)), type(type), data(std::move(data)), perm(perm) {}
    std::string path;
    unsigned type;
    std::string data;  // a file's bytes or a link's target
    unsigned perm;
};

inline std::string zipOf(const std::vector<Planned>& planned) {
    std::string bytes(planned.size() * 512 + 4096, '\0');
    for (const Planned& s : planned) bytes.append(s.data.size() + s.data.size() / 1000 + 64, '\0');
    size_t used = 0;
    archive* w = archive_write_new();
    archive_write_set_format_zip(w);
    archive_write_open_memory(w, bytes.data(), bytes.size(), &used);
    for (const Planned& s : planned) {
        archive_entry* e = archive_entry_new();
        archive_entry_set_pathname(e, s.path.c_str());
        archive_entry_set_filetype(e, s.type);
        archive_entry_set_perm(e, s.perm);
        if (s.type == AE_IFLNK) archive_entry_set_symlink(e, s.data.c_str());
        archive_entry_set_size(e, s.type == AE_IFREG ? la_int64_t(s.data.size()) : 0);
        EXPECT_EQ(archive_write_header(w, e), ARCHIVE_OK) << s.path;
        if (s.type == AE_IFREG) archive_write_data(w, s.data.data(), s.data.size());
        archive_entry_free(e);
    }
    EXPECT_EQ(archive_write_close(w), ARCHIVE_OK);
    archive_write_free(w);
    bytes.resize(used);
    return bytes;
}
