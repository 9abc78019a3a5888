// Keeping a stick's writing across a reflash. The documents and their histories go into the
// backup folder by a verified backup run; the drive's own files, which never go there (its key,
// its statistics, the deck's settings and autosave), are kept in a private folder of this
// program until they are back on the new stick. Blocking file work: call it off the main thread.
#pragma once
#include <QDateTime>
#include <QList>
#include <QString>
#include <functional>
#include <optional>

#include "backup.h"
#include "volumes.h"

struct KeptFile {
    QString rel;  // relative to the drive's root, "/"-separated
    QString sha256;
    qint64 size = 0;
    bool operator==(const KeptFile&) const = default;
};

// One stick's kept files and where its documents went, as stored in its folder's kept.json.
struct KeptSet {
    QString folder;        // the set's private folder: kept.json and files/
    QString disk;          // the stick, by the lasting name the writer was given
    QString stick;         // the stick as the user knows it (its model)
    QString volumeName;    // the data partition's name before the erase
    QString backupFolder;  // the folder the backup run filled (its manifest lists the documents)
    int documents = 0;
    QDateTime made;
    QList<KeptFile> files;
};

namespace KeepWriting {

// What one backup-then-keep does.
struct Plan {
    QmVolume volume;      // the stick's data partition
    QString destination;  // the backup folder chosen in Settings (or just now)
    QString disk;
    QString stick;
    int documents = 0;
};

// The outcome of keep(): the set, or why nothing may be erased.
struct Kept {
    std::optional<KeptSet> set;
    QString problem;  // a sentence for the user when set is none
};

// The outcome of putBack().
struct PutBack {
    bool ok = false;
    QString message;  // what was done, or what went wrong
};

// AppDataLocation + "/kept".
QString defaultRoot();

// The named documents on a drive: the deck keeps each one as a regular, non-hidden file at the
// top of the data partition; its own files there (statistics, settings, autosave) are not counted.
int documentCount(const QString& driveRoot);

// The drive's own files that stay on this computer: everything under .qm/ (the key among it)
// and, at the top, stats.db, stats.bak, settings.cfg and autosave.md; relative paths. What
// cannot be read under .qm/ is listed too, so keeping it fails rather than leaving it behind.
QStringList ownFiles(const QString& driveRoot);

// Backs the writing up (Backup::run, verified) and, only when every file made it, copies the
// drive's own files into a new 0700 folder under keptRoot, each checked by SHA-256. Nothing is
// left in keptRoot when this fails.
Kept keep(const Plan& plan, const QString& keptRoot, const Backup::RunOptions& options = {});

// Puts a set back on the drive mounted at driveRoot: the kept files first (each through a
// temporary file that is checked before it is renamed into place; a differing file already on
// the drive is left alone and counts as a failure), then the documents from the backup folder
// (Backup::restore). Only when all of it worked is the set's folder deleted.
PutBack putBack(const KeptSet& set, const QString& driveRoot, const Backup::RunOptions& options = {});

// The sets under keptRoot that were never put back, oldest first. A folder without a readable
// kept.json (a keep cut short) is not a set.
QList<KeptSet> load(const QString& keptRoot);

// Deletes a set's folder; for a stick that was never touched after all.
bool forget(const KeptSet& set);

}  // namespace KeepWriting
