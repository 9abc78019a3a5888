// One backup run: the writing on a mounted drive copied into a folder of the user's choice,
// every copy checked by SHA-256, a few older copies re-checked each time, and nothing in the
// backup folder ever deleted. Blocking file work; always called off the user-interface thread.
#pragma once
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "volumes.h"

struct BackupResult {
    int copied = 0;     // new or changed files copied and verified
    int unchanged = 0;  // already up to date
    int rechecked = 0;  // older copies re-read and found intact
    int repaired = 0;   // damaged or missing copies put back
    int64_t bytes = 0;  // total size of the copied files
    QStringList failures;
    std::optional<QString> cloudWarning;
    std::optional<QString> error;  // the run could not start; all counts are 0
    QString folder;                // the drive's folder the run used; empty when it could not start
    QDateTime finished = QDateTime::currentDateTime();
    // An automatic run found another run on the same folder under way and did nothing.
    bool skipped = false;

    QString summary() const;
    static QString human(int64_t bytes);
};

// Where a run stands, for a progress line.
struct BackupProgress {
    int filesDone = 0;
    int filesTotal = 0;
    int64_t bytesDone = 0;
    int64_t bytesTotal = 0;
};

namespace Backup {

struct RunOptions {
    // Called from the run's thread after each file.
    std::function<void(const BackupProgress&)> progress;
    // When another run holds the folder: wait for it (true), or give up at once with
    // `skipped` set (false; the automatic runs).
    bool waitForOtherRuns = true;
};

// A progress callback that passes reports on to `report` at most once per interval, and always
// the one that ends a phase: thousands of small files would otherwise queue a repaint each.
std::function<void(const BackupProgress&)> throttled(std::chrono::milliseconds interval,
                                                     std::function<void(const BackupProgress&)> report);

BackupResult run(const QmVolume& volume, const QString& destination, bool deepVerify,
                 const RunOptions& options = {});

// The drive's folder name inside "Quillmate": the volume name trimmed, "Writing stick" when
// blank, every "/" turned into "-".
QString folderName(const QString& volumeName);
// Who the drive is, so that two drives with one name never share a folder: "key " and the drive
// id of its key, else "fs " and its file system's UUID; empty when neither can be read.
QString driveIdentity(const QmVolume& volume);
// The folder under destination + "/Quillmate" that holds this drive's copies, or the one a first
// run would make: the folder whose manifest names the drive; else the first one of the drive's
// name that names no drive (a folder from before drives were told apart); else a new one,
// "NAME", then "NAME 2" and on. Nothing is made.
QString folderFor(const QString& destination, const QmVolume& volume);
// Why copies cannot go into destination now (it is not there, or not a folder); none when they can.
std::optional<QString> destinationProblem(const QString& destination);

// SHA-256 of the file as 64 lower-case hex digits, read 64 KiB at a time; none if unreadable.
std::optional<QString> hashFile(const QString& path);

// Copies src to dst, hashing what is read and then what arrived; returns the verified hash,
// or none after adding a failure line to result.
std::optional<QString> copyVerified(const QString& src, const QString& dst, const QDateTime& mtime,
                                    BackupResult& result);

}  // namespace Backup
