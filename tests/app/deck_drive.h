// Drives for the application tests, written by the deck simulator's own code; their paths as QStrings, and
// widgets found by their text.
#pragma once
#include <QPushButton>
#include <QString>

#include "documents.h"
#include "statistics.h"
#include "temp_dir.h"

inline QString q(const std::string& path) { return QString::fromStdString(path); }
inline QString q(const TempDir& dir) { return q(dir.path()); }

template <class W = QPushButton>
W* withText(QWidget* parent, const QString& text) {
    for (W* w : parent->findChildren<W*>())
        if (w->text() == text) return w;
    return nullptr;
}

inline QString deckDrive(const TempDir& dir, deck::StatsState state, int docs = 0, int days = 60) {
    if (!deck::write_statistics(dir.path(), {.seed = 5, .days = days, .state = state}, false).empty()) return QString();
    if (docs > 0 && !deck::write_documents(dir.path(), {.count = docs}, 5).empty()) return QString();
    return q(dir);
}
