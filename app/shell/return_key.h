// Return and Enter press the focused button, as Space does, outside dialogs too (dialogs already
// give Return to their default button). Installed on the application by the main window.
#pragma once
#include <QObject>

class ReturnPressesButtons : public QObject {
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
};
