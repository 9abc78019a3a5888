// The modes without a window that drive the backup: a run from the command line, the check of
// a folder's cloud service, and putting the writing back from a backup. Each prints plain lines
// and returns the exit status.
#pragma once
#include <QStringList>

namespace Headless {
// "--backup-run VOLUME DEST [--verify]"
int backupRun(const QStringList& args);
// "--backup-check FOLDER"
int backupCheck(const QStringList& args);
// "--restore-run FOLDER DRIVE": the writing in a drive's backup folder put back onto a drive.
int restoreRun(const QStringList& args);
}  // namespace Headless
