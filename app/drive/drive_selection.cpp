#include "drive_selection.h"

#include "drive.h"

DriveSelection::DriveSelection(QObject* parent) : QObject(parent) {}

std::optional<QmVolume> DriveSelection::volume() const {
    for (const QmVolume& v : volumes_)
        if (path_ && v.path == *path_) return v;
    return std::nullopt;
}

void DriveSelection::rescan() {
    if (!pinned_) runScan([] { return Volumes::scan(); });
}

void DriveSelection::pin(const QString& path, const QString& name) {
    pinned_ = true;
    runScan([path, name] { return QList<QmVolume>{QmVolume{path, name, Drive::is(path)}}; });
}

void DriveSelection::pin(const QList<QmVolume>& volumes) {
    pinned_ = true;
    apply(volumes, ++generation_);
}

void DriveSelection::select(const QString& path) {
    if (path_ == path) return;
    path_ = path;
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
    volumes_ = std::move(found);
    path_ = volumes_.isEmpty() ? std::nullopt : std::optional<QString>(volumes_.first().path);
    emit changed();
}
