// Which face the program shows, decided from the whole argument vector in a fixed order.
#pragma once
#include <QStringList>
#include <optional>

enum class Mode { Screenshot, BackupRun, BackupCheck, RestoreRun, UpdateCheck, Window };

// args includes the program path at index 0. The first row that applies wins: "--shot"
// anywhere; "--backup-run" followed by two more elements; "--backup-check" followed by one;
// "--restore-run" followed by two;
// "--check-update" or "--fetch-update" anywhere; otherwise the window.
Mode decideMode(const QStringList& args);

// The element after the first one equal to key, or empty when key is absent or last.
std::optional<QString> valueAfter(const QStringList& args, const QString& key);
