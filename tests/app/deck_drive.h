// Drives for the application tests, written by the deck simulator's own code.
#pragma once
#include <QString>

#include "documents.h"
#include "statistics.h"
#include "temp_dir.h"

inline QString deckDrive(const TempDir& dir, deck::StatsState state, int docs = 0, int days = 60) {
    deck::StatsOptions o;
    o.seed = 5;
    o.days = days;
    o.state = state;
    if (!deck::write_statistics(dir.path(), o, false).empty()) return QString();
    if (docs > 0) {
        deck::DocOptions d;
        d.count = docs;
        if (!deck::write_documents(dir.path(), d, 5).empty()) return QString();
    }
    return QString::fromStdString(dir.path());
}
