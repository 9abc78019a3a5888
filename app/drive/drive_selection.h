// The drive every tab works on: the mounted Quillmate volumes and the chosen one, shared by
// the tabs and owned by the application object. Scans run off the main thread, since
// telling whether a volume is a drive reads its key file.
#pragma once
#include <QFileSystemWatcher>
#include <QList>
#include <QObject>
#include <QString>
#include <optional>

#include "background_queue.h"
#include "volumes.h"

class DriveSelection : public QObject {
    Q_OBJECT
public:
    explicit DriveSelection(QObject* parent = nullptr);

    const QList<QmVolume>& volumes() const { return volumes_; }
    const std::optional<QString>& path() const { return path_; }
    // The selected volume, when there is one.
    std::optional<QmVolume> volume() const;
    bool pinned() const { return pinned_; }
    // Set by the screenshot mode, which shows drives but must never write to one (not even the key
    // a used drive without one would get).
    bool readOnly() const { return readOnly_; }
    void setReadOnly(bool on) { readOnly_ = on; }
    bool scanning() const { return pending_ > 0; }
    // The name of the drive that was selected and is no longer there (unplugged, unmounted, its
    // folder removed), until a drive is selected again. The tabs show goneText(*gone()).
    const std::optional<QString>& gone() const { return gone_; }
    static QString goneText(const QString& name);

    // Lists the mounted drives in the background and selects the first. Once pinned, looks again
    // at the pinned folders only, so that one removed and put back is noticed.
    void rescan();
    void select(const QString& path);
    // Makes the folder at path the only volume, named as given, and keeps it across rescans. A
    // folder that is not a drive (no key, stats.db or fonts folder) gives no volume.
    void pin(const QString& path, const QString& name);
    // Makes these the volumes, the first selected, kept across rescans.
    void pin(const QList<QmVolume>& volumes);

signals:
    // volumes or the selected path changed: the tabs reload what they show.
    void changed();

private:
    template <typename Work>
    void runScan(Work work);
    void apply(QList<QmVolume> volumes, int generation);
    void watchSelected();
    void checkSelectedStillThere();

    QList<QmVolume> volumes_;
    std::optional<QString> path_;
    std::optional<QString> gone_;
    QList<Volumes::Mount> pinnedMounts_;
    QFileSystemWatcher watcher_;  // the selected root and its parent: removal, unmounting, moving
    bool pinned_ = false;
    bool readOnly_ = false;
    int generation_ = 0;
    int pending_ = 0;
    BackgroundQueue background_;  // last: stopped first
};
