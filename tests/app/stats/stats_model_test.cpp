// The statistics model on deck-written drives, and the heat map's calendar and colours.
#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QFile>
#include <QItemSelectionModel>
#include <QSignalSpy>
#include <QTest>
#include <filesystem>

#include "deck_drive.h"
#include "heatmap_calendar.h"
#include "stats_model.h"

namespace {

const QString kRecovered = "Recovered from the backup copy after an interrupted write.";
const QString kNoStats = "This drive has no statistics yet. Boot it and write something.";
const QString kUnreadable =
    "The statistics on this drive could not be read.\n\nQuillmate has stopped writing to them rather than overwrite "
    "what is there, so nothing is lost yet. Do not delete stats.db or stats.bak.";

void loadPinned(DriveSelection& drives, StatsModel& m, const QList<QmVolume>& volumes) {
    drives.pin(volumes);
    EXPECT_TRUE(m.busy());
    m.rescan();
    EXPECT_FALSE(drives.scanning());  // Refresh is ignored while a load runs
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 20000));
}

// One state per text: which states the core reads as recovered or unreadable is drive_test's.
TEST(StatsModelStatus, EachDriveStateSaysWhereTheFiguresCameFrom) {
    struct Case {
        deck::StatsState state;
        QString status;  // "%1" stands for the seq read
        bool figures;
        bool hasKey = true;
    } cases[] = {
        {deck::StatsState::Normal, "Read from stats.db, record %1.", true},
        {deck::StatsState::NewerBak, "Read from stats.bak, record %1.", true},
        {deck::StatsState::OnlyBak, kRecovered, true},
        {deck::StatsState::KeyOnly, kNoStats, false},
        {deck::StatsState::BothDamaged, kUnreadable, false},
        // A used drive without a key gets one first, so its old statistics no longer read.
        {deck::StatsState::NoKey, kUnreadable, false, false},
    };
    for (const Case& c : cases) {
        TempDir dir;
        DriveSelection drives;
        StatsModel m(&drives);
        QString root = deckDrive(dir, c.state);
        loadPinned(drives, m, {QmVolume{root, "Q", c.hasKey}});
        SCOPED_TRACE(c.status.toStdString());
        ASSERT_EQ(m.summary().has_value(), c.figures);
        EXPECT_EQ(m.status(), c.figures ? QString(c.status).arg(m.summary()->seq) : c.status);
        EXPECT_EQ(m.days().isEmpty(), !c.figures);
        EXPECT_TRUE(QFile::exists(root + "/.qm/drive.key"));
    }
}

// A drive gone before its load; the window's test removes one under the figures.
TEST(StatsModelStatus, NoDriveAndADriveThatHasGone) {
    TempDir dir;
    QString root = deckDrive(dir, deck::StatsState::Normal);
    DriveSelection drives;
    StatsModel m(&drives);
    EXPECT_EQ(m.status(), "Plug in a Quillmate drive and press Refresh.");
    std::filesystem::remove_all(dir.path());
    drives.pin({QmVolume{root, "Q", true}});
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return !m.busy() && !drives.scanning() && m.status() == DriveSelection::goneText("Q"); }, 20000))
        << m.status().toStdString();
    EXPECT_FALSE(m.summary());
    EXPECT_TRUE(m.days().isEmpty());
    EXPECT_FALSE(m.selection());  // nothing left to publish
}

TEST(StatsModelLoading, DestroyingTheModelDuringALoadIsSafe) {
    TempDir dir;
    DriveSelection drives;
    auto* m = new StatsModel(&drives);
    drives.pin({QmVolume{deckDrive(dir, deck::StatsState::Normal), "Q", true}});
    ASSERT_TRUE(m->busy());
    delete m;                              // waits for the running read, delivers nothing
    QCoreApplication::sendPostedEvents();  // no late delivery may reach the deleted model
    EXPECT_TRUE(QFile::exists(q(dir / "stats.db")));
}

// A reload changes the day list row by row, so that a view keeps its selection.
TEST(StatsModelLoading, ReloadsKeepTheDaySelectionAndOvertakenLoadsAreDropped) {
    TempDir a, b;
    DriveSelection drives;
    StatsModel m(&drives);
    QAbstractItemModelTester tester(m.dayList(), QAbstractItemModelTester::FailureReportingMode::Fatal);
    QItemSelectionModel chosen(m.dayList());
    QSignalSpy inserted(m.dayList(), &QAbstractItemModel::rowsInserted);
    QString first = deckDrive(a, deck::StatsState::Normal, 0, 6), second = deckDrive(b, deck::StatsState::KeyOnly);
    loadPinned(drives, m, {QmVolume{first, "A", true}, QmVolume{second, "B", true}});
    ASSERT_EQ(m.dayList()->rowCount(), 6);
    chosen.select(m.dayList()->index(1), QItemSelectionModel::Select);
    const QVariant day = chosen.selectedRows()[0].data(DayList::DayRole);
    inserted.clear();

    ASSERT_EQ(deck::write_statistics(a.path(), {.seed = 5, .days = 8}, true), "");  // the same days and two older
    m.load();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 20000));
    ASSERT_EQ(m.dayList()->rowCount(), 8);
    ASSERT_EQ(inserted.count(), 1);  // no reset: a view learns of rows this way
    EXPECT_EQ(inserted[0].mid(1), (QVariantList{6, 7}));
    ASSERT_EQ(chosen.selectedRows().size(), 1);
    EXPECT_EQ(chosen.selectedRows()[0].data(DayList::DayRole), day);
    for (int row = 0; row < 8; ++row) EXPECT_EQ(m.dayList()->rows()[row], m.days()[7 - row]);  // newest first

    m.load();
    m.select(second);
    int loads = 0;
    QObject::connect(&m, &StatsModel::loaded, [&] { ++loads; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 20000));
    EXPECT_EQ(loads, 1);
    EXPECT_EQ(m.selection(), second);
    EXPECT_EQ(m.status(), kNoStats);
    EXPECT_FALSE(m.summary());
    EXPECT_EQ(m.dayList()->rowCount(), 0);
}

TEST(StatsText, DurationAtItsBoundaries) {
    const std::pair<uint32_t, const char*> cases[] = {{0, "0s"},         {59, "59s"},      {60, "1m 0s"},
                                                      {3599, "59m 59s"}, {3600, "1h 0m"},  {7500, "2h 5m"},
                                                      {4294967295u, "1193046h 28m"}};
    for (auto [secs, text] : cases) EXPECT_EQ(StatsText::duration(secs), text) << secs;
}

// Grouped as the locale groups digits, and in the C locale too, as the published page is.
TEST(StatsText, OneNumberFormatEverywhere) {
    const uint32_t day = 17126;  // 2026-11-20
    const struct {
        QLocale locale;
        QString number, tooltip, line;
    } cases[] = {
        {QLocale::c(), "1,231", "2026-11-20: 1,231 words", "2026-11-20     1,231 words     5m 3s"},
        {QLocale(QLocale::German, QLocale::Germany), "1.231", "2026-11-20: 1.231 words",
         "2026-11-20     1.231 words     5m 3s"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.locale.name().toStdString());
        QLocale::setDefault(c.locale);
        EXPECT_EQ(StatsText::number(1231), c.number);
        EXPECT_EQ(HeatmapCalendar::tooltip({day, 1231}), c.tooltip);
        EXPECT_EQ(StatsText::dayLine({day, 1231, 303}), c.line);
    }
    EXPECT_EQ(HeatmapCalendar::tooltip({day, 1}), "2026-11-20: 1 word");
    EXPECT_EQ(StatsText::dayLine({day, 1, 45}).size(), StatsText::dayLine({day, 10, 45}).size());  // columns stay
    QLocale::setDefault(QLocale::system());
}

TEST(Heatmap, ShadesByShareOfThePeakWithInclusiveUpperBounds) {
    const std::pair<uint32_t, std::array<float, 3>> cases[] = {
        {0, {0.88f, 0.88f, 0.88f}},  {1, {0.69f, 0.80f, 0.89f}},  {25, {0.69f, 0.80f, 0.89f}},
        {26, {0.42f, 0.65f, 0.82f}}, {50, {0.42f, 0.65f, 0.82f}}, {80, {0.17f, 0.46f, 0.71f}},
        {81, {0.06f, 0.29f, 0.52f}}, {100, {0.06f, 0.29f, 0.52f}}};
    for (auto [words, rgb] : cases) {
        QColor got = HeatmapCalendar::shade(words, 100), want = QColor::fromRgbF(rgb[0], rgb[1], rgb[2]);
        EXPECT_EQ(got.rgb(), want.rgb()) << words;
    }
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
    // The year with the first month named and with January; a partial first month gives way, and
    // so does the month after a label with its year, or that label's year before a January.
    const std::pair<uint32_t, QStringList> labelCases[] = {
        {latest, {"Dec", "Jan 2026", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov"}},
        {latest - 150, {"Jul 2025", "Sep", "Oct", "Nov", "Dec", "Jan 2026", "Mar", "Apr", "May", "Jun"}},
    };
    for (const auto& [last, want] : labelCases) {
        QStringList labels;
        for (const auto& [week, label] : HeatmapCalendar::build({{last, 1, 1}}).monthLabels) labels << label;
        EXPECT_EQ(labels, want) << StatsText::date(last).toStdString();
    }
    EXPECT_TRUE(HeatmapCalendar::build({}).monthLabels.isEmpty());
}

}  // namespace
