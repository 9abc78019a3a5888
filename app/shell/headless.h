// The modes without a window that drive the backup: a run from the command line and the check
// of a folder's cloud service. Each prints plain lines and returns the exit status.
#pragma once
#include <QStringList>

namespace Headless {
// "--backup-run VOLUME DEST [--verify]"
int backupRun(const QStringList& args);
// "--backup-check FOLDER"
int backupCheck(const QStringList& args);
}  // namespace Headless
