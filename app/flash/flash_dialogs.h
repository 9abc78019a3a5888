// The flash model's modal questions and reports, answered by the view (or by a test).
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
    bool operator==(const FlashDialog&) const = default;
};

class FlashDialogs {
public:
    virtual ~FlashDialogs() = default;
    // Shows the dialog until it is answered; the index of the button pressed, or -1.
    virtual int ask(const FlashDialog& dialog) = 0;
    // Asks for a folder; empty when none was chosen.
    virtual QString chooseFolder(const QString& caption) = 0;
};
