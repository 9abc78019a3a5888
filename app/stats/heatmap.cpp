#include "heatmap.h"

#include <QHelpEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QToolTip>

namespace {
constexpr int kCell = 8, kGap = 1, kTop = 14, kLegend = 16;
const char* const kWeekdays[] = {"Mon", "", "Wed", "", "Fri", "", ""};
}  // namespace

Heatmap::Heatmap(QWidget* parent) : QWidget(parent) {
    calendar_ = HeatmapCalendar::build({});
    left_ = QFontMetrics(labelFont()).horizontalAdvance(QStringLiteral("Wed")) + 4;
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(tr("Words written per day over the last year"));
}

QFont Heatmap::labelFont() const {
    QFont f = font();
    f.setPointSize(8);
    return f;
}

void Heatmap::setDays(const QList<DayRow>& days) {
    uint32_t kept = currentDay();
    calendar_ = HeatmapCalendar::build(days);
    current_ = calendar_.indexOf(kept);
    if (current_ < 0 && !days.isEmpty()) current_ = calendar_.indexOf(days.last().day);
    update();
}

void Heatmap::setCurrentDay(uint32_t day) {
    int index = calendar_.indexOf(day);
    if (index < 0) return;
    current_ = index;
    update();
}

uint32_t Heatmap::currentDay() const { return current_ >= 0 ? calendar_.cells[current_].day : 0; }

QSize Heatmap::sizeHint() const {
    return {left_ + HeatmapCalendar::kWeeks * (kCell + kGap),
            kTop + HeatmapCalendar::kDaysPerWeek * (kCell + kGap) + kLegend};
}

QRect Heatmap::cellRect(int week, int weekday) const {
    return {left_ + week * (kCell + kGap), kTop + weekday * (kCell + kGap), kCell, kCell};
}

int Heatmap::cellAt(QPoint pos) const {
    QPoint p = pos - QPoint(left_, kTop);
    int week = p.x() / (kCell + kGap), weekday = p.y() / (kCell + kGap);
    if (p.x() < 0 || p.y() < 0 || week >= HeatmapCalendar::kWeeks || weekday >= HeatmapCalendar::kDaysPerWeek)
        return -1;
    int index = week * HeatmapCalendar::kDaysPerWeek + weekday;
    return calendar_.cells[index].day ? index : -1;
}

void Heatmap::paintEvent(QPaintEvent*) {
    if (calendar_.monthLabels.isEmpty()) return;  // no days: no calendar to label
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setFont(labelFont());
    p.setPen(palette().color(QPalette::PlaceholderText));
    QFontMetrics fm(p.font());
    for (const auto& [week, label] : calendar_.monthLabels)  // a January in the last weeks stays inside
        p.drawText(std::min(cellRect(week, 0).left(), width() - fm.horizontalAdvance(label)), kTop - 3, label);
    for (int d = 0; d < HeatmapCalendar::kDaysPerWeek; ++d)
        p.drawText(QRect(0, cellRect(0, d).top() - 2, left_, kCell + 4), Qt::AlignLeft | Qt::AlignVCenter,
                   QString::fromLatin1(kWeekdays[d]));

    // The legend, under the last weeks: from no writing to the peak's shade.
    const QString less = tr("Less"), more = tr("More");
    int y = kTop + HeatmapCalendar::kDaysPerWeek * (kCell + kGap) + 4;
    int x = sizeHint().width() - fm.horizontalAdvance(more) - 5 * (kCell + kGap) - fm.horizontalAdvance(less) - 8;
    QRect text(x, y - 2, fm.horizontalAdvance(less), kCell + 4);
    p.drawText(text, Qt::AlignVCenter, less);
    x = text.right() + 5;
    p.setPen(Qt::NoPen);
    for (uint32_t step = 0; step <= 4; ++step, x += kCell + kGap) {
        p.setBrush(shade(step, 4));
        p.drawRoundedRect(QRect(x, y, kCell, kCell), 1.5, 1.5);
    }
    p.setPen(palette().color(QPalette::PlaceholderText));
    p.drawText(QRect(x + 2, y - 2, fm.horizontalAdvance(more), kCell + 4), Qt::AlignVCenter, more);

    p.setPen(Qt::NoPen);
    for (int i = 0; i < calendar_.cells.size(); ++i) {
        const HeatmapCell& c = calendar_.cells[i];
        if (c.day == 0) continue;
        p.setBrush(shade(c.words, calendar_.peak));
        p.drawRoundedRect(cellRect(i), 1.5, 1.5);
    }
    if (hasFocus() && current_ >= 0) {
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(palette().color(QPalette::Highlight), 1.5));
        p.drawRoundedRect(QRectF(cellRect(current_)).adjusted(-1, -1, 1, 1), 2, 2);
    }
}

bool Heatmap::event(QEvent* e) {
    if (e->type() != QEvent::ToolTip) return QWidget::event(e);
    auto* help = static_cast<QHelpEvent*>(e);
    int index = cellAt(help->pos());
    QString tip = index >= 0 ? HeatmapCalendar::tooltip(calendar_.cells[index]) : QString();
    if (tip.isEmpty())
        QToolTip::hideText();
    else
        QToolTip::showText(help->globalPos(), tip, this);
    return true;
}

void Heatmap::mousePressEvent(QMouseEvent* e) {
    int index = cellAt(e->position().toPoint());
    if (index < 0 || e->button() != Qt::LeftButton) return QWidget::mousePressEvent(e);
    current_ = index;
    update();
    emit dayChosen(calendar_.cells[index].day);
}

void Heatmap::keyPressEvent(QKeyEvent* e) {
    int step = 0;
    switch (e->key()) {
        case Qt::Key_Up: step = -1; break;
        case Qt::Key_Down: step = 1; break;
        case Qt::Key_Left: step = -HeatmapCalendar::kDaysPerWeek; break;
        case Qt::Key_Right: step = HeatmapCalendar::kDaysPerWeek; break;
        case Qt::Key_Return:
        case Qt::Key_Enter:
        case Qt::Key_Space:
            if (current_ >= 0) emit dayChosen(calendar_.cells[current_].day);
            return;
        default: return QWidget::keyPressEvent(e);
    }
    int next = current_ + step;
    if (current_ < 0 || next < 0 || next >= calendar_.cells.size() || calendar_.cells[next].day == 0) return;
    current_ = next;
    update();
    // What a pointer over the cell would show, for whoever moves with the keys.
    QToolTip::showText(mapToGlobal(cellRect(current_).bottomRight()),
                       HeatmapCalendar::tooltip(calendar_.cells[current_]), this);
}
