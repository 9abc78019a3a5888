// The Install tab: the drive picker, boot mode and file system, the help text, progress and
// the Install button, and writing kept from a stick until it goes back on. It also answers the
// model's dialogs. The drives are listed when the tab first appears; later lists are the
// user's Refresh.
#pragma once
#include <QWidget>

#include "flash_model.h"

class QButtonGroup;
class QComboBox;
class QGroupBox;
class QLabel;
class QProgressBar;
class QPushButton;

class FlashView : public QWidget, public FlashDialogs {
    Q_OBJECT
public:
    explicit FlashView(FlashModel* model, QWidget* parent = nullptr);
    int ask(const FlashDialog& dialog) override;
    QString chooseFolder(const QString& caption) override;

    // What to do when no drive is listed; empty while one is.
    QString noDriveHint() const;

protected:
    void showEvent(QShowEvent* e) override;

private:
    void refreshFromModel();
    void fillPicker();
    QButtonGroup* segmented(const QStringList& texts, QGroupBox* box, QLayout* into);

    FlashModel* model_;
    QComboBox* picker_;
    QPushButton* showAll_;
    QPushButton* refresh_;
    QLabel* hint_;
    QGroupBox* choices_;
    QButtonGroup* boot_;
    QButtonGroup* fs_;
    QLabel* notes_;
    QProgressBar* progress_;
    QLabel* detail_;
    QLabel* status_;
    QPushButton* install_;
    QWidget* kept_;
    QLabel* keptText_;
    QPushButton* putBack_;
    bool listed_ = false;
    bool wrote_ = false;  // a write has started since the tab was made: progress is shown from then on
};
