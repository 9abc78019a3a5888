// When automatic backups happen: every few minutes while the program is open, and a moment
// after the drive's folders change. Both depend on the user's "backupAutomatic" setting and on
// a destination being set; the schedule only decides when, the run callback does the work.
#pragma once
#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <functional>
#include <optional>

#include "volumes.h"

// The per-user settings a backup reads, in the program's settings store.
namespace BackupSettings {
QString destination();  // "" when unset
bool automatic();       // true when unset
void setDestination(const QString& path);
void setAutomatic(bool on);
}  // namespace BackupSettings

struct BackupTimings {
    int periodMs = 300'000;  // the repeating run
    int debounceMs = 3'000;  // quiet time after the last change before a run
};

class BackupSchedule : public QObject {
    Q_OBJECT
public:
    using Timings = BackupTimings;
    using CurrentVolume = std::function<std::optional<QmVolume>()>;
    using Run = std::function<void(const QmVolume& volume, const QString& destination)>;

    explicit BackupSchedule(Timings timings = {}, QObject* parent = nullptr);

    // Keeps both callbacks, starts the repeating timer and sets up the watch.
    void start(CurrentVolume currentVolume, Run run);
    // Watches the current volume's folders and files, or nothing when automatic runs could not happen.
    void rewatch();
    // A change: one run after the quiet time, however many changes come before it.
    void trigger();
    // Runs when automatic runs are on, a destination is set and a volume is known.
    void runNow();

    // The folders and files watched now, for tests.
    QStringList watched() const;

signals:
    // runNow() found everything in place and handed a run to the run callback.
    void due();

private:
    void watchBelow(const QString& folder);

    CurrentVolume currentVolume_;
    Run run_;
    QTimer period_;
    QTimer debounce_;
    QFileSystemWatcher watcher_;
    QString skipped_;  // the drive's .qm folder
    QString history_;  // the drive's .qmv folder, whose subfolders hold version files
};
