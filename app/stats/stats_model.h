// The Statistics tab's model: the selected drive's figures and where they came from.
#pragma once
#include <QList>
#include <QObject>
#include <QString>
#include <functional>
#include <optional>

#include "background_queue.h"
#include "day_list.h"
#include "drive.h"
#include "drive_selection.h"

class StatsModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;
    // Sends a volume's statistics to the account service, later calling done with the status to
    // show. The shell provides it; without one, publishing does nothing.
    using Publisher = std::function<void(const QmVolume& volume, std::function<void(QString status)> done)>;

    explicit StatsModel(DriveSelection* selection, Publisher publisher = {}, QObject* parent = nullptr);

    const QList<QmVolume>& volumes() const { return selection_->volumes(); }
    const std::optional<QString>& selection() const { return selection_->path(); }
    DriveSelection* driveSelection() const { return selection_; }
    const std::optional<qm_summary>& summary() const { return summary_; }
    const QList<DayRow>& days() const { return days_; }
    // The days newest first, as an item model for the day list.
    DayList* dayList() { return &dayRows_; }
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

signals:
    void changed();
    void loaded();
    void published();

private:
    void apply(Reading reading, int generation);

    DriveSelection* selection_;
    std::optional<qm_summary> summary_;
    QList<DayRow> days_;
    DayList dayRows_;
    std::optional<QString> listedDrive_;  // the drive whose days are listed
    QString status_ = kNoDriveStatus;
    int generation_ = 0;
    int pending_ = 0;
    bool publishing_ = false;
    Publisher publisher_;
    BackgroundQueue background_;  // last: stopped first
};
