// A tab's first rows: its title (and what the tab is for, when given), then the drive picker
// bound to the shared selection and the Refresh button.
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
    // A line under the title saying what the tab is for.
    void setDescription(const QString& text);

private:
    void fillPicker();

    DriveSelection* selection_;
    QComboBox* picker_;
    QPushButton* refresh_;
};
