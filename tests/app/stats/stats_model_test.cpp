// The statistics model's status texts on deck-written drives, and the heat map's calendar and colours.
#include <gtest/gtest.h>

#include <QFile>
#include <QSignalSpy>

#include "deck_drive.h"
#include "heatmap_calendar.h"
#include "stats_model.h"

namespace {

const QString kRecovered = "Recovered from the backup copy after an interrupted write.";
const QString kNoStats = "This drive has no statistics yet. Boot it and write something.";
const QString kUnreadable =
    "The statistics on this drive could not be read.\n\nQuillmate has stopped writing to them rather than overwrite "
    "what is there, so nothing is lost yet. Do not delete stats.db or stats.bak.";

void loadPinned(StatsModel& m, const QmVolume& v) {
    QSignalSpy loaded(&m, &StatsModel::loaded);
    m.pin(v);
    if (loaded.isEmpty()) ASSERT_TRUE(loaded.wait(20000));
}

TEST(StatsModelStatus, EachDriveStateSaysWhereTheFiguresCameFrom) {
    struct Case {
        deck::StatsState state;
        QString status;  // "%1" stands for the seq read
        bool figures;
    } cases[] = {
        {deck::StatsState::Normal, "Read from stats.db, record %1.", true},
        {deck::StatsState::NewerBak, "Read from stats.bak, record %1.", true},
        {deck::StatsState::OnlyBak, kRecovered, true},
        {deck::StatsState::TornDb, kRecovered, true},
        {deck::StatsState::KeyOnly, kNoStats, false},
        {deck::StatsState::BothDamaged, kUnreadable, false},
        {deck::StatsState::ForeignKey, kUnreadable, false},
    };
    for (const Case& c : cases) {
        TempDir dir;
        StatsModel m;
        loadPinned(m, QmVolume{deckDrive(dir, c.state), "Q", true});
        SCOPED_TRACE(c.status.toStdString());
        ASSERT_EQ(m.summary().has_value(), c.figures);
        EXPECT_EQ(m.status(), c.figures ? QString(c.status).arg(m.summary()->seq) : c.status);
        EXPECT_EQ(m.days().isEmpty(), !c.figures);
    }
}

TEST(StatsModelStatus, KeylessVolumeIsProvisionedFirstSoOldStatisticsNoLongerRead) {
    TempDir dir;
    QString root = deckDrive(dir, deck::StatsState::NoKey);
    StatsModel m;
    loadPinned(m, QmVolume{root, "Q", false});
    EXPECT_TRUE(QFile::exists(root + "/.qm/drive.key"));
    EXPECT_EQ(m.status(), kUnreadable);
}

TEST(StatsModelStatus, NoSelectionAndNotADrive) {
    StatsModel m;
    EXPECT_EQ(m.status(), "Plug in a Quillmate drive and press Refresh.");
    TempDir empty;
    loadPinned(m, QmVolume{QString::fromStdString(empty.path()), "Q", true});
    EXPECT_EQ(m.status(), "not a Quillmate drive");
}

TEST(StatsText, DurationAtItsBoundaries) {
    EXPECT_EQ(StatsText::duration(0), "0s");
    EXPECT_EQ(StatsText::duration(59), "59s");
    EXPECT_EQ(StatsText::duration(60), "1m 0s");
    EXPECT_EQ(StatsText::duration(303), "5m 3s");
    EXPECT_EQ(StatsText::duration(3599), "59m 59s");
    EXPECT_EQ(StatsText::duration(3600), "1h 0m");
    EXPECT_EQ(StatsText::duration(7500), "2h 5m");
    EXPECT_EQ(StatsText::duration(4294967295u), "1193046h 28m");
}

TEST(Heatmap, ShadesByShareOfThePeakWithInclusiveUpperBounds) {
    auto rgb = [](const QColor& c) { return std::array<int, 3>{c.red(), c.green(), c.blue()}; };
    auto from = [&](float r, float g, float b) { return rgb(QColor::fromRgbF(r, g, b)); };
    EXPECT_EQ(rgb(HeatmapCalendar::shade(0, 100)), from(0.88f, 0.88f, 0.88f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(1, 100)), from(0.69f, 0.80f, 0.89f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(25, 100)), from(0.69f, 0.80f, 0.89f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(26, 100)), from(0.42f, 0.65f, 0.82f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(50, 100)), from(0.42f, 0.65f, 0.82f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(80, 100)), from(0.17f, 0.46f, 0.71f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(81, 100)), from(0.06f, 0.29f, 0.52f));
    EXPECT_EQ(rgb(HeatmapCalendar::shade(100, 100)), from(0.06f, 0.29f, 0.52f));
}

TEST(Heatmap, CalendarCoversFiftyThreeWeeksEndingAtTheLatestDay) {
    // 2026-11-20 was a Friday; a day far older than a year is left out, and so is its word count.
    uint32_t latest = 17126;
    ASSERT_EQ(StatsText::date(latest), "2026-11-20");
    QList<DayRow> days = {{latest - 500, 9000, 1}, {latest - 370, 10, 1}, {latest - 1, 300, 1}, {latest, 200, 1}};
    HeatmapCalendar cal = HeatmapCalendar::build(days);
    ASSERT_EQ(cal.cells.size(), 53 * 7);
    EXPECT_EQ(cal.at(52, 4).day, latest);  // Friday of the last week
    EXPECT_EQ(cal.at(52, 4).words, 200u);
    EXPECT_EQ(cal.at(52, 5).day, 0u);  // after the latest day: not drawn
    EXPECT_EQ(cal.at(0, 0).day, latest - 4 - 52 * 7);
    EXPECT_EQ(cal.peak, 300u);
    int shown_with_words = 0;
    for (const HeatmapCell& c : cal.cells) shown_with_words += c.words > 0;
    EXPECT_EQ(shown_with_words, 2);
    EXPECT_EQ(HeatmapCalendar::tooltip(cal.at(52, 4)), "2026-11-20: 200 words");
    ASSERT_FALSE(cal.monthLabels.isEmpty());
    EXPECT_EQ(cal.monthLabels.last().second, "Nov");
    EXPECT_TRUE(HeatmapCalendar::build({}).monthLabels.isEmpty());
}

}  // namespace
