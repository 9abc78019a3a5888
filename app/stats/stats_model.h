// The Statistics tab's model: the selected drive's figures and where they came from.
#pragma once
#include <QList>
#include <QObject>
#include <QString>
#include <optional>

#include "background_queue.h"
#include "cloud_client.h"
#include "drive.h"
#include "drive_selection.h"

class StatsModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;

    explicit StatsModel(DriveSelection* selection, QObject* parent = nullptr);

    const QList<QmVolume>& volumes() const { return selection_->volumes(); }
    const std::optional<QString>& selection() const { return selection_->path(); }
    DriveSelection* driveSelection() const { return selection_; }
    const std::optional<qm_summary>& summary() const { return summary_; }
    const QList<DayRow>& days() const { return days_; }
    const QString& status() const { return status_; }
    // True while the selected drive is being read (and provisioned when it has no key yet) or
    // its statistics are being published.
    bool busy() const { return pending_ > 0 || publishing_; }

    // Scans the mounted volumes again, or reads a pinned drive afresh; ignored while busy.
    void rescan();
    // Reads the selected drive in the background; loaded() follows.
    void load();
    void select(const QString& path);
    // Sends the selected drive's statistics to the account; the outcome becomes the status.
    void publish();

    struct Reading {
        std::optional<qm_summary> summary;
        QList<DayRow> days;
        QString status;
        bool driveGone = false;  // it failed because the volume is no longer a drive
    };
    // What loading a volume shows. Blocking file work: the model runs it off the main thread.
    static Reading read(const QmVolume& volume, bool mayWrite);
    // The whole publish, blocking on the session's requests: sign-in check, registration, upload.
    // Returns the status to show.
    static QString publishWith(CloudSession& session, const QmVolume& volume);

signals:
    void changed();
    void loaded();
    void published();

private:
    void apply(Reading reading, int generation);

    DriveSelection* selection_;
    std::optional<qm_summary> summary_;
    QList<DayRow> days_;
    QString status_ = kNoDriveStatus;
    int generation_ = 0;
    int pending_ = 0;
    bool publishing_ = false;
    CloudClient cloud_;
    BackgroundQueue background_;  // last: stopped first
};
