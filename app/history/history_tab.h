// The History tab: pick a document, browse its versions, read or compare one, put it back.
#pragma once
#include <QWidget>

#include "history_model.h"

class DriveHeader;
class QAbstractItemView;
class QLabel;
class QListView;
class QMessageBox;
class QPlainTextEdit;
class QPushButton;
class QStackedLayout;

class HistoryTab : public QWidget {
    Q_OBJECT
public:
    explicit HistoryTab(HistoryModel* model, QWidget* parent = nullptr);

    // The restore confirmation while it is open (the tab's `confirming` state), else null.
    QMessageBox* confirmation() const { return confirmation_; }

private:
    void refreshFromModel();
    void showChoices();
    void fillShownText();
    void askToRestore();

    HistoryModel* model_;
    DriveHeader* header_;
    QListView* documents_;
    QListView* versions_;
    QStackedLayout* shown_;
    QPlainTextEdit* reading_;
    QListView* comparison_;
    QPushButton* restore_;
    QLabel* status_;
    QLabel* notice_;  // what a restore put back
    QString shownText_;
    QMessageBox* confirmation_ = nullptr;
};
