#include "stats_model.h"

#include <QPointer>
#include <QThreadPool>
#include <QtConcurrent>

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

StatsModel::StatsModel(QObject* parent) : QObject(parent) {}

StatsModel::Reading StatsModel::read(const QmVolume& volume) {
    if (!volume.hasKey) Drive::provision(volume.path, false);  // a used drive without a key gets one first
    QmError error = QmError::ok;
    std::unique_ptr<Drive> drive = Drive::open(volume.path, &error);
    if (!drive) return Reading{std::nullopt, {}, status_after_failure(error)};
    return Reading{drive->summary(), drive->days(), status_after_open(drive->summary())};
}

void StatsModel::rescan() {
    if (busy_) return;
    if (!pinned_) {
        volumes_ = Volumes::scan();
        selection_ = volumes_.isEmpty() ? std::nullopt : std::optional<QString>(volumes_.first().path);
    }
    load();
}

void StatsModel::select(const QString& path) {
    selection_ = path;
    load();
}

void StatsModel::pin(const QmVolume& volume) {
    pinned_ = true;
    volumes_ = {volume};
    selection_ = volume.path;
    load();
}

void StatsModel::load() {
    int generation = ++generation_;
    auto it = std::find_if(volumes_.begin(), volumes_.end(),
                           [&](const QmVolume& v) { return selection_ && v.path == *selection_; });
    if (!selection_ || it == volumes_.end()) {
        apply(Reading{std::nullopt, {}, kNoDriveStatus}, generation);
        return;
    }
    ++pending_;
    QmVolume volume = *it;
    QPointer<StatsModel> self(this);
    QThreadPool* worker = coreWorkerPool();
    auto future = QtConcurrent::run(worker, [volume] { return read(volume); });
    future.then(this, [self, generation](Reading reading) {
        if (!self) return;
        --self->pending_;
        self->apply(std::move(reading), generation);
    });
}

void StatsModel::apply(Reading reading, int generation) {
    if (generation != generation_) return;  // a newer load is on its way
    summary_ = reading.summary;
    days_ = std::move(reading.days);
    status_ = std::move(reading.status);
    emit changed();
    emit loaded();
}
