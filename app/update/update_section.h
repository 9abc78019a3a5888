// The Settings tab's section on keeping the app up to date: the running version, automatic
// checks, the explicit check and the one-line state.
#pragma once
#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;
class SettingsModel;

class UpdateSettingsSection : public QWidget {
    Q_OBJECT
public:
    explicit UpdateSettingsSection(SettingsModel* model, QWidget* parent = nullptr);
    QPushButton* checkButton() const { return check_; }
    QLabel* statusLine() const { return status_; }

private:
    void refreshFromModel();

    SettingsModel* model_;
    QLabel* version_;
    QCheckBox* automatic_;
    QPushButton* check_;
    QLabel* status_;
};
