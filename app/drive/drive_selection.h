// The drive every tab works on: the mounted Quillmate volumes and the chosen one, shared by
// the tabs and owned by the application object. Scans run off the main thread, since
// telling whether a volume is a drive reads its key file.
#pragma once
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
    bool scanning() const { return pending_ > 0; }

    // Lists the mounted drives in the background and selects the first; does nothing once pinned.
    void rescan();
    void select(const QString& path);
    // Makes the folder at path the only volume, named as given, and keeps it across rescans.
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

    QList<QmVolume> volumes_;
    std::optional<QString> path_;
    bool pinned_ = false;
    int generation_ = 0;
    int pending_ = 0;
    BackgroundQueue background_;  // last: stopped first
};
