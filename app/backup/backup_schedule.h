// When automatic backups happen: every few minutes while the program is open, and a moment
// after the drive's folders change. Both depend on the user's "backupAutomatic" setting and on
// a destination being set; the schedule only decides when, the run callback does the work.
#pragma once
#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>

#include "volumes.h"

// The per-user settings a backup reads, in the program's settings store.
namespace BackupSettings {
QString destination();  // "" when unset
bool automatic();       // true when unset
void setDestination(const QString& path);
void setAutomatic(bool on);
}  // namespace BackupSettings

// What the schedule waits with: Qt's timers in the program; tests turn a clock by hand.
class BackupClock {
public:
    using Fire = std::function<void()>;
    virtual ~BackupClock() = default;
    // fire() every ms from now on.
    virtual void repeat(int ms, Fire fire) = 0;
    // fire() once, ms from now; a call before then moves that moment rather than adding one.
    virtual void quiet(int ms, Fire fire) = 0;

    // Qt's timers: the program's clock.
    static std::unique_ptr<BackupClock> timers();
};

class BackupSchedule : public QObject {
    Q_OBJECT
public:
    static constexpr int kPeriodMs = 300'000;  // the repeating run
    static constexpr int kQuietMs = 3'000;     // quiet time after the last change before a run
    using CurrentVolume = std::function<std::optional<QmVolume>()>;
    using Run = std::function<void(const QmVolume& volume, const QString& destination)>;

    // Without a clock, Qt's timers.
    explicit BackupSchedule(std::unique_ptr<BackupClock> clock = nullptr, QObject* parent = nullptr);

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

private:
    void watchBelow(const QString& folder);

    CurrentVolume currentVolume_;
    Run run_;
    std::unique_ptr<BackupClock> clock_;
    QFileSystemWatcher watcher_;
    QString skipped_;  // the drive's .qm folder
    QString history_;  // the drive's .qmv folder, whose subfolders hold version files
};
