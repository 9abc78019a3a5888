// The files of a drive as a backup sees them: regular files only, reached without following a
// single symbolic link, so nothing on the drive can point the run at the user's own files.
// FIFOs, sockets and device nodes are listed as skipped and never opened.
#pragma once
#include <QString>
#include <QStringList>
#include <cstdint>
#include <ctime>
#include <vector>

namespace DriveTree {

struct File {
    QString rel;  // "/"-separated, relative to the root
    int64_t size = 0;
    timespec mtime{};
};

struct Listing {
    bool opened = false;  // false: the root itself could not be read
    std::vector<File> files;
    QStringList unreadable;  // relative paths of entries that could not be listed or looked at
};

// Every regular file under root, links and special files left out; `skip` decides which
// relative paths (files and folders) are not even looked at.
template <typename Skip>
Listing list(int rootFd, Skip skip);

// Descriptor of the folder at root, or -1.
int openRoot(const QString& root);
// Descriptor of the regular file rel under rootFd, refusing a link at every step and anything
// but a regular file (a FIFO is never waited on); -1 otherwise, with errno set.
int openFile(int rootFd, const QString& rel);
// Size and modification time of the regular file rel, without following links; false when it
// is gone or is not a regular file.
bool stat(int rootFd, const QString& rel, File& out);

// Implementation detail of list(): the entries of the folder rel (empty: the root).
struct Entry {
    QString name;
    enum Kind { Folder, Regular, Other, Unreadable } kind;
    int64_t size;
    timespec mtime;
};
bool readFolder(int rootFd, const QString& rel, std::vector<Entry>& out);

template <typename Skip>
Listing list(int rootFd, Skip skip) {
    Listing listing;
    std::vector<QString> pending{QString()};
    std::vector<Entry> entries;
    while (!pending.empty()) {
        QString folder = std::move(pending.back());
        pending.pop_back();
        if (!readFolder(rootFd, folder, entries)) {
            if (folder.isEmpty()) return listing;
            listing.unreadable << folder;
            continue;
        }
        if (folder.isEmpty()) listing.opened = true;
        for (Entry& e : entries) {
            QString rel = folder.isEmpty() ? e.name : folder + QLatin1Char('/') + e.name;
            if (skip(rel, e.kind == Entry::Folder)) continue;
            if (e.kind == Entry::Folder) pending.push_back(rel);
            if (e.kind == Entry::Regular) listing.files.push_back({rel, e.size, e.mtime});
            if (e.kind == Entry::Unreadable) listing.unreadable << rel;
        }
    }
    return listing;
}

}  // namespace DriveTree
