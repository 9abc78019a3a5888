// The row over the tabs while an update is found and the banner has not been closed: what is
// available, its notes, install now, skip this version, close; under it, why the last install
// failed and what to do instead, since the Settings tab that also says so may not be in view.
#pragma once
#include <QFrame>

class QLabel;
class QPushButton;
class SettingsModel;
class UpdateNotes;

class UpdateBanner : public QFrame {
    Q_OBJECT
public:
    explicit UpdateBanner(SettingsModel* model, QWidget* parent = nullptr);
    QLabel* text() const { return text_; }
    QLabel* problem() const { return problem_; }
    QPushButton* notesButton() const { return notes_; }
    QPushButton* installButton() const { return install_; }
    QPushButton* skipButton() const { return skip_; }
    QPushButton* closeButton() const { return close_; }
    UpdateNotes* notesDialog() const { return dialog_; }

private:
    void refreshFromModel();

    SettingsModel* model_;
    QLabel* text_;
    QLabel* problem_;
    QPushButton* notes_;
    QPushButton* install_;
    QPushButton* skip_;
    QPushButton* close_;
    UpdateNotes* dialog_ = nullptr;
};
