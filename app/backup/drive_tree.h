// The files of a drive (or of a backup folder) as a backup sees them: regular files only,
// reached without following a single symbolic link, so nothing on the drive can point the run at
// the user's own files. Names are carried as the bytes the file system holds: a name that is
// not UTF-8 is a file like any other. FIFOs, sockets and device nodes are never opened.
#pragma once
#include <QByteArray>
#include <QString>
#include <ctime>
#include <cstdint>
#include <functional>
#include <vector>

namespace DriveTree {

// Deeper than any writing needs; what lies below is reported rather than walked, so a corrupt
// file system whose folders lead back into themselves ends.
constexpr int kMaxDepth = 64;

struct File {
    QByteArray rel;  // "/"-separated, relative to the root
    int64_t size = 0;
    timespec mtime{};
};

struct Problem {
    enum Kind { Unreadable, TooDeep, Loop };
    QByteArray rel;
    Kind kind;
};

struct Listing {
    bool opened = false;  // false: the root itself could not be read
    std::vector<File> files;
    std::vector<Problem> problems;  // entries left out, and why
};

// Decides which relative paths (files and folders) are not even looked at.
using Skip = std::function<bool(const QByteArray& rel, bool folder)>;

// Every regular file under the folder rootFd, links and special files left out. One descriptor
// is open per level; a folder seen before (by device and inode) is not entered again.
Listing list(int rootFd, const Skip& skip);

// Descriptor of the folder at root, or -1.
int openRoot(const QString& root);
// Descriptor of the regular file rel under rootFd, refusing a link at every step and anything
// but a regular file (a FIFO is never waited on); -1 otherwise, with errno set.
int openFile(int rootFd, const QByteArray& rel);
// Size and modification time of the regular file rel, without following links; false when it
// is gone or is not a regular file.
bool stat(int rootFd, const QByteArray& rel, File& out);
// Descriptor of the folder that holds rel, its missing folders made on the way, never through a
// link; `leaf` receives rel's last component. -1 with errno set otherwise.
int openParentMaking(int rootFd, const QByteArray& rel, QByteArray& leaf);

// The last component of rel.
QByteArray leafOf(const QByteArray& rel);

}  // namespace DriveTree
