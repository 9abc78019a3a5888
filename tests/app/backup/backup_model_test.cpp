// The backup model's texts, its automatic schedule and automatic runs; runs from the tab are shell_test's.
#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLocale>
#include <QSignalSpy>
#include <QTest>
#include <filesystem>
#include <fstream>

#include "backup_lock.h"
#include "backup_model.h"
#include "deck_drive.h"

namespace {

// Every test starts from the settings a new user has, and leaves them so.
class FreshSettings : public ::testing::Test {
protected:
    void SetUp() override { clear(); }
    void TearDown() override { clear(); }
    static void clear() {
        BackupSettings::setDestination(QString());
        BackupSettings::setAutomatic(true);
    }
};
using BackupModelStatus = FreshSettings;
using BackupSchedules = FreshSettings;
using BackupModelRun = FreshSettings;

// Time that moves only when the test moves it.
class HandClock : public BackupClock {
public:
    void repeat(int ms, Fire fire) override { timers_[0] = {now_ + ms, ms, std::move(fire)}; }
    void quiet(int ms, Fire fire) override {
        ++quiets;
        timers_[1] = {now_ + ms, 0, std::move(fire)};
    }
    // Moves time on by ms, firing in order what falls due on the way.
    void advance(int64_t ms) {
        for (const int64_t end = now_ + ms;;) {
            Timer* next = nullptr;
            for (Timer& t : timers_)
                if (t.fire && t.at <= end && (!next || t.at < next->at)) next = &t;
            if (!next) return void(now_ = end);
            now_ = next->at;
            Fire fire = next->fire;
            if (next->every) next->at += next->every;
            else next->fire = nullptr;
            fire();
        }
    }
    int quiets = 0;  // changes the schedule was told of

private:
    struct Timer {
        int64_t at = 0;
        int every = 0;  // 0: once
        Fire fire;
    } timers_[2];
    int64_t now_ = 0;
};

TEST_F(BackupModelStatus, WaitingTextsGiveWayToReadyOnlyUntilARunReports) {
    TempDir drive, dest;
    DriveSelection drives;
    BackupModel m(&drives);
    EXPECT_EQ(m.status(), BackupModel::kNoDriveStatus);
    drives.pin({QmVolume{q(drive), "Q", true}});
    EXPECT_EQ(m.status(), BackupModel::kNoDestinationStatus);
    m.choose(q(dest));
    EXPECT_EQ(m.status(), BackupModel::kReadyStatus);
    EXPECT_EQ(BackupSettings::destination(), q(dest));

    BackupResult r;
    r.unchanged = 2;
    m.show(r, q(drive));
    const QString outcome = r.summary() + "\n" + QLocale().toString(r.finished, QLocale::ShortFormat);
    EXPECT_EQ(m.status(), outcome);
    m.choose(q(dest) + "/elsewhere");  // the outcome stays rather than a Ready that hides it
    m.refreshStatus();
    EXPECT_EQ(m.status(), outcome);

    // A drive that goes takes its outcome and warning along, also one of a run that ends later.
    r.cloudWarning = "Dropbox is not running";
    m.show(r, q(drive));
    m.runNow(true);  // a check that finds nothing to check, after the drive has gone
    drives.pin(QList<QmVolume>{});
    auto showsGone = [&] { return m.status() == DriveSelection::goneText("Q") && !m.warning() && !m.folder(); };
    EXPECT_TRUE(showsGone()) << m.status().toStdString();
    m.show(r, q(drive));
    EXPECT_TRUE(showsGone()) << m.status().toStdString();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.busy(); }, 20000));
    EXPECT_TRUE(showsGone()) << m.status().toStdString();
    drives.pin({QmVolume{q(drive), "Q", true}});  // back: waiting texts give way again
    EXPECT_EQ(m.status(), BackupModel::kReadyStatus);
    // What was said of one drive gives way when another is chosen, also for a run that ends later.
    TempDir other;
    r.folder = q(dest) + "/Quillmate/Q";
    m.show(r, q(drive));
    drives.pin({QmVolume{q(other), "R", true}});
    auto showsReady = [&] { return m.status() == BackupModel::kReadyStatus && !m.warning() && m.folder() != r.folder; };
    EXPECT_TRUE(showsReady()) << m.status().toStdString();
    m.show(r, q(drive));
    EXPECT_TRUE(showsReady()) << m.status().toStdString();

    m.choose(QString());
    EXPECT_EQ(m.status(), BackupModel::kNoDestinationStatus);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !m.detecting(); }, 10000));
    EXPECT_FALSE(m.folder());  // the look for the drive's folder begun before is out of date

    BackupModel again(&drives);  // the choices were kept
    EXPECT_EQ(again.destination(), "");
    EXPECT_TRUE(again.automatic());
    m.setAutomatic(false);
    EXPECT_FALSE(BackupModel(&drives).automatic());
}

TEST_F(BackupModelStatus, WarningAfterARun) {
    TempDir drive, dest;
    DriveSelection drives;
    drives.pin({QmVolume{q(drive), "Q", true}});
    BackupModel m(&drives);
    m.choose(q(dest));  // outside every cloud folder: no upload note, so every warning is serious
    struct Case {
        QStringList failures;
        std::optional<QString> cloud;
        std::optional<QString> warning;
    } cases[] = {
        {{"notes.md: changed while copying"}, {}, "One copy could not be verified: notes.md: changed while copying"},
        {{"a.md: gone", "b.md: short read"}, "Dropbox is not running",
         "2 copies could not be verified: a.md: gone; b.md: short read"},
        {{}, "The disk holding your copies has only 12.0 MB free. Copies will start failing soon.",
         "The disk holding your copies has only 12.0 MB free. Copies will start failing soon."},
        {{}, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.warning.value_or("none").toStdString());
        BackupResult r;
        r.copied = 1;
        r.failures = c.failures;
        r.cloudWarning = c.cloud;
        QSignalSpy reported(&m, &BackupModel::reported);
        m.show(r, q(drive));
        EXPECT_EQ(reported.count(), 1);
        EXPECT_EQ(m.warning(), c.warning);
        EXPECT_EQ(m.warningIsSerious(), c.warning.has_value());
        EXPECT_FALSE(m.busy());
    }
}

// Real changes on the disk, on a clock the test turns.
TEST_F(BackupSchedules, ChangesWaitForQuietAndTheTimerRepeats) {
    TempDir drive;
    spit(drive / "docs/Novel.md", "Chapter one\n");
    spit(drive / ".qmv/Novel.md/history.log", "QMV\t1\n");
    BackupSettings::setDestination("/somewhere");
    auto* clock = new HandClock;
    BackupSchedule s{std::unique_ptr<BackupClock>(clock)};
    int runs = 0;
    s.start([&] { return std::optional<QmVolume>(QmVolume{q(drive), "Q", true}); },
            [&](const QmVolume&, const QString& destination) {
                EXPECT_EQ(destination, "/somewhere");
                ++runs;
            });
    // Makes a change and waits until the watch has told the schedule of it.
    auto change = [&](auto write) {
        int seen = clock->quiets;
        write();
        return QTest::qWaitFor([&] { return clock->quiets > seen; }, 5000);
    };

    // Ten changes 300 ms apart: new files in the root, in a folder, and in a folder made meanwhile.
    for (int i = 0; i < 10; ++i) {
        std::string folder = i % 3 == 0 ? "" : i % 3 == 1 ? "docs/" : "new/";
        ASSERT_TRUE(change([&] { spit(drive / (folder + std::to_string(i) + ".md"), "x"); })) << i;
        clock->advance(300);
    }
    clock->advance(BackupSchedule::kQuietMs - 301);
    EXPECT_EQ(runs, 0);
    clock->advance(1);  // quiet since the last change, not the first
    EXPECT_EQ(runs, 1);
    clock->advance(60'000);
    EXPECT_EQ(runs, 1);

    // One run each: a file in the folder made during the burst; then files written in place, as
    // the deck saves a document or adds to its log: there from the start, made since, and one
    // that a save replaced by a rename.
    const struct { const char* file; bool replace; } edits[] = {
        {"new/later.md", false}, {"docs/Novel.md", false}, {".qmv/Novel.md/history.log", false},
        {"new/later.md", false}, {"docs/Novel.md", true},   {"docs/Novel.md", false},
    };
    for (const auto& e : edits) {
        SCOPED_TRACE(std::string(e.file) + (e.replace ? ", replaced" : ", appended to"));
        int before = runs;
        ASSERT_TRUE(change([&] {
            if (e.replace) {
                spit(drive / "docs/.Novel.md.new", "Chapter one, again\n");
                std::filesystem::rename(drive / "docs/.Novel.md.new", drive / e.file);
            } else {
                std::ofstream(drive / e.file, std::ios::app) << "more\n";
            }
        }));
        clock->advance(BackupSchedule::kQuietMs);
        EXPECT_EQ(runs, before + 1);
    }

    int before = runs;
    clock->advance(BackupSchedule::kPeriodMs);  // now past 300 s: one tick
    EXPECT_EQ(runs, before + 1);
    // Whether a run may happen is asked at every run, not only when the watch is set up.
    BackupSettings::setAutomatic(false);
    s.trigger();
    clock->advance(BackupSchedule::kPeriodMs);
    BackupSettings::setAutomatic(true);
    BackupSettings::setDestination(QString());
    clock->advance(BackupSchedule::kPeriodMs);
    EXPECT_EQ(runs, before + 1);
}

// The program's clock: the quiet moment moves rather than adds a second one, and comes once.
TEST(BackupClocks, QtTimersRepeatAndMoveTheQuietMoment) {
    std::unique_ptr<BackupClock> clock = BackupClock::timers();
    int ticks = 0, first = 0, moved = 0;
    clock->repeat(10, [&] { ++ticks; });
    clock->quiet(40, [&] { ++first; });
    QElapsedTimer sinceMoved;
    sinceMoved.start();
    clock->quiet(40, [&] { ++moved; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return moved > 0; }, 5000));
    EXPECT_GE(sinceMoved.elapsed(), 30);  // coarse timers may come a little early
    const int later = ticks + 10;         // at least 100 ms more
    ASSERT_TRUE(QTest::qWaitFor([&] { return ticks >= later; }, 5000));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(moved, 1);
}

// A run that finds another run holding the folder copies nothing and says nothing.
TEST_F(BackupModelRun, AutomaticRunsWatchReportAndStepAsideForAHeldFolder) {
    TempDir drive, dest;
    QString root = deckDrive(drive, deck::StatsState::Normal, 2);
    spit(drive / "notes/2024/a.md", "a file in a folder");
    DriveSelection drives;
    auto* clock = new HandClock;
    BackupModel m(&drives, std::unique_ptr<BackupClock>(clock));
    m.start();
    drives.pin({QmVolume{root, "Q", true}});
    EXPECT_TRUE(m.schedule().watched().isEmpty());  // no destination yet
    m.choose(q(dest));
    QStringList watched = m.schedule().watched();
    for (const QString& path : {root, root + "/notes/2024", root + "/notes/2024/a.md"})
        EXPECT_TRUE(watched.contains(path)) << path.toStdString();
    for (const QString& path : watched)  // the key and statistics are never copied
        EXPECT_FALSE(path.startsWith(root + "/.qm/") || path == root + "/.qm") << path.toStdString();
    m.setAutomatic(false);
    EXPECT_TRUE(m.schedule().watched().isEmpty());
    m.setAutomatic(true);
    EXPECT_FALSE(m.schedule().watched().isEmpty());

    QSignalSpy reported(&m, &BackupModel::reported);
    m.schedule().trigger();
    clock->advance(BackupSchedule::kQuietMs);
    EXPECT_TRUE(m.running());
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_FALSE(m.busy());
    EXPECT_TRUE(m.status().startsWith("Copied ")) << m.status().toStdString();

    spit(drive / "Later.md", "written while a headless run in another process holds the folder");
    {
        BackupLock held(q(dest) + "/Quillmate/Q", false);
        ASSERT_TRUE(held.held());
        m.schedule().trigger();
        clock->advance(BackupSchedule::kQuietMs);
        EXPECT_TRUE(m.running());
        ASSERT_TRUE(QTest::qWaitFor([&] { return !m.running(); }, 20000));
    }
    EXPECT_EQ(reported.count(), 1);
    EXPECT_TRUE(m.status().startsWith("Copied "));
    EXPECT_FALSE(QFileInfo::exists(q(dest) + "/Quillmate/Q/Later.md"));

    drives.pin(QList<QmVolume>{});
    EXPECT_TRUE(m.schedule().watched().isEmpty());
}

}  // namespace
