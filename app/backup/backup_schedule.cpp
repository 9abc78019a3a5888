#include "backup_schedule.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QSettings>
#include <QTimer>
#include <algorithm>

namespace {

const QString kDestinationKey = QStringLiteral("backupDestination");
const QString kAutomaticKey = QStringLiteral("backupAutomatic");

// inotify watches are a per-user resource shared with every other program. A drive of writing
// has a few dozen folders and a few hundred files, so this bound mostly matters for a wrong
// folder chosen as a drive; where it bites, version files go unwatched first.
constexpr int kMaxWatched = 2000;

class QtClock : public BackupClock {
public:
    void repeat(int ms, Fire fire) override { start(period_, ms, std::move(fire), false); }
    void quiet(int ms, Fire fire) override { start(quiet_, ms, std::move(fire), true); }

private:
    static void start(QTimer& timer, int ms, Fire fire, bool once) {
        timer.disconnect();
        QObject::connect(&timer, &QTimer::timeout, std::move(fire));
        timer.setSingleShot(once);
        timer.start(ms);
    }
    QTimer period_;
    QTimer quiet_;
};

QSettings store() { return QSettings(QStringLiteral("Quillmate"), QStringLiteral("Quillmate Flasher")); }

}  // namespace

std::unique_ptr<BackupClock> BackupClock::timers() { return std::make_unique<QtClock>(); }

namespace BackupSettings {

QString destination() { return store().value(kDestinationKey).toString(); }
bool automatic() { return store().value(kAutomaticKey, true).toBool(); }
void setDestination(const QString& path) { store().setValue(kDestinationKey, path); }
void setAutomatic(bool on) { store().setValue(kAutomaticKey, on); }

}  // namespace BackupSettings

BackupSchedule::BackupSchedule(std::unique_ptr<BackupClock> clock, QObject* parent)
    : QObject(parent), clock_(clock ? std::move(clock) : BackupClock::timers()) {
    connect(&watcher_, &QFileSystemWatcher::directoryChanged, this, [this](const QString& folder) {
        watchBelow(folder);  // a folder or file made since the last rewatch is watched too
        trigger();
    });
    connect(&watcher_, &QFileSystemWatcher::fileChanged, this, [this](const QString& file) {
        // A file replaced by a rename loses its watch along with the old file; watch the new one.
        QFileInfo now(file);
        if (now.isFile() && !now.isSymLink() && !watcher_.files().contains(file)) watcher_.addPath(file);
        trigger();
    });
}

void BackupSchedule::start(CurrentVolume currentVolume, Run run) {
    currentVolume_ = std::move(currentVolume);
    run_ = std::move(run);
    clock_->repeat(kPeriodMs, [this] { runNow(); });
    rewatch();
}

void BackupSchedule::rewatch() {
    QStringList old = watched();
    if (!old.isEmpty()) watcher_.removePaths(old);
    if (!BackupSettings::automatic() || BackupSettings::destination().isEmpty() || !currentVolume_) return;
    std::optional<QmVolume> volume = currentVolume_();
    if (!volume) return;
    skipped_ = QDir::cleanPath(volume->path + QStringLiteral("/.qm"));
    history_ = QDir::cleanPath(volume->path + QStringLiteral("/.qmv"));
    watchBelow(volume->path);
}

// Folders tell of files made, removed and renamed; a file's own watch tells of it being written
// in place, as a document saved over itself or a log appended to.
void BackupSchedule::watchBelow(const QString& folder) {
    const QStringList watchedNow = watched();
    const QSet<QString> known(watchedNow.begin(), watchedNow.end());
    // In the order they are watched while the bound allows: version files come last, since each
    // is written once under a new name, which its folder's watch already reports.
    QStringList folders, files, versions;
    QStringList pending{QDir::cleanPath(folder)};
    while (!pending.isEmpty() && known.size() + folders.size() + files.size() < kMaxWatched) {
        QString f = pending.takeLast();
        if (!known.contains(f)) folders << f;
        const bool historyFolder = QFileInfo(f).path() == history_;
        const auto entries = QDir(f).entryInfoList(QDir::Dirs | QDir::Files | QDir::NoDotAndDotDot | QDir::Hidden);
        for (const QFileInfo& e : entries) {
            const QString path = QDir::cleanPath(e.filePath());
            // The root's .qm holds the drive's key and statistics, which are never copied.
            if (e.isSymLink() || path == skipped_ || (!e.isDir() && known.contains(path))) continue;
            if (e.isDir())
                pending << path;
            else if (historyFolder && e.fileName() != QLatin1String("history.log") &&
                     e.fileName() != QLatin1String("refs"))
                versions << path;
            else
                files << path;
        }
    }
    QStringList found = folders + files + versions;
    found = found.mid(0, std::max<qsizetype>(0, kMaxWatched - known.size()));
    if (!found.isEmpty()) watcher_.addPaths(found);
}

QStringList BackupSchedule::watched() const { return watcher_.directories() + watcher_.files(); }

void BackupSchedule::trigger() { clock_->quiet(kQuietMs, [this] { runNow(); }); }

void BackupSchedule::runNow() {
    if (!BackupSettings::automatic() || !currentVolume_ || !run_) return;
    QString destination = BackupSettings::destination();
    if (destination.isEmpty()) return;
    std::optional<QmVolume> volume = currentVolume_();
    if (!volume) return;
    run_(*volume, destination);
}
