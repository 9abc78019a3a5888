// The Backup tab's model: the drive (shared with the other tabs), where copies go, whether they
// happen on their own, the last run's outcome and any warning about it. Runs go off the main
// thread; every field changes on the main thread and is announced by changed().
#pragma once
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <functional>
#include <memory>
#include <optional>

#include "backup.h"
#include "backup_restore.h"
#include "backup_schedule.h"
#include "background_queue.h"
#include "cloud_sync.h"
#include "drive_selection.h"

class BackupModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;
    static const QString kNoDestinationStatus;
    static const QString kReadyStatus;
    static const QString kCopyingStatus;
    static const QString kCheckingStatus;
    static const QString kRestoringStatus;
    static const QString kNothingToCheckStatus;

    // Opens a folder in the file manager; true when it could.
    using Opener = std::function<bool(const QUrl&)>;

    explicit BackupModel(DriveSelection* drives, std::unique_ptr<BackupClock> clock = nullptr,
                         QObject* parent = nullptr);

    DriveSelection* driveSelection() const { return drives_; }
    const QList<QmVolume>& volumes() const { return drives_->volumes(); }
    const std::optional<QString>& selection() const { return drives_->path(); }
    std::optional<QmVolume> volume() const { return drives_->volume(); }
    const QString& destination() const { return destination_; }
    bool automatic() const { return automatic_; }
    // Cloud-sync folders on this computer, and those of them whose client is not installed.
    const QList<CloudFolder>& services() const { return services_; }
    const QList<CloudFolder>& missing() const { return missing_; }
    const QString& status() const { return status_; }
    // A run started from the tab is under way.
    bool busy() const { return manualRuns_ > 0; }
    // A run of either kind is under way.
    bool running() const { return manualRuns_ > 0 || automaticRunning_; }
    // A look for cloud folders, or for the drive's folder in the destination, is under way.
    bool detecting() const { return detecting_ || folderLookups_ > 0; }
    const std::optional<QString>& warning() const { return warning_; }
    bool warningIsSerious() const { return warningIsSerious_; }
    // How far the run under way has got; none between runs.
    const std::optional<BackupProgress>& progress() const { return progress_; }
    // The selected drive's folder inside the destination (the one its copies go to, told apart
    // from other drives of the same name); none without a drive or a destination. Looked for off
    // the main thread, as it lists the destination and reads the drive's key; changed() tells.
    const std::optional<QString>& folder() const { return folder_; }
    // The folder is there, made by an earlier run.
    bool folderExists() const { return folderExists_; }
    BackupSchedule& schedule() { return schedule_; }

    // Starts the automatic runs (timer and watch) and looks for cloud folders.
    void start();
    // Scans the drives again, looks for cloud folders again and renews the watch.
    void rescan();
    // Looks for cloud folders and their clients off the main thread (it walks PATH and the
    // running programs); changed() tells when the lists differ.
    void detectServices();
    // The destination, kept in the settings.
    void choose(const QString& path);
    void setAutomatic(bool on);
    // A run from the tab: copies what changed, or with deepVerify re-reads every copy (only said,
    // not run, while the drive has no copies in the destination).
    void runNow(bool deepVerify);
    // Puts the writing in backupFolder (a drive's folder, holding the manifest) back onto the
    // selected drive; nothing on the drive is overwritten.
    void restoreFrom(const QString& backupFolder);
    // Opens the drive's backup folder in the file manager; none when it did, else why not.
    std::optional<QString> revealFolder();
    void setOpener(Opener opener) { opener_ = std::move(opener); }

    // The status for the drive and destination now, and a new look for the drive's folder.
    void refreshStatus();
    // A finished run's outcome on the drive at path, as status and warning (manual and automatic
    // runs alike); nothing of it shows once another drive, or none, is selected.
    void show(const BackupResult& result, const QString& drive);
    void show(const RestoreResult& result, const QString& drive);

signals:
    void changed();
    // A run's result has been shown.
    void reported();

private:
    void lookUpFolder(const std::optional<QmVolume>& volume);
    void setFolder(const std::optional<QString>& folder, bool exists);
    void runAutomatic(const QmVolume& volume, const QString& destination);
    void setStatus(const QString& status);
    void dropWarning();
    // A status that tells what is missing before a run can happen; it gives way once nothing is.
    void setWaiting(const QString& status);
    void startManual(const QString& status, const QString& drive);
    // The outcome's summary and the time as status, the warning cleared. False when the run's
    // drive has gone meanwhile: the status then says so and the outcome is not shown.
    bool showSummary(const QString& summary, const QDateTime& when, const QString& drive);
    bool shows(const QString& drive) const { return volume() && volume()->path == drive; }
    Backup::RunOptions optionsFor(bool automatic);

    DriveSelection* drives_;
    QString destination_;
    std::optional<QString> folder_;
    bool folderExists_ = false;
    std::pair<QString, QString> folderFor_;  // the drive and destination folder_ was looked up for
    int folderAsked_ = 0;    // the latest look's number: an earlier one's answer is out of date
    int folderLookups_ = 0;  // looks under way
    bool automatic_ = true;
    QList<CloudFolder> services_;
    QList<CloudFolder> missing_;
    QString status_;
    bool waiting_ = false;  // status_ was set by setWaiting
    QString statusDrive_;   // the drive a run's status or outcome speaks of
    std::optional<QString> warning_;
    bool warningIsSerious_ = false;
    std::optional<BackupProgress> progress_;
    int manualRuns_ = 0;
    bool automaticRunning_ = false;
    bool detecting_ = false;
    bool detectAgain_ = false;  // asked again while a look was under way
    Opener opener_;
    BackupSchedule schedule_;
    BackgroundQueue background_;  // runs; last two: stopped first
    // Its own thread, so a long run does not hold back the cloud folders the settings show, nor
    // the drive's folder the tab shows.
    BackgroundQueue lookups_;
};
