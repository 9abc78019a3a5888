// The Backup tab: the drive, where its copies go, the buttons that run a backup now, the last
// outcome and any warning about it.
#pragma once
#include <QWidget>

#include "backup_model.h"

class DriveHeader;
class QLabel;
class QPushButton;

class BackupTab : public QWidget {
    Q_OBJECT
public:
    explicit BackupTab(BackupModel* model, QWidget* parent = nullptr);

    // "12 of 340 files, 1.2 MB of 4.0 MB".
    static QString progressText(const BackupProgress& p);

protected:
    void showEvent(QShowEvent* e) override;

private:
    void refreshFromModel();
    void chooseAndPutBack();

    BackupModel* model_;
    DriveHeader* header_;
    QLabel* destination_;
    QLabel* driveFolder_;  // which folder the selected stick's copies go to
    QPushButton* backUp_;
    QPushButton* check_;
    QPushButton* open_;
    QPushButton* putBack_;
    QLabel* progress_;
    QLabel* status_;
    QLabel* warning_;
};
