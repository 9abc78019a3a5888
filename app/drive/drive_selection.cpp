#include "drive_selection.h"

#include <QDir>
#include <QFileInfo>

#include "drive.h"

DriveSelection::DriveSelection(QObject* parent) : QObject(parent) {
    // Fires when an entry of the root changes, when the root is removed or unmounted, and (through
    // its parent) when it is moved away.
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, &DriveSelection::checkSelectedStillThere);
}

QString DriveSelection::goneText(const QString& name) {
    return tr("“%1” is no longer connected. Plug it in again and press Refresh.").arg(name);
}

std::optional<QmVolume> DriveSelection::volume() const {
    for (const QmVolume& v : volumes_)
        if (path_ && v.path == *path_) return v;
    return std::nullopt;
}

void DriveSelection::rescan() {
    if (!pinned_) return runScan([] { return Volumes::scan(); });
    runScan([mounts = pinnedMounts_] { return Volumes::classify(mounts); });
}

void DriveSelection::pin(const QString& path, const QString& name) {
    pinned_ = true;
    pinnedMounts_ = {Volumes::Mount{path, name}};
    rescan();
}

void DriveSelection::pin(const QList<QmVolume>& volumes) {
    pinned_ = true;
    pinnedMounts_.clear();
    for (const QmVolume& v : volumes) pinnedMounts_.append(Volumes::Mount{v.path, v.name});
    apply(volumes, ++generation_);
}

void DriveSelection::select(const QString& path) {
    if (path_ == path) return;
    path_ = path;
    gone_.reset();
    watchSelected();
    emit changed();
}

template <typename Work>
void DriveSelection::runScan(Work work) {
    int generation = ++generation_;
    ++pending_;
    background_.post(std::move(work), [this, generation](QList<QmVolume> found) {
        --pending_;
        apply(std::move(found), generation);
    });
}

void DriveSelection::apply(QList<QmVolume> found, int generation) {
    if (generation != generation_) return;  // a newer scan is on its way
    std::optional<QmVolume> before = volume();
    bool keepsSelection = before && found.contains(*before);
    if (before && !keepsSelection) gone_ = before->name;
    volumes_ = std::move(found);
    if (!keepsSelection) path_ = volumes_.isEmpty() ? std::nullopt : std::optional<QString>(volumes_.first().path);
    if (path_) gone_.reset();
    watchSelected();
    emit changed();
}

void DriveSelection::watchSelected() {
    if (!watcher_.directories().isEmpty()) watcher_.removePaths(watcher_.directories());
    if (!path_) return;
    watcher_.addPath(*path_);
    QString parent = QFileInfo(QDir::cleanPath(*path_)).path();
    if (parent != *path_ && QFileInfo(parent).isDir()) watcher_.addPath(parent);
}

void DriveSelection::checkSelectedStillThere() {
    std::optional<QmVolume> selected = volume();
    if (!selected || pending_ > 0) return;  // a scan on its way settles it anyway
    ++pending_;
    // A stick pulled out may leave its empty mount folder behind: still a folder, no longer a
    // drive. Read off the main thread, where a stick gone bad could make the read wait.
    background_.post([mount = Volumes::Mount{selected->path, selected->name}] { return Volumes::classify({mount}); },
                     [this, generation = generation_, root = selected->path](QList<QmVolume> stillThere) {
                         --pending_;
                         if (!stillThere.isEmpty() || generation != generation_ || path_ != root) return;
                         QList<QmVolume> rest = volumes_;
                         rest.removeIf([&root](const QmVolume& v) { return v.path == root; });
                         apply(std::move(rest), ++generation_);
                     });
}
