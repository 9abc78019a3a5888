// The backup model's texts and warnings, the automatic schedule (watch, quiet time, ticks) and
// runs on deck-written drives into a temporary folder.
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

QString q(const TempDir& dir) { return QString::fromStdString(dir.path()); }

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
    m.show(r);
    const QString outcome = r.summary() + "\n" + QLocale().toString(r.finished, QLocale::ShortFormat);
    EXPECT_EQ(m.status(), outcome);
    m.choose(q(dest) + "/elsewhere");  // the outcome stays rather than a Ready that hides it
    m.refreshStatus();
    EXPECT_EQ(m.status(), outcome);

    // A drive that goes takes its outcome and warning along, also one of a run that ends later.
    r.cloudWarning = "Dropbox is not running";
    m.show(r);
    drives.pin(QList<QmVolume>{});
    const QString gone = DriveSelection::goneText("Q");
    EXPECT_EQ(m.status(), gone);
    EXPECT_FALSE(m.warning());
    EXPECT_FALSE(m.folder());
    m.show(r);
    EXPECT_EQ(m.status(), gone);
    EXPECT_FALSE(m.warning());
    EXPECT_FALSE(m.folder());
    drives.pin({QmVolume{q(drive), "Q", true}});  // back: waiting texts give way again
    EXPECT_EQ(m.status(), BackupModel::kReadyStatus);

    m.choose(QString());
    EXPECT_EQ(m.status(), BackupModel::kNoDestinationStatus);

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
    m.choose(q(dest));  // outside every cloud folder: no upload note
    struct Case {
        QStringList failures;
        std::optional<QString> cloud;
        std::optional<QString> warning;
        bool serious;
    } cases[] = {
        {{"notes.md: changed while copying"}, {}, "One copy could not be verified: notes.md: changed while copying",
         true},
        {{"a.md: gone", "b.md: short read"}, "Dropbox is not running", "2 copies could not be verified: a.md: gone; b.md: short read",
         true},
        {{}, "The disk holding your copies has only 12.0 MB free. Copies will start failing soon.",
         "The disk holding your copies has only 12.0 MB free. Copies will start failing soon.", true},
        {{}, {}, {}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.warning.value_or("none").toStdString());
        BackupResult r;
        r.copied = 1;
        r.failures = c.failures;
        r.cloudWarning = c.cloud;
        QSignalSpy reported(&m, &BackupModel::reported);
        m.show(r);
        EXPECT_EQ(reported.count(), 1);
        EXPECT_EQ(m.warning(), c.warning);
        EXPECT_EQ(m.warningIsSerious(), c.serious);
        EXPECT_FALSE(m.busy());
    }
}

TEST_F(BackupSchedules, WatchesTheDrivesFoldersAndFilesOnlyWhenAnAutomaticRunCouldHappen) {
    TempDir drive, dest;
    QString root = deckDrive(drive, deck::StatsState::Normal, 2);
    ASSERT_TRUE(QDir().mkpath(root + "/notes/2024"));
    spit(drive / "notes/2024/a.md", "a file in a folder");
    DriveSelection drives;
    BackupModel m(&drives);
    m.start();
    drives.pin({QmVolume{root, "Q", true}});
    EXPECT_TRUE(m.schedule().watched().isEmpty());  // no destination yet

    m.choose(q(dest));
    QStringList watched = m.schedule().watched();
    EXPECT_TRUE(watched.contains(root));
    EXPECT_TRUE(watched.contains(root + "/notes/2024"));
    EXPECT_TRUE(watched.contains(root + "/notes/2024/a.md"));
    for (const QString& path : watched)  // the key and statistics are never copied
        EXPECT_FALSE(path.startsWith(root + "/.qm/") || path == root + "/.qm") << path.toStdString();

    m.setAutomatic(false);
    EXPECT_TRUE(m.schedule().watched().isEmpty());
    m.setAutomatic(true);
    EXPECT_FALSE(m.schedule().watched().isEmpty());
    drives.pin(QList<QmVolume>{});
    EXPECT_TRUE(m.schedule().watched().isEmpty());
}

TEST_F(BackupSchedules, ABurstOfChangesGivesOneRunAfterTheQuietTime) {
    TempDir drive;
    ASSERT_TRUE(QDir().mkpath(q(drive) + "/docs"));
    spit(drive / "docs/Novel.md", "Chapter one\n");
    spit(drive / ".qmv/Novel.md/history.log", "QMV\t1\n");
    BackupSettings::setDestination("/somewhere");
    BackupSchedule s({60'000, 1500});  // a quiet time well beyond the burst, even on a loaded machine
    int runs = 0;
    s.start([&] { return std::optional<QmVolume>(QmVolume{q(drive), "Q", true}); },
            [&](const QmVolume&, const QString& destination) {
                EXPECT_EQ(destination, "/somewhere");
                ++runs;
            });
    QSignalSpy due(&s, &BackupSchedule::due);
    QElapsedTimer sinceLast;
    for (int i = 0; i < 10; ++i) {  // new files in the root, in a folder, and in a folder made meanwhile
        spit(drive / (std::string(i % 3 == 0 ? "" : i % 3 == 1 ? "docs/" : "new/") + std::to_string(i) + ".md"), "x");
        sinceLast.start();
        QTest::qWait(30);
    }
    ASSERT_TRUE(due.wait(5000));
    EXPECT_GE(sinceLast.elapsed(), 1400);  // counted from the last change, not the first
    QTest::qWait(2000);  // nothing more follows the one run
    EXPECT_EQ(due.count(), 1);
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(s.watched().contains(q(drive) + "/new"));

    spit(drive / "new/later.md", "a change in the folder made during the burst");
    ASSERT_TRUE(due.wait(5000));

    // Files written in place, as the deck saves a document or adds to its log: one run each, for
    // files there from the start, one made since, and one that a save replaced by a rename.
    const struct { const char* file; bool replace; } edits[] = {
        {"docs/Novel.md", false}, {".qmv/Novel.md/history.log", false}, {"new/later.md", false},
        {"docs/Novel.md", true},  {"docs/Novel.md", false},
    };
    for (const auto& e : edits) {
        SCOPED_TRACE(std::string(e.file) + (e.replace ? ", replaced" : ", appended to"));
        if (e.replace) {
            spit(drive / "docs/.Novel.md.new", "Chapter one, again\n");
            std::filesystem::rename(drive / "docs/.Novel.md.new", drive / e.file);
        } else {
            std::ofstream(drive / e.file, std::ios::app) << "more\n";
        }
        ASSERT_TRUE(due.wait(5000));
    }
    QTest::qWait(2000);
    EXPECT_EQ(due.count(), 2 + int(std::size(edits)));

    BackupSettings::setAutomatic(false);  // read at every run, not only at rewatch
    s.trigger();
    EXPECT_FALSE(due.wait(2000));
    EXPECT_EQ(runs, 2 + int(std::size(edits)));
}

TEST_F(BackupSchedules, TheRepeatingTimerRunsWithoutAnyChange) {
    TempDir drive;
    BackupSettings::setDestination("/somewhere");
    BackupSchedule s({100, 60'000});
    int runs = 0;
    s.start([&] { return std::optional<QmVolume>(QmVolume{q(drive), "Q", true}); },
            [&](const QmVolume&, const QString&) { ++runs; });
    ASSERT_TRUE(QTest::qWaitFor([&] { return runs >= 2; }, 5000));
    BackupSettings::setDestination(QString());
    int before = runs;
    QTest::qWait(300);
    EXPECT_EQ(runs, before);
}

TEST_F(BackupModelRun, BackUpNowThenCheckTheCopiesOnADeckDrive) {
    TempDir drive, dest;
    QString root = deckDrive(drive, deck::StatsState::Normal, 3);
    DriveSelection drives;
    drives.pin({QmVolume{root, "My stick", true}});
    BackupModel m(&drives);
    std::optional<QUrl> opened;
    m.setOpener([&](const QUrl& url) {
        opened = url;
        return true;
    });
    EXPECT_TRUE(m.revealFolder());  // no destination: a reason, nothing opened
    m.choose(q(dest));
    EXPECT_TRUE(m.revealFolder());  // nothing copied yet
    EXPECT_FALSE(opened);

    QSignalSpy reported(&m, &BackupModel::reported);
    m.runNow(true);  // nothing to check is said, and no backup is made instead
    EXPECT_FALSE(m.busy());
    EXPECT_EQ(m.status(), BackupModel::kNothingToCheckStatus);
    EXPECT_FALSE(QFileInfo::exists(q(dest) + "/Quillmate"));
    m.runNow(false);
    EXPECT_TRUE(m.busy());
    EXPECT_EQ(m.status(), BackupModel::kCopyingStatus);
    m.runNow(false);  // ignored while the first one runs
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_FALSE(m.busy());
    EXPECT_FALSE(m.progress());
    EXPECT_TRUE(m.status().startsWith("Copied ")) << m.status().toStdString();
    EXPECT_TRUE(m.status().contains("), each one verified.\n"));
    EXPECT_FALSE(m.warning());
    QString folder = q(dest) + "/Quillmate/My stick";
    EXPECT_EQ(m.folder(), folder);
    EXPECT_EQ(m.revealFolder(), std::nullopt);
    EXPECT_EQ(opened, QUrl::fromLocalFile(folder));
    m.setOpener([](const QUrl&) { return false; });
    EXPECT_EQ(m.revealFolder(), "The file manager could not be started. The copies are in " + folder);

    m.runNow(true);
    EXPECT_EQ(m.status(), BackupModel::kCheckingStatus);
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_EQ(reported.count(), 2);
    EXPECT_TRUE(m.status().startsWith("Already up to date (")) << m.status().toStdString();

    // The writing put back onto the stick after a loss: busy while it runs, then its outcome.
    std::filesystem::remove(drive / "Novel.md");
    m.restoreFrom(folder);
    EXPECT_TRUE(m.busy());
    EXPECT_EQ(m.status(), BackupModel::kRestoringStatus);
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_TRUE(m.status().startsWith("Put back 1 file (")) << m.status().toStdString();
    EXPECT_TRUE(std::filesystem::exists(drive / "Novel.md"));
}

TEST_F(BackupModelRun, AnAutomaticRunReportsWithoutBusyAndAHeldFolderSkipsQuietly) {
    TempDir drive, dest;
    QString root = deckDrive(drive, deck::StatsState::Normal, 2);
    DriveSelection drives;
    drives.pin({QmVolume{root, "Q", true}});
    BackupModel m(&drives, {60'000, 50});
    m.choose(q(dest));
    m.start();
    QSignalSpy reported(&m, &BackupModel::reported), due(&m.schedule(), &BackupSchedule::due);
    m.schedule().trigger();
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_FALSE(m.busy());
    EXPECT_TRUE(m.status().startsWith("Copied ")) << m.status().toStdString();

    {
        BackupLock held(q(dest) + "/Quillmate/Q", false);  // as a headless run in another process would
        ASSERT_TRUE(held.held());
        m.schedule().trigger();
        ASSERT_TRUE(due.wait(5000));
        EXPECT_FALSE(reported.wait(1000));
    }
    EXPECT_EQ(reported.count(), 1);
    EXPECT_TRUE(m.status().startsWith("Copied "));
}

}  // namespace
