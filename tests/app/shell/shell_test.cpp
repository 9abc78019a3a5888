// The command-line dispatch and views following their models.
#include <gtest/gtest.h>

#include <filesystem>

#include <QCheckBox>
#include <QFileInfo>
#include <QComboBox>
#include <QLabel>
#include <QSignalSpy>
#include <QListView>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

#include "backup_settings.h"
#include "backup_tab.h"
#include "deck_drive.h"
#include "dispatch.h"
#include "history_tab.h"
#include "settings_model.h"
#include "settings_tab.h"
#include "stats_tab.h"

namespace {

Mode mode(const QStringList& rest) { return decideMode(QStringList{"/usr/bin/quillmate-flasher"} + rest); }

TEST(Dispatch, FirstApplicableRowWins) {
    EXPECT_EQ(mode({}), Mode::Window);
    EXPECT_EQ(mode({"--backup-run", "/vol", "/dest", "--shot", "/tmp/x"}), Mode::Screenshot);
    EXPECT_EQ(mode({"--backup-run", "/vol", "/dest"}), Mode::BackupRun);
    EXPECT_EQ(mode({"--backup-run", "/vol"}), Mode::Window);  // one path: the switch is ignored
    EXPECT_EQ(mode({"--backup-run", "/vol", "--backup-check"}), Mode::BackupRun);
    EXPECT_EQ(mode({"--backup-run", "/vol", "--check-update"}), Mode::BackupRun);
    EXPECT_EQ(mode({"--backup-check"}), Mode::Window);
    EXPECT_EQ(mode({"--backup-check", "/folder"}), Mode::BackupCheck);
    EXPECT_EQ(mode({"--whatever", "--fetch-update", "--else"}), Mode::UpdateCheck);
    EXPECT_EQ(mode({"--shot=1"}), Mode::Window);  // whole strings only
    EXPECT_EQ(valueAfter({"a", "--shot"}, "--shot"), std::nullopt);
    EXPECT_EQ(valueAfter({"a", "--shot", "d", "--shot", "e"}, "--shot"), "d");
}

TEST(StatsView, ShowsWhatTheModelHoldsAfterALoad) {
    TempDir dir;
    DriveSelection drives;
    StatsModel model(&drives);
    StatsTab tab(&model);
    EXPECT_EQ(tab.total("Writing sessions"), "—");
    auto* days = tab.findChild<QListView*>();
    auto* noDays = days->findChild<QLabel*>();
    EXPECT_EQ(noDays->text(), "No writing days recorded yet.");
    EXPECT_TRUE(noDays->isVisibleTo(&tab));
    EXPECT_EQ(tab.findChild<QComboBox*>()->currentText(), "No drives found");
    drives.pin({QmVolume{deckDrive(dir, deck::StatsState::Normal), "SAMPLE", true}});
    EXPECT_FALSE(withText(&tab, "Refresh")->isEnabled());  // while the drive is read
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model.busy(); }, 20000));
    EXPECT_TRUE(withText(&tab, "Refresh")->isEnabled());
    EXPECT_EQ(tab.total("Writing sessions"), QLocale().toString(model.summary()->sessions));
    EXPECT_EQ(tab.total("Writing time"), StatsTab::duration(model.summary()->write_secs));
    EXPECT_FALSE(noDays->isVisibleTo(&tab));
    EXPECT_EQ(days->model()->rowCount(), model.days().size());
    EXPECT_TRUE(days->model()->index(0, 0).data().toString().startsWith(StatsText::date(model.days().last().day)));
    EXPECT_EQ(tab.findChild<QComboBox*>()->currentText(), "SAMPLE");
}

TEST(HistoryView, ListsFollowTheModelAndTheConfirmationGatesTheRestore) {
    TempDir dir;
    DriveSelection drives;
    HistoryModel model(&drives);
    HistoryTab tab(&model);
    tab.show();
    auto settle = [&] { ASSERT_TRUE(QTest::qWaitFor([&] { return !model.busy(); }, 20000)); };
    EXPECT_FALSE(withText(&tab, "Put this version back")->isEnabled());
    drives.pin({QmVolume{deckDrive(dir, deck::StatsState::Normal, 2), "SAMPLE", true}});
    settle();
    QList<QListView*> lists = tab.findChildren<QListView*>();
    QListView* docs = lists[0];
    QListView* versions = lists[1];
    EXPECT_EQ(docs->model()->rowCount(), 2);
    EXPECT_EQ(versions->model()->rowCount(), model.versions().size());
    EXPECT_EQ(versions->model()->index(0, 0).data(), VersionList::label(model.versions().first()));
    int before = int(model.versions().size());

    versions->setCurrentIndex(versions->model()->index(before - 1, 0));  // the oldest version
    EXPECT_EQ(model.selected(), model.versions().last().id);
    settle();
    QTest::mouseClick(withText(&tab, "Put this version back"), Qt::LeftButton);
    ASSERT_TRUE(tab.confirmation());
    EXPECT_EQ(tab.confirmation()->windowTitle(), "Restore a version");
    tab.confirmation()->button(QMessageBox::Cancel)->click();
    settle();
    EXPECT_EQ(model.versions().size(), before);

    QTest::mouseClick(withText(&tab, "Put this version back"), Qt::LeftButton);
    ASSERT_TRUE(tab.confirmation());
    withText(tab.confirmation(), "Put this version back")->click();
    settle();
    EXPECT_EQ(versions->model()->rowCount(), before + 1);  // what a restore adds is history_model_test's
    EXPECT_EQ(versions->currentIndex().row(), 0);           // the restored copy, chosen by the model

    QTest::mouseClick(withText(&tab, "Compare with now"), Qt::LeftButton);
    settle();
    QListView* comparison = lists[2];
    ASSERT_GT(comparison->model()->rowCount(), 0);
    EXPECT_EQ(comparison->model()->index(0, 0).data(Qt::ForegroundRole),
              DiffLineList::colourOf(model.diffLines()[0].op));

    docs->setCurrentIndex(docs->model()->index(1, 0));
    settle();
    EXPECT_EQ(model.document(), model.documents()[1]);
}

// The tab and the settings over one model, through a real run, check, put-back and a failure.
TEST(BackupView, FollowsTheModelThroughRunsAndTheSettingsChooseTheFolder) {
    BackupSettings::setDestination(QString());
    BackupSettings::setAutomatic(true);
    TempDir dir, dest;
    DriveSelection drives;
    drives.pin({QmVolume{deckDrive(dir, deck::StatsState::Normal, 2), "Q", true}});
    BackupModel model(&drives);
    BackupTab tab(&model);
    SettingsModel updates;
    SettingsTab settings(&updates, &model);
    std::optional<QUrl> opened;
    model.setOpener([&](const QUrl& url) {
        opened = url;
        return true;
    });
    EXPECT_TRUE(withText<QLabel>(&tab, "No folder chosen"));
    for (const char* b : {"Back up now", "Check the copies", "Open the folder"})
        EXPECT_FALSE(withText(&tab, b)->isEnabled());
    EXPECT_TRUE(model.revealFolder());  // a reason, nothing opened

    // Cloud folders are looked for off the main thread when the settings show; the view follows.
    TempDir home;
    std::filesystem::create_directories(home / "Dropbox");
    const QByteArray oldHome = qgetenv("HOME");
    qputenv("HOME", QByteArray::fromStdString(home.path()));
    QSignalSpy changed(&model, &BackupModel::changed);
    settings.show();
    EXPECT_TRUE(model.detecting());
    ASSERT_TRUE(changed.wait(10000));
    qputenv("HOME", oldHome);
    ASSERT_TRUE(withText(&settings, "Dropbox"));
    EXPECT_TRUE(withText<QLabel>(&settings, "Found on this computer  -  not installed: Dropbox"));  // no client here

    // The drive's folder is looked for off the main thread too; nothing is there to open yet.
    const QString chosen = q(dest), folder = chosen + "/Quillmate/Q";
    settings.backupSection()->setFolderPicker([&](QWidget*, const QString&) { return chosen; });
    QTest::mouseClick(withText(&settings, "Choose a folder..."), Qt::LeftButton);
    EXPECT_EQ(model.destination(), chosen);
    EXPECT_TRUE(withText<QLabel>(&tab, chosen));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model.detecting(); }, 10000));
    EXPECT_EQ(model.folder(), folder);
    EXPECT_TRUE(withText(&tab, "Back up now")->isEnabled());
    EXPECT_FALSE(withText(&tab, "Open the folder")->isEnabled());
    EXPECT_TRUE(model.revealFolder());
    EXPECT_FALSE(opened);

    // A check before any copy says so, and makes no backup instead.
    QSignalSpy reported(&model, &BackupModel::reported);
    QTest::mouseClick(withText(&tab, "Check the copies"), Qt::LeftButton);
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_EQ(model.status(), BackupModel::kNothingToCheckStatus);
    EXPECT_FALSE(QFileInfo::exists(chosen + "/Quillmate"));

    QTest::mouseClick(withText(&tab, "Back up now"), Qt::LeftButton);
    EXPECT_EQ(model.status(), BackupModel::kCopyingStatus);
    EXPECT_FALSE(withText(&tab, "Check the copies")->isEnabled());
    model.runNow(false);  // ignored while the first one runs
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_FALSE(model.busy());
    EXPECT_FALSE(model.progress());
    EXPECT_TRUE(model.status().startsWith("Copied ")) << model.status().toStdString();
    EXPECT_TRUE(model.status().contains("), each one verified.\n"));
    EXPECT_TRUE(withText<QLabel>(&tab, model.status()));
    EXPECT_FALSE(model.warning());
    EXPECT_TRUE(withText(&tab, "Check the copies")->isEnabled());
    EXPECT_TRUE(withText(&tab, "Open the folder")->isEnabled());
    EXPECT_EQ(model.revealFolder(), std::nullopt);
    EXPECT_EQ(opened, QUrl::fromLocalFile(folder));
    model.setOpener([](const QUrl&) { return false; });
    EXPECT_EQ(model.revealFolder(), "The file manager could not be started. The copies are in " + folder);

    QTest::mouseClick(withText(&tab, "Check the copies"), Qt::LeftButton);
    EXPECT_EQ(model.status(), BackupModel::kCheckingStatus);
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_TRUE(model.status().startsWith("Already up to date (")) << model.status().toStdString();

    // The writing put back onto the stick after a loss: busy while it runs, then its outcome.
    std::filesystem::remove(dir / "Novel.md");
    model.restoreFrom(folder);
    EXPECT_TRUE(model.busy());
    EXPECT_EQ(model.status(), BackupModel::kRestoringStatus);
    ASSERT_TRUE(reported.wait(20000));
    EXPECT_TRUE(model.status().startsWith("Put back 1 file (")) << model.status().toStdString();
    EXPECT_TRUE(std::filesystem::exists(dir / "Novel.md"));

    BackupResult failed;
    failed.failures = {"a.md: gone"};
    model.show(failed, model.volume()->path);
    QLabel* warning = withText<QLabel>(&tab, "One copy could not be verified: a.md: gone");
    ASSERT_TRUE(warning);
    EXPECT_NE(warning->palette().color(QPalette::WindowText), tab.palette().color(QPalette::WindowText));

    auto* automatic = withText<QCheckBox>(&settings, "Copy new writing automatically, while this app is open");
    ASSERT_TRUE(automatic);
    EXPECT_TRUE(automatic->isChecked());
    automatic->click();
    EXPECT_FALSE(model.automatic());
    EXPECT_FALSE(BackupSettings::automatic());
    BackupSettings::setDestination(QString());
    BackupSettings::setAutomatic(true);
}

}  // namespace
