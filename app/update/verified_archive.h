// A downloaded release archive. It lives in a private folder (0700) from the first byte that
// arrives to the unpacking, and is opened once: what was checked is what gets unpacked, never a
// file re-read by name from a place others can write to.
#pragma once
#include <QString>
#include <memory>
#include <optional>

#include "update_identity.h"
#include "update_info.h"

class VerifiedArchive {
public:
    // A new empty file named filename (a plain name) in a fresh private folder; none on failure.
    static std::unique_ptr<VerifiedArchive> create(const QString& filename);
    // Closes the file and deletes it and its folder, unless keep() was called.
    ~VerifiedArchive();
    VerifiedArchive(const VerifiedArchive&) = delete;
    VerifiedArchive& operator=(const VerifiedArchive&) = delete;

    int fd() const { return fd_; }
    const QString& path() const { return path_; }
    // Leaves the archive where it is when this object goes (it has been shown to the user).
    void keep() { keep_ = true; }

private:
    VerifiedArchive(int fd, QString folder, QString path)
        : fd_(fd), folder_(std::move(folder)), path_(std::move(path)) {}
    int fd_;
    QString folder_;
    QString path_;
    bool keep_ = false;
};

// The checks a downloaded archive must pass before anything is done with it, in this order:
// its size, a usable key in this build, then its SHA-256 and the signature over the release's
// description. None when it passes, else the text to show.
std::optional<QString> verifyArchive(int fd, const UpdateInfo& info, const UpdateIdentity& id);
