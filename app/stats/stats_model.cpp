#include "stats_model.h"

#include <QPointer>

#include "volumes.h"

const QString StatsModel::kNoDriveStatus = QStringLiteral("Plug in a Quillmate drive and press Refresh.");

namespace {

QString status_after_open(const qm_summary& s) {
    if (!s.both_valid) return QStringLiteral("Recovered from the backup copy after an interrupted write.");
    return QStringLiteral("Read from %1, record %2.")
        .arg(s.from_backup ? QStringLiteral("stats.bak") : QStringLiteral("stats.db"))
        .arg(s.seq);
}

QString status_after_failure(QmError e) {
    switch (e) {
        case QmError::noStatistics:
            return QStringLiteral("This drive has no statistics yet. Boot it and write something.");
        case QmError::unreadableStatistics:
            return QStringLiteral(
                "The statistics on this drive could not be read.\n\nQuillmate has stopped writing to them rather than "
                "overwrite what is there, so nothing is lost yet. Do not delete stats.db or stats.bak.");
        default:
            return qmErrorMessage(e);
    }
}

}  // namespace

StatsModel::StatsModel(DriveSelection* selection, Publisher publisher, QObject* parent)
    : QObject(parent), selection_(selection), publisher_(std::move(publisher)) {
    connect(selection_, &DriveSelection::changed, this, &StatsModel::load);
}

StatsModel::Reading StatsModel::read(const QmVolume& volume, bool mayWrite) {
    if (!volume.hasKey && mayWrite) Drive::provision(volume.path, false);  // a used drive without a key gets one first
    QmError error = QmError::ok;
    std::unique_ptr<Drive> drive = Drive::open(volume.path, &error);
    if (!drive) {
        // Checked only after a failure: a drive pulled out looks like any unreadable file.
        bool gone = Volumes::classify({Volumes::Mount{volume.path, volume.name}}).isEmpty();
        return Reading{std::nullopt, {}, status_after_failure(error), gone};
    }
    return Reading{drive->summary(), drive->days(), status_after_open(drive->summary())};
}

void StatsModel::rescan() {
    if (busy()) return;
    selection_->rescan();
}

void StatsModel::select(const QString& path) { selection_->select(path); }

void StatsModel::load() {
    int generation = ++generation_;
    std::optional<QmVolume> volume = selection_->volume();
    if (!volume) {
        const std::optional<QString>& gone = selection_->gone();
        apply(Reading{std::nullopt, {}, gone ? DriveSelection::goneText(*gone) : kNoDriveStatus}, generation);
        return;
    }
    ++pending_;
    emit changed();  // busy now
    background_.post([volume = *volume, mayWrite = !selection_->readOnly()] { return read(volume, mayWrite); },
                     [this, generation](Reading reading) {
                         --pending_;
                         apply(std::move(reading), generation);
                     });
}

void StatsModel::apply(Reading reading, int generation) {
    if (generation != generation_) {  // a newer load is on its way; only busy may have changed
        emit changed();
        return;
    }
    if (reading.driveGone) {
        // The selection confirms it (and every tab then says so), or finds it back and it loads again.
        std::optional<QmVolume> volume = selection_->volume();
        reading = Reading{std::nullopt, {}, DriveSelection::goneText(volume ? volume->name : QString())};
        selection_->rescan();
    }
    summary_ = reading.summary;
    days_ = std::move(reading.days);
    status_ = std::move(reading.status);
    // Another drive's days are another list; the same drive's keep a view's selection and place.
    QList<DayRow> newestFirst(days_.rbegin(), days_.rend());
    if (selection_->path() != listedDrive_) {
        dayRows_.reset(newestFirst);
        listedDrive_ = selection_->path();
    } else {
        dayRows_.sync(newestFirst, [](const DayRow& d) { return d.day; });
    }
    emit changed();
    emit loaded();
}

void StatsModel::publish() {
    std::optional<QmVolume> volume = selection_->volume();
    if (busy() || !volume || !publisher_) return;
    publishing_ = true;
    emit changed();
    publisher_(*volume, [model = QPointer<StatsModel>(this)](QString status) {
        if (!model) return;
        model->publishing_ = false;
        model->status_ = std::move(status);
        emit model->changed();
        emit model->published();
    });
}
