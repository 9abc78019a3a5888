// The Statistics tab: totals, the heat map and the list of writing days.
#pragma once
#include <QWidget>

#include "heatmap_calendar.h"
#include "stats_model.h"

class DriveHeader;
class QLabel;
class QListView;
class QPushButton;
class Heatmap;
class PublishedAddress;

class StatsTab : public QWidget {
    Q_OBJECT
public:
    explicit StatsTab(StatsModel* model, QWidget* parent = nullptr);
    static QString duration(uint32_t secs) { return StatsText::duration(secs); }

    // The figures as shown, by their labels ("Writing sessions", ...), for tests and screen readers.
    QString total(const QString& label) const;
    QPushButton* publishButton() const { return publish_; }

private:
    void refreshFromModel();
    void fillTotals();
    void fillDays();
    // Selects the day's line in the list, or shows where it would be.
    void showDay(uint32_t day);

    StatsModel* model_;
    DriveHeader* header_;
    QLabel* status_;
    QPushButton* publish_;
    PublishedAddress* published_;
    QMap<QString, QLabel*> totals_;
    Heatmap* heatmap_;
    QListView* dayList_;
    QLabel* noDays_;
    QList<DayRow> shownDays_;
};
