// What the flash model asks or tells the user. The model only says so, by a signal; the view
// shows the dialog without blocking and hands a question's answer back by its id.
#pragma once
#include <QString>
#include <QStringList>

struct FlashDialog {
    enum class Kind { Warning, Critical, Information };
    Kind kind = Kind::Information;
    QString title;
    QString text;
    QStringList buttons;  // in the order shown; the first is the default
    int cancel = 0;       // the button Escape presses
    int id = 0;           // a question's, to answer it by; 0 for a report that needs no answer
    bool operator==(const FlashDialog&) const = default;
};
