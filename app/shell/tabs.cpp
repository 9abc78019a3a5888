#include "tabs.h"

#include "account_tab.h"
#include "app_object.h"
#include "backup_tab.h"
#include "flash_view.h"
#include "history_tab.h"
#include "settings_tab.h"
#include "stats_tab.h"

namespace {
const TabEntry kTabs[] = {
    {"Install", "mac-install", [](QuillmateFlasherApp* app) -> QWidget* { return new FlashView(&app->flash); }},
    {"Statistics", "mac-stats", [](QuillmateFlasherApp* app) -> QWidget* { return new StatsTab(&app->stats); }},
    {"History", "mac-history", [](QuillmateFlasherApp* app) -> QWidget* { return new HistoryTab(&app->history); }},
    {"Backup", "mac-backup", [](QuillmateFlasherApp* app) -> QWidget* { return new BackupTab(&app->backup); }},
    {"Account", "mac-account", [](QuillmateFlasherApp* app) -> QWidget* { return new AccountTab(&app->account); }},
    {"Settings", "mac-settings",
     [](QuillmateFlasherApp* app) -> QWidget* { return new SettingsTab(&app->settings, &app->backup); }},
};
}  // namespace

std::span<const TabEntry> tabTable() { return kTabs; }
