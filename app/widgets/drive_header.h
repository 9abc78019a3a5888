// A tab's first rows: its title, then the drive picker bound to the shared selection and the
// Refresh button.
#pragma once
#include <QWidget>
#include <functional>

class DriveSelection;
class QComboBox;
class QPushButton;

class DriveHeader : public QWidget {
    Q_OBJECT
public:
    DriveHeader(const QString& title, DriveSelection* selection, std::function<void()> refresh,
                QWidget* parent = nullptr);
    void setRefreshEnabled(bool enabled);

private:
    void fillPicker();

    DriveSelection* selection_;
    QComboBox* picker_;
    QPushButton* refresh_;
};
