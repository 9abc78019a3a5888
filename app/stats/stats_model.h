// The Statistics tab's model: which drive, its figures, and where they came from.
#pragma once
#include <QList>
#include <QObject>
#include <QString>
#include <optional>

#include "drive.h"
#include "volumes.h"

class StatsModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;

    explicit StatsModel(QObject* parent = nullptr);

    const QList<QmVolume>& volumes() const { return volumes_; }
    const std::optional<QString>& selection() const { return selection_; }
    const std::optional<qm_summary>& summary() const { return summary_; }
    const QList<DayRow>& days() const { return days_; }
    const QString& status() const { return status_; }
    bool busy() const { return busy_; }
    bool loading() const { return pending_ > 0; }

    // Scans the mounted volumes (or, once pinned, keeps the pinned one), selects the first, loads.
    void rescan();
    // Reads the selected drive on the core's worker thread; loaded() follows.
    void load();
    void select(const QString& path);
    // Makes one volume the only one, selected, and keeps it across rescans.
    void pin(const QmVolume& volume);

    struct Reading {
        std::optional<qm_summary> summary;
        QList<DayRow> days;
        QString status;
    };
    // What loading a volume shows; runs wherever it is called (the model calls it on its worker).
    static Reading read(const QmVolume& volume);

signals:
    void changed();
    void loaded();

private:
    void apply(Reading reading, int generation);

    QList<QmVolume> volumes_;
    std::optional<QString> selection_;
    std::optional<qm_summary> summary_;
    QList<DayRow> days_;
    QString status_ = kNoDriveStatus;
    bool busy_ = false;
    bool pinned_ = false;
    int generation_ = 0;
    int pending_ = 0;
};
