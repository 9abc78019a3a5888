// Work under way that quitting or an update's restart would cut short: a drive being written,
// a backup, a restore. Closing the window ends the process only after such work has ended,
// unseen, so the window asks first.
#pragma once
#include <QString>
#include <optional>

class BackupModel;
class FlashModel;
class HistoryModel;
class SettingsModel;

namespace RunningWork {

struct QuitWarning {
    QString question;  // the dialog's main text
    QString text;      // what goes on, and what to mind
};

// What quitting now would leave running out of sight, the most harmful first; none when
// nothing is.
std::optional<QuitWarning> quitWarning(const FlashModel& flash, const BackupModel& backup, const HistoryModel& history);

// An update waits for a write to end before it restarts the program, and no write starts while
// the update is being put in place.
void keepUpdatesOffWrites(FlashModel& flash, SettingsModel& settings);

}  // namespace RunningWork
