// The Install tab: the drive picker, boot mode and file system, the help text, progress and
// the Install button, and writing kept from a stick until it goes back on. It shows the model's
// dialogs, without blocking, and hands the answers back. The drives are listed when the tab
// first appears; later lists are the user's Refresh.
#pragma once
#include <QHash>
#include <QPointer>
#include <QWidget>
#include <functional>

#include "flash_model.h"

class QButtonGroup;
class QComboBox;
class QDialog;
class QGroupBox;
class QLabel;
class QProgressBar;
class QPushButton;

class FlashView : public QWidget {
    Q_OBJECT
public:
    explicit FlashView(FlashModel* model, QWidget* parent = nullptr);

    // What to do when no drive is listed; empty while one is.
    QString noDriveHint() const;

protected:
    void showEvent(QShowEvent* e) override;

private:
    void refreshFromModel();
    void showSelection();
    // Shows a dialog of `from` (the model or its keeper); answered(button index, or -1) once
    // it is closed.
    void present(const QObject* from, const FlashDialog& dialog, std::function<void(int)> answered);
    void chooseFolder(int id, const QString& caption);
    void closeQuestion(const QObject* from, int id);
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
    QHash<std::pair<const QObject*, int>, QPointer<QDialog>> open_;  // open questions, by asker and id
    bool listed_ = false;
    bool wrote_ = false;  // a write has started since the tab was made: progress is shown from then on
};
