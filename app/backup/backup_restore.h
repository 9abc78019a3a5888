// Putting the writing back from a drive's backup folder onto a drive (a new stick, or the same
// one after a loss). Every file goes through a temporary file and a rename and is checked
// against its manifest row; a file on the drive that differs from the backup is never
// overwritten, the backup's copy goes beside it instead. Blocking; called off the UI thread.
#pragma once
#include <QString>
#include <QStringList>
#include <cstdint>
#include <optional>

#include "backup.h"

struct RestoreResult {
    int restored = 0;      // files put onto the drive and verified
    int alreadyThere = 0;  // the drive already held the same content
    int keptBeside = 0;    // the drive's own differing file kept, the backup's copy put beside it
    int64_t bytes = 0;     // total size of the files written
    QStringList failures;
    std::optional<QString> error;  // nothing could be done; all counts are 0

    QString summary() const;
};

namespace Backup {

// backupFolder holds ".quillmate-backup" (the folder a run fills for one drive); driveRoot is
// the drive's mounted folder. Progress is reported like a run's.
RestoreResult restore(const QString& backupFolder, const QString& driveRoot, const RunOptions& options = {});

// Where the backup's copy of rel goes when the drive holds a different file there:
// "Chapter.md" -> "Chapter (from backup).md", then "(from backup 2)" and on while taken.
QByteArray besideName(const QByteArray& rel, int attempt);

}  // namespace Backup
