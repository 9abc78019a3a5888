// The Settings tab: everything that stays set. The update section joins above the backup one
// when updates land.
#pragma once
#include <QWidget>

class BackupModel;
class BackupSettingsSection;

class SettingsTab : public QWidget {
    Q_OBJECT
public:
    explicit SettingsTab(BackupModel* backup, QWidget* parent = nullptr);
    BackupSettingsSection* backupSection() const { return backup_; }

private:
    BackupSettingsSection* backup_;
};
