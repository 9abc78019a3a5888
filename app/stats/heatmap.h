// The calendar heat map: 53 weeks of days, shaded by words written, labelled as the published
// page labels it. A day is chosen by clicking it, or with the arrow keys and Return.
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
    // Marks that day as the current one (shown when the map has the focus); chooses nothing.
    void setCurrentDay(uint32_t day);
    uint32_t currentDay() const;

    QSize sizeHint() const override;

signals:
    void dayChosen(uint32_t day);

protected:
    void paintEvent(QPaintEvent*) override;
    bool event(QEvent* e) override;
    void mousePressEvent(QMouseEvent* e) override;
    void keyPressEvent(QKeyEvent* e) override;

private:
    QRect cellRect(int week, int weekday) const;
    QRect cellRect(int index) const {
        return cellRect(index / HeatmapCalendar::kDaysPerWeek, index % HeatmapCalendar::kDaysPerWeek);
    }
    int cellAt(QPoint pos) const;  // index in the calendar's cells, or -1
    QFont labelFont() const;

    HeatmapCalendar calendar_;
    int current_ = -1;  // index in the calendar's cells
    int left_ = 0;      // room for the weekday labels
};
