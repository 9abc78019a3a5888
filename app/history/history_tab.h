// The History tab: pick a document, browse its versions, read or compare one, put it back.
#pragma once
#include <QWidget>

#include "history_model.h"

class QComboBox;
class QLabel;
class QListWidget;
class QPlainTextEdit;
class QPushButton;
class QMessageBox;

class HistoryTab : public QWidget {
    Q_OBJECT
public:
    explicit HistoryTab(HistoryModel* model, QWidget* parent = nullptr);

    // The restore confirmation while it is open (the tab's `confirming` state), else null.
    QMessageBox* confirmation() const { return confirmation_; }

private:
    void refreshFromModel();
    void fillPicker();
    void fillLists();
    void fillShownText();
    void askToRestore();

    HistoryModel* model_;
    QComboBox* picker_;
    QPushButton* refresh_;
    QListWidget* documents_;
    QListWidget* versions_;
    QPlainTextEdit* reading_;
    QListWidget* comparison_;
    QPushButton* view_;
    QPushButton* compare_;
    QPushButton* restore_;
    QLabel* status_;
    QMessageBox* confirmation_ = nullptr;
    bool filling_ = false;
};
