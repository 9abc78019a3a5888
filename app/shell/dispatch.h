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

// What the command line can do, one mode a line, for a call that cannot be carried out.
QString usageText();

// Why "--drive" cannot be shown: nothing after it, or a folder that is not a Quillmate drive
// (no key, stats.db or fonts folder, so nothing may be written into it). None when it is absent
// or fine.
std::optional<QString> driveArgumentProblem(const QStringList& args);
