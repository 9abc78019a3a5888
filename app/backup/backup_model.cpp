#include "backup_model.h"

#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <chrono>
#include <utility>

#include "backup_manifest.h"

const QString BackupModel::kNoDriveStatus = QStringLiteral("Plug in a Quillmate drive and press Refresh.");
const QString BackupModel::kNoDestinationStatus =
    QStringLiteral("Choose a folder, or one of the services found on this computer.");
const QString BackupModel::kReadyStatus =
    QStringLiteral("Ready. Press Back up now, or leave it to happen on its own.");
const QString BackupModel::kCopyingStatus = QStringLiteral("Copying...");
const QString BackupModel::kCheckingStatus = QStringLiteral("Checking every copy against the drive...");
const QString BackupModel::kRestoringStatus = QStringLiteral("Putting the writing back onto the drive...");
const QString BackupModel::kNothingToCheckStatus =
    QStringLiteral("There is nothing to check yet: this drive has no copies in the folder. Press Back up now first.");

namespace {

// Progress is drawn at most this often; a run over thousands of small files would otherwise
// queue a repaint per file.
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

// "One copy could not be verified: a; b", or "2 copies could not..." when many is given "%1 copies...".
QString failuresWarning(const QStringList& failures, const QString& one, const QString& many) {
    return (failures.size() == 1 ? one : many.arg(failures.size())) + failures.join(QStringLiteral("; "));
}

}  // namespace

BackupModel::BackupModel(DriveSelection* drives, std::unique_ptr<BackupClock> clock, QObject* parent)
    : QObject(parent),
      drives_(drives),
      destination_(BackupSettings::destination()),
      automatic_(BackupSettings::automatic()),
      opener_([](const QUrl& url) { return QDesktopServices::openUrl(url); }),
      schedule_(std::move(clock)) {
    connect(drives_, &DriveSelection::changed, this, [this] {
        refreshStatus();
        schedule_.rewatch();
        emit changed();  // the volume itself is shown
    });
    refreshStatus();
}

void BackupModel::start() {
    detectServices();
    schedule_.start([this] { return volume(); },
                    [this](const QmVolume& v, const QString& destination) { runAutomatic(v, destination); });
}

void BackupModel::rescan() {
    drives_->rescan();
    detectServices();
    refreshStatus();
    schedule_.rewatch();
}

void BackupModel::detectServices() {
    if (detecting_) {
        detectAgain_ = true;  // one more look once this one is in: a client installed meanwhile shows
        return;
    }
    detecting_ = true;
    lookups_.post(
        [] {
            std::pair<QList<CloudFolder>, QList<CloudFolder>> lists{CloudFolders::detect(), {}};
            for (const CloudFolder& f : lists.first)
                if (!CloudSync::clientInstalled(f.name)) lists.second << f;
            return lists;
        },
        [this](std::pair<QList<CloudFolder>, QList<CloudFolder>> lists) {
            detecting_ = false;
            if (std::exchange(detectAgain_, false)) detectServices();
            if (lists.first == services_ && lists.second == missing_) return;
            services_ = std::move(lists.first);
            missing_ = std::move(lists.second);
            emit changed();
        });
}

void BackupModel::choose(const QString& path) {
    BackupSettings::setDestination(path);
    destination_ = path;
    refreshStatus();
    schedule_.rewatch();
    emit changed();
}

void BackupModel::setAutomatic(bool on) {
    BackupSettings::setAutomatic(on);
    automatic_ = on;
    schedule_.rewatch();
    emit changed();
}

void BackupModel::refreshStatus() {
    std::optional<QmVolume> v = volume();
    lookUpFolder(v);
    if (!v && drives_->gone()) {
        // A drive that went takes what was shown of it along, the last run's outcome included.
        dropWarning();
        setWaiting(DriveSelection::goneText(*drives_->gone()));
    } else if (!v) {
        setWaiting(kNoDriveStatus);
    } else if (destination_.isEmpty()) {
        setWaiting(kNoDestinationStatus);
    } else if (status_.isEmpty() || waiting_ || v->path != statusDrive_) {
        // The outcome of the last run stays until the next one while its drive is shown; the
        // waiting texts, and what was said of another drive, give way.
        if (v->path != statusDrive_) dropWarning();
        setStatus(kReadyStatus);
    }
}

void BackupModel::lookUpFolder(const std::optional<QmVolume>& v) {
    const int asked = ++folderAsked_;
    const std::pair<QString, QString> wanted{v ? v->path : QString(), destination_};
    // Another drive's or folder's copies are not shown while this one's are looked up.
    if (!v || destination_.isEmpty() || wanted != folderFor_) setFolder(std::nullopt, false);
    folderFor_ = wanted;
    if (!v || destination_.isEmpty()) return;
    ++folderLookups_;
    lookups_.post(
        [volume = *v, destination = destination_] {
            QString folder = Backup::folderFor(destination, volume);
            return std::pair{folder, QFileInfo(folder).isDir()};
        },
        [this, asked](std::pair<QString, bool> found) {
            --folderLookups_;
            if (asked == folderAsked_) setFolder(found.first, found.second);
        });
}

void BackupModel::setFolder(const std::optional<QString>& folder, bool exists) {
    if (folder == folder_ && exists == folderExists_) return;
    folder_ = folder;
    folderExists_ = exists;
    emit changed();
}

void BackupModel::dropWarning() {
    if (!warning_) return;
    warning_.reset();
    warningIsSerious_ = false;
    emit changed();
}

void BackupModel::setWaiting(const QString& status) {
    setStatus(status);
    waiting_ = true;
}

void BackupModel::setStatus(const QString& status) {
    waiting_ = false;
    if (status_ == status) return;
    status_ = status;
    emit changed();
}

Backup::RunOptions BackupModel::optionsFor(bool automatic) {
    Backup::RunOptions options;
    options.waitForOtherRuns = !automatic;
    options.progress = Backup::throttled(kProgressInterval, [this](const BackupProgress& p) {
        background_.deliver([this, p] {
            progress_ = p;
            emit changed();
        });
    });
    return options;
}

void BackupModel::startManual(const QString& status, const QString& drive) {
    ++manualRuns_;
    statusDrive_ = drive;
    warning_.reset();
    warningIsSerious_ = false;
    setStatus(status);
    emit changed();
}

void BackupModel::runNow(bool deepVerify) {
    std::optional<QmVolume> v = volume();
    if (!v || busy()) return;
    startManual(deepVerify ? kCheckingStatus : kCopyingStatus, v->path);
    background_.post(
        [volume = *v, destination = destination_, deepVerify,
         options = optionsFor(false)]() -> std::optional<BackupResult> {
            // A check on a drive never backed up here would make every copy first: a backup in disguise.
            if (deepVerify && !QFileInfo::exists(Backup::folderFor(destination, volume) + QLatin1Char('/') +
                                                 QLatin1String(BackupManifest::kFileName)))
                return std::nullopt;
            return Backup::run(volume, destination, deepVerify, options);
        },
        [this, drive = v->path](std::optional<BackupResult> result) {
            --manualRuns_;
            if (result) return show(*result, drive);
            if (shows(drive)) setStatus(kNothingToCheckStatus);
            else refreshStatus();  // the drive went or another was chosen meanwhile: that is what the tab says
            emit changed();
            emit reported();
        });
}

void BackupModel::restoreFrom(const QString& backupFolder) {
    std::optional<QmVolume> v = volume();
    if (!v || busy()) return;
    startManual(kRestoringStatus, v->path);
    background_.post([backupFolder, root = v->path,
                      options = optionsFor(false)] { return Backup::restore(backupFolder, root, options); },
                     [this, drive = v->path](RestoreResult result) {
                         --manualRuns_;
                         show(result, drive);
                     });
}

void BackupModel::runAutomatic(const QmVolume& v, const QString& destination) {
    if (automaticRunning_) return;  // a slow run is still going: the next tick or change comes soon enough
    automaticRunning_ = true;
    background_.post(
        [v, destination, options = optionsFor(true)] { return Backup::run(v, destination, false, options); },
        [this, drive = v.path](BackupResult result) {
            automaticRunning_ = false;
            if (result.skipped) {  // another run had the folder; it reports for both
                if (progress_ && !busy()) {
                    progress_.reset();
                    emit changed();
                }
                return;
            }
            show(result, drive);
        });
}

std::optional<QString> BackupModel::revealFolder() {
    std::optional<QString> f = folder();
    if (!f || !QDir(*f).exists())
        return QStringLiteral("There is no folder to open yet: nothing has been copied from this drive.");
    if (opener_(QUrl::fromLocalFile(*f))) return std::nullopt;
    return QStringLiteral("The file manager could not be started. The copies are in %1")
        .arg(QDir::toNativeSeparators(*f));
}

bool BackupModel::showSummary(const QString& summary, const QDateTime& when, const QString& drive) {
    progress_.reset();
    if (!shows(drive)) {  // the run's drive went, or another was chosen, meanwhile: the tab keeps to the one shown
        refreshStatus();
        emit changed();
        emit reported();
        return false;
    }
    warning_.reset();
    warningIsSerious_ = false;
    statusDrive_ = drive;
    setStatus(summary + QLatin1Char('\n') + QLocale().toString(when, QLocale::ShortFormat));
    return true;
}

void BackupModel::show(const RestoreResult& result, const QString& drive) {
    if (!showSummary(result.summary(), QDateTime::currentDateTime(), drive)) return;
    if (!result.failures.isEmpty()) {
        warning_ = failuresWarning(result.failures, QStringLiteral("One file could not be put back: "),
                                   QStringLiteral("%1 files could not be put back: "));
        warningIsSerious_ = true;
    }
    emit changed();
    emit reported();
}

void BackupModel::show(const BackupResult& result, const QString& drive) {
    if (!showSummary(result.summary(), result.finished, drive)) return;
    if (!result.folder.isEmpty()) {
        ++folderAsked_;  // a look begun before the run may not have seen the folder made
        folder_ = result.folder;
        folderExists_ = true;
    }
    if (!result.failures.isEmpty()) {
        warning_ = failuresWarning(result.failures, QStringLiteral("One copy could not be verified: "),
                                   QStringLiteral("%1 copies could not be verified: "));
        warningIsSerious_ = true;
    } else if (result.cloudWarning) {
        // Copies that sit in a folder nobody uploads, or a disk about to fill: worth the colour.
        warning_ = result.cloudWarning;
        warningIsSerious_ = true;
    } else if (!result.error) {
        if (std::optional<QString> f = folder()) warning_ = CloudSync::uploadNote(*f);
    }
    emit changed();
    emit reported();
}
