#include "backup_schedule.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QSettings>

namespace {

const QString kDestinationKey = QStringLiteral("backupDestination");
const QString kAutomaticKey = QStringLiteral("backupAutomatic");

// inotify watches are a per-user resource shared with every other program; a drive of writing
// has a few dozen folders, so this bound only matters for a wrong folder chosen as a drive.
constexpr int kMaxWatched = 2000;

QSettings store() { return QSettings(QStringLiteral("Quillmate"), QStringLiteral("Quillmate Flasher")); }

}  // namespace

namespace BackupSettings {

QString destination() { return store().value(kDestinationKey).toString(); }
bool automatic() { return store().value(kAutomaticKey, true).toBool(); }
void setDestination(const QString& path) { store().setValue(kDestinationKey, path); }
void setAutomatic(bool on) { store().setValue(kAutomaticKey, on); }

}  // namespace BackupSettings

BackupSchedule::BackupSchedule(Timings timings, QObject* parent) : QObject(parent) {
    period_.setInterval(timings.periodMs);
    debounce_.setInterval(timings.debounceMs);
    debounce_.setSingleShot(true);
    connect(&period_, &QTimer::timeout, this, &BackupSchedule::runNow);
    connect(&debounce_, &QTimer::timeout, this, &BackupSchedule::runNow);
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this](const QString& folder) {
        watchBelow(folder);  // a folder made since the last rewatch is watched too
        trigger();
    });
}

void BackupSchedule::start(CurrentVolume currentVolume, Run run) {
    currentVolume_ = std::move(currentVolume);
    run_ = std::move(run);
    period_.start();
    rewatch();
}

void BackupSchedule::rewatch() {
    QStringList old = watcher_.directories();
    if (!old.isEmpty()) watcher_.removePaths(old);
    if (!BackupSettings::automatic() || BackupSettings::destination().isEmpty() || !currentVolume_) return;
    std::optional<QmVolume> volume = currentVolume_();
    if (!volume) return;
    skipped_ = QDir::cleanPath(volume->path + QStringLiteral("/.qm"));
    watchBelow(volume->path);
}

void BackupSchedule::watchBelow(const QString& folder) {
    const QStringList watched = watcher_.directories();
    const QSet<QString> known(watched.begin(), watched.end());
    QStringList found;
    QStringList pending{folder};
    while (!pending.isEmpty() && known.size() + found.size() < kMaxWatched) {
        QString f = pending.takeLast();
        if (!known.contains(f)) found << f;
        // The root's .qm holds the drive's key and statistics, which are never copied.
        for (const QFileInfo& sub : QDir(f).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden))
            if (!sub.isSymLink() && QDir::cleanPath(sub.filePath()) != skipped_) pending << sub.filePath();
    }
    if (!found.isEmpty()) watcher_.addPaths(found);
}

void BackupSchedule::trigger() { debounce_.start(); }

void BackupSchedule::runNow() {
    if (!BackupSettings::automatic() || !currentVolume_ || !run_) return;
    QString destination = BackupSettings::destination();
    if (destination.isEmpty()) return;
    std::optional<QmVolume> volume = currentVolume_();
    if (!volume) return;
    emit due();
    run_(*volume, destination);
}
