// The application object: the tabs' models, created once in their order and kept for the
// life of the process. The flash, backup, account and settings models join as those
// subsystems land (order: flash, stats, history, backup, account, settings).
#pragma once
#include <QString>

#include "history_model.h"
#include "stats_model.h"

class QuillmateFlasherApp {
public:
    StatsModel stats;
    HistoryModel history;

    // "--drive <path>": that path becomes the only volume of the drive models, named as given.
    void pinDrive(const QString& path, const QString& name);
};
