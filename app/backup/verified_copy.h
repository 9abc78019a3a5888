// One file copied and proven on the disk: read once into a partial file beside its place,
// hashed on the way, flushed, dropped from the page cache and read back, and only then renamed
// into place. A copy in place is therefore always one that was verified, and a verification is
// never answered from memory. Backups and restores both copy this way.
#pragma once
#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <ctime>
#include <optional>

namespace VerifiedCopy {

// The partial file's name; it never travels.
constexpr const char* kPartialName = ".quillmate-partial";

enum class Outcome {
    Verified,
    SourceUnreadable,  // the source could not be read
    SourceDamaged,     // the source did not hold what `expected` says
    DiskFull,          // no room on the disk being written (checked before the first byte, too)
    Taken,             // noReplace: something appeared at the place meanwhile
    Failed,            // what arrived did not match what was sent
};

struct Copied {
    QString sha256;
    int64_t bytes = 0;
};

struct Request {
    int srcFd = -1;
    int dirFd = -1;             // the folder the copy goes into
    QByteArray leaf;            // its name there
    timespec mtime{};           // given to the copy
    std::optional<QString> expected;  // the hash the source must have
    bool noReplace = false;     // never rename over an existing file
    mode_t mode = 0644;         // the copy's permissions
};

// Two attempts a quarter of a second apart when the first did not arrive intact.
Outcome copy(const Request& request, Copied& out);

// SHA-256 of the file behind fd as it is on the disk: pages the cache holds are dropped first.
std::optional<QString> hashFromDisk(int fd);

}  // namespace VerifiedCopy
