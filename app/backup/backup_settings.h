// The Settings tab's section on backups: where copies go (a cloud folder found on this
// computer or any folder) and whether they happen on their own.
#pragma once
#include <QWidget>
#include <functional>

#include "backup_model.h"

class QCheckBox;
class QLabel;
class QVBoxLayout;

class BackupSettingsSection : public QWidget {
    Q_OBJECT
public:
    // Asks the user for a folder; empty when cancelled.
    using FolderPicker = std::function<QString(QWidget* parent, const QString& start)>;

    explicit BackupSettingsSection(BackupModel* model, QWidget* parent = nullptr);
    void setFolderPicker(FolderPicker picker) { picker_ = std::move(picker); }

protected:
    void showEvent(QShowEvent* e) override;

private:
    void refreshFromModel();
    void fillServices();
    void pick();

    BackupModel* model_;
    FolderPicker picker_;
    QVBoxLayout* serviceButtons_;
    QLabel* noServices_;
    QLabel* missing_;
    QLabel* destination_;
    QCheckBox* automatic_;
    QList<CloudFolder> shownServices_;
};
