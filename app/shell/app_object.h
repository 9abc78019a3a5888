// The application object: the tabs' models and the drive selection they share, created once in
// their order and kept for the life of the process (order: flash, stats, history, backup,
// account, settings).
#pragma once
#include <QString>
#include <QStringList>

#include "account_model.h"
#include "backup_model.h"
#include "cloud_client.h"
#include "drive_selection.h"
#include "flash_model.h"
#include "history_model.h"
#include "settings_model.h"
#include "stats_model.h"

// Publishes a drive's statistics through the account service's client: sign-in check,
// registration of the drive, upload.
StatsModel::Publisher publishThrough(CloudClient& cloud);

class QuillmateFlasherApp {
public:
    FlashModel flash;
    DriveSelection drives;
    CloudClient statsCloud;  // the statistics' publishing
    StatsModel stats{&drives, publishThrough(statsCloud)};
    HistoryModel history{&drives};
    BackupModel backup{&drives};
    AccountModel account;
    SettingsModel settings;

    // An update's restart waits for a write to end.
    QuillmateFlasherApp();
    enum class Start { Window, Screenshot };
    // The start of the window and of the screenshot mode alike: "--drive <path>" makes that
    // folder the only drive, shown as pinnedName (or its folder name when that is empty);
    // otherwise the mounted volumes are scanned. The screenshot mode writes nothing anywhere: no
    // automatic backups (a sample drive must not be copied into the user's backup folder) and
    // no drive key.
    void start(const QStringList& args, Start how = Start::Window, const QString& pinnedName = QString());
    // Some model still has background work on its way.
    bool busy() const;
};
