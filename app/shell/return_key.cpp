#include "return_key.h"

#include <QAbstractButton>
#include <QDialog>
#include <QKeyEvent>

bool ReturnPressesButtons::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress) return false;
    auto* key = static_cast<QKeyEvent*>(event);
    if (key->key() != Qt::Key_Return && key->key() != Qt::Key_Enter) return false;
    if ((key->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier) return false;
    auto* button = qobject_cast<QAbstractButton*>(watched);
    if (!button || !button->hasFocus() || !button->isEnabled()) return false;
    if (qobject_cast<QDialog*>(button->window())) return false;
    button->animateClick();
    return true;
}
