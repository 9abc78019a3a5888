// The Settings tab: everything that stays set. Keeping the app up to date, then backing up.
#pragma once
#include <QWidget>

class BackupModel;
class BackupSettingsSection;
class SettingsModel;
class UpdateSettingsSection;

class SettingsTab : public QWidget {
    Q_OBJECT
public:
    SettingsTab(SettingsModel* settings, BackupModel* backup, QWidget* parent = nullptr);
    UpdateSettingsSection* updateSection() const { return update_; }
    BackupSettingsSection* backupSection() const { return backup_; }

private:
    UpdateSettingsSection* update_;
    BackupSettingsSection* backup_;
};
