// The calendar heat map: 53 weeks of days, shaded by words written.
#pragma once
#include <QWidget>

#include "heatmap_calendar.h"

class Heatmap : public QWidget {
    Q_OBJECT
public:
    explicit Heatmap(QWidget* parent = nullptr);
    void setDays(const QList<DayRow>& days);
    const HeatmapCalendar& calendar() const { return calendar_; }
    static QColor shade(uint32_t words, uint32_t peak) { return HeatmapCalendar::shade(words, peak); }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent*) override;
    bool event(QEvent* e) override;

private:
    QRect cellRect(int week, int weekday) const;
    HeatmapCalendar calendar_;
};
