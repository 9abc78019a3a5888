// Cloud-sync folders on this computer, and the one warning a backup folder deserves after a run:
// its client is not running, the disk is nearly full, or the platform's own service has not
// uploaded yet.
#pragma once
#include <QList>
#include <QString>
#include <cstdint>
#include <functional>
#include <optional>

struct CloudFolder {
    QString name;  // the service as the user knows it: "Dropbox", "Google Drive"...
    QString path;
    bool operator==(const CloudFolder& o) const { return path == o.path; }
};

namespace CloudFolders {
// The existing candidate folders under home (the user's home folder by default), each once.
QList<CloudFolder> detect(const QString& home = QString());
}  // namespace CloudFolders

namespace CloudSync {

constexpr int64_t kLowSpace = 67'108'863;  // at most this many bytes free: below 64 MiB

// What the checks ask of the computer; tests replace the parts they control.
struct Probe {
    QString home;  // empty: the user's home folder
    // Free bytes on the file system holding a path; the platform's by default.
    std::function<std::optional<int64_t>(const QString&)> freeSpace;
};

// The service of the innermost detected folder that holds path; none outside all of them.
std::optional<QString> service(const QString& path, const QList<CloudFolder>& folders);
std::optional<QString> service(const QString& path, const Probe& probe = {});
// Whether the service's desktop client runs; a service with no known client counts as running.
bool clientRunning(const QString& service);
// Whether the service's client is installed on this computer (its folder alone is not enough).
bool clientInstalled(const QString& service);
// Whether the service's running client uploads the folder by itself, so a note may name it.
bool uploadedByClient(const QString& service);
std::optional<int64_t> freeSpace(const QString& path);
// The warning for a backup folder, or none.
std::optional<QString> check(const QString& target, const Probe& probe = {});
// The note after a run into a folder whose client is running and uploads by itself; none for a
// service whose uploads check() judges from the files.
std::optional<QString> uploadNote(const QString& target, const Probe& probe = {});

}  // namespace CloudSync
